/**
 * fiscora.h - calls to the fiscal SAT or MFE device of a Brazilian point of sale. Plain C (C99, C++).
 *
 * Link with -lfiscora. There is nothing to set up or tear down: any function may be the first.
 *
 *     static char answer[FISCORA_ANSWER_MAX_BYTES + 1];
 *     strcpy(answer, ConsultarSAT(123456));
 *     if (CodigoErro() == FISCORA_STATUS_OK) puts(answer);        // 123456|08000|SAT em Operação||
 *
 * A fiscal function sends one command to the device over its USB serial line and waits for the answer:
 *
 * Result: the device's answer, fields separated by "|", field 0 the session number, field 1 the five-digit
 * code EEEEE of the fiscal standard. Zero-terminated, at most FISCORA_ANSWER_MAX_BYTES bytes, never null. The
 * memory is the library's: never free it, and copy what you keep, since the next fiscal function overwrites
 * it.
 *
 * Failure: the result is an empty text, as a rule, and CodigoErro() says why. Ask it after every call. An
 * answer that came too late (FISCORA_STATUS_TIMEOUT) or before a failure of the line can still stand in the
 * result. Status FISCORA_STATUS_OK says that the device answered, not that it agreed: look at EEEEE.
 *
 * Duration: the function blocks until the answer is there or the operation's timeout has run out, plus a
 * second's pause for the device. Each answer of a wrong kind starts the timeout anew, at most five times. A
 * device that stays silent for 50 seconds ends every call. With no device a call takes a second. A device
 * that takes no data ends the call by its timeout as well; kernels whose USB serial driver discards no output
 * (6.1) then hold it for half a minute more, when the port is closed.
 *
 * Nothing is repeated by the library. After a failure ask the device what it did before you send a document
 * again (ConsultarNumeroSessao with the session number of the failed call).
 *
 * Arguments: texts are zero-terminated bytes and are sent as they stand; a "|" inside one makes one more
 * field. A text must not be null. Each function tells how many bytes its texts may have together, without
 * their zeros, for a session number of at most six digits; a longer number takes from that. A null text or a
 * request that is too long is refused with FISCORA_STATUS_BAD_REQUEST: nothing is sent, and the function
 * returns at once. `numeroSessao` is the application's own number of the call, 0 to 999999, printed with six
 * digits. Other numbers, ranges and contents are judged by the device, not here.
 *
 * Threads: one call at a time in the process, from a thread that nobody cancels (pthread_cancel). No call
 * from a static destructor or an atexit handler.
 *
 * Signals are held back from the calling thread while it pauses or waits for the answer, a tenth of a second
 * at a time, a second at the end. A handler that was installed without SA_RESTART and runs while the device
 * is looked for can end the call with FISCORA_STATUS_NO_ANSWER, and one that interrupts the sending with
 * FISCORA_STATUS_TIMEOUT.
 *
 * Clock: durations are measured by the system's clock. Set forward during a call it shortens the wait, set
 * back it lengthens it, but not beyond 50 seconds of silence.
 *
 * Texts: bytes, passed on as they are in both directions. Documents are UTF-8, as they say themselves.
 *
 * Files: a debug log, logsDrs/logDrsYYYYMMDD.log below the working directory, written where it can be. In a
 * process that runs past midnight the day's first call makes an archive of the log before, by tar, with some
 * lines on the standard output; with eight files or more the oldest goes.
 */
#ifndef FISCORA_H
#define FISCORA_H

#ifdef __cplusplus
extern "C" {
#endif

/** Status of the last fiscal function, from CodigoErro(). */
enum FiscoraStatus {
    /** The device answered in time. An answer that does not decompress is handed out as it came. */
    FISCORA_STATUS_OK = 0,
    /** No device was found or its port would not open, and nothing was sent; or the answer was damaged; or
        memory ran out, before the sending or behind it. */
    FISCORA_STATUS_NO_ANSWER = 1,
    /** The line failed, such as a device that was unplugged, or one that was silent for 50 seconds. */
    FISCORA_STATUS_READ_ERROR = 2,
    /** The device kept sending answers to something else or too large ones: six, or fewer and then a damaged
       one. */
    FISCORA_STATUS_REFUSED = 4,
    /** A text was null or the request too long: nothing was sent. */
    FISCORA_STATUS_BAD_REQUEST = 8,
    /** The operation's timeout ran out. */
    FISCORA_STATUS_TIMEOUT = 32768
};

/** The longest answer in bytes, without its terminating zero. */
enum { FISCORA_ANSWER_MAX_BYTES = 1572864 };

/**
 * Activates the device for a taxpayer.
 * subComando: kind of activation, 1 to 3 in the fiscal standard; its low 16 bits count. codigoDeAtivacao: the
 * code to set, 8 to 32 characters. cnpj: the taxpayer's number, 14 digits. cUF: code of the federal unit
 * (IBGE); its low 16 bits count. Texts: 50 bytes together. EEEEE of success: 04000. Timeout: 302 s.
 */
char* AtivarSAT(int numeroSessao, int subComando, const char* codigoDeAtivacao, const char* cnpj, int cUF);

/**
 * Hands the device its ICP-Brasil certificate (PEM). Texts: 2087 bytes together. EEEEE of success: 05000.
 * Timeout: 302 s.
 */
char* ComunicarCertificadoICPBRASIL(int numeroSessao, const char* codigoDeAtivacao, const char* certificado);

/**
 * Sends a sale, the CF-e document in XML, to be signed and booked. The answer's field 6 is the signed
 * document in Base64: see Base64ToAscii. Texts: 1,572,895 bytes together. EEEEE of success: 06000. Timeout:
 * 10 s.
 */
char* EnviarDadosVenda(int numeroSessao, const char* codigoDeAtivacao, const char* dadosVenda);

/**
 * Cancels the last sale. chave: its access key, "CFe" and 44 digits. dadosCancelamento: the cancellation
 * document in XML; the first empty element <CNPJ/> and the first <CPF/> of the request are sent in their long
 * form. The answer's field 6 is the signed document in Base64: see Base64ToAscii. Texts: 1,572,942 bytes
 * together. EEEEE of success: 07000. Timeout: 7 s.
 */
char* CancelarUltimaVenda(int numeroSessao, const char* codigoDeAtivacao, const char* chave,
                          const char* dadosCancelamento);

/**
 * Asks whether the device is in operation; needs no activation code. EEEEE of success: 08000. Timeout: 6 s.
 */
char* ConsultarSAT(int numeroSessao);

/**
 * Tests the device and its network with a sample sale, which is not booked. Texts: 1,572,895 bytes together.
 * EEEEE of success: 09000. Timeout: 22 s.
 */
char* TesteFimAFim(int numeroSessao, const char* codigoDeAtivacao, const char* dadosVenda);

/**
 * Asks for the device's state: network, battery, memory, versions, last document. Text: 40 bytes. EEEEE of
 * success: 10000. Timeout: 20 s.
 */
char* ConsultarStatusOperacional(int numeroSessao, const char* codigoDeAtivacao);

/**
 * Asks for the answer that the device gave under another session number, which the result then holds behind
 * its own session number: the way to learn what became of a call that failed. cNumeroDeSessao: that number.
 * Text: 33 bytes. EEEEE is that answer's. Timeout: 22 s.
 */
char* ConsultarNumeroSessao(int numeroSessao, const char* codigoDeAtivacao, int cNumeroDeSessao);

/**
 * Configures the device's network, from an XML document. Texts: 1063 bytes together. EEEEE of success: 12000.
 * Timeout: 22 s.
 */
char* ConfigurarInterfaceDeRede(int numeroSessao, const char* codigoDeAtivacao,
                                const char* dadosConfiguracao);

/**
 * Registers the signature of the commercial application. cnpjValue: both taxpayers' numbers, 28 digits.
 * assinaturaCNPJs: the signature of them in Base64. Texts: 2118 bytes together. EEEEE of success: 13000.
 * Timeout: 900 s.
 */
char* AssociarAssinatura(int numeroSessao, const char* codigoDeAtivacao, const char* cnpjValue,
                         const char* assinaturaCNPJs);

/** Has the device update its software. Text: 40 bytes. EEEEE of success: 14000. Timeout: 1800 s. */
char* AtualizarSoftwareSAT(int numeroSessao, const char* codigoDeAtivacao);

/**
 * Fetches the device's log, in Base64 in the answer's field 5: see Base64ToAscii. Text: 40 bytes. EEEEE of
 * success: 15000. Timeout: 22 s.
 */
char* ExtrairLogs(int numeroSessao, const char* codigoDeAtivacao);

/** Blocks the device. Text: 40 bytes. EEEEE of success: 16000. Timeout: 302 s. */
char* BloquearSAT(int numeroSessao, const char* codigoDeAtivacao);

/** Unblocks the device. Text: 40 bytes. EEEEE of success: 17000. Timeout: 22 s. */
char* DesbloquearSAT(int numeroSessao, const char* codigoDeAtivacao);

/**
 * Changes the activation code. opcao: 1 where codigoDeAtivacao is the present code, 2 where it is the
 * emergency code; its low 16 bits count. novoCodigo and confNovoCodigo: the new code, twice. Texts: 100 bytes
 * together. EEEEE of success: 18000. Timeout: 22 s.
 */
char* TrocarCodigoDeAtivacao(int numeroSessao, const char* codigoDeAtivacao, int opcao,
                             const char* novoCodigo, const char* confNovoCodigo);

/**
 * The document inside the last answer, decoded from Base64: after EnviarDadosVenda and CancelarUltimaVenda
 * field 6, after ExtrairLogs field 5. The empty text after any other function, ConsultarNumeroSessao
 * included, or where the answer has no such field. Also prints the answer on the standard output, a line a
 * field. Needs no device, changes neither answer nor status. The text is the library's and stays until the
 * next call of this function. Never null.
 */
char* Base64ToAscii(void);

/** Status of the last fiscal function, a FiscoraStatus; 0 before the first. Reading it resets nothing. */
int CodigoErro(void);

/** Does nothing, and need not be called: each fiscal function opens the port and closes it again. */
void CloseSerial(void);

/** The driver's version, such as "01.00.01.001", readable for as long as the library is loaded. */
const char* getVersion(void);

#ifdef __cplusplus
}
#endif

#endif

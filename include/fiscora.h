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
 * Result: the device's answer, fields separated by "|": field 0 is the session number, field 1 the five-digit
 * code EEEEE of the fiscal standard. Zero-terminated, at most FISCORA_ANSWER_MAX_BYTES bytes, never null. The
 * memory is the library's: never free it, and copy what you keep, since the next fiscal function overwrites
 * it.
 *
 * Failure: the result is usually an empty text, and CodigoErro() says why. Ask it after every call. An answer
 * that came too late (FISCORA_STATUS_TIMEOUT) or before the line failed can still be in the result. Status
 * FISCORA_STATUS_OK says that the device answered, not that it agreed: look at EEEEE.
 *
 * Duration: the function blocks until the answer has arrived or the operation's timeout has run out, and then
 * for the second that the device needs between two calls. Each answer to something else restarts the timeout,
 * at most five times. A device that is silent for 50 seconds ends every call. Without a device a call takes a
 * second. If the device takes no data, the timeout ends the call as well; kernels whose USB serial driver
 * discards no output (6.1) then take half a minute more to close the port.
 *
 * Retries: the library never repeats a command. After a failure ask the device what it did before you send a
 * document again (ConsultarNumeroSessao with the session number of the failed call).
 *
 * Arguments: texts are zero-terminated bytes and are sent unchanged; a "|" inside one starts a new field. A
 * text must not be null. Each function states how many bytes its texts may have together, without their
 * zeros, for a session number of up to six digits; a longer number leaves less room. If a text is null or the
 * request too long, the status is FISCORA_STATUS_BAD_REQUEST: nothing is sent, and the function returns at
 * once. `numeroSessao` is the application's own number for the call, 0 to 999999, sent with six digits. The
 * library checks no numbers, ranges or contents; the device does.
 *
 * Threads: one call at a time per process, from a thread that nobody cancels (pthread_cancel). No call from a
 * static destructor or an atexit handler.
 *
 * Signals are blocked in the calling thread while it pauses or waits for the answer: a tenth of a second at a
 * time, and a second at the end. A handler installed without SA_RESTART can end the call: with
 * FISCORA_STATUS_NO_ANSWER if it runs during the search for the device, with FISCORA_STATUS_TIMEOUT if it
 * interrupts the sending. What the library writes raises neither SIGXFSZ nor SIGPIPE.
 *
 * Clock: durations are measured by the system's clock. If it is set forward during a call, the wait gets
 * shorter; if it is set back, longer, but never more than 50 seconds of silence.
 *
 * Memory: if it runs out before the request is sent, the status is FISCORA_STATUS_NO_ANSWER. If a request
 * cannot be compressed, it is sent uncompressed. If an answer cannot be inflated, the result is the answer as
 * it came, and the status is FISCORA_STATUS_OK.
 *
 * Texts: bytes, passed on unchanged in both directions. Documents are UTF-8, as their XML declares.
 *
 * Files: a debug log, logsDrs/logDrsYYYYMMDD.log in the current working directory. The process makes
 * the folder once, at its first call; a line that cannot be written is dropped. If a process runs past
 * midnight, its first call of the new day archives the previous log with tar and prints some lines on
 * standard output. If there are eight files or more then, the oldest is removed.
 */
#ifndef FISCORA_H
#define FISCORA_H

#ifdef __cplusplus
extern "C" {
#endif

/** Status of the last fiscal function, from CodigoErro(). */
enum FiscoraStatus {
    /** The device answered in time. If the answer cannot be inflated, the result is the answer as it came. */
    FISCORA_STATUS_OK = 0,
    /** No device was found or its port did not open, and nothing was sent; or the answer was damaged; or
        memory ran out, before or after the request was sent. */
    FISCORA_STATUS_NO_ANSWER = 1,
    /** The line failed: the device was unplugged, say, or silent for 50 seconds. */
    FISCORA_STATUS_READ_ERROR = 2,
    /** The device sent only answers to something else or answers that are too long: six of them, or fewer
        and then a damaged one. */
    FISCORA_STATUS_REFUSED = 4,
    /** A text was null or the request too long; nothing was sent. */
    FISCORA_STATUS_BAD_REQUEST = 8,
    /** The operation's timeout ran out. */
    FISCORA_STATUS_TIMEOUT = 32768
};

/** The longest answer in bytes, without its terminating zero. */
enum { FISCORA_ANSWER_MAX_BYTES = 1572864 };

/**
 * Activates the device for a taxpayer.
 * subComando: kind of activation, 1 to 3 in the fiscal standard; only its low 16 bits are used.
 * codigoDeAtivacao: the code to set, 8 to 32 characters. cnpj: the taxpayer's number, 14 digits. cUF: code of
 * the federal unit (IBGE); only its low 16 bits are used. Texts: 50 bytes together. EEEEE of success: 04000.
 * Timeout: 302 s.
 */
char* AtivarSAT(int numeroSessao, int subComando, const char* codigoDeAtivacao, const char* cnpj, int cUF);

/**
 * Gives the device its ICP-Brasil certificate (PEM). Texts: 2087 bytes together. EEEEE of success: 05000.
 * Timeout: 302 s.
 */
char* ComunicarCertificadoICPBRASIL(int numeroSessao, const char* codigoDeAtivacao, const char* certificado);

/**
 * Sends a sale, the CF-e document in XML, to be signed and booked. Field 6 of the answer is the signed
 * document in Base64; see Base64ToAscii. Texts: 1,572,895 bytes together. EEEEE of success: 06000. Timeout:
 * 10 s.
 */
char* EnviarDadosVenda(int numeroSessao, const char* codigoDeAtivacao, const char* dadosVenda);

/**
 * Cancels the last sale. chave: its access key, "CFe" and 44 digits. dadosCancelamento: the cancellation
 * document in XML; the first empty element <CNPJ/> and the first <CPF/> of the request are sent in their long
 * form. Field 6 of the answer is the signed document in Base64; see Base64ToAscii. Texts: 1,572,942 bytes
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
 * Asks for the answer that the device gave under another session number, and so for what became of a failed
 * call. The result is that answer, after this call's own session number. cNumeroDeSessao: the other number.
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
 * Fetches the device's log, in Base64 in field 5 of the answer; see Base64ToAscii. Text: 40 bytes. EEEEE of
 * success: 15000. Timeout: 22 s.
 */
char* ExtrairLogs(int numeroSessao, const char* codigoDeAtivacao);

/** Blocks the device. Text: 40 bytes. EEEEE of success: 16000. Timeout: 302 s. */
char* BloquearSAT(int numeroSessao, const char* codigoDeAtivacao);

/** Unblocks the device. Text: 40 bytes. EEEEE of success: 17000. Timeout: 22 s. */
char* DesbloquearSAT(int numeroSessao, const char* codigoDeAtivacao);

/**
 * Changes the activation code. opcao: 1 if codigoDeAtivacao is the present code, 2 if it is the emergency
 * code; only its low 16 bits are used. novoCodigo and confNovoCodigo: the new code, twice. Texts: 100 bytes
 * together. EEEEE of success: 18000. Timeout: 22 s.
 */
char* TrocarCodigoDeAtivacao(int numeroSessao, const char* codigoDeAtivacao, int opcao,
                             const char* novoCodigo, const char* confNovoCodigo);

/**
 * Decodes the document in the last answer from Base64: field 6 after EnviarDadosVenda and
 * CancelarUltimaVenda, field 5 after ExtrairLogs. After any other function, ConsultarNumeroSessao included,
 * or if the answer has no such field, the result is an empty text. Also prints the answer's fields on the
 * standard output, one per line. Needs no device; changes neither answer nor status. The text is the
 * library's and stays valid until the next call of this function. Never null.
 */
char* Base64ToAscii(void);

/** Status of the last fiscal function, a FiscoraStatus; 0 before the first. Reading it resets nothing. */
int CodigoErro(void);

/** Does nothing and need not be called: each fiscal function opens the port and closes it again. */
void CloseSerial(void);

/** The driver's version, such as "01.00.01.001", readable as long as the library is loaded. */
const char* getVersion(void);

#ifdef __cplusplus
}
#endif

#endif

/* A day at the till in C: query, sale, cancellation, the device's log. README.md says how to build and run
 * it. Exit status: 0 all done, 1 stopped, 2 not started, 3 a document is pending. */
#define _XOPEN_SOURCE 500 /* sync(2) */
#include <errno.h>
#include <fiscora.h>
#include <fiscora_status.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum { STOPPED = 1, NOT_STARTED = 2, DOCUMENT_PENDING = 3 };
enum { ATTEMPTS = 2, QUERIES = 5, PAUSE_S = 2 };
enum { SESSION = 0, EEEEE = 1, LOG = 5, DOCUMENT = 6, KEY = 8, FIELDS = 32 };

static const char PENDING[] = "pendente.txt";

static const char *activation_code, *sale, *cancellation;
static char key[48]; /* the sale's access key: "CFe" and 44 digits */

/* The answer to the last call, copied because the next call overwrites the library's buffer, and split into
 * fields; missing fields are empty. The bytes are as the device sent them: UTF-8 or, with some devices,
 * Latin-1, which iconv(3) converts. */
static char answer[FISCORA_ANSWER_MAX_BYTES + 1];
static char* field[FIELDS];

/* Exits with `exit_status`, or with DOCUMENT_PENDING if pendente.txt exists. */
static void stop(int exit_status, const char* why) {
    char pending[64] = "";
    FILE* file;
    puts(why);
    if (access(PENDING, F_OK) != 0) exit(exit_status);
    file = fopen(PENDING, "r");
    if (file == NULL || fgets(pending, sizeof pending, file) == NULL) perror(PENDING);
    printf("Antes de enviar outro documento, consulte a sessão e apague pendente.txt (README.md): %s\n",
           pending);
    exit(DOCUMENT_PENDING);
}

static void fail(const char* path, const char* problem) {
    fprintf(stderr, "%s: %s\n", path, problem);
    stop(STOPPED, "Não foi possível continuar");
}

/* Writes the whole file or leaves the old one as it was. */
static void write_file(const char* path, const char* content, size_t size) {
    FILE* file = fopen("gravando.tmp", "wb");
    bool written = file != NULL && fwrite(content, 1, size, file) == size;
    written = file != NULL && fclose(file) == 0 && written;
    if (!written || rename("gravando.tmp", path) != 0) fail(path, strerror(errno));
}

/* A number that no call has used, not even in an earlier run: a device books one document per number. */
static int next_session(void) {
    int last;
    char text[16];
    FILE* file = fopen("sessao.txt", "r");
    if (file == NULL || fscanf(file, "%6d", &last) != 1 || last < 0) last = (int)(time(NULL) % 1000000);
    if (file != NULL) fclose(file);

    last = (last + 1) % 1000000;
    sprintf(text, "%06d\n", last);
    write_file("sessao.txt", text, strlen(text));
    return last;
}

static bool code_begins_with(const char* digits) {
    return strncmp(field[EEEEE], digits, strlen(digits)) == 0;
}

static bool is_number(const char* text, size_t digits) {
    return strlen(text) == digits && strspn(text, "0123456789") == digits;
}

/* Keeps and reports the answer. True if it is complete, in time, has this call's number in field 0, or the
 * number asked about, which some devices put there, and says more than that the device is busy. */
static bool receive(const char* operation, int session, int asked, const char* result) {
    const int status = CodigoErro();
    char* rest = strcpy(answer, result);
    for (int i = 0; i < FIELDS; ++i) {
        field[i] = rest;
        rest += strcspn(rest, "|");
        if (*rest != '\0') *rest++ = '\0';
    }
    printf("%s, sessão %06d: ", operation, session);
    if (status != FISCORA_STATUS_OK || !is_number(field[SESSION], 6) || !is_number(field[EEEEE], 5) ||
        (atoi(field[SESSION]) != session && atoi(field[SESSION]) != asked)) {
        printf("status %d. %s\n", status,
               status == FISCORA_STATUS_OK ? "Resposta ilegível ou de outra sessão."
                                           : fiscora_status_text(status));
        return false;
    }
    /* In the answer to a document, CCCC comes before the message. */
    printf("%s %s\n", field[EEEEE], field[code_begins_with("06") || code_begins_with("07") ? 3 : 2]);
    return strcmp(field[EEEEE] + 2, "098") != 0 && strcmp(field[EEEEE] + 2, "099") != 0;
}

static void expect(bool received, const char* eeeee) {
    if (!received || !code_begins_with(eeeee)) stop(STOPPED, "Não foi feito: o programa termina aqui");
}

/* Asks the device what it did in a session whose answer was lost. True: that answer is now the last answer.
 * False: the device does not know the session. */
static bool ask_about(int lost) {
    printf("Não envie de novo: consultando a sessão %06d\n", lost);
    for (int query = 0; query < QUERIES; ++query) {
        const int session = next_session();
        const char* const result = ConsultarNumeroSessao(session, activation_code, lost);
        const bool answered = receive("ConsultarNumeroSessao", session, lost, result);
        if (answered && code_begins_with("11003")) return false;
        if (answered && !code_begins_with("11")) return true; /* 11...: query refused, perhaps busy */
        sleep(PAUSE_S);
    }
    stop(DOCUMENT_PENDING, "O equipamento não disse o que houve");
    return false;
}

static const char* send_sale(int session) { return EnviarDadosVenda(session, activation_code, sale); }

static const char* send_cancellation(int session) {
    return CancelarUltimaVenda(session, activation_code, key, cancellation);
}

/* Sends a document; sends it again only if the device says that it never got it. */
static bool deliver(const char* operation, const char* (*send)(int session)) {
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        const int session = next_session();
        char text[64];
        snprintf(text, sizeof text, "%s %06d", operation, session);
        write_file(PENDING, text, strlen(text));
        sync(); /* pendente.txt must survive a power cut during the call */
        if (receive(operation, session, session, send(session))) return true;
        if (CodigoErro() == FISCORA_STATUS_BAD_REQUEST) return false;
        if (ask_about(session)) return true;
    }
    return false;
}

/* Decodes a field from Base64, in place, and writes it to a file. Base64ToAscii will not do: it does not
 * decode answers to ConsultarNumeroSessao, and it prints the answer. */
static void save(const char* path, char* base64) {
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const size_t digits = strspn(base64, alphabet), padding = strspn(base64 + digits, "=");
    size_t size = 0;
    unsigned value = 0;
    int bits = 0;
    if (digits == 0 || padding > 2 || (digits + padding) % 4 != 0 || base64[digits + padding] != '\0')
        fail(path, "Base64 danificado");
    for (size_t i = 0; i < digits; ++i) {
        value = value << 6 | (unsigned)(strchr(alphabet, base64[i]) - alphabet);
        bits += 6;
        if (bits >= 8) base64[size++] = (char)(value >> (bits -= 8));
    }
    write_file(path, base64, size);
    printf("Gravado: %s\n", path);
}

/* Books a document, saves the signed copy and keeps its access key in `key`. */
static void book(const char* operation, const char* (*send)(int session), const char* eeeee) {
    const bool answered = deliver(operation, send);
    if (answered && code_begins_with(eeeee)) {
        char path[sizeof key + 4];
        const char* const given = field[KEY];
        if (strncmp(given, "CFe", 3) != 0 || !is_number(given + 3, 44))
            fail(given, "chave inválida"); /* it becomes a file name */
        sprintf(path, "%s.xml", strcpy(key, given));
        save(path, field[DOCUMENT]);
        sync();
    }
    if (remove(PENDING) != 0) fail(PENDING, strerror(errno));
    expect(answered, eeeee);
}

/* The content of a file, with room for a key to be inserted. */
static char* read_file(const char* path) {
    enum { MOST = 2 * FISCORA_ANSWER_MAX_BYTES };
    char* text = calloc(1, MOST + sizeof key);
    FILE* file = fopen(path, "rb");
    if (text == NULL || file == NULL || fread(text, 1, MOST, file) == 0)
        stop(NOT_STARTED, "Faltam venda.xml e cancelamento.xml, em UTF-8, na pasta atual");
    fclose(file);
    return text;
}

int main(void) {
    char *form, *mark, *rest;
    int session;
    if (access(PENDING, F_OK) == 0) stop(DOCUMENT_PENDING, "Nada foi enviado");
    activation_code = getenv("CODIGO_DE_ATIVACAO");
    if (activation_code == NULL) stop(NOT_STARTED, "Informe o código de ativação em CODIGO_DE_ATIVACAO");
    sale = read_file("venda.xml");
    cancellation = form = read_file("cancelamento.xml");
    mark = strstr(form, "CHAVE");
    if (mark == NULL) stop(NOT_STARTED, "Falta a palavra CHAVE em cancelamento.xml");
    printf("Biblioteca fiscora, driver %s\n", getVersion());

    session = next_session();
    expect(receive("ConsultarSAT", session, session, ConsultarSAT(session)), "08000");

    book("EnviarDadosVenda", send_sale, "06000");

    rest = mark + strlen("CHAVE");
    memmove(mark + strlen(key), rest, strlen(rest) + 1);
    memcpy(mark, key, strlen(key));
    book("CancelarUltimaVenda", send_cancellation, "07000");

    session = next_session();
    expect(receive("ExtrairLogs", session, session, ExtrairLogs(session, activation_code)), "15000");
    save("sat.log", field[LOG]);
    return EXIT_SUCCESS;
}

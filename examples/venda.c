/* A day at the till in C: status, sale, cancellation, the device's log. README.md says how to build and run
 * it. Exit status: 0 all done, 1 not done, 2 nothing begun, 3 nobody knows what became of a document. */
#define _XOPEN_SOURCE 500 /* sync(2) */
#include <errno.h>
#include <fiscora.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum { NOT_DONE = 1, NOT_BEGUN = 2, UNKNOWN = 3 };
enum { SENDINGS = 2, QUESTIONS = 5, PAUSE = 2 }; /* s */
enum { SESSION = 0, EEEEE = 1, LOG = 5, DOCUMENT = 6, KEY = 8, FIELDS = 32 };

static const char PENDING[] = "pendente.txt";

static const char *code, *sale, *cancellation; /* of activation; documents */
static char key[48];                           /* of access: "CFe" and 44 digits */

/* The last call's answer, copied since the next call overwrites the library's, and cut into fields; those
 * that it has not are empty. Bytes as the device sent them, UTF-8 or, from some devices, Latin-1: iconv(3)
 * converts. */
static char answer[FISCORA_ANSWER_MAX_BYTES + 1];
static char* field[FIELDS];

/* Ends the day; with UNKNOWN as long as pendente.txt stands. */
static void stop(int exit_status, const char* why) {
    char pending[64] = "";
    FILE* file;
    puts(why);
    if (access(PENDING, F_OK) != 0) exit(exit_status);
    file = fopen(PENDING, "r");
    if (file == NULL || fgets(pending, sizeof pending, file) == NULL) perror(PENDING);
    printf("Antes de enviar outro documento, pergunte pela sessão e apague pendente.txt (README.md): %s\n",
           pending);
    exit(UNKNOWN);
}

static void fail(const char* path, const char* problem) {
    fprintf(stderr, "%s: %s\n", path, problem);
    stop(NOT_DONE, "Não foi possível continuar");
}

/* Writes a file whole or not at all. */
static void write_file(const char* path, const char* content, size_t size) {
    FILE* file = fopen("gravando.tmp", "wb");
    bool written = file != NULL && fwrite(content, 1, size, file) == size;
    written = file != NULL && fclose(file) == 0 && written;
    if (!written || rename("gravando.tmp", path) != 0) fail(path, strerror(errno));
}

static const char* explain(int status) {
    switch (status) {
        case FISCORA_STATUS_OK: return "resposta ilegível ou de outra sessão";
        case FISCORA_STATUS_NO_ANSWER: return "sem equipamento ou resposta danificada: verifique o cabo";
        case FISCORA_STATUS_READ_ERROR: return "a linha caiu: verifique o cabo e a energia do equipamento";
        case FISCORA_STATUS_REFUSED: return "resposta de outro comando: desligue e ligue o equipamento";
        case FISCORA_STATUS_BAD_REQUEST: return "pedido grande demais, nada foi enviado: corrija os dados";
        case FISCORA_STATUS_TIMEOUT: return "sem resposta a tempo: o equipamento pode estar ocupado";
        default: return "status desconhecido";
    }
}

/* A number that no call had before, in no earlier run either: a device books one document a number. */
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

/* Whether EEEEE begins with these digits. */
static bool says(const char* digits) { return strncmp(field[EEEEE], digits, strlen(digits)) == 0; }

static bool is_number(const char* text, size_t digits) {
    return strlen(text) == digits && strspn(text, "0123456789") == digits;
}

/* Keeps and reports the answer. True where it is one: in time, whole, and under the number of this very call
 * or the one that it asks about, which some devices put there. */
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
        printf("status %d, %s\n", status, explain(status));
        return false;
    }
    printf("%s %s\n", field[EEEEE],
           field[says("06") || says("07") ? 3 : 2]); /* a document's CCCC stands between */
    return true;
}

static void expect(bool received, const char* eeeee) {
    if (!received || !says(eeeee)) stop(NOT_DONE, "Não foi feito: o dia termina aqui");
}

/* Learns what the device did in a session that had no answer. True: it answered, and that is the answer now.
 * False: it knows nothing of it. */
static bool ask_about(int lost) {
    printf("Não envie de novo: perguntando pela sessão %06d\n", lost);
    for (int question = 0; question < QUESTIONS; ++question) {
        const int session = next_session();
        const char* const result = ConsultarNumeroSessao(session, code, lost);
        const bool answered = receive("ConsultarNumeroSessao", session, lost, result);
        if (answered && says("11003")) return false;
        if (answered && !says("11"))
            return true; /* else the question is refused, by a busy device for example */
        sleep(PAUSE);
    }
    stop(UNKNOWN, "O equipamento não disse o que houve");
    return false;
}

static const char* send_sale(int session) { return EnviarDadosVenda(session, code, sale); }

static const char* send_cancellation(int session) {
    return CancelarUltimaVenda(session, code, key, cancellation);
}

/* Sends a document until the device has answered, a second time only where it knows nothing of the first. */
static bool deliver(const char* operation, const char* (*send)(int session)) {
    for (int sending = 0; sending < SENDINGS; ++sending) {
        const int session = next_session();
        char text[64];
        snprintf(text, sizeof text, "%s %06d", operation, session);
        write_file(PENDING, text, strlen(text));
        sync(); /* a power cut from here on leaves pendente.txt */
        if (receive(operation, session, session, send(session))) return true;
        if (CodigoErro() == FISCORA_STATUS_BAD_REQUEST) return false;
        if (ask_about(session)) return true;
    }
    return false;
}

/* Decodes a field from Base64, in its place, to a file. Base64ToAscii decodes the last answer too, but not
 * one that was asked for by its session number, and prints it. */
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

/* Books a document under `eeeee` and saves it as the device has signed it. Its key is in `key` then. */
static void book(const char* operation, const char* (*send)(int session), const char* eeeee) {
    const bool answered = deliver(operation, send);
    if (answered && says(eeeee)) {
        char path[sizeof key + 4];
        const char* const given = field[KEY];
        if (strncmp(given, "CFe", 3) != 0 || !is_number(given + 3, 44))
            fail(given, "chave inválida"); /* it becomes a file's name */
        sprintf(path, "%s.xml", strcpy(key, given));
        save(path, field[DOCUMENT]);
        sync();
    }
    if (remove(PENDING) != 0) fail(PENDING, strerror(errno));
    expect(answered, eeeee);
}

/* With room for a key behind it. */
static char* read_file(const char* path) {
    enum { MOST = 2 * FISCORA_ANSWER_MAX_BYTES };
    char* text = calloc(1, MOST + sizeof key);
    FILE* file = fopen(path, "rb");
    if (text == NULL || file == NULL || fread(text, 1, MOST, file) == 0)
        stop(NOT_BEGUN, "Faltam venda.xml e cancelamento.xml, em UTF-8, na pasta atual");
    fclose(file);
    return text;
}

int main(void) {
    char *form, *mark, *behind;
    int session;
    if (access(PENDING, F_OK) == 0) stop(UNKNOWN, "Nada foi enviado");
    code = getenv("CODIGO_DE_ATIVACAO");
    if (code == NULL) stop(NOT_BEGUN, "Informe o código de ativação em CODIGO_DE_ATIVACAO");
    sale = read_file("venda.xml");
    cancellation = form = read_file("cancelamento.xml");
    mark = strstr(form, "CHAVE");
    if (mark == NULL) stop(NOT_BEGUN, "Falta a palavra CHAVE em cancelamento.xml");
    printf("Biblioteca fiscora, driver %s\n", getVersion());

    session = next_session();
    expect(receive("ConsultarSAT", session, session, ConsultarSAT(session)), "08000");

    book("EnviarDadosVenda", send_sale, "06000");

    behind = mark + strlen("CHAVE");
    memmove(mark + strlen(key), behind, strlen(behind));
    memcpy(mark, key, strlen(key));
    book("CancelarUltimaVenda", send_cancellation, "07000");

    session = next_session();
    expect(receive("ExtrairLogs", session, session, ExtrairLogs(session, code)), "15000");
    save("sat.log", field[LOG]);
    return EXIT_SUCCESS;
}

/* A day at the till in C: status, sale, cancellation, the device's log. README.md says how to build and run
 * it. Exit status: 0 all done, 1 not done, 2 nothing begun, 3 nobody knows what became of a document. */
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

static const char *code, *sale; /* of activation; a document */
static char key[64], cancellation[4096];

/* The last call's answer, copied since the next call overwrites the library's, and cut into fields; those
 * that it has not are empty. Bytes as the device sent them, UTF-8 or, from some devices, Latin-1: iconv(3)
 * converts. */
static char answer[FISCORA_ANSWER_MAX_BYTES + 1];
static char* field[FIELDS];

static void stop(int exit_status, const char* why) {
    puts(why);
    exit(exit_status);
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
    FILE* file = fopen("sessao.txt", "r");
    if (file == NULL || fscanf(file, "%6d", &last) != 1 || last < 0) last = (int)(time(NULL) % 1000000);
    if (file != NULL) fclose(file);

    last = (last + 1) % 1000000;
    file = fopen("sessao.txt", "w");
    if (file == NULL || fprintf(file, "%06d\n", last) < 0 || fclose(file) != 0)
        stop(NOT_DONE, "Não foi possível gravar sessao.txt");
    return last;
}

/* Whether EEEEE begins with these digits. */
static bool says(const char* digits) { return strncmp(field[EEEEE], digits, strlen(digits)) == 0; }

/* Keeps and reports the answer. True where it is one: in time, whole, and under the number of this very call
 * or the one that it asks about, which some devices put there. */
static bool receive_about(int asked, const char* operation, int session, const char* result) {
    const int status = CodigoErro();
    int number;
    char* rest = strcpy(answer, result);
    for (int i = 0; i < FIELDS; ++i) {
        field[i] = rest;
        rest += strcspn(rest, "|");
        if (*rest != '\0') *rest++ = '\0';
    }
    number = strlen(field[SESSION]) == 6 ? atoi(field[SESSION]) : -1;
    printf("%s, sessão %06d: ", operation, session);
    if (status != FISCORA_STATUS_OK || (number != session && number != asked) || strlen(field[EEEEE]) != 5 ||
        strspn(field[EEEEE], "0123456789") != 5) {
        printf("status %d, %s\n", status, explain(status));
        return false;
    }
    printf("%s %s\n", field[EEEEE],
           field[says("06") || says("07") ? 3 : 2]); /* a document's CCCC stands between */
    return true;
}

static bool receive(const char* operation, int session, const char* result) {
    return receive_about(session, operation, session, result);
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
        const bool answered = receive_about(lost, "ConsultarNumeroSessao", session, result);
        if (answered && says("11003")) return false;
        if (answered && !says("11"))
            return true; /* else the question is refused, by a busy device for example */
        sleep(PAUSE);
    }
    printf("Sessão %06d pendente: pergunte por ela antes de enviar outro documento\n", lost);
    exit(UNKNOWN);
}

/* Sends a document until the device has answered, a second time only where it knows nothing of the first. */
static bool book(bool (*send)(int session)) {
    for (int sending = 0; sending < SENDINGS; ++sending) {
        const int session = next_session();
        if (send(session)) return true;
        if (CodigoErro() == FISCORA_STATUS_BAD_REQUEST) return false;
        if (ask_about(session)) return true;
    }
    return false;
}

static bool send_sale(int session) {
    return receive("EnviarDadosVenda", session, EnviarDadosVenda(session, code, sale));
}

static bool send_cancellation(int session) {
    return receive("CancelarUltimaVenda", session, CancelarUltimaVenda(session, code, key, cancellation));
}

/* Decodes a field from Base64 to a file. Base64ToAscii decodes the last answer too, but not one that was
 * asked for by its session number, and prints it. */
static void save(const char* name, const char* suffix, const char* base64) {
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    char path[sizeof key + 8];
    unsigned value = 0;
    int bits = 0;
    FILE* file;
    snprintf(path, sizeof path, "%s%s", name, suffix);
    file = fopen(path, "wb");
    for (const char* digit; file != NULL && *base64 != '\0' && (digit = strchr(digits, *base64)) != NULL;
         ++base64) {
        value = value << 6 | (unsigned)(digit - digits);
        bits += 6;
        if (bits >= 8) putc((int)(value >> (bits -= 8) & 0xFF), file);
    }
    if (file == NULL || ferror(file) || fclose(file) != 0)
        stop(NOT_DONE, "Não foi possível gravar o documento");
    printf("Gravado: %s\n", path);
}

static const char* read_file(const char* path) {
    enum { MOST = 2 * FISCORA_ANSWER_MAX_BYTES };
    char* text = calloc(1, MOST + 1);
    FILE* file = fopen(path, "rb");
    if (text == NULL || file == NULL || fread(text, 1, MOST, file) == 0)
        stop(NOT_BEGUN, "Faltam venda.xml e cancelamento.xml na pasta atual");
    fclose(file);
    return text;
}

int main(void) {
    const char *form, *mark;
    int session;
    code = getenv("CODIGO_DE_ATIVACAO");
    if (code == NULL) stop(NOT_BEGUN, "Informe o código de ativação em CODIGO_DE_ATIVACAO");
    sale = read_file("venda.xml");
    form = read_file("cancelamento.xml");
    mark = strstr(form, "CHAVE");
    if (mark == NULL || strlen(form) + sizeof key > sizeof cancellation)
        stop(NOT_BEGUN, "Falta CHAVE em cancelamento.xml, ou ele é grande demais");
    printf("Biblioteca fiscora, driver %s\n", getVersion());

    session = next_session();
    expect(receive("ConsultarSAT", session, ConsultarSAT(session)), "08000");

    expect(book(send_sale), "06000");
    save(field[KEY], ".xml", field[DOCUMENT]);

    snprintf(key, sizeof key, "%s", field[KEY]);
    snprintf(cancellation, sizeof cancellation, "%.*s%s%s", (int)(mark - form), form, key,
             mark + strlen("CHAVE"));
    expect(book(send_cancellation), "07000");
    save(field[KEY], ".xml", field[DOCUMENT]);

    session = next_session();
    expect(receive("ExtrairLogs", session, ExtrairLogs(session, code)), "15000");
    save("sat", ".log", field[LOG]);
    return EXIT_SUCCESS;
}

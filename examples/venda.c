/* Queries the device and makes a sale, with the library. README.md explains exit status 3. */
#include <fiscora.h>
#include <fiscora_status.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { NOT_SOLD = 1, OUTCOME_UNKNOWN = 3 };
enum { SESSION = 0, EEEEE = 1, KEY = 8, FIELDS = 32 };
static char sale[2 * FISCORA_ANSWER_MAX_BYTES]; /* more than the library takes: it refuses what is too long */
static char answer[FISCORA_ANSWER_MAX_BYTES + 1]; /* of the last call; missing fields are empty */
static char* field[FIELDS];

/* Copies the answer, for the next call overwrites it. True if it is this call's, and no "busy". */
static bool receive(const char* operation, int session, const char* result) {
    char* rest = strcpy(answer, result);
    printf("%s, sessão %06d: %s %.40s\n", operation, session, fiscora_status_text(CodigoErro()), result);
    for (int i = 0; i < FIELDS; ++i) {
        field[i] = rest;
        rest += strcspn(rest, "|");
        if (*rest != '\0') *rest++ = '\0';
    }
    return CodigoErro() == FISCORA_STATUS_OK && strlen(field[SESSION]) == 6 &&
           atoi(field[SESSION]) == session && strspn(field[EEEEE], "0123456789") == 5 &&
           strcmp(field[EEEEE] + 2, "098") != 0 && strcmp(field[EEEEE] + 2, "099") != 0;
}
static int stop(int exit_status, const char* why) { return puts(why), exit_status; }

int main(void) {
    char path[64];
    const char* const code = getenv("CODIGO_DE_ATIVACAO");
    FILE* file = fopen("venda.xml", "rb");
    if (code == NULL || file == NULL || fread(sale, 1, sizeof sale - 1, file) == 0)
        return stop(NOT_SOLD, "Faltam CODIGO_DE_ATIVACAO ou venda.xml");
    fclose(file);
    int session = (int)(time(NULL) % 500000 * 2); /* this and the next: others in each second */
    if (!receive("ConsultarSAT", session, ConsultarSAT(session)) || strcmp(field[EEEEE], "08000") != 0)
        return stop(NOT_SOLD, "O equipamento não está em operação");
    session = (session + 1) % 1000000;
    file = fopen("pendente.txt", "wx"); /* fails if the file exists: an earlier sale has no outcome yet */
    if (file == NULL || fprintf(file, "%06d\n", session) < 0 || fclose(file) != 0)
        return stop(OUTCOME_UNKNOWN, "Resolva primeiro a venda de pendente.txt: veja README.md");
    const bool own = receive("EnviarDadosVenda", session, EnviarDadosVenda(session, code, sale));
    if (!own && CodigoErro() != FISCORA_STATUS_BAD_REQUEST)
        return stop(OUTCOME_UNKNOWN, "Não venda de novo: não se sabe se esta foi feita. Veja README.md");
    const bool sold = own && strcmp(field[EEEEE], "06000") == 0;
    if (sold && (strlen(field[KEY]) != 47 || strspn(field[KEY], "CFe0123456789") != 47))
        return stop(OUTCOME_UNKNOWN, "A chave de acesso é inválida"); /* it becomes a file name */
    if (sold) {
        sprintf(path, "%s.xml", field[KEY]);
        file = fopen(path, "wb");
        if (file == NULL || fputs(Base64ToAscii(), file) < 0 || fclose(file) != 0)
            return stop(OUTCOME_UNKNOWN, "A venda foi feita, mas não pôde ser gravada");
        printf("Gravado: %s\n", path);
    }
    remove("pendente.txt");
    return sold ? EXIT_SUCCESS : NOT_SOLD;
}

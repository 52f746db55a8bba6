/* A working day in small: asks the device for its state, sells, cancels the sale, and fetches the device's
 * log. Build: cc demo.c -lfiscora. Run without a device: fiscora sim -- ./demo */
#include <fiscora.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define ACTIVATION_CODE "12345678" /* the simulated device's */

static const char SALE[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<CFe><infCFe versaoDadosEnt=\"0.08\">"
    "<ide><CNPJ>16716114000172</CNPJ><signAC>SGR-SAT SISTEMA DE GESTAO E RETAGUARDA DO SAT</signAC>"
    "<numeroCaixa>001</numeroCaixa></ide>"
    "<emit><CNPJ>14200166000166</CNPJ><IE>111111111111</IE><indRatISSQN>N</indRatISSQN></emit>"
    "<dest/>"
    "<det nItem=\"1\"><prod><cProd>116</cProd><xProd>Cafe 500 g</xProd><NCM>09012100</NCM><CFOP>5102</CFOP>"
    "<uCom>UN</uCom><qCom>2.0000</qCom><vUnCom>14.90</vUnCom><indRegra>A</indRegra></prod>"
    "<imposto><ICMS><ICMSSN102><Orig>0</Orig><CSOSN>500</CSOSN></ICMSSN102></ICMS>"
    "<PIS><PISSN><CST>49</CST></PISSN></PIS><COFINS><COFINSSN><CST>49</CST></COFINSSN></COFINS></imposto>"
    "</det>"
    "<det nItem=\"2\"><prod><cProd>230</cProd><xProd>Pao de queijo</xProd>"
    "<NCM>19059090</NCM><CFOP>5102</CFOP>"
    "<uCom>KG</uCom><qCom>0.3500</qCom><vUnCom>39.80</vUnCom><indRegra>A</indRegra></prod>"
    "<imposto><ICMS><ICMSSN102><Orig>0</Orig><CSOSN>500</CSOSN></ICMSSN102></ICMS>"
    "<PIS><PISSN><CST>49</CST></PISSN></PIS><COFINS><COFINSSN><CST>49</CST></COFINSSN></COFINS></imposto>"
    "</det>"
    "<total/><pgto><MP><cMP>01</cMP><vMP>50.00</vMP></MP></pgto></infCFe></CFe>";

static const char CANCELLATION[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<CFeCanc><infCFe chCanc=\"%s\"><ide><CNPJ>16716114000172</CNPJ>"
    "<signAC>SGR-SAT SISTEMA DE GESTAO E RETAGUARDA DO SAT</signAC><numeroCaixa>001</numeroCaixa></ide>"
    "<emit/><dest/><total/></infCFe></CFeCanc>";

static const char* status_name(int status) {
    switch (status) {
        case FISCORA_STATUS_OK: return "ok";
        case FISCORA_STATUS_NO_ANSWER: return "no device, or a damaged answer";
        case FISCORA_STATUS_READ_ERROR: return "the line failed";
        case FISCORA_STATUS_REFUSED: return "the device answered something else";
        case FISCORA_STATUS_BAD_REQUEST: return "request refused, nothing sent";
        case FISCORA_STATUS_TIMEOUT: return "no answer in time";
        default: return "unknown";
    }
}

/* Prints what came of a call, long fields shortened. Ends the program unless the device answered and agreed:
 * `wanted` is the code EEEEE of its consent. Returns a copy of the answer, since the next call overwrites it;
 * free it. */
static char* expect(const char* call, const char* answer, const char* wanted) {
    const int status = CodigoErro();
    char* const copy = malloc(strlen(answer) + 1);
    const char* field = answer;
    if (copy == NULL) exit(EXIT_FAILURE);
    strcpy(copy, answer);

    printf("\n%s\n  status %d (%s)\n  answer ", call, status, status_name(status));
    for (;;) {
        const size_t length = strcspn(field, "|");
        if (length > 60)
            printf("%.40s...[%zu bytes]", field, length);
        else
            printf("%.*s", (int)length, field);
        field += length;
        if (*field == '\0') break;
        putchar(*field++);
    }
    putchar('\n');

    if (status != FISCORA_STATUS_OK || strlen(answer) < 12 || strncmp(answer + 7, wanted, 5) != 0) {
        fprintf(stderr, "demo: %s was not successful, stopping here\n", call);
        exit(EXIT_FAILURE);
    }
    return copy;
}

/* The start of field `index` of an answer, and its length. */
static const char* field_of(const char* answer, int index, size_t* length) {
    for (; index > 0; --index) {
        answer += strcspn(answer, "|");
        if (*answer == '|') ++answer;
    }
    *length = strcspn(answer, "|");
    return answer;
}

/* Decodes the document of the last answer and saves it. The library also prints the answer's fields. */
static void save_document(const char* path) {
    const char* document;
    FILE* file;
    printf("  the fields, as Base64ToAscii prints them:\n");
    fflush(stdout);
    document = Base64ToAscii();
    file = fopen(path, "w");
    if (file == NULL || fputs(document, file) == EOF || fclose(file) != 0) {
        perror(path);
        exit(EXIT_FAILURE);
    }
    printf("  the document, saved as %s:\n%s\n", path, document);
}

int main(void) {
    char key[64];
    char cancellation[sizeof CANCELLATION + sizeof key];
    const char* field;
    char* answer;
    size_t length;

    printf("libfiscora, driver version %s\n", getVersion());
    free(expect("ConsultarSAT", ConsultarSAT(1), "08000"));

    answer = expect("EnviarDadosVenda", EnviarDadosVenda(2, ACTIVATION_CODE, SALE), "06000");
    save_document("venda.xml");
    field = field_of(answer, 8, &length);
    snprintf(key, sizeof key, "%.*s", (int)length, field);
    free(answer);

    snprintf(cancellation, sizeof cancellation, CANCELLATION, key);
    free(expect("CancelarUltimaVenda", CancelarUltimaVenda(3, ACTIVATION_CODE, key, cancellation), "07000"));

    free(expect("ExtrairLogs", ExtrairLogs(4, ACTIVATION_CODE), "15000"));
    save_document("sat.log");
    return EXIT_SUCCESS;
}

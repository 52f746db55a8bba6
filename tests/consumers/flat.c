/* Built with pkg-config against an installed copy: makes one call of the C interface. */
#include <fiscora.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    const char* answer = ConsultarSAT(1);
    printf("flat functions: status %d, %s\n", CodigoErro(), answer);
    return CodigoErro() == FISCORA_STATUS_OK && strncmp(answer, "000001|08000|", 13) == 0 ? 0 : 1;
}

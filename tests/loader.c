/* Loads the library by its bare name, which this program's RUNPATH resolves, and calls ConsultarSAT once:
 * with RTLD_DEEPBIND, or with the argument "apart" in a namespace of its own, which no preloaded library
 * reaches. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
    const int apart = argc > 1 && strcmp(argv[1], "apart") == 0;
    void* const library = apart ? dlmopen(LM_ID_NEWLM, "libfiscora.so.1", RTLD_NOW)
                                : dlopen("libfiscora.so.1", RTLD_NOW | RTLD_DEEPBIND);
    if (library == NULL) return fprintf(stderr, "%s\n", dlerror());
    const char* (*call)(int) = NULL;
    int (*status)(void) = NULL;
    *(void**)&call = dlsym(library, "ConsultarSAT");
    *(void**)&status = dlsym(library, "CodigoErro");
    const char* answer = call(1);
    printf("status %d, %s\n", status(), answer);
    return 0;
}

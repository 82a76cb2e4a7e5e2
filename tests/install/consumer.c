/* A plain C program built against the installed library: it must find the
 * headers and the library through pkg-config and run. */
#include <fanout/fanout.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    char* copy = mg_strdup("installed");
    PalError e = PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
    int ok = copy != NULL && strcmp(copy, "installed") == 0 && e.palError == 21;
    mg_free(copy);
    printf("%s\n", ok ? "consumer ok" : "consumer FAILED");
    return ok ? 0 : 1;
}

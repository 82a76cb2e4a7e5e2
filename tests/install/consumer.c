/* A plain C program built against the installed library, shared and static,
 * through pkg-config and through the CMake package. A raise caught by
 * fanout_call takes the static link through the C++ runtime (exceptions,
 * the terminate handler), which a C driver does not link by itself. */
#include <fanout/fanout.h>
#include <stdio.h>
#include <string.h>

static void raise_message(void* arg) {
    vaThrow(Fanout2Catalog[0], 11, Fanout2Catalog[11], (const char*)arg);
}

int main(void) {
    fanout_init();
    char* copy = mg_strdup("installed");
    PalError e = PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
    int ok = copy != NULL && strcmp(copy, "installed") == 0 && e.palError == 21;
    mg_free(copy);

    void* raised = NULL;
    ok = ok && fanout_call(raise_message, "consumer.dat", &raised) == 1 &&
         ex_number(raised) == 11 && ex_argument_count(raised) == 1 &&
         strcmp(ex_argument(raised, 0), "consumer.dat") == 0;
    ex_free(raised);
    printf("%s\n", ok ? "consumer ok" : "consumer FAILED");
    return ok ? 0 : 1;
}

/* fanout_try_example.c - calling raising functions from C with fanout_try.
 *
 * Saves a small property list to "settings.prop" in the working directory,
 * then tries to load a file that does not exist and prints why it failed.
 * Every raising call sits in a function of its own, which fanout_try runs;
 * what the calls need comes in through the one context pointer, and what
 * must be released is allocated and released outside those functions.
 */
#include <stdio.h>
#include <string.h>

#include <fanout/fanout.h>

/* Prints one line: `what`, then the message (some catalogue texts end in a
 * newline, some do not). A null message means memory ran out. */
static void report(FILE* out, const char* what, const char* why) {
    if (why == NULL) why = "no memory";
    size_t n = strlen(why);
    fprintf(out, "%s: %s%s", what, why, n > 0 && why[n - 1] == '\n' ? "" : "\n");
}

/* Everything that may raise, in one function; `context` is the list. */
static int save_settings(void* context) {
    Properties* list = context;
    properties_put_string_dup(list, "name", "example");
    properties_put_long_dup(list, "retries", 3);
    properties_save(list, "settings.prop");
    return 0;
}

/* Loads "missing.prop", which is not there: properties_load raises. */
static int load_missing(void* context) {
    properties_load(context, "missing.prop");
    return 0;
}

int main(void) {
    fanout_init();
    Properties* list = properties_new(); /* allocated outside the raising calls */
    Properties* loaded = properties_new();
    char* why = NULL;
    int status = fanout_try(save_settings, list, &why);
    if (status == FANOUT_RAISED) report(stderr, "cannot save", why);
    mg_free(why);
    int failed = status == FANOUT_RAISED;

    status = fanout_try(load_missing, loaded, &why);
    if (status == FANOUT_RAISED)
        report(stdout, "as expected, cannot load", why);
    else
        failed = 1; /* the file should not have been there */
    mg_free(why);

    properties_delete(loaded); /* released outside them too */
    properties_delete(list);
    return failed;
}

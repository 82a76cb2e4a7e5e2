/* fanout_example.c - a first look at libfanout from C.
 *
 * Builds a small property list by hand, marshals it into its wire form and
 * decodes it again, then runs an operation that fails through fanout_call,
 * which hands the raised catalogue exception back as a record, and prints
 * the rendered message. Run it without arguments; it touches no files.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fanout/fanout.h>

/* Sets entry `p` to key = string value. Every block comes from the runtime
 * allocator and belongs to the list afterwards. */
static void set_string(Property* p, const char* key, const char* value) {
    char** slot = mg_malloc(sizeof(char*));
    *slot = mg_strdup(value);
    p->key = mg_strdup(key);
    p->value._type = TC_string;
    p->value._value = slot;
}

static void set_long(Property* p, const char* key, int32_t value) {
    int32_t* slot = mg_malloc(sizeof(int32_t));
    *slot = value;
    p->key = mg_strdup(key);
    p->value._type = TC_long;
    p->value._value = slot;
}

/* The operation that fails: record-side code raises instead of returning. */
static void open_segment(void* arg) {
    const char* path = arg;
    FILE* f = fopen(path, "rb");
    if (f == NULL) vaThrow(Fanout2Catalog[0], 11, Fanout2Catalog[11], path);
    fclose(f);
}

static void dump(const uint8_t* data, uint32_t length) {
    for (uint32_t i = 0; i < length; i += 16) {
        printf("%08x ", (unsigned)i);
        for (uint32_t j = i; j < i + 16 && j < length; ++j) printf(" %02x", data[j]);
        printf("\n");
    }
}

static int marshal_properties(void) {
    Properties props = {0, 0, NULL};
    props.buffer = mg_calloc(2, sizeof(Property));
    props.maximum = 2;
    set_string(&props.buffer[0], "id", "dist-1");
    set_long(&props.buffer[1], "size", 4096);
    props.length = 2;
    printf("properties: id=%s, size=%d\n", *(char**)props.buffer[0].value._value,
           (int)*(int32_t*)props.buffer[1].value._value);

    AdrBuffer* out = adr_init_encode_buffer();
    marshal_item(out, TC_Kel_Fanout2_Properties, &props);
    if (out->error != ADR_OK) {
        printf("marshalling failed: %d\n", (int)out->error);
        return 1;
    }
    printf("marshalled: %u bytes\n", (unsigned)out->length);
    dump(out->data, out->length);

    Properties back = {0, 0, NULL};
    AdrBuffer* in = adr_init_decode_buffer(out->data, out->length);
    marshal_item(in, TC_Kel_Fanout2_Properties, &back);
    int equal =
        in->error == ADR_OK && _generic_equal(TC_Kel_Fanout2_Properties, NULL, &props, &back) != 0;
    printf("decoded copy equal: %s\n", equal ? "yes" : "no");

    adr_free_buf(in);
    adr_free_buf(out);
    kel_free_generic(&back, TC_Kel_Fanout2_Properties);
    kel_free_generic(&props, TC_Kel_Fanout2_Properties);
    return equal ? 0 : 1;
}

int main(void) {
    fanout_init();
    printf("libfanout example (%s)\n", kelver_get_level_name());
    int status = marshal_properties();

    const char* path = "/nonexistent/fanout-example.dat";
    void* raised = NULL;
    if (fanout_call(open_segment, (void*)path, &raised)) {
        char* text = ex_render(raised);
        printf("raised: %s\n", ex_type_id(raised));
        printf("catalogue %s, message %d, %u argument(s)\n", ex_catalog(raised),
               (int)ex_number(raised), (unsigned)ex_argument_count(raised));
        printf("message: %s", text);
        mg_free(text);
        ex_free(raised);
    } else {
        printf("the file opened: nothing raised\n");
        status = 1;
    }
    return status;
}

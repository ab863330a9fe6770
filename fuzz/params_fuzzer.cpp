/*
 * Request parameters: every reader over the same object.
 */
#include "input.h"

#include "support/fields.h"
#include "tavrix_jrpc_utils.h"

namespace {

/** A debug message is an object with one text; it goes with its reading. */
struct Debug {
    json_t *message = nullptr;
    ~Debug() {
        EXPECT(message == nullptr || json_is_string(json_object_get(message, "message")));
        json_decref(message);
    }
};

void read_all(json_t *params, size_t size) {
    const fuzz::Text out(static_cast<char *>(std::malloc(size)));
    for (const support::Field &field : support::fields()) {
        Debug debug;
        if (field.has_reader()) {
            EXPECT(field.read(params, &debug.message, "k", out.get(), size) <= 0);
        }
    }
    Debug debug;
    static_cast<void>(tavrix_jrpc_utils_retrieve_input_port_id(params, &debug.message, "k", out.get(), size, false,
                                                               true, true, false));
    static_cast<void>(tavrix_jrpc_utils_retrieve_input_mzu_id(params, &debug.message, "k", out.get(), size, false));
    EXPECT(tavrix_jrpc_utils_parse_input_string(params, &debug.message, "k", out.get(), size) <= 0);
    int number = 0;
    EXPECT(tavrix_jrpc_utils_parse_input_integer(params, &debug.message, "k", &number) <= 0);
    EXPECT(tavrix_jrpc_utils_parse_input_secure_option(params, &debug.message, "k", &number) <= 0);
    uint64_t wide = 0;
    float real = 0;
    json_t *borrowed = nullptr;
    static_cast<void>(tavrix_jrpc_utils_parse_input_uint64_t(params, &debug.message, "k", &wide));
    static_cast<void>(tavrix_jrpc_utils_parse_input_float(params, &debug.message, "k", &real));
    static_cast<void>(tavrix_jrpc_utils_parse_input_bool(params, &debug.message, "k", &borrowed));
    static_cast<void>(tavrix_jrpc_utils_parse_input_array(params, &debug.message, "k", &borrowed));
}

} // namespace

/** The first byte is the size of the text readers' buffer. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2 || data[0] == 0) {
        return 0;
    }
    const fuzz::Text text = fuzz::text_of(data + 1, size - 1);
    const fuzz::Json params(json_loads(text.get(), JSON_DECODE_ANY, nullptr));
    if (params) {
        read_all(params.get(), data[0]);
    }
    return 0;
}

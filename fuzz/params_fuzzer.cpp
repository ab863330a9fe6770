/*
 * Request parameters: every reader over the same object.
 */
#include "input.h"

#include "tavrix_jrpc_utils.h"

namespace {

using ReadText = int (*)(json_t *, json_t **, const char *, char *, size_t);
using ReadNumber = int (*)(json_t *, json_t **, const char *, int *);

const ReadText texts[] = {
    tavrix_jrpc_utils_parse_input_string,
    tavrix_jrpc_utils_retrieve_input_status,
    tavrix_jrpc_utils_retrieve_input_description,
    tavrix_jrpc_utils_retrieve_input_vlan_mode,
    tavrix_jrpc_utils_retrieve_input_mzu_model,
    tavrix_jrpc_utils_retrieve_input_mzu_sw_upgrade_filename,
    tavrix_jrpc_utils_retrieve_input_mac_address,
    tavrix_jrpc_utils_retrieve_input_unit_sw_bank,
    tavrix_jrpc_utils_retrieve_input_ip_address,
    tavrix_jrpc_utils_retrieve_input_unit_sw_upgrade_filename,
    tavrix_jrpc_utils_retrieve_input_username,
    tavrix_jrpc_utils_retrieve_input_password,
    tavrix_jrpc_utils_retrieve_input_date,
    tavrix_jrpc_utils_retrieve_input_time,
    tavrix_jrpc_utils_retrieve_input_entity_name,
    tavrix_jrpc_utils_retrieve_input_entity_extension,
    tavrix_jrpc_utils_retrieve_input_macaddr_allowed,
    tavrix_jrpc_utils_retrieve_input_alias,
};

const ReadNumber numbers[] = {
    tavrix_jrpc_utils_parse_input_integer,
    tavrix_jrpc_utils_retrieve_input_vlan_id,
    tavrix_jrpc_utils_retrieve_input_unit_id,
    tavrix_jrpc_utils_retrieve_input_periodic_interval,
    tavrix_jrpc_utils_retrieve_input_laser_id,
    tavrix_jrpc_utils_retrieve_input_olt_id,
    tavrix_jrpc_utils_retrieve_input_onu_id,
    tavrix_jrpc_utils_retrieve_input_port_number,
    tavrix_jrpc_utils_retrieve_input_port_link_speed,
    tavrix_jrpc_utils_retrieve_input_enable,
    tavrix_jrpc_utils_parse_input_secure_option,
};

/** A debug message is an object with one text; it goes with its reading. */
struct Debug {
    json_t *message = nullptr;
    ~Debug() {
        EXPECT(message == nullptr || json_is_string(json_object_get(message, "message")));
        json_decref(message);
    }
};

void read_texts(json_t *params, size_t size) {
    const fuzz::Text out(static_cast<char *>(std::malloc(size)));
    for (const ReadText read : texts) {
        Debug debug;
        EXPECT(read(params, &debug.message, "k", out.get(), size) <= 0);
    }
    Debug debug;
    static_cast<void>(tavrix_jrpc_utils_retrieve_input_port_id(params, &debug.message, "k", out.get(), size, false,
                                                               true, true, false));
    static_cast<void>(tavrix_jrpc_utils_retrieve_input_mzu_id(params, &debug.message, "k", out.get(), size, false));
}

void read_numbers(json_t *params) {
    for (const ReadNumber read : numbers) {
        Debug debug;
        int out = 0;
        EXPECT(read(params, &debug.message, "k", &out) <= 0);
    }
    Debug debug;
    uint64_t wide = 0;
    float real = 0;
    json_t *borrowed = nullptr;
    static_cast<void>(tavrix_jrpc_utils_parse_input_uint64_t(params, &debug.message, "k", &wide));
    static_cast<void>(tavrix_jrpc_utils_parse_input_float(params, &debug.message, "k", &real));
    static_cast<void>(tavrix_jrpc_utils_parse_input_bool(params, &debug.message, "k", &borrowed));
    static_cast<void>(tavrix_jrpc_utils_parse_input_array(params, &debug.message, "k", &borrowed));
}

void read_lists(json_t *params) {
    Debug debug;
    int count = 0;
    int ids[32];
    static_cast<void>(tavrix_jrpc_utils_retrieve_input_vlan_ids(params, &debug.message, "k", ids, &count));
    tavrix_port_input records[3];
    static_cast<void>(tavrix_jrpc_utils_retrieve_input_ports(params, &debug.message, "k", records, &count, 3));
    tavrix_port_hardware_input hardware[3];
    static_cast<void>(
        tavrix_jrpc_utils_retrieve_input_ports_hardware(params, &debug.message, "k", hardware, &count, 3));
    tavrix_mac_filter *filters = nullptr;
    const int rc = tavrix_jrpc_utils_retrieve_input_mac_filters(params, &debug.message, "k", &filters, &count, 1, 2);
    EXPECT((rc == 0) == (filters != nullptr));
    std::free(filters);
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
        read_texts(params.get(), data[0]);
        read_numbers(params.get());
        read_lists(params.get());
    }
    return 0;
}

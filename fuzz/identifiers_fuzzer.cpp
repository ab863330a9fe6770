/*
 * Texts that become numbers: ports, addresses, versions, and every validator.
 */
#include "input.h"

#include <cstring>

#include "support/fields.h"
#include "tavrix_utils.h"
#include "tavrix_validation.h"

namespace {

/** A port id that was read is printed so that it reads as the same port again. */
void check_port_id(const char *text) {
    int unit = -1;
    int port = -1;
    if (tavrix_parse_mzu_port_id(&unit, &port, text) != 0) {
        return;
    }
    EXPECT(unit >= 0 && unit <= 1000);
    char printed[16];
    if (port == TAVRIX_WHOLE_UNIT_PORT && unit > 0) {
        EXPECT(tavrix_create_mzu_id_str(printed, sizeof printed, unit) == 0);
    } else if (unit > 0) {
        EXPECT(tavrix_create_port_id_str(printed, sizeof printed, unit, port) == 0);
    } else {
        return; // "c0" is read as a whole unit, and nothing prints as that
    }
    int unit_again = -1;
    int port_again = -1;
    EXPECT(tavrix_parse_mzu_port_id(&unit_again, &port_again, printed) == 0);
    EXPECT(unit_again == unit && port_again == port);
}

void check_addresses(const char *text, size_t size) {
    unsigned char bytes[6] = {};
    static_cast<void>(tavrix_tokenize_ip_address(bytes, text, 4));
    static_cast<void>(tavrix_mac_address_to_char_array(text, bytes));
    const fuzz::Text copy = fuzz::text_of(reinterpret_cast<const uint8_t *>(text), size);
    if (tavrix_validate_and_format_mac_addr_string(copy.get()) == 0) {
        const std::string canonical = copy.get();
        EXPECT(tavrix_str_to_mac_address(copy.get(), bytes) == 0);
        char printed[TAVRIX_MAC_TEXT_SIZE];
        EXPECT(tavrix_bytes_to_mac_address_string(printed, bytes) == 0);
        EXPECT(canonical == printed);
    }
}

void check_strings(const char *text, size_t size) {
    const size_t half = std::strlen(text) / 2;
    const int order = tavrix_utils_sw_version_strcmp(text, text + half);
    EXPECT(order >= -1 && order <= 1);
    EXPECT(tavrix_utils_sw_version_strcmp(text, text) == 0);
    const fuzz::Text out(static_cast<char *>(std::malloc(size + 1)));
    for (int rc = strparse(text, ",;", out.get()); rc == 0; rc = strparse(nullptr, " ", out.get())) {
        if (out.get()[0] == '\0') {
            break; // the cursor stands on a stop character
        }
    }
    EXPECT(tavrix_remove_surrounding_quotes(text, out.get(), size) == 0);
    EXPECT(tavrix_to_lower_case(out.get(), size, text) == 0);
    std::memset(out.get(), 0, size + 1);
    EXPECT(tavrix_cli_desc_parse(text, out.get()) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const fuzz::Text text = fuzz::text_of(data, size);
    for (const support::Field &field : support::fields()) {
        const int rc = field.validate != nullptr ? field.validate(text.get()) : TAVRIX_VALID;
        EXPECT(rc <= TAVRIX_VALID && rc >= TAVRIX_INVALID_OUT_OF_RANGE);
    }
    check_port_id(text.get());
    check_addresses(text.get(), size);
    check_strings(text.get(), size);
    return 0;
}

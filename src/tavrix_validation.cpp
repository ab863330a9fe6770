/*
 * Validation: the four checking primitives, and one rule for every kind of request field.
 *
 * Keeps the compiled patterns of the fields for the process, each behind an atomic pointer: any number of threads may
 * validate at once without a lock.
 */
#include "tavrix_validation.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>

#include <pcre.h>

#include "internal/handles.h"
#include "internal/log.h"
#include "tavrix_error.h"
#include "tavrix_utils.h"
#include "tavrix_validation_internal.h"

namespace {

constexpr char unit_name[] = "tavrix_validation";

constexpr int accepted = 0;
constexpr int engine_error = -1;
constexpr int no_match = -2;
constexpr int not_allowed = -3;
constexpr int too_long = -4;
constexpr int too_short = -5;
constexpr int out_of_range = -6;

constexpr int vector_size = 10;
constexpr int max_extension_length = 1000;

// --- Fields --------------------------------------------------------------------------------------------------------

/** The rule of a text field: bounds when max_length is not 0, a pattern or a list of options. */
struct TextField {
    const char *label;
    const char *announcement; ///< null when the field has none
    int min_length;
    int max_length;
    const char *pattern;
    const char *const *options;
    int option_count;
};

constexpr TextField pattern_field(const char *label, const char *announcement, const char *pattern) {
    return {label, announcement, 0, 0, pattern, nullptr, 0};
}
constexpr TextField bounded_field(const char *label, const char *announcement, int min_length, int max_length,
                                  const char *pattern) {
    return {label, announcement, min_length, max_length, pattern, nullptr, 0};
}
template <int Count>
constexpr TextField option_field(const char *label, const char *announcement, const char *const *options) {
    return {label, announcement, 0, 0, nullptr, options, Count};
}

enum TextFieldId {
    port_id,
    c_port_id,
    d_port_id,
    vlan_name_id,
    mzu_id,
    mzu_sw_upgrade_filename,
    unit_sw_upgrade_filename,
    date_field,
    time_field,
    uuid,
    ip_address,
    mac_address,
    description,
    password,
    username,
    status,
    vlan_mode,
    unit_sw_bank,
    mzu_model,
    text_field_count
};

constexpr const char *status_options[] = {"enable", "disable"};
constexpr const char *unit_sw_bank_options[] = {"all", "current", "previous", "default"};
// Only the first three real modes, "trans" is refused: meant.
constexpr const char *const *vlan_mode_options = tavrix_vlan_mode_strings + 1;
// System accounts; those with a '-' never pass the pattern and stay in the list all the same: meant.
constexpr const char *reserved_usernames[] = {"root",     "daemon", "bin",      "sys",       "sync", "mail",   "proxy",
                                              "www-data", "backup", "operator", "haldaemon", "dbus", "nobody", "sshd"};
constexpr int reserved_username_count = sizeof reserved_usernames / sizeof reserved_usernames[0];
static_assert(reserved_username_count == 14, "the reserved account names");

constexpr TextField text_fields[] = {
    pattern_field("Port ID", "Validating port id: %s\n",
                  R"((^[cC]([1-9]|[1-9]\d|1[0-1]\d|12[0-8])-([1-9]|[1-9]\d)$)|(^[dD][1234]$))"),
    pattern_field("C Port ID", "Validating c-port id: %s\n",
                  R"(^[cC]([1-9]|[1-9]\d|1[0-1]\d|12[0-8])-([1-9]|[1-9]\d)$)"),
    pattern_field("D Port ID", "Validating d-port id: %s\n", R"(^[dD][1234]$)"),
    pattern_field("Vlan Name ID", "Validating vlan name id: %s\n",
                  R"(^v(([1-9])|([1-9][0-9])|([1-9][0-9][0-9])|([1-3][0-9][0-9][0-9])|(40[0-8][0-9])|(409[0-2]))$)"),
    pattern_field("MZU ID", "Validating mzu id: %s\n", R"(^[cC]([1-9]|[1-9]\d|1[0-1]\d|12[0-8])$)"),
    pattern_field("MZU SW Upgrade Filename", "Validating sw upgrade filename: %s\n", R"(^.*$)"),
    // The same line as for the file of an MZU, and unescaped dots between the digits: meant.
    pattern_field("Unit SW Upgrade filename", "Validating sw upgrade filename: %s\n", R"(^.*zqn.*\d.\d.\d-\d{3}.*)"),
    pattern_field("Date", "Validating date: %s\n", R"(^2\d{3}-([1-9]|0[1-9]|1[0-2])-([1-9]|0[1-9]|1\d|2\d|3[0-1])$)"),
    pattern_field("Time", "Validating time: %s\n", R"(^([0-1]\d|2[0-3]):[0-5]\d$)"),
    pattern_field("UUID", nullptr, R"(^[a-fA-F0-9]{8}-[a-fA-F0-9]{4}-[a-fA-F0-9]{4}-[a-fA-F0-9]{4}-[a-fA-F0-9]{12}$)"),
    bounded_field("IP Address", "Validating ip address: %s\n", 7, 15,
                  R"(^((25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9][0-9]|[0-9])\.){3})"
                  R"((25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9][0-9]|[0-9])$)"),
    bounded_field("MAC Address", "Validating mac address: %s\n", 17, 17,
                  R"(^((((\d|[A-Fa-f]){2}:){5})|(((\d|[A-Fa-f]){2}-){5}))(\d|[A-Fa-f]){2}$)"),
    bounded_field("Description", "Validating description: %s\n", 0, 50, R"(^[^"]*$)"),
    // The value stands in clear in the verbose log: meant.
    bounded_field("Password", "Validating password: %s\n", 4, 15, R"(^[a-zA-Z0-9!?_@-]{4,15}$)"),
    bounded_field("Username", "Validating username: %s\n", 4, 15, R"(^[a-zA-Z0-9]{4,15}$)"),
    option_field<2>("Status", "Validating status: %s\n", status_options),
    option_field<3>("VLAN Mode", "Validating vlan mode: %s\n", vlan_mode_options),
    option_field<4>("Unit SW Bank", "Validating unit sw bank: %s\n", unit_sw_bank_options),
    // All 11 words, "unknown" too: meant.
    option_field<11>("MZU Model", "Validating mzu model: %s\n", tavrix_mzu_model_strings),
};
static_assert(sizeof text_fields / sizeof text_fields[0] == text_field_count, "one row for each text field");

/** The rule of a number field: a closed range. */
struct NumberField {
    const char *announcement;
    int lowest;
    int highest;
    const char *failure;
};

enum NumberFieldId { vlan_id, unit_id, laser_id, olt_id, onu_id, port_number, periodic_interval, number_field_count };

constexpr NumberField number_fields[] = {
    {"Validating vlan id: %d\n", 1, 4092, "FAIL: Vlan id outside acceptable range [%d, %d]\n"},
    {"Validating unit id: %d\n", 1, 1, "FAIL: Unit id outside acceptable range [%d, %d]\n"},
    {"Validating laser_id: %d\n", 0, 1, "FAIL: laser_id outside acceptable range [%d, %d]\n"},
    {"Validating olt id: %d\n", 0, 1, "FAIL: OLT id outside acceptable range [%d, %d]\n"},
    {"Validating ONU id: %d\n", -1, 128, "FAIL: ONU id outside acceptable range [%d, %d]\n"},
    {"Validating port_number: %d\n", 1, 128, "FAIL: port_number outside acceptable range [%d, %d]\n"},
    {"Validating periodic interval: %d\n", 1, 3600, "FAIL: Periodic interval outside acceptable range [%d, %d]\n"},
};
static_assert(sizeof number_fields / sizeof number_fields[0] == number_field_count, "one row for each number field");

// --- Patterns ------------------------------------------------------------------------------------------------------

struct FreePattern {
    void operator()(pcre *code) const { pcre_free(code); }
};
using Pattern = std::unique_ptr<pcre, FreePattern>;

struct FreeStudy {
    void operator()(pcre_extra *study) const { pcre_free_study(study); }
};
/** What studying a pattern brought, possibly nothing. */
using Study = std::unique_ptr<pcre_extra, FreeStudy>;

bool compile(const char *pattern, Pattern *out) {
    const char *error = nullptr;
    int error_offset = 0;
    out->reset(pcre_compile(pattern, 0, &error, &error_offset, nullptr));
    if (!*out) {
        LOG_ERROR("ERROR: Could not compile '%s': %s\n", pattern, error);
    }
    return static_cast<bool>(*out);
}

bool study(const char *pattern, const pcre *code, Study *out) {
    const char *error = nullptr;
    out->reset(pcre_study(code, 0, &error));
    if (error != nullptr) {
        LOG_ERROR("ERROR: Could not study '%s': %s\n", pattern, error);
        return false;
    }
    return true;
}

int execute(const pcre *code, const pcre_extra *extra, const char *value, size_t length) {
    int vector[vector_size] = {};
    return pcre_exec(code, extra, value, static_cast<int>(length), 0, 0, vector, vector_size);
}

/** A pattern that is compiled and studied, by the interpreter's means and, where the platform has one, the JIT's. */
struct KeptPattern {
    pcre *code;
    pcre_extra *extra;
    pcre_extra *jit;
};

// The JIT has limits of its own, a small stack and another count of steps. Up to this length no field's pattern comes
// near any limit: the worst of them, two unbounded repeats, takes about a million steps of the interpreter's ten.
// Longer values, and any the JIT gives up on, go through the interpreter, so that the verdict is always the
// interpreter's.
constexpr size_t max_jit_length = 1024;

int execute(const KeptPattern &kept, const char *value) {
    const size_t length = std::strlen(value);
    if (kept.jit != nullptr && length <= max_jit_length) {
        const int rc = execute(kept.code, kept.jit, value, length);
        if (rc >= 0 || rc == PCRE_ERROR_NOMATCH) {
            return rc;
        }
    }
    return execute(kept.code, kept.extra, value, length);
}

void release(KeptPattern *kept) {
    pcre_free_study(kept->extra);
    pcre_free_study(kept->jit);
    pcre_free(kept->code);
    std::free(kept);
}

/** Compiles and studies a pattern for keeping; null, after the usual error line, when that fails. */
KeptPattern *make_kept(const char *pattern) {
    Pattern code;
    Study extra;
    if (!compile(pattern, &code) || !study(pattern, code.get(), &extra)) {
        return nullptr;
    }
    KeptPattern *kept = static_cast<KeptPattern *>(std::malloc(sizeof(KeptPattern)));
    if (kept == nullptr) {
        LOG_ERROR("ERROR: Could not compile '%s': %s\n", pattern, std::strerror(ENOMEM));
        return nullptr;
    }
    const char *no_jit = nullptr;
    kept->jit = pcre_study(code.get(), PCRE_STUDY_JIT_COMPILE, &no_jit);
    kept->extra = extra.release();
    kept->code = code.release();
    return kept;
}

std::atomic<KeptPattern *> kept_patterns[text_field_count];

/** The place of a field's own pattern, told by its address; null for any other. */
std::atomic<KeptPattern *> *place_of(const char *pattern) {
    for (int id = 0; id < text_field_count; ++id) {
        if (text_fields[id].pattern == pattern) {
            return &kept_patterns[id];
        }
    }
    return nullptr;
}

/** The kept pattern, made on first use. Threads may make it at the same time; one wins, the others drop theirs. */
const KeptPattern *keep(std::atomic<KeptPattern *> *place, const char *pattern) {
    KeptPattern *kept = place->load(std::memory_order_acquire);
    if (kept != nullptr) {
        return kept;
    }
    KeptPattern *made = make_kept(pattern);
    if (made == nullptr) {
        return nullptr;
    }
    if (place->compare_exchange_strong(kept, made, std::memory_order_acq_rel, std::memory_order_acquire)) {
        return made;
    }
    release(made);
    return kept;
}

int classify(int rc, const char *value, const char *label) {
    if (rc == PCRE_ERROR_NOMATCH) {
        LOG_DEBUG("Validation failed: [%s] value <%s> did not return a regex match.\n", label, value);
        return no_match;
    }
    if (rc < 0) {
        LOG_ERROR("Error code received from pcre_exec: %d\n", rc);
        return engine_error;
    }
    LOG_DEBUG("Regex test passed.\n"); // 0 too: the vector was too small for all groups, still a match
    return accepted;
}

// --- Fields, checked -----------------------------------------------------------------------------------------------

int check_text(TextFieldId id, const char *value) {
    const TextField &field = text_fields[id];
    if (value == nullptr) {
        return engine_error;
    }
    if (field.announcement != nullptr) {
        LOG_VERBOSE(field.announcement, value);
    }
    if (field.options != nullptr) {
        return validate_against_options(value, field.options, field.option_count, field.label);
    }
    if (field.max_length > 0) {
        return validate_length_and_regex(value, field.min_length, field.max_length, field.pattern, field.label);
    }
    return validate_against_regex(field.pattern, value, field.label);
}

int check_number(NumberFieldId id, int value) {
    const NumberField &field = number_fields[id];
    LOG_VERBOSE(field.announcement, value);
    if (value < field.lowest || value > field.highest) {
        LOG_DEBUG(field.failure, field.lowest, field.highest);
        return out_of_range;
    }
    return accepted;
}

} // namespace

// --- Primitives ----------------------------------------------------------------------------------------------------

int validate_against_regex(const char *pattern, const char *value, const char *label) {
    LOG_VERBOSE("Testing [%s] value <%s> against regex: %s\n", label, value, pattern);
    std::atomic<KeptPattern *> *place = place_of(pattern);
    if (place != nullptr) {
        const KeptPattern *kept = keep(place, pattern);
        return kept != nullptr ? classify(execute(*kept, value), value, label) : engine_error;
    }
    Pattern code;
    Study extra;
    if (!compile(pattern, &code) || !study(pattern, code.get(), &extra)) {
        return engine_error;
    }
    return classify(execute(code.get(), extra.get(), value, std::strlen(value)), value, label);
}

int validate_length_and_regex(const char *value, int min_len, int max_len, const char *pattern, const char *label) {
    const long long length = static_cast<long long>(std::strlen(value));
    if (length < min_len) {
        LOG_DEBUG("Validation failed: [%s] value <%s> is too short (<%d)\n", label, value, min_len);
        return too_short;
    }
    if (length > max_len) {
        LOG_DEBUG("Validation failed: [%s] value <%s> is too long (>%d)\n", label, value, max_len);
        return too_long;
    }
    return validate_against_regex(pattern, value, label);
}

int validate_against_options(const char *value, const char *const *options, int count, const char *label) {
    for (int i = 0; i < count; ++i) {
        if (std::strcmp(value, options[i]) == 0) {
            LOG_VERBOSE("[%s] value <%s> matches option <%s>\n", label, value, options[i]);
            return accepted;
        }
        LOG_VERBOSE("[%s] value <%s> did not match option <%s>\n", label, value, options[i]);
    }
    LOG_DEBUG("Validation failed: Given [%s] value <%s> is not one of the available options\n", label, value);
    return not_allowed;
}

int validate_against_blacklist(const char *value, const char *const *blacklist, int count, const char *label) {
    for (int i = 0; i < count; ++i) {
        if (std::strcmp(value, blacklist[i]) == 0) {
            LOG_DEBUG("Validation failed: [%s] value <%s> matches blacklist option <%s>\n", label, value, blacklist[i]);
            return not_allowed;
        }
        LOG_VERBOSE("[%s] value <%s> did not match blacklist option <%s>\n", label, value, blacklist[i]);
    }
    LOG_DEBUG("Given [%s] value <%s> is not one of the blacklisted options\n", label, value);
    return accepted;
}

const char *tavrix_validation_pattern_of(const char *label) {
    for (const TextField &field : text_fields) {
        if (std::strcmp(field.label, label) == 0) {
            return field.pattern;
        }
    }
    return nullptr;
}

// --- Validators ----------------------------------------------------------------------------------------------------

int validate_port_id(const char *value) { return check_text(port_id, value); }
int validate_c_port_id(const char *value) { return check_text(c_port_id, value); }
int validate_d_port_id(const char *value) { return check_text(d_port_id, value); }
int validate_vlan_name_id(const char *value) { return check_text(vlan_name_id, value); }
int validate_mzu_id(const char *value) { return check_text(mzu_id, value); }
int validate_mzu_sw_upgrade_filename(const char *value) { return check_text(mzu_sw_upgrade_filename, value); }
int validate_unit_sw_upgrade_filename(const char *value) { return check_text(unit_sw_upgrade_filename, value); }
int validate_date(const char *value) { return check_text(date_field, value); }
int validate_time(const char *value) { return check_text(time_field, value); }
int validate_uuid(const char *value) { return check_text(uuid, value); }
int validate_ip_address(const char *value) { return check_text(ip_address, value); }
int validate_mac_address(const char *value) { return check_text(mac_address, value); }
int validate_description(const char *value) { return check_text(description, value); }
int validate_password(const char *value) { return check_text(password, value); }

int validate_username(const char *value) {
    const int rc = check_text(username, value);
    return rc != accepted ? rc
                          : validate_against_blacklist(value, reserved_usernames, reserved_username_count,
                                                       text_fields[username].label);
}

int validate_status(const char *value) { return check_text(status, value); }
int validate_vlan_mode(const char *value) { return check_text(vlan_mode, value); }
int validate_unit_sw_bank(const char *value) { return check_text(unit_sw_bank, value); }
int validate_mzu_model(const char *value) { return check_text(mzu_model, value); }

int validate_entity_name(const char *value) {
    const bool known = validate_mzu_id(value) == accepted || validate_port_id(value) == accepted ||
                       validate_vlan_name_id(value) == accepted;
    return known ? accepted : no_match;
}

int validate_entity_extension(const char *value) {
    if (value == nullptr) {
        return engine_error;
    }
    LOG_VERBOSE("Validating extension: %s\n", value);
    if (std::strlen(value) > max_extension_length) {
        LOG_DEBUG("Validation failed: [extension] value <%s> is too long (>%d)\n", value, max_extension_length);
        return too_long;
    }
    return accepted;
}

int validate_vlan_id(int value) { return check_number(vlan_id, value); }
int validate_unit_id(int value) { return check_number(unit_id, value); }
int validate_laser_id(int value) { return check_number(laser_id, value); }
int validate_olt_id(int value) { return check_number(olt_id, value); }
int validate_onu_id(int value) { return check_number(onu_id, value); }
int validate_port_number(int value) { return check_number(port_number, value); }
int validate_periodic_interval(int value) { return check_number(periodic_interval, value); }

// Every speed is accepted: meant, the retrievers treat link speed like any other field.
int validate_port_link_speed(int /*value*/) { return accepted; }

int validate_date_time(const char *date, const char *time) {
    const int rc = validate_date(date);
    return rc != accepted ? rc : validate_time(time);
}

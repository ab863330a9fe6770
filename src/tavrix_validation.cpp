/*
 * Validation: the four checking primitives, and one rule for every kind of request field.
 *
 * Keeps the compiled patterns of the fields for the process, each behind an atomic pointer: any number of threads may
 * validate at once without a lock.
 */
#include "tavrix_validation.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <pcre.h>

#include "common/log.h"
#include "internal/tables.h"
#include "internal/tavrix_validation_seam.h"
#include "tavrix_utils.h"

namespace {

using tavrix::count_of;
using tavrix::in_order;

constexpr char unit_name[] = "tavrix_validation";

constexpr int vector_size = 10;
constexpr int max_extension_length = 1000;

// The JIT has limits of its own, a small stack and another count of steps. Up to this length the interpreter cannot
// reach its limit of ten million steps: the worst pattern of the fields, with two unbounded repeats, takes fewer than
// one step for every pair of positions, half a million. Longer values, and any the JIT gives up on, go through the
// interpreter, so that the verdict is always the interpreter's.
constexpr size_t max_jit_length = 1024;

// --- Fields --------------------------------------------------------------------------------------------------------

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

/** The rule of a text field: a pattern, with bounds when max_length is not 0, or a list of options. */
struct TextField {
    TextFieldId id;
    int min_length;
    int max_length;
    int option_count;
    const char *label;
    const char *announcement; ///< null when the field has none
    const char *pattern;
    const char *const *options;
};

constexpr TextField pattern_field(TextFieldId id, const char *label, const char *announcement, const char *pattern) {
    return {id, 0, 0, 0, label, announcement, pattern, nullptr};
}
constexpr TextField bounded_field(TextFieldId id, const char *label, const char *announcement, int min_length,
                                  int max_length, const char *pattern) {
    return {id, min_length, max_length, 0, label, announcement, pattern, nullptr};
}
constexpr TextField option_field(TextFieldId id, const char *label, const char *announcement,
                                 const char *const *options, int count) {
    return {id, 0, 0, count, label, announcement, nullptr, options};
}

constexpr const char *status_options[] = {"enable", "disable"};
constexpr const char *unit_sw_bank_options[] = {"all", "current", "previous", "default"};
// Without "unknown" and "trans": switches report these two, but no port can be set to them.
constexpr int vlan_mode_option_count = 3;
static_assert(count_of(tavrix_vlan_mode_strings) == 1 + vlan_mode_option_count + 2, "unknown, modes, trans, the end");
// All 11 words, "unknown" too: a unit can be registered before its model is known.
constexpr int mzu_model_count = 11;
static_assert(count_of(tavrix_mzu_model_strings) == mzu_model_count + 1, "models, the end");
// System accounts. "www-data" cannot pass the pattern anyway; it is here because the list mirrors the appliance's.
constexpr const char *reserved_usernames[] = {"root",     "daemon", "bin",      "sys",       "sync", "mail",   "proxy",
                                              "www-data", "backup", "operator", "haldaemon", "dbus", "nobody", "sshd"};
static_assert(count_of(reserved_usernames) == 14, "the reserved account names");

constexpr TextField text_fields[] = {
    pattern_field(port_id, "Port ID", "Validating port id: %s\n",
                  R"((^[cC]([1-9]|[1-9]\d|1[0-1]\d|12[0-8])-([1-9]|[1-9]\d)$)|(^[dD][1234]$))"),
    pattern_field(c_port_id, "C Port ID", "Validating c-port id: %s\n",
                  R"(^[cC]([1-9]|[1-9]\d|1[0-1]\d|12[0-8])-([1-9]|[1-9]\d)$)"),
    pattern_field(d_port_id, "D Port ID", "Validating d-port id: %s\n", R"(^[dD][1234]$)"),
    pattern_field(vlan_name_id, "Vlan Name ID", "Validating vlan name id: %s\n",
                  R"(^v(([1-9])|([1-9][0-9])|([1-9][0-9][0-9])|([1-3][0-9][0-9][0-9])|(40[0-8][0-9])|(409[0-2]))$)"),
    pattern_field(mzu_id, "MZU ID", "Validating mzu id: %s\n", R"(^[cC]([1-9]|[1-9]\d|1[0-1]\d|12[0-8])$)"),
    pattern_field(mzu_sw_upgrade_filename, "MZU SW Upgrade Filename", "Validating sw upgrade filename: %s\n",
                  R"(^.*$)"),
    // Announced like an MZU's file: log filters match it. Any character may separate the digits: released files vary.
    pattern_field(unit_sw_upgrade_filename, "Unit SW Upgrade filename", "Validating sw upgrade filename: %s\n",
                  R"(^.*zqn.*\d.\d.\d-\d{3}.*)"),
    // No calendar: every month may have 31 days.
    pattern_field(date_field, "Date", "Validating date: %s\n",
                  R"(^2\d{3}-([1-9]|0[1-9]|1[0-2])-([1-9]|0[1-9]|1\d|2\d|3[0-1])$)"),
    pattern_field(time_field, "Time", "Validating time: %s\n", R"(^([0-1]\d|2[0-3]):[0-5]\d$)"),
    pattern_field(uuid, "UUID", nullptr,
                  R"(^[a-fA-F0-9]{8}-[a-fA-F0-9]{4}-[a-fA-F0-9]{4}-[a-fA-F0-9]{4}-[a-fA-F0-9]{12}$)"),
    bounded_field(ip_address, "IP Address", "Validating ip address: %s\n", 7, 15,
                  R"(^((25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9][0-9]|[0-9])\.){3})"
                  R"((25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9][0-9]|[0-9])$)"),
    bounded_field(mac_address, "MAC Address", "Validating mac address: %s\n", 17, 17,
                  R"(^((((\d|[A-Fa-f]){2}:){5})|(((\d|[A-Fa-f]){2}-){5}))(\d|[A-Fa-f]){2}$)"),
    bounded_field(description, "Description", "Validating description: %s\n", 0, 50, R"(^[^"]*$)"),
    // In clear text, but only at verbose level: there support sees why a password is refused.
    bounded_field(password, "Password", "Validating password: %s\n", 4, 15, R"(^[a-zA-Z0-9!?_@-]{4,15}$)"),
    bounded_field(username, "Username", "Validating username: %s\n", 4, 15, R"(^[a-zA-Z0-9]{4,15}$)"),
    option_field(status, "Status", "Validating status: %s\n", status_options, count_of(status_options)),
    option_field(vlan_mode, "VLAN Mode", "Validating vlan mode: %s\n", tavrix_vlan_mode_strings + 1,
                 vlan_mode_option_count),
    option_field(unit_sw_bank, "Unit SW Bank", "Validating unit sw bank: %s\n", unit_sw_bank_options,
                 count_of(unit_sw_bank_options)),
    option_field(mzu_model, "MZU Model", "Validating mzu model: %s\n", tavrix_mzu_model_strings, mzu_model_count),
};

enum NumberFieldId { vlan_id, unit_id, laser_id, olt_id, onu_id, port_number, periodic_interval, number_field_count };

/** The rule of a number field: a closed range. */
struct NumberField {
    NumberFieldId id;
    const char *announcement;
    int lowest;
    int highest;
    const char *failure;
};

constexpr NumberField number_fields[] = {
    {vlan_id, "Validating vlan id: %d\n", 1, 4092, "FAIL: Vlan id outside acceptable range [%d, %d]\n"},
    {unit_id, "Validating unit id: %d\n", 1, 1, "FAIL: Unit id outside acceptable range [%d, %d]\n"},
    {laser_id, "Validating laser_id: %d\n", 0, 1, "FAIL: laser_id outside acceptable range [%d, %d]\n"},
    {olt_id, "Validating olt id: %d\n", 0, 1, "FAIL: OLT id outside acceptable range [%d, %d]\n"},
    {onu_id, "Validating ONU id: %d\n", -1, 128, "FAIL: ONU id outside acceptable range [%d, %d]\n"},
    {port_number, "Validating port_number: %d\n", 1, 128, "FAIL: port_number outside acceptable range [%d, %d]\n"},
    {periodic_interval, "Validating periodic interval: %d\n", 1, 3600,
     "FAIL: Periodic interval outside acceptable range [%d, %d]\n"},
};

static_assert(count_of(text_fields) == text_field_count && in_order(text_fields));
static_assert(count_of(number_fields) == number_field_count && in_order(number_fields));

// --- Patterns ------------------------------------------------------------------------------------------------------

/** A compiled and studied pattern; studying may gain nothing, and only kept patterns use the JIT. */
struct Pattern {
    pcre *code;
    pcre_extra *study;
    pcre_extra *jit;
};

/** Releases what a pattern holds; after a failed compilation that is null, which the functions accept. */
struct ReleasePattern {
    void operator()(Pattern *pattern) const {
        pcre_free_study(pattern->jit);
        pcre_free_study(pattern->study);
        pcre_free(pattern->code);
    }
};
struct FreePattern {
    void operator()(Pattern *pattern) const {
        ReleasePattern()(pattern);
        std::free(pattern);
    }
};
/** A pattern for one call, on the stack. */
using ScopedPattern = std::unique_ptr<Pattern, ReleasePattern>;
/** A pattern from malloc. */
using OwnedPattern = std::unique_ptr<Pattern, FreePattern>;

bool compile(const char *text, Pattern *pattern, const char **error) {
    int error_offset = 0;
    pattern->code = pcre_compile(text, 0, error, &error_offset, nullptr);
    return pattern->code != nullptr;
}

bool study(Pattern *pattern, const char **error) {
    pattern->study = pcre_study(pattern->code, 0, error);
    return *error == nullptr;
}

/** The JIT's study data; null where the platform has no JIT or no memory for it. */
pcre_extra *study_for_jit(const pcre *code) {
    int available = 0;
    const char *error = nullptr;
    if (pcre_config(PCRE_CONFIG_JIT, &available) != 0 || available == 0) {
        return nullptr;
    }
    return pcre_study(code, PCRE_STUDY_JIT_COMPILE, &error);
}

int execute(const pcre *code, const pcre_extra *extra, const char *value, size_t length) {
    int vector[vector_size] = {};
    return pcre_exec(code, extra, value, static_cast<int>(length), 0, 0, vector, vector_size);
}

int execute(const Pattern &pattern, const char *value) {
    const size_t length = std::strlen(value);
    if (pattern.jit != nullptr && length <= max_jit_length) {
        const int rc = execute(pattern.code, pattern.jit, value, length);
        if (rc >= 0 || rc == PCRE_ERROR_NOMATCH) {
            return rc;
        }
    }
    return execute(pattern.code, pattern.study, value, length);
}

int classify(int rc, const char *value, const char *label) {
    if (rc == PCRE_ERROR_NOMATCH) {
        LOG_DEBUG("Validation failed: [%s] value <%s> did not return a regex match.\n", label, value);
        return TAVRIX_INVALID_NO_MATCH;
    }
    if (rc < 0) {
        LOG_ERROR("Error code received from pcre_exec: %d\n", rc);
        return TAVRIX_INVALID_ENGINE;
    }
    LOG_DEBUG("Regex test passed.\n"); // even for 0, a match with more groups than the vector has room for
    return TAVRIX_VALID;
}

/** Compiles, matches and releases. */
int match_once(const char *text, const char *value, const char *label) {
    Pattern pattern = {};
    const ScopedPattern owner(&pattern);
    const char *error = nullptr;
    if (!compile(text, &pattern, &error)) {
        LOG_ERROR("ERROR: Could not compile '%s': %s\n", text, error);
        return TAVRIX_INVALID_ENGINE;
    }
    if (!study(&pattern, &error)) {
        LOG_ERROR("ERROR: Could not study '%s': %s\n", text, error);
        return TAVRIX_INVALID_ENGINE;
    }
    return classify(execute(pattern, value), value, label);
}

// --- Kept patterns -------------------------------------------------------------------------------------------------

std::atomic<Pattern *> kept_patterns[text_field_count];

/** The place of a field's own pattern, recognised by its address; null for any other. */
std::atomic<Pattern *> *place_of(const char *text) {
    for (const TextField &field : text_fields) {
        if (field.pattern == text) {
            return &kept_patterns[field.id];
        }
    }
    return nullptr;
}

/** A pattern made for keeping; null when it cannot be made. */
OwnedPattern make_pattern(const char *text) {
    OwnedPattern pattern(static_cast<Pattern *>(std::calloc(1, sizeof(Pattern))));
    const char *error = nullptr;
    if (!pattern || !compile(text, pattern.get(), &error) || !study(pattern.get(), &error)) {
        return nullptr;
    }
    pattern->jit = study_for_jit(pattern->code);
    return pattern;
}

/**
 * The kept form of a field's own pattern, made on first use; null for any other pattern, and when it cannot be made:
 * compiling it for the call then logs why. Threads may make it at the same time; one wins, the others drop theirs.
 */
const Pattern *find_kept(const char *text) {
    std::atomic<Pattern *> *place = place_of(text);
    if (place == nullptr) {
        return nullptr;
    }
    Pattern *kept = place->load(std::memory_order_acquire);
    if (kept != nullptr) {
        return kept;
    }
    OwnedPattern made = make_pattern(text);
    if (made && place->compare_exchange_strong(kept, made.get(), std::memory_order_acq_rel)) {
        return made.release();
    }
    return kept;
}

// --- Fields, checked -----------------------------------------------------------------------------------------------

// A null value gets the verdict of a pattern that does not compile, but no log line.

int check_text(TextFieldId id, const char *value) {
    const TextField &field = text_fields[id];
    if (value == nullptr) {
        return TAVRIX_INVALID_ENGINE;
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
        return TAVRIX_INVALID_OUT_OF_RANGE;
    }
    return TAVRIX_VALID;
}

} // namespace

// --- Primitives ----------------------------------------------------------------------------------------------------

int validate_against_regex(const char *pattern, const char *value, const char *label) {
    LOG_VERBOSE("Testing [%s] value <%s> against regex: %s\n", label, value, pattern);
    const Pattern *kept = find_kept(pattern);
    return kept != nullptr ? classify(execute(*kept, value), value, label) : match_once(pattern, value, label);
}

int validate_length_and_regex(const char *value, int min_len, int max_len, const char *pattern, const char *label) {
    const long long length = static_cast<long long>(std::strlen(value));
    if (length < min_len) {
        LOG_DEBUG("Validation failed: [%s] value <%s> is too short (<%d)\n", label, value, min_len);
        return TAVRIX_INVALID_TOO_SHORT;
    }
    if (length > max_len) {
        LOG_DEBUG("Validation failed: [%s] value <%s> is too long (>%d)\n", label, value, max_len);
        return TAVRIX_INVALID_TOO_LONG;
    }
    return validate_against_regex(pattern, value, label);
}

int validate_against_options(const char *value, const char *const *options, int count, const char *label) {
    for (int i = 0; i < count; ++i) {
        if (std::strcmp(value, options[i]) == 0) {
            LOG_VERBOSE("[%s] value <%s> matches option <%s>\n", label, value, options[i]);
            return TAVRIX_VALID;
        }
        LOG_VERBOSE("[%s] value <%s> did not match option <%s>\n", label, value, options[i]);
    }
    LOG_DEBUG("Validation failed: Given [%s] value <%s> is not one of the available options\n", label, value);
    return TAVRIX_INVALID_NOT_ALLOWED;
}

int validate_against_blacklist(const char *value, const char *const *blacklist, int count, const char *label) {
    for (int i = 0; i < count; ++i) {
        if (std::strcmp(value, blacklist[i]) == 0) {
            LOG_DEBUG("Validation failed: [%s] value <%s> matches blacklist option <%s>\n", label, value, blacklist[i]);
            return TAVRIX_INVALID_NOT_ALLOWED;
        }
        LOG_VERBOSE("[%s] value <%s> did not match blacklist option <%s>\n", label, value, blacklist[i]);
    }
    LOG_DEBUG("Given [%s] value <%s> is not one of the blacklisted options\n", label, value);
    return TAVRIX_VALID;
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
    return rc != TAVRIX_VALID ? rc
                              : validate_against_blacklist(value, reserved_usernames, count_of(reserved_usernames),
                                                           text_fields[username].label);
}

int validate_status(const char *value) { return check_text(status, value); }
int validate_vlan_mode(const char *value) { return check_text(vlan_mode, value); }
int validate_unit_sw_bank(const char *value) { return check_text(unit_sw_bank, value); }
int validate_mzu_model(const char *value) { return check_text(mzu_model, value); }

int validate_entity_name(const char *value) {
    const bool known = validate_mzu_id(value) == TAVRIX_VALID || validate_port_id(value) == TAVRIX_VALID ||
                       validate_vlan_name_id(value) == TAVRIX_VALID;
    return known ? TAVRIX_VALID : TAVRIX_INVALID_NO_MATCH;
}

int validate_entity_extension(const char *value) {
    if (value == nullptr) {
        return TAVRIX_INVALID_ENGINE;
    }
    LOG_VERBOSE("Validating extension: %s\n", value);
    if (std::strlen(value) > max_extension_length) {
        LOG_DEBUG("Validation failed: [extension] value <%s> is too long (>%d)\n", value, max_extension_length);
        return TAVRIX_INVALID_TOO_LONG;
    }
    return TAVRIX_VALID;
}

int validate_vlan_id(int value) { return check_number(vlan_id, value); }
int validate_unit_id(int value) { return check_number(unit_id, value); }
int validate_laser_id(int value) { return check_number(laser_id, value); }
int validate_olt_id(int value) { return check_number(olt_id, value); }
int validate_onu_id(int value) { return check_number(onu_id, value); }
int validate_port_number(int value) { return check_number(port_number, value); }
int validate_periodic_interval(int value) { return check_number(periodic_interval, value); }

// Every speed is accepted: switches report new ones before the appliance has a word for them.
int validate_port_link_speed(int /*value*/) { return TAVRIX_VALID; }

int validate_date_time(const char *date, const char *time) {
    const int rc = validate_date(date);
    return rc != TAVRIX_VALID ? rc : validate_time(time);
}

/*
 * JSON-RPC 2.0 between daemons: error map, evaluation and responses, channel framing, the service endpoint and its
 * serving step, awaited replies, socket servers, and the router between client sockets and the bus.
 *
 * Stateless: every call owns what it parses and builds until it returns.
 */
#include "tavrix_jrpc.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "internal/handles.h"
#include "internal/log.h"
#include "tavrix_error.h"
#include "tavrix_jrpc_internal.h"
#include "tavrix_mq.h"
#include "tavrix_socket.h"

namespace {

using tavrix::Json;
using tavrix::Text;

constexpr char unit_name[] = "tavrix_jrpc";

constexpr size_t parse_flags = JSON_REJECT_DUPLICATES | JSON_DISABLE_EOF_CHECK | JSON_DECODE_ANY;
constexpr size_t log_flags = JSON_INDENT(4);
constexpr size_t wire_flags = JSON_COMPACT | JSON_ENSURE_ASCII;
constexpr int max_indent = 31;
constexpr char protocol_version[] = "2.0";
constexpr char bar = '|';
constexpr int reply_timeout_ms = 1000;
constexpr int notification_attempts = 5;
constexpr size_t first_draft_size = 256;

// --- Error map -----------------------------------------------------------------------------------------------------

struct CatalogueRow {
    int jrpc_code;
    const char *message;
};

struct ConversionRow {
    int internal_code;
    int jrpc_code;
};

constexpr char unknown_message[] = "Unknown Error";

// By subject, each code once. Of the conversions below, a code's first row is its way back: callers compare that one.
constexpr CatalogueRow catalogue[] = {
    {TAVRIX_JRPC_UNKNOWN_ERROR, "Unknown Error"},
    {TAVRIX_JRPC_VERSION_NOT_SUPPORTED, "JSONRPC Version not supported"},
    {TAVRIX_JRPC_UNSUPPORTED_FEATURE,
     "This feature is not supported in this version, or the API may be incorrectly formed.  Please check the "
     "API documentation for further details."},
    {TAVRIX_JRPC_RESPONSE_FAILED, "Unable to formulate a JSON response"},
    {TAVRIX_JRPC_TIMED_OUT, "Command timed out"},
    {TAVRIX_JRPC_RESERVED_VALUE, "The given value is reserved internally"},
    {TAVRIX_JRPC_NOT_UNIQUE, "Attempted to set unique parameter to a value that already exists."},
    {TAVRIX_JRPC_MZU_OFFLINE, "The MZU for the given MZU ID is offline, and is expected to be online."},
    {TAVRIX_JRPC_MZU_ONLINE, "The MZU for the given MZU ID is online, and is expected to be offline."},
    {TAVRIX_JRPC_NO_SUCH_MZU, "The given MZU ID does not represent an existing MZU."},
    {TAVRIX_JRPC_MZU_EXISTS, "The given MZU ID represents an MZU that already exists."},
    {TAVRIX_JRPC_EXPECTED_MZU, "An MZU ID was expected."},
    {TAVRIX_JRPC_MZU_LIMIT, "The maximum allowed limit for MZUs has been reached."},
    {TAVRIX_JRPC_MAC_LIMIT_UNSUPPORTED, "MAC address limiting is not supported by the MZU or port."},
    {TAVRIX_JRPC_MODEL_UNSUPPORTED, "Switch model does not support this function, or switch is in failed state."},
    {TAVRIX_JRPC_CONFIG_QUEUE_BUSY, "Configuration queue is busy. Cannot perform this action."},
    {TAVRIX_JRPC_CONFIG_PENDING, "There are pending configuration for this edge switch. Cannot perform this action."},
    {TAVRIX_JRPC_INVALID_PORT, "The given Port ID is invalid."},
    {TAVRIX_JRPC_NO_SUCH_PORT, "The given id does not represent any existing port(s)."},
    {TAVRIX_JRPC_EXPECTED_D_PORT, "The given Port ID does not represent a D-port."},
    {TAVRIX_JRPC_EXPECTED_C_PORT, "The given Port ID does not represent a C-port."},
    {TAVRIX_JRPC_TOO_MANY_VLAN_IDS, "The number of VLAN IDs entered exceed the maximum number allowed."},
    {TAVRIX_JRPC_NO_POE, "The given port(s) do not support POE."},
    {TAVRIX_JRPC_MACS_RESTRICTED,
     "Connected MAC addresses cannot be retrieved from this MZU model while MAC address restrictions are applied"},
    {TAVRIX_JRPC_E13_MAC_LIMIT, "Cannot put same MAC address allowed on more than one E13 port"},
    {TAVRIX_JRPC_D4_PEER_TO_PEER,
     "Cannot changed status or VLAN of port d4 while peer to peer communication is enabled"},
    {TAVRIX_JRPC_MANAGEMENT_VLAN, "Cannot set configuration where the management VLAN is not on a D port"},
    {TAVRIX_JRPC_TOO_MANY_ENTRIES, "Attempted to set too many entries for the switch or port."},
    {TAVRIX_JRPC_UNIT_NOT_ACTIVE, "The box is not in ACTIVE mode."},
    {TAVRIX_JRPC_INVALID_DATE_TIME, "Invalid date and time. Input format should be YYYY-MM-DD HH:MM"},
    {TAVRIX_JRPC_NO_FIRMWARE_FILE, "Firmware file not present in filesystem"},
    {TAVRIX_JRPC_FACTORY_VERSION, "Software is already the factory default version"},
    {TAVRIX_JRPC_LASER_ADDRESSES_DIFFER, "Multiple lasers are configured to be redundant with different IP addresses"},
    {TAVRIX_JRPC_LASER_IN_PROTECT_MODE,
     "A ZQN-H7 may not perform a config database sync while one of its lasers is in protect mode"},
    {TAVRIX_JRPC_NO_ACTIVE_LASER, "A ZQN-H7 may not perform a config database sync while no lasers are in active mode"},
    {TAVRIX_JRPC_IP_IN_USE, "The given IP address is already in use"},
    {TAVRIX_JRPC_SUBNET_CONFLICT, "Subnets of VLAN and LOCAL management IP addresses are conflicting"},
    {TAVRIX_JRPC_DATE_NOT_SET, "Date on the ZQN-H7 must be set"},
    {TAVRIX_JRPC_DATABASE_ERROR, "The database encountered an error while processing the data."},
    {TAVRIX_JRPC_NO_RECORDS, "No records in the database are found."},
    {TAVRIX_JRPC_NO_MEMORY, "Insufficient memory error. Please reset the H7."},
    {TAVRIX_JRPC_HARDWARE_ERROR, "One of the dependent hardware components returned an error."},
    {TAVRIX_JRPC_SYSTEM_BUSY, "System is busy."},
    {TAVRIX_JRPC_MAC_EXISTS, "The given MAC Address already exists."},
    {TAVRIX_JRPC_NO_SUCH_MAC, "The given MAC Address does not exist."},
    {TAVRIX_JRPC_NO_SUCH_MODEL, "The given model does not exist."},
    {TAVRIX_JRPC_MAC_EXPECTED, "A Switch MAC address is required for this operation."},
    {TAVRIX_JRPC_INVALID_REQUEST, "Invalid Request"},
    {TAVRIX_JRPC_METHOD_NOT_FOUND, "Method not found"},
    {TAVRIX_JRPC_INVALID_PARAMS, "Invalid parameter(s)"},
    {TAVRIX_JRPC_INTERNAL_ERROR, "Internal error"},
    {TAVRIX_JRPC_PARSE_ERROR, "Parse error"},
};
static_assert(sizeof catalogue / sizeof catalogue[0] == 52, "one row for each JSON-RPC code");

constexpr ConversionRow conversions[] = {
    {TAVRIX_ERR_GENERAL, TAVRIX_JRPC_UNKNOWN_ERROR},
    {TAVRIX_ERR_JSON_RESPONSE, TAVRIX_JRPC_RESPONSE_FAILED},
    {TAVRIX_ERR_UNIMPLEMENTED, TAVRIX_JRPC_UNSUPPORTED_FEATURE},
    {TAVRIX_ERR_PARAMETER_NOT_FOUND, TAVRIX_JRPC_INVALID_PARAMS},
    {TAVRIX_ERR_TIMEOUT, TAVRIX_JRPC_TIMED_OUT},
    {TAVRIX_ERR_RESERVED_VALUE, TAVRIX_JRPC_RESERVED_VALUE},
    {TAVRIX_ERR_UNEXPECTED_PARAMETER, TAVRIX_JRPC_INVALID_PARAMS},
    {TAVRIX_ERR_NOT_UNIQUE, TAVRIX_JRPC_NOT_UNIQUE},
    {TAVRIX_ERR_INVALID_ENTITY, TAVRIX_JRPC_INVALID_PARAMS},
    {TAVRIX_ERR_MZU_OFFLINE, TAVRIX_JRPC_MZU_OFFLINE},
    {TAVRIX_ERR_MZU_ONLINE, TAVRIX_JRPC_MZU_ONLINE},
    {TAVRIX_ERR_NO_SUCH_MZU, TAVRIX_JRPC_NO_SUCH_MZU},
    {TAVRIX_ERR_MZU_EXISTS, TAVRIX_JRPC_MZU_EXISTS},
    {TAVRIX_ERR_EXPECTED_MZU, TAVRIX_JRPC_EXPECTED_MZU},
    {TAVRIX_ERR_MZU_LIMIT, TAVRIX_JRPC_MZU_LIMIT},
    {TAVRIX_ERR_NOT_SUPPORTED, TAVRIX_JRPC_MAC_LIMIT_UNSUPPORTED},
    {TAVRIX_ERR_CONFIG_QUEUE_BUSY, TAVRIX_JRPC_CONFIG_QUEUE_BUSY},
    {TAVRIX_ERR_CONFIG_PENDING, TAVRIX_JRPC_CONFIG_PENDING},
    {TAVRIX_ERR_MODEL_UNSUPPORTED, TAVRIX_JRPC_MODEL_UNSUPPORTED},
    {TAVRIX_ERR_INVALID_PORT, TAVRIX_JRPC_INVALID_PORT},
    {TAVRIX_ERR_NO_SUCH_PORT, TAVRIX_JRPC_NO_SUCH_PORT},
    {TAVRIX_ERR_EXPECTED_D_PORT, TAVRIX_JRPC_EXPECTED_D_PORT},
    {TAVRIX_ERR_EXPECTED_C_PORT, TAVRIX_JRPC_EXPECTED_C_PORT},
    {TAVRIX_ERR_TOO_MANY_VLAN_IDS, TAVRIX_JRPC_TOO_MANY_VLAN_IDS},
    {TAVRIX_ERR_NO_POE, TAVRIX_JRPC_NO_POE},
    {TAVRIX_ERR_MACS_RESTRICTED, TAVRIX_JRPC_MACS_RESTRICTED},
    {TAVRIX_ERR_E13_MAC_LIMIT, TAVRIX_JRPC_E13_MAC_LIMIT},
    {TAVRIX_ERR_D4_PEER_TO_PEER, TAVRIX_JRPC_D4_PEER_TO_PEER},
    {TAVRIX_ERR_TOO_MANY_ENTRIES, TAVRIX_JRPC_TOO_MANY_ENTRIES},
    {TAVRIX_ERR_UNIT_NOT_ACTIVE, TAVRIX_JRPC_UNIT_NOT_ACTIVE},
    {TAVRIX_ERR_INVALID_DATE_TIME, TAVRIX_JRPC_INVALID_DATE_TIME},
    {TAVRIX_ERR_FILE_OPEN, TAVRIX_JRPC_NO_FIRMWARE_FILE},
    {TAVRIX_ERR_FACTORY_VERSION, TAVRIX_JRPC_FACTORY_VERSION},
    {TAVRIX_ERR_LASER_ADDRESSES_DIFFER, TAVRIX_JRPC_LASER_ADDRESSES_DIFFER},
    {TAVRIX_ERR_LASER_IN_PROTECT_MODE, TAVRIX_JRPC_LASER_IN_PROTECT_MODE},
    {TAVRIX_ERR_NO_ACTIVE_LASER, TAVRIX_JRPC_NO_ACTIVE_LASER},
    {TAVRIX_ERR_IP_IN_USE, TAVRIX_JRPC_IP_IN_USE},
    {TAVRIX_ERR_SUBNET_CONFLICT, TAVRIX_JRPC_SUBNET_CONFLICT},
    {TAVRIX_ERR_DATE_NOT_SET, TAVRIX_JRPC_DATE_NOT_SET},
    {TAVRIX_ERR_SYSTEM_ACCESS, TAVRIX_JRPC_DATABASE_ERROR},
    {TAVRIX_ERR_DB_BUSY, TAVRIX_JRPC_DATABASE_ERROR},
    {TAVRIX_ERR_DB_UNFINISHED, TAVRIX_JRPC_DATABASE_ERROR},
    {TAVRIX_ERR_NO_RECORDS, TAVRIX_JRPC_NO_RECORDS},
    {TAVRIX_ERR_UNALLOCATED_WRITE, TAVRIX_JRPC_NO_MEMORY},
    {TAVRIX_ERR_NO_MEMORY, TAVRIX_JRPC_NO_MEMORY},
    {TAVRIX_ERR_HARDWARE, TAVRIX_JRPC_HARDWARE_ERROR},
    {TAVRIX_ERR_SYSTEM_BUSY, TAVRIX_JRPC_SYSTEM_BUSY},
    {TAVRIX_ERR_MAC_EXPECTED, TAVRIX_JRPC_MAC_EXPECTED},
    {TAVRIX_ERR_MANAGEMENT_VLAN, TAVRIX_JRPC_MANAGEMENT_VLAN},
    {TAVRIX_ERR_MAC_EXISTS, TAVRIX_JRPC_MAC_EXISTS},
    {TAVRIX_ERR_NO_SUCH_MODEL, TAVRIX_JRPC_NO_SUCH_MODEL},
    {TAVRIX_ERR_PARAMETER, TAVRIX_JRPC_UNKNOWN_ERROR},
    {TAVRIX_ERR_INVALID_PARAMETER, TAVRIX_JRPC_INVALID_PARAMS},
};
static_assert(sizeof conversions / sizeof conversions[0] == 53, "one row for each status that clients can see");

// --- Envelope ------------------------------------------------------------------------------------------------------

/** A null pointer, such as the text of a number, is shown as the platform's printf shows it. */
const char *printable(const char *text) { return text != nullptr ? text : "(null)"; }

int length_of(const char *text) { return static_cast<int>(std::strlen(text)); }

bool is_text_or_number(const json_t *value) { return json_is_string(value) || json_is_number(value); }

bool is_version_2(const json_t *version) { return std::strcmp(json_string_value(version), protocol_version) == 0; }

/** The members of a request that the evaluator looks at; borrowed from the document, null where absent. */
struct Envelope {
    json_t *id = nullptr;
    json_t *transaction_id = nullptr;
    json_t *params = nullptr;
    json_t *method = nullptr; ///< stays null when a check before it failed
};

/** Both builders and the lock response report as the evaluator. */
bool cannot_add_transaction_id() {
    LOG_ERROR("tavrix_jrpc_eval_request: Failed to add Transaction ID to response\n");
    return false;
}

/** Adds "transaction_id", shared, when there is one. */
bool add_transaction_id(json_t *response, json_t *transaction_id) {
    return transaction_id == nullptr || json_object_set(response, "transaction_id", transaction_id) == 0 ||
           cannot_add_transaction_id();
}

/** The object under "error"; data is shared, null makes it a JSON null. */
Json make_error_object(int jrpc_code, json_t *data) {
    const char *message = tavrix_jrpc_error_message(jrpc_code);
    if (data == nullptr) {
        return Json(json_pack("{s:i,s:s,s:o}", "code", jrpc_code, "message", message, "data", json_null()));
    }
    return Json(json_pack("{s:i,s:s,s:O}", "code", jrpc_code, "message", message, "data", data));
}

bool add_error(json_t *response, int jrpc_code, json_t *data) {
    Json error = make_error_object(jrpc_code, data);
    return error && json_object_set_new(response, "error", error.release()) == 0;
}

Text render_response(const Json &response, int indent) {
    return Text(json_dumps(response.get(), JSON_INDENT(static_cast<size_t>(indent)) | wire_flags));
}

Text build_error(int jrpc_code, json_t *id, json_t *data, int indent, json_t *transaction_id) {
    const Json response(json_pack("{s:s,s:O}", "jsonrpc", protocol_version, "id", id));
    if (!response || !add_transaction_id(response.get(), transaction_id) ||
        !add_error(response.get(), jrpc_code, data)) {
        return nullptr;
    }
    return render_response(response, indent);
}

/** An object, with the member order of write_response(). */
Text pack_response(json_t *result, json_t *id, int indent, json_t *transaction_id) {
    const Json response(json_pack("{s:s,s:O,s:O}", "jsonrpc", protocol_version, "id", id, "result", result));
    if (!response || !add_transaction_id(response.get(), transaction_id)) {
        return nullptr;
    }
    return render_response(response, indent);
}

/** A text under construction; `size` bytes are allocated, `length` of them written. */
struct Draft {
    Text text;
    size_t length = 0;
    size_t size = 0;
};

bool enlarge(Draft *draft, size_t needed) {
    const size_t size = std::max({needed, 2 * draft->size, first_draft_size});
    char *text = static_cast<char *>(std::realloc(draft->text.get(), size));
    if (text == nullptr) {
        return false;
    }
    static_cast<void>(draft->text.release());
    draft->text.reset(text);
    draft->size = size;
    return true;
}

bool append(Draft *draft, const char *bytes, size_t count) {
    const size_t needed = draft->length + count;
    if (needed > draft->size && !enlarge(draft, needed)) {
        return false;
    }
    std::memcpy(draft->text.get() + draft->length, bytes, count);
    draft->length = needed;
    return true;
}

/** Jansson hands the pieces of a rendering to this. */
int append_piece(const char *bytes, size_t count, void *draft) {
    return append(static_cast<Draft *>(draft), bytes, count) ? 0 : -1;
}

template <size_t Size>
bool append_words(Draft *draft, const char (&words)[Size]) {
    return append(draft, words, Size - 1);
}

bool append_value(Draft *draft, const json_t *value) {
    return json_dump_callback(value, append_piece, draft, wire_flags | JSON_ENCODE_ANY) == 0;
}

bool append_transaction_id(Draft *draft, const json_t *transaction_id) {
    return (append_words(draft, R"(,"transaction_id":)") || cannot_add_transaction_id()) &&
           append_value(draft, transaction_id);
}

/**
 * A response on one line. Every request that is served pays for its envelope: as text these few words cost next to
 * nothing, as an object they make a serving step a quarter dearer.
 */
Text write_response(const json_t *result, const json_t *id, const json_t *transaction_id) {
    Draft draft;
    const bool written = append_words(&draft, R"({"jsonrpc":")") && append_words(&draft, protocol_version) &&
                         append_words(&draft, R"(","id":)") && append_value(&draft, id) &&
                         append_words(&draft, R"(,"result":)") && append_value(&draft, result) &&
                         (transaction_id == nullptr || append_transaction_id(&draft, transaction_id));
    constexpr char end[] = "}";
    return written && append(&draft, end, sizeof end) ? std::move(draft.text) : nullptr;
}

Text build_response(json_t *result, json_t *id, int indent, json_t *transaction_id) {
    return indent == 0 ? write_response(result, id, transaction_id) : pack_response(result, id, indent, transaction_id);
}

// --- Evaluation ----------------------------------------------------------------------------------------------------

Json parse_request(const char *text) {
    json_error_t error;
    Json request(json_loads(text, parse_flags, &error));
    if (!request) {
        LOG_ERROR("tavrix_jrpc_eval_request: Cannot parse JSON data\n");
        LOG_ERROR("error: on line %d: %s\n", error.line, error.text);
        return nullptr;
    }
    if (!json_is_object(request.get())) {
        LOG_ERROR("tavrix_jrpc_eval_request: Invalid JSON\n");
        return nullptr;
    }
    return request;
}

/** Shows the request at verbose level; nothing is rendered below it. */
bool show_request(const json_t *request) {
    if (!tavrix_lsyslog_check_severity(TAVRIX_LOG_VERBOSE)) {
        return true;
    }
    const Text rendering(json_dumps(request, log_flags));
    if (!rendering) {
        LOG_ERROR("tavrix_jrpc_eval_request: Could not print JSON\n");
        return false;
    }
    LOG_VERBOSE("Valid JSON received, of length %d\n", length_of(rendering.get()));
    LOG_VERBOSE("JSON Data:\n%s\n", rendering.get());
    return true;
}

/** Fills the envelope; returns 0 or the JSON-RPC code of the first check that fails. */
int check_envelope(const json_t *request, Envelope *out) {
    out->id = json_object_get(request, "id");
    if (out->id != nullptr && !is_text_or_number(out->id)) {
        LOG_ERROR("tavrix_jrpc_eval_request: Invalid Request ID\n");
        return TAVRIX_JRPC_INVALID_REQUEST;
    }
    out->transaction_id = json_object_get(request, "transaction_id");
    if (out->transaction_id != nullptr && !json_is_number(out->transaction_id)) {
        LOG_ERROR("tavrix_jrpc_eval_request: Invalid Transaction ID\n");
        return TAVRIX_JRPC_INVALID_REQUEST;
    }
    const json_t *version = json_object_get(request, "jsonrpc");
    if (!json_is_string(version)) {
        return TAVRIX_JRPC_INVALID_REQUEST;
    }
    if (!is_version_2(version)) {
        return TAVRIX_JRPC_VERSION_NOT_SUPPORTED;
    }
    out->params = json_object_get(request, "params");
    if (out->params != nullptr && !json_is_object(out->params)) {
        return TAVRIX_JRPC_INVALID_PARAMS;
    }
    out->method = json_object_get(request, "method");
    return json_is_string(out->method) ? 0 : TAVRIX_JRPC_METHOD_NOT_FOUND;
}

/** A row without a name is nobody's method. */
const tavrix_jrpc_method *find_method(const tavrix_jrpc_method *table, const char *name) {
    for (; table->handler != nullptr; ++table) {
        if (table->name != nullptr && std::strcmp(table->name, name) == 0) {
            return table;
        }
    }
    return nullptr;
}

/** What a handler left behind. */
struct Outcome {
    Json result;
    Json error_data;
};

int run_handler(tavrix_jrpc_handler handler, json_t *params, Outcome *outcome) {
    json_t *result = nullptr;
    json_t *error_data = nullptr;
    const int rc = handler(params, &result, &error_data);
    outcome->result.reset(result);
    outcome->error_data.reset(error_data);
    return rc;
}

/** Calls the method's handler; returns 0 or the JSON-RPC code of the failure. */
int call_method(const tavrix_jrpc_method *table, const Envelope &envelope, Outcome *outcome) {
    const char *name = json_string_value(envelope.method);
    const tavrix_jrpc_method *found = find_method(table, name);
    if (found == nullptr) {
        LOG_ERROR("invalid method occurred <%s>\n", name);
        return TAVRIX_JRPC_METHOD_NOT_FOUND;
    }
    const int rc = run_handler(found->handler, envelope.params, outcome);
    return rc < 0 ? tavrix_jrpc_error_convert_tavrix_to_jrpc(rc) : 0;
}

/** The text of a successful response; sets the code and gives null when it cannot be built. */
Text respond(const Envelope &envelope, Outcome *outcome, int *jrpc_code) {
    LOG_VERBOSE("creating response\n");
    if (!outcome->result) {
        outcome->result.reset(json_integer(0));
    }
    if (!outcome->result) {
        return nullptr; // the code stays 0, "Unknown Error": clients read "Internal error" as a result without a text
    }
    // The response's id is the method's name: a reply travels by it, and a waiting caller looks for it.
    Text response(tavrix_jrpc_create_response(outcome->result.get(), envelope.method, 0, envelope.transaction_id));
    if (!response) {
        *jrpc_code = TAVRIX_JRPC_INTERNAL_ERROR;
    }
    return response;
}

/** Evaluates a request, an object; `response_text` is null before. */
int evaluate(const json_t *request, const tavrix_jrpc_method *table, char **response_text) {
    if (!show_request(request)) {
        return TAVRIX_ERR_GENERAL;
    }
    Envelope envelope;
    Outcome outcome;
    int code = check_envelope(request, &envelope);
    if (code == 0) {
        code = call_method(table, envelope, &outcome);
    }
    const bool is_notification = envelope.id == nullptr;
    if (is_notification) {
        return code == 0 ? TAVRIX_OK : TAVRIX_ERR_GENERAL;
    }
    if (code == 0) {
        *response_text = respond(envelope, &outcome, &code).release();
    }
    if (*response_text == nullptr) {
        // Without a method value the builder refuses: callers know a reply by that name, and would pass this one over.
        *response_text =
            tavrix_jrpc_create_error(code, envelope.method, outcome.error_data.get(), 0, envelope.transaction_id);
    }
    return *response_text != nullptr ? TAVRIX_OK : TAVRIX_ERR_GENERAL;
}

// --- Framing -------------------------------------------------------------------------------------------------------

struct ChannelRule {
    const char *prefix;
    const char *channel;
};

// Leading letters, not whole names: deployed services listen by these, and a new family of methods needs no row.
constexpr ChannelRule channel_rules[] = {
    {"d", TAVRIX_CHANNEL_FIRST},  {"p", TAVRIX_CHANNEL_FIRST},   {"en", TAVRIX_CHANNEL_FIRST},
    {"mz", TAVRIX_CHANNEL_FIRST}, {"ev", TAVRIX_CHANNEL_EVENTS}, {"i", TAVRIX_CHANNEL_INTERFACES},
};

const char *service_channel(const char *method) {
    for (const ChannelRule &rule : channel_rules) {
        if (std::strncmp(method, rule.prefix, std::strlen(rule.prefix)) == 0) {
            return rule.channel;
        }
    }
    return TAVRIX_CHANNEL_DEFAULT;
}

/** The reply channel that a message names, borrowed from it. A text that could not be read comes as null. */
int find_channel(const json_t *message, const json_error_t &error, const char **channel) {
    if (message == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_parse_channel]: Cannot parse JSON message.\n");
        LOG_DEBUG("Error on line[%d]: %s\n", error.line, error.text);
        return TAVRIX_ERR_GENERAL;
    }
    if (!json_is_object(message)) {
        LOG_DEBUG("[tavrix_jrpc_parse_channel]: Invalid JSON\n");
        return TAVRIX_ERR_GENERAL;
    }
    const json_t *id = json_object_get(message, "id");
    if (id == nullptr) {
        LOG_VERBOSE("[tavrix_jrpc_parse_channel]: No ID\n");
        return TAVRIX_ERR_NO_JSON_ID;
    }
    if (!json_is_string(id)) {
        LOG_DEBUG("[tavrix_jrpc_parse_channel]: Invalid ID\n");
        return TAVRIX_ERR_GENERAL;
    }
    *channel = json_string_value(id);
    return TAVRIX_OK;
}

// --- Endpoint ------------------------------------------------------------------------------------------------------

/** A bus socket that is closed unless it is handed over. */
class BusSocket {
  public:
    BusSocket() = default;
    BusSocket(const BusSocket &) = delete;
    BusSocket &operator=(const BusSocket &) = delete;
    ~BusSocket() {
        if (number_ >= 0) {
            static_cast<void>(tavrix_mq_socket_close(number_));
        }
    }

    int open(int sp_type) { return tavrix_mq_socket_init(sp_type, &number_); }
    int get() const { return number_; }
    int release() { return std::exchange(number_, -1); }

  private:
    int number_ = -1;
};

/** A received bus message. */
struct Frame {
    Text text;
    int length = 0;

    bool empty() const { return !text || length < 1; }
};

int receive_frame(int sock, Frame *frame, int nonblock) {
    char *text = nullptr;
    const int rc = tavrix_mq_socket_recv(sock, &text, &frame->length, nonblock);
    frame->text.reset(text);
    return rc;
}

/** Takes the JSON text out of a frame and releases the frame: a long message is not held twice by what follows. */
int split_frame(Frame *frame, Text *json_text) {
    char *text = nullptr;
    const int rc = tavrix_jrpc_parse_msg(frame->text.get(), frame->length, &text);
    frame->text.reset();
    json_text->reset(text);
    return rc;
}

int close_failed_endpoint(int sock) {
    static_cast<void>(tavrix_mq_socket_close(sock));
    return TAVRIX_ERR_GENERAL;
}

/** Evaluates a request and publishes its response on the reply channel. */
int serve(const json_t *request, const char *channel, int *pub_sock, const tavrix_jrpc_method *table) {
    char *text = nullptr;
    int rc = evaluate(request, table, &text);
    const Text response(text);
    if (rc != TAVRIX_OK || !response) {
        return rc;
    }
    LOG_DEBUG("[tavrix_jrpc_mq_run]: Sending response over mq_pub ...\n");
    rc = tavrix_jrpc_mq_pub(pub_sock, channel, response.get());
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_mq_run]: Error mq_send, rc = %d\n", rc);
    }
    return rc;
}

// --- Waits ---------------------------------------------------------------------------------------------------------

struct Patience {
    const char *method;
    int attempts;
};

constexpr int default_attempts = 10;
constexpr Patience patience[] = {
    {"ports.Get", 60},           {"ports.SetEnabled", 60},
    {"ports.SetVlanLocal", 100}, {"ports.SetVlanAccess", 100},
    {"ports.SetVlanTrunk", 100}, {"ports.poe.GetInstantPower", 200},
    {"db.ApplyBackup", 200},
};

int attempts_for(const char *method) {
    for (const Patience &row : patience) {
        if (std::strcmp(row.method, method) == 0) {
            return row.attempts;
        }
    }
    return default_attempts;
}

/** Parses a text that a matcher looks at. */
Json parse_candidate(const char *text) {
    json_error_t error;
    Json candidate(json_loads(text, parse_flags, &error));
    if (!candidate) {
        // The evaluator's wording, here and for the version's type below: log filters know malformed messages by it.
        LOG_ERROR("tavrix_jrpc_eval_request: Cannot parse JSON data\n");
        LOG_ERROR("error: on line %d: %s\n", error.line, error.text);
    }
    return candidate;
}

bool has_version_2(const json_t *candidate) {
    const json_t *version = json_object_get(candidate, "jsonrpc");
    if (version == nullptr) {
        LOG_DEBUG("Received invalid JSON-RPC format.\n");
        return false;
    }
    if (!json_is_string(version)) {
        LOG_ERROR("tavrix_jrpc_eval_request: Invalid Request ID\n");
        return false;
    }
    if (!is_version_2(version)) {
        LOG_DEBUG("Received unsupported JSON-RPC version.\n");
        return false;
    }
    return true;
}

bool is_reply_to(const json_t *candidate, const char *method) {
    if (!has_version_2(candidate)) {
        return false;
    }
    const json_t *id = json_object_get(candidate, "id");
    if (id != nullptr && !is_text_or_number(id)) {
        LOG_ERROR("tavrix_jrpc_eval_request: Invalid Request ID\n");
        return false;
    }
    if (!json_is_string(id)) {
        LOG_ERROR("Given parameter <%s> is not a string\n", "id");
        return false;
    }
    return std::strcmp(json_string_value(id), method) == 0;
}

/** One attempt of the reply wait. */
Json await_reply_once(int sub_sock, const char *method) {
    constexpr char function[] = "tavrix_jrpc_mq_sub_for_method";
    Frame frame;
    int rc = receive_frame(sub_sock, &frame, 0);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("Unable to receive an API response, rc = %d\n", rc);
        return nullptr;
    }
    LOG_DEBUG("[%s] Received:\n%s\n", function, frame.text.get());
    Text json_text;
    rc = split_frame(&frame, &json_text);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("Unable to parse API response, rc = %d\n", rc);
        return nullptr;
    }
    LOG_DEBUG("[%s] Received API response, evaluating id...\n", function);
    json_t *reply = nullptr;
    rc = tavrix_jrpc_eval_method(method, json_text.get(), &reply);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("Incorrect API response received. rc = %d\n", rc);
    }
    return Json(reply);
}

/** One attempt of the notification wait. */
Json await_notification_once(int sub_sock, const char *method) {
    constexpr char function[] = "tavrix_jrpc_mq_sub_for_notifcation";
    Frame frame;
    int rc = receive_frame(sub_sock, &frame, 0);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("Unable to receive an API response from TRLX Service, rc = %d\n", rc);
        return nullptr;
    }
    LOG_DEBUG("[%s] Recv:\n%s\n", function, frame.text.get());
    Text json_text;
    rc = split_frame(&frame, &json_text);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("Unable to parse notification message, rc = %d\n", rc);
        return nullptr;
    }
    LOG_DEBUG("[%s] Received notification, evaluating method name...\n", function);
    json_t *notification = nullptr;
    rc = tavrix_jrpc_eval_notification(method, json_text.get(), &notification);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("Incorrect notification received. rc = %d\n", rc);
    }
    return Json(notification);
}

/** Shows what a wait brought, at debug level; nothing is rendered below it. */
void show_awaited(const char *function, const json_t *awaited) {
    if (tavrix_lsyslog_check_severity(TAVRIX_LOG_DEBUG)) {
        const Text rendering(json_dumps(awaited, 0));
        LOG_DEBUG("[%s] JSON Out: %s\n", function, printable(rendering.get()));
    }
}

/** Puts a changed receive time-out back on every way out; a failure is only logged. */
class SavedTimeout {
  public:
    SavedTimeout(int sub_sock, int timeout_ms) : sub_sock_(sub_sock), timeout_ms_(timeout_ms) {}
    SavedTimeout(const SavedTimeout &) = delete;
    SavedTimeout &operator=(const SavedTimeout &) = delete;
    ~SavedTimeout() { restore(); }

    void restore() {
        if (restored_) {
            return;
        }
        restored_ = true;
        const int rc = tavrix_mq_socket_set_timeout(sub_sock_, timeout_ms_);
        if (rc != TAVRIX_OK) {
            LOG_DEBUG("[tavrix_jrpc_mq_sub_for_notifcation]: Error mq_socket_set_timeout for sub, rc = %d\n", rc);
        }
    }

  private:
    int sub_sock_;
    int timeout_ms_;
    bool restored_ = false;
};

// --- Socket servers ------------------------------------------------------------------------------------------------

/** What tells the Unix-domain and the TCP server apart. */
struct StreamServer {
    int (*accept)(const int *listen_sock, int *client_out);
    const char *null_text;
    const char *send_text;
};

constexpr StreamServer unix_server = {tavrix_socket_accept, "[tavrix_jrpc_unix_socket_run]: NULL pointer!\n",
                                      "[tavrix_jrpc_unix_socket_run]: Error response!\n"};
// The second text leaves out the "tcp": log filters match it.
constexpr StreamServer tcp_server = {tavrix_tcp_socket_accept, "[tavrix_jrpc_tcp_socket_run]: NULL pointer!\n",
                                     "[tavrix_jrpc_socket_run]: Error response!\n"};

/** A connected client, closed with its scope unless it is handed over. */
class Client {
  public:
    Client() = default;
    explicit Client(int fd) : fd_(fd) {}
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client() {
        if (fd_ >= 0) {
            static_cast<void>(tavrix_socket_close(&fd_));
        }
    }

    int *place() { return &fd_; }
    const int *get() const { return &fd_; }
    /** Closes now, and only once: after a failure the number may be another thread's already. */
    int close() {
        int fd = release();
        return tavrix_socket_close(&fd);
    }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_ = -1;
};

int run_stream_server(const StreamServer &server, const int *listen_sock, const tavrix_jrpc_method *table) {
    if (listen_sock == nullptr || table == nullptr) {
        LOG_DEBUG("%s", server.null_text);
        return TAVRIX_ERR_NULL_INPUT;
    }
    Client client;
    int rc = server.accept(listen_sock, client.place());
    if (rc != TAVRIX_OK) {
        return rc;
    }
    char request[TAVRIX_SERVER_MAX_REQUEST + 1] = "";
    if (tavrix_socket_recv(client.get(), request, TAVRIX_SERVER_MAX_REQUEST) < 1) {
        return TAVRIX_ERR_GENERAL;
    }
    char *text = nullptr;
    rc = tavrix_jrpc_eval_request(request, table, &text);
    const Text response(text);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (response) {
        rc = tavrix_socket_send(client.get(), response.get());
    }
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("%s", server.send_text);
        return rc;
    }
    return client.close();
}

// --- Router --------------------------------------------------------------------------------------------------------

/** Reads one request from a client, at most 8192 bytes in one piece; fewer than 1 byte is a failure. */
int read_request(const int *client, char (&buffer)[TAVRIX_ROUTER_MAX_REQUEST + 1]) {
    std::memset(buffer, 0, sizeof buffer);
    return tavrix_socket_recv(client, buffer, TAVRIX_ROUTER_MAX_REQUEST);
}

/** Parses an object and reports what is wrong under the function's name. */
Json parse_object(const char *text, const char *function) {
    json_error_t error;
    Json object(json_loads(text, parse_flags, &error));
    if (!object) {
        LOG_DEBUG("[%s]: line: %d, text: %s\n", function, error.line, error.text);
        return nullptr;
    }
    if (!json_is_object(object.get())) {
        LOG_DEBUG("[%s]: Invalid JSON message\n", function);
        return nullptr;
    }
    return object;
}

bool cannot_print(const char *function) {
    LOG_DEBUG("[%s]: Cannot print JSON message\n", function);
    return false;
}

/** Pure ASCII is seen at a glance; the rare other text is for Jansson to judge. */
bool is_utf8(const char *text, size_t length) {
    size_t ascii = 0;
    while (ascii < length && static_cast<unsigned char>(text[ascii]) < 0x80) {
        ++ascii;
    }
    return ascii == length || Json(json_stringn(text, length)) != nullptr;
}

/** The way down to a container, as far as a loop needs it to be noticed. */
struct Descent {
    const json_t *landmark; ///< the container above at the last depth that was a power of two
    size_t depth;
};

/**
 * Whether a JSON text can hold the value: its strings and keys are UTF-8 (of a key that is not, Jansson would write
 * half and report success), and it does not contain itself. Round a loop of any length the walk meets its landmark
 * again, so that one comparison for each container is enough to notice.
 */
bool is_renderable(const json_t *value, const Descent &above) {
    if (json_is_string(value)) {
        return is_utf8(json_string_value(value), json_string_length(value));
    }
    if (!json_is_object(value) && !json_is_array(value)) {
        return true;
    }
    if (value == above.landmark) {
        return false;
    }
    const size_t depth = above.depth + 1;
    const bool is_power_of_two = (depth & (depth - 1)) == 0;
    const Descent here = {is_power_of_two ? value : above.landmark, depth};
    for (size_t i = 0; i < json_array_size(value); ++i) {
        if (!is_renderable(json_array_get(value, i), here)) {
            return false;
        }
    }
    json_t *object = const_cast<json_t *>(value); // Jansson's iterators could change an object; these do not
    for (void *member = json_object_iter(object); member != nullptr; member = json_object_iter_next(object, member)) {
        if (!is_utf8(json_object_iter_key(member), json_object_iter_key_len(member)) ||
            !is_renderable(json_object_iter_value(member), here)) {
            return false;
        }
    }
    return true;
}

/**
 * Shows a request at verbose level, as received and as parsed. Nothing is rendered below it, but what has no rendering
 * is refused at every level: a bare value, and what a caller has put together that no text can hold.
 *
 * @param received the text that the request was parsed from, which proves that there is a rendering; or null
 */
bool show_routed_request(const json_t *request, const char *received, const char *function) {
    if (!json_is_object(request) && !json_is_array(request)) {
        return cannot_print(function);
    }
    if (received == nullptr && !is_renderable(request, {nullptr, 0})) {
        return cannot_print(function);
    }
    if (!tavrix_lsyslog_check_severity(TAVRIX_LOG_VERBOSE)) {
        return true;
    }
    const Text rendering(json_dumps(request, log_flags));
    if (!rendering) {
        return cannot_print(function);
    }
    LOG_VERBOSE("[%s]: [Recv]: %s\n", function, received != nullptr ? received : rendering.get());
    LOG_VERBOSE("Valid JSON received, of length %d\n", length_of(rendering.get()));
    LOG_VERBOSE("JSON Data:\n%s\n", rendering.get());
    return true;
}

/** The method's name, borrowed; null when there is none. */
const char *routed_method(const json_t *request, const char *function) {
    const json_t *method = json_object_get(request, "method");
    if (method == nullptr) {
        LOG_DEBUG("[%s]: No JSON method\n", function);
        return nullptr;
    }
    if (!json_is_string(method)) {
        LOG_DEBUG("[%s]: Invalid JSON method\n", function);
        return nullptr;
    }
    LOG_VERBOSE("[%s]: JSON Method: %s\n", function, json_string_value(method));
    return json_string_value(method);
}

/** Puts the router's reply channel in the place of the client's id, which is kept nowhere. */
bool stamp_reply_channel(json_t *request, const char *function) {
    const json_t *id = json_object_get(request, "id");
    if (id == nullptr) {
        LOG_DEBUG("[%s]: No JSON ID\n", function);
        return false;
    }
    if (!is_text_or_number(id)) {
        LOG_DEBUG("[%s]: Invalid JSON ID\n", function);
        return false;
    }
    LOG_VERBOSE("JSON ID: %s\n", printable(json_string_value(id)));
    if (json_object_del(request, "id") != 0) {
        LOG_DEBUG("[%s]: Cannot delete JSON ID\n", function);
        return false;
    }
    if (json_object_set_new(request, "id", json_string(TAVRIX_ROUTER_REPLY_CHANNEL)) != 0) {
        LOG_DEBUG("[%s]: Cannot update JSON ID\n", function);
        return false;
    }
    return true;
}

Text encode_request(const json_t *request, const char *function) {
    Text text(json_dumps(request, wire_flags));
    if (!text) {
        LOG_DEBUG("[%s]: Cannot re-encode JSON message\n", function);
        return nullptr;
    }
    LOG_VERBOSE("JSON request sent, of string length %d\n", length_of(text.get()));
    LOG_VERBOSE("The JSON Request was:\n%s\n", text.get());
    return text;
}

/** Receives the next message on the reply channel, for the split path. */
int receive_reply(int sub_sock, Text *json_text) {
    constexpr char function[] = "tavrix_jrpc_router_mq_extract_response";
    LOG_VERBOSE("[%s]: waiting to receive...\n", function);
    Frame frame;
    int rc = receive_frame(sub_sock, &frame, 0);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[%s]: Failed mq_socket_recv, rc = %d\n", function, rc);
        return rc;
    }
    if (frame.empty()) {
        return TAVRIX_ERR_GENERAL;
    }
    rc = split_frame(&frame, json_text);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[%s]: Error parse_msg, rc = %d\n", function, rc);
    }
    return rc;
}

/** Checks a notification to the router itself; gives the method's name and params, or null. */
const char *check_notification(const json_t *notification, json_t **params_out) {
    constexpr char function[] = "tavrix_jrpc_router_eval_notification";
    if (json_object_get(notification, "id") != nullptr) {
        LOG_ERROR("[%s]: Invalid Request id found in notification\n", function);
        return nullptr;
    }
    const json_t *version = json_object_get(notification, "jsonrpc");
    if (version == nullptr) {
        LOG_ERROR("[%s]: Empty jsonrpc\n", function);
        return nullptr;
    }
    if (!json_is_string(version)) {
        LOG_ERROR("[%s]: Invalid Request jsonrpc\n", function);
        return nullptr;
    }
    if (!is_version_2(version)) {
        LOG_ERROR("[%s]: Invalid Request jsonrpc version\n", function);
        return nullptr;
    }
    *params_out = json_object_get(notification, "params");
    if (*params_out != nullptr && !json_is_object(*params_out)) {
        LOG_ERROR("[%s]: Invalid Request params\n", function);
        return nullptr;
    }
    const json_t *method = json_object_get(notification, "method");
    if (method == nullptr) {
        LOG_ERROR("[%s]: No JSON method\n", function);
        return nullptr;
    }
    if (!json_is_string(method)) {
        LOG_ERROR("[%s]: Invalid Request method\n", function);
        return nullptr;
    }
    return json_string_value(method);
}

Json build_lock_response(const char *id, json_t *transaction_id) {
    Json response(json_pack("{s:s,s:s}", "jsonrpc", protocol_version, "id", id));
    if (!response || !add_error(response.get(), TAVRIX_JRPC_SYSTEM_BUSY, nullptr) ||
        !add_transaction_id(response.get(), transaction_id)) {
        return nullptr;
    }
    return response;
}

Json build_timeout_response(const char *id, int transaction_id) {
    Json response(json_pack("{s:s,s:i,s:s}", "jsonrpc", protocol_version, "transaction_id", transaction_id, "id", id));
    if (!response || !add_error(response.get(), TAVRIX_JRPC_TIMED_OUT, nullptr)) {
        return nullptr;
    }
    return response;
}

} // namespace

// --- Error map -----------------------------------------------------------------------------------------------------

int tavrix_jrpc_error_convert_tavrix_to_jrpc(int internal_code) {
    LOG_DEBUG("Received error code <%d> to convert to jrpc error\n", internal_code);
    for (const ConversionRow &row : conversions) {
        if (row.internal_code == internal_code) {
            return row.jrpc_code;
        }
    }
    return TAVRIX_JRPC_UNKNOWN_ERROR;
}

int tavrix_jrpc_error_convert_jrpc_to_tavrix(int jrpc_code) {
    LOG_DEBUG("Received jrpc error code <%d> to convert to tavrix error\n", jrpc_code);
    for (const ConversionRow &row : conversions) {
        if (row.jrpc_code == jrpc_code) {
            return row.internal_code;
        }
    }
    return TAVRIX_JRPC_UNKNOWN_ERROR; // of the other numbering: callers test for it, any status could be a real one
}

const char *tavrix_jrpc_error_message(int jrpc_code) {
    for (const CatalogueRow &row : catalogue) {
        if (row.jrpc_code == jrpc_code) {
            return row.message;
        }
    }
    return unknown_message;
}

// --- Evaluation and responses --------------------------------------------------------------------------------------

int tavrix_jrpc_eval_request(const char *request_text, const tavrix_jrpc_method *table, char **response_text) {
    if (response_text != nullptr) {
        *response_text = nullptr;
    }
    if (request_text == nullptr || table == nullptr || response_text == nullptr) {
        LOG_ERROR("tavrix_jrpc_eval_request: NULL pointer!\n");
        return TAVRIX_ERR_GENERAL;
    }
    const Json request = parse_request(request_text);
    return request ? evaluate(request.get(), table, response_text) : TAVRIX_ERR_GENERAL;
}

char *tavrix_jrpc_create_response(json_t *result, json_t *id, int indent, json_t *transaction_id) {
    // Only debug lines in create_error, where requests without a method end: its error line is the response itself.
    if (result == nullptr || id == nullptr) {
        LOG_ERROR("tavrix_jrpc_create_response: NULL pointer!\n");
        return nullptr;
    }
    if (indent < 0 || indent > max_indent) {
        LOG_ERROR("tavrix_jrpc_create_response: Invalid Indent Number\n");
        return nullptr;
    }
    Text response = build_response(result, id, indent, transaction_id);
    if (!response) {
        LOG_ERROR("tavrix_jrpc_create_response: Failed to create JRPC response\n");
        return nullptr;
    }
    LOG_DEBUG("JSON response sent, of string length %d\n", length_of(response.get()));
    LOG_VERBOSE("The JSON Response was:\n%s\n", response.get());
    return response.release();
}

char *tavrix_jrpc_create_error(int jrpc_code, json_t *id, json_t *data, int indent, json_t *transaction_id) {
    if (id == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_create_error]: NULL pointer!\n");
        return nullptr;
    }
    if (indent < 0 || indent > max_indent) {
        LOG_DEBUG("[tavrix_jrpc_create_error]: Invalid indent %d!\n", indent);
        return nullptr;
    }
    Text response = build_error(jrpc_code, id, data, indent, transaction_id);
    if (!response) {
        LOG_ERROR("tavrix_jrpc_create_error: Failed to create JRPC response\n");
        return nullptr;
    }
    LOG_ERROR("JSON Response: %s\n", response.get());
    return response.release();
}

// --- Framing -------------------------------------------------------------------------------------------------------

char *tavrix_api_router_json_add_channel(const char *channel, const char *json_text) {
    if (channel == nullptr || json_text == nullptr) {
        LOG_DEBUG("[tavrix_api_router_json_add_channel]: Null Pointer!\n");
        return nullptr;
    }
    const size_t channel_length = std::strlen(channel);
    const size_t text_length = std::strlen(json_text);
    char *frame = static_cast<char *>(std::malloc(channel_length + text_length + 2));
    if (frame == nullptr) {
        LOG_DEBUG("[tavrix_api_router_json_add_channel]: Failed to allocate memory\n");
        return nullptr;
    }
    std::memcpy(frame, channel, channel_length);
    frame[channel_length] = bar;
    std::memcpy(frame + channel_length + 1, json_text, text_length + 1);
    return frame;
}

int tavrix_jrpc_parse_msg(const char *frame, int length, char **json_out) {
    // The lines carry another function's name: log filters match it.
    if (frame == nullptr || json_out == nullptr) {
        LOG_DEBUG("[tavrix_connect_parse_msg]: Null Pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    const void *found = length > 0 ? std::memchr(frame, bar, static_cast<size_t>(length)) : nullptr;
    if (found == nullptr) {
        LOG_DEBUG("[tavrix_connect_parse_msg]: Failed to parse JSON message\n");
        return TAVRIX_ERR_GENERAL;
    }
    const char *text = static_cast<const char *>(found) + 1;
    const size_t text_length = static_cast<size_t>(frame + length - text);
    char *copy = static_cast<char *>(std::malloc(text_length + 1));
    if (copy == nullptr) {
        LOG_DEBUG("[tavrix_connect_parse_msg]: Failed to allocate memory\n");
        return TAVRIX_ERR_GENERAL;
    }
    std::memcpy(copy, text, text_length);
    copy[text_length] = '\0';
    *json_out = copy;
    return TAVRIX_OK;
}

int tavrix_jrpc_parse_channel(const char *json_text, char **channel_out) {
    if (json_text == nullptr || channel_out == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_parse_channel]: Null Pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    json_error_t error;
    const Json message(json_loads(json_text, parse_flags, &error));
    const char *id = nullptr;
    const int rc = find_channel(message.get(), error, &id);
    if (rc == TAVRIX_ERR_NO_JSON_ID) {
        *channel_out = nullptr;
    }
    if (rc != TAVRIX_OK) {
        return rc;
    }
    char *channel = strdup(id);
    if (channel == nullptr) {
        return TAVRIX_ERR_GENERAL;
    }
    *channel_out = channel;
    return TAVRIX_OK;
}

char *tavrix_api_router_json_parse_channel(const char *method) {
    if (method == nullptr) {
        LOG_DEBUG("[tavrix_api_router_json_parse_channel]: Null Pointer!\n");
        return nullptr;
    }
    return strdup(service_channel(method));
}

// --- Endpoint ------------------------------------------------------------------------------------------------------

int tavrix_jrpc_mq_pub_init(const char *address, int *pub_sock_out) {
    if (address == nullptr || pub_sock_out == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_mq_pub_init]: NULL pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    BusSocket pub;
    int rc = pub.open(TAVRIX_SP_PUB);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_mq_pub_init]: Error mq_socket_init for pub, rc = %d\n", rc);
        return TAVRIX_ERR_GENERAL;
    }
    int endpoint = 0;
    rc = tavrix_mq_socket_bind(pub.get(), TAVRIX_TRANSPORT_TCP, address, &endpoint);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_mq_pub_init]: Error mq_socket_bind for pub, rc = %d\n", rc);
        static_cast<void>(pub.release()); // stays open: a daemon without a publisher ends, and the socket with it
        return rc;
    }
    LOG_DEBUG("[tavrix_jrpc_mq_pub_init]: mq_socket for pub initialized.\n");
    *pub_sock_out = pub.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_mq_sub_init(int *sub_sock_out, int with_timeout) {
    if (sub_sock_out == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_mq_sub_init]: NULL pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    BusSocket sub;
    int rc = sub.open(TAVRIX_SP_SUB);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_mq_sub_init]: Error mq_socket_init for sub, rc = %d\n", rc);
        return TAVRIX_ERR_GENERAL;
    }
    rc = with_timeout != 0 ? tavrix_mq_socket_set_timeout(sub.get(), reply_timeout_ms) : TAVRIX_OK;
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_mq_sub_init]: Error tavrix_mq_socket_set_timeout for sub, rc = %d\n", rc);
        static_cast<void>(sub.release()); // stays open, like a publisher that could not bind
        return TAVRIX_ERR_GENERAL;
    }
    LOG_DEBUG("[tavrix_jrpc_mq_sub_init]: mq_socket for sub initialized.\n");
    *sub_sock_out = sub.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_mq_sub_set_channel(const char *address, const char *channel, int *sub_sock) {
    if (address == nullptr || channel == nullptr || sub_sock == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_mq_sub_set_channel]: NULL pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    int endpoint = 0;
    int rc = tavrix_mq_socket_connect(*sub_sock, TAVRIX_TRANSPORT_TCP, address, &endpoint);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_mq_sub_set_channel]: Error mq_socket_connect for sub, rc = %d\n", rc);
        return close_failed_endpoint(*sub_sock);
    }
    rc = tavrix_mq_socket_subscribe(*sub_sock, channel);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_mq_sub_set_channel]: Error mq_socket_subscribe for sub, rc = %d\n", rc);
        return close_failed_endpoint(*sub_sock);
    }
    return TAVRIX_OK;
}

int tavrix_jrpc_mq_run(int *sub_sock, int *pub_sock, const tavrix_jrpc_method *table, int nonblock) {
    if (sub_sock == nullptr || pub_sock == nullptr || table == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_mq_run]: Null Pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    LOG_VERBOSE("[tavrix_jrpc_mq_run]: waiting to receive... \n");
    Frame frame;
    int rc = receive_frame(*sub_sock, &frame, nonblock);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (frame.empty()) {
        return TAVRIX_ERR_GENERAL;
    }
    LOG_VERBOSE("[tavrix_jrpc_mq_run]: mq_recv msg[%d]: %s\n", frame.length, frame.text.get());
    Text json_text;
    rc = split_frame(&frame, &json_text);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_mq_run]: Error parse_msg, rc = %d\n", rc);
        return rc;
    }
    json_error_t error;
    const Json request(json_loads(json_text.get(), parse_flags, &error));
    json_text.reset(); // the channel and the evaluation share what was read
    const char *channel = nullptr;
    rc = find_channel(request.get(), error, &channel);
    if (rc != TAVRIX_OK && rc != TAVRIX_ERR_NO_JSON_ID) {
        LOG_DEBUG("[tavrix_jrpc_mq_run]: Error parse_channel, rc = %d\n", rc);
        return rc;
    }
    return serve(request.get(), channel, pub_sock, table);
}

int tavrix_jrpc_mq_pub(const int *pub_sock, const char *channel, const char *json_text) {
    if (pub_sock == nullptr || channel == nullptr || json_text == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_mq_pub]: Null Pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    LOG_VERBOSE("[tavrix_jrpc_mq_pub]: Prefixing channel with response...\n");
    const Text frame(tavrix_api_router_json_add_channel(channel, json_text));
    if (!frame) {
        LOG_DEBUG("[tavrix_jrpc_mq_pub]: add_channel failed\n");
        return TAVRIX_ERR_GENERAL;
    }
    LOG_VERBOSE("[tavrix_jrpc_mq_pub]: Sending message over mq_pub...\n");
    const int rc = tavrix_mq_socket_send(*pub_sock, frame.get());
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_mq_pub]: Error mq_send, rc = %d\n", rc);
        return rc;
    }
    LOG_VERBOSE("[tavrix_jrpc_mq_pub]: mq_send msg[%d]: %s\n", length_of(frame.get()), frame.get());
    return TAVRIX_OK;
}

// --- Waits ---------------------------------------------------------------------------------------------------------

int tavrix_jrpc_mq_sub_for_method(int sub_sock, const char *method, json_t **reply_out) {
    constexpr char function[] = "tavrix_jrpc_mq_sub_for_method";
    if (method == nullptr || reply_out == nullptr) {
        LOG_DEBUG("[%s]: Null Pointer!\n", function);
        return TAVRIX_ERR_NULL_INPUT;
    }
    for (int attempts = attempts_for(method); attempts > 0; --attempts) {
        LOG_DEBUG("Waiting for API response <%s>, attempts remaining: %d\n", method, attempts);
        Json reply = await_reply_once(sub_sock, method);
        if (reply) {
            show_awaited(function, reply.get());
            *reply_out = reply.release();
            return TAVRIX_OK;
        }
    }
    LOG_DEBUG("Could not receive expected API response.\n");
    return TAVRIX_ERR_NO_RESPONSE;
}

int tavrix_jrpc_eval_method(const char *method, const char *json_text, json_t **reply_out) {
    if (method == nullptr || json_text == nullptr) {
        LOG_DEBUG("[%s]: Null Pointer!\n", "tavrix_jrpc_eval_method");
        return TAVRIX_ERR_NULL_INPUT;
    }
    Json candidate = parse_candidate(json_text);
    if (!candidate) {
        return TAVRIX_ERR_GENERAL;
    }
    if (!is_reply_to(candidate.get(), method)) {
        LOG_DEBUG("Found incorrect method \"%s\".\n",
                  printable(json_string_value(json_object_get(candidate.get(), "id"))));
        return TAVRIX_ERR_GENERAL;
    }
    LOG_DEBUG("Found correct method \"%s\".\n", method);
    if (reply_out != nullptr) {
        *reply_out = candidate.release();
    }
    return TAVRIX_OK;
}

int tavrix_jrpc_mq_sub_for_notifcation(int sub_sock, const char *method, json_t **notification_out) {
    constexpr char function[] = "tavrix_jrpc_mq_sub_for_notifcation";
    if (method == nullptr || notification_out == nullptr) {
        LOG_DEBUG("[%s]: Null Pointer!\n", function);
        return TAVRIX_ERR_NULL_INPUT;
    }
    int timeout_ms = 0;
    int rc = tavrix_mq_socket_get_timeout(sub_sock, &timeout_ms);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_mq_sub_for_notifcation]: Error mq_socket_get_timeout for sub, rc = %d\n", rc);
        return TAVRIX_ERR_GENERAL;
    }
    rc = tavrix_mq_socket_set_timeout(sub_sock, -1);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_mq_sub_for_notifcation]: Error mq_socket_set_timeout for sub, rc = %d\n", rc);
        return TAVRIX_ERR_GENERAL;
    }
    SavedTimeout saved(sub_sock, timeout_ms);
    for (int attempts = notification_attempts; attempts > 0; --attempts) {
        LOG_DEBUG("[%s] Waiting for <%s> response, attempts remaining: %d\n", function, method, attempts);
        Json notification = await_notification_once(sub_sock, method);
        if (notification) {
            saved.restore();
            show_awaited(function, notification.get());
            *notification_out = notification.release();
            return TAVRIX_OK;
        }
    }
    saved.restore();
    LOG_DEBUG("Could not receive expected notification.\n");
    return TAVRIX_ERR_GENERAL; // not TAVRIX_ERR_NO_RESPONSE: nobody was asked, so no service is to blame
}

int tavrix_jrpc_eval_notification(const char *method, const char *json_text, json_t **out) {
    if (method == nullptr || json_text == nullptr || out == nullptr) {
        LOG_DEBUG("[%s]: Null Pointer!\n", "tavrix_jrpc_eval_notification");
        return TAVRIX_ERR_NULL_INPUT;
    }
    Json candidate = parse_candidate(json_text);
    if (!candidate || !has_version_2(candidate.get())) {
        return TAVRIX_ERR_GENERAL;
    }
    const json_t *name = json_object_get(candidate.get(), "method");
    if (name == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_eval_notification]: No JSON method\n");
        return TAVRIX_ERR_GENERAL;
    }
    if (!json_is_string(name)) {
        LOG_DEBUG("[tavrix_jrpc_eval_notification]: Invalid JSON method\n");
        return TAVRIX_ERR_GENERAL;
    }
    LOG_VERBOSE("JSON Method: %s\n", json_string_value(name));
    if (std::strcmp(json_string_value(name), method) != 0) {
        LOG_DEBUG("Found incorrect method \"%s\".\n", json_string_value(name));
        return TAVRIX_ERR_GENERAL;
    }
    LOG_DEBUG("Found correct method \"%s\".\n", method);
    *out = candidate.release();
    return TAVRIX_OK;
}

// --- Socket servers ------------------------------------------------------------------------------------------------

int tavrix_jrpc_unix_socket_init(const char *path, int *sock_out, int nonblocking) {
    if (sock_out == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_unix_socket_init]: NULL pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    int listener = 0;
    if (tavrix_unix_socket_init(path, &listener, nonblocking) != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_unix_socket_init]: cannot init unix socket!\n");
    } else {
        LOG_DEBUG("[tavrix_jrpc_unix_socket_init]: unix socket initialized!\n");
    }
    // A listener that failed shows as the handle 0: daemons start without it, and look at the handle and the log.
    *sock_out = listener;
    return TAVRIX_OK;
}

int tavrix_jrpc_tcp_socket_init(unsigned port, int *sock_out, int nonblocking) {
    if (sock_out == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_tcp_socket_init]: NULL pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    int listener = 0;
    if (tavrix_tcp_socket_init(port, &listener, nonblocking) != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_tcp_socket_init]: cannot init tcp socket!\n");
    } else {
        LOG_DEBUG("[tavrix_jrpc_tcp_socket_init]: tcp socket initialized!\n");
    }
    // A listener that failed shows as the handle 0, as in tavrix_jrpc_unix_socket_init().
    *sock_out = listener;
    return TAVRIX_OK;
}

int tavrix_jrpc_unix_socket_run(const int *listen_sock, const tavrix_jrpc_method *table) {
    return run_stream_server(unix_server, listen_sock, table);
}

int tavrix_jrpc_tcp_socket_run(const int *listen_sock, const tavrix_jrpc_method *table) {
    return run_stream_server(tcp_server, listen_sock, table);
}

int tavrix_jrpc_pull_socket_init(const char *address, int *sock_out) {
    // The lines carry the names of the TCP server and of the publisher: log filters match them.
    if (sock_out == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_tcp_socket_init]: NULL pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    BusSocket pull;
    if (pull.open(TAVRIX_SP_PULL) != TAVRIX_OK) {
        LOG_ERROR("[tavrix_jrpc_tcp_socket_init]: cannot init pull socket!\n");
    } else {
        LOG_DEBUG("[tavrix_jrpc_tcp_socket_init]: pull socket initialized!\n");
    }
    int endpoint = 0;
    const int rc = tavrix_mq_socket_bind(pull.get(), TAVRIX_TRANSPORT_TCP, address, &endpoint);
    if (rc != TAVRIX_OK) {
        LOG_ERROR("[tavrix_jrpc_mq_pub_init]: Error mq_socket_bind for pull, rc = %d\n", rc);
        return rc;
    }
    *sock_out = pull.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_pull_socket_run(int sock, const tavrix_jrpc_method *table) {
    if (table == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_pull_socket_run]: NULL pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    Frame request;
    if (receive_frame(sock, &request, 0) != TAVRIX_OK) {
        return TAVRIX_ERR_GENERAL;
    }
    char *text = nullptr;
    const int rc = tavrix_jrpc_eval_request(request.text.get(), table, &text);
    const Text never_sent(text); // a pull socket cannot answer
    return rc;
}

// --- Router: requests ----------------------------------------------------------------------------------------------

int tavrix_jrpc_router_socket_to_mq(const int *listen_sock, const int *pub_sock, int *client_out) {
    if (listen_sock == nullptr || pub_sock == nullptr || client_out == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_router_socket_to_mq]: NULL pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    Client client;
    int rc = tavrix_socket_accept(listen_sock, client.place());
    if (rc != TAVRIX_OK) {
        return rc;
    }
    char buffer[TAVRIX_ROUTER_MAX_REQUEST + 1];
    if (read_request(client.get(), buffer) < 1) {
        return TAVRIX_ERR_GENERAL;
    }
    char *request_text = nullptr;
    char *channel_text = nullptr;
    rc = tavrix_jrpc_router_process_msg(buffer, &request_text, &channel_text);
    const Text request(request_text);
    const Text channel(channel_text);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_router_socket_to_mq]: router_process_msg: failed\n");
        return rc;
    }
    LOG_DEBUG("[tavrix_jrpc_router_socket_to_mq]: Sending response over mq_pub ...\n"); // sic, for log filters
    rc = tavrix_jrpc_mq_pub(pub_sock, channel.get(), request.get());
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_router_socket_to_mq]: Error mq_pub, rc = %d\n", rc);
        return rc;
    }
    *client_out = client.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_router_process_msg(const char *text, char **request_out, char **channel_out) {
    constexpr char function[] = "tavrix_jrpc_router_process_msg";
    if (text == nullptr || request_out == nullptr || channel_out == nullptr) {
        return TAVRIX_ERR_GENERAL;
    }
    const Json request = parse_object(text, function);
    if (!request || !show_routed_request(request.get(), text, function)) {
        return TAVRIX_ERR_GENERAL;
    }
    const char *method = routed_method(request.get(), function);
    if (method == nullptr) {
        return TAVRIX_ERR_GENERAL;
    }
    char *channel = tavrix_api_router_json_parse_channel(method);
    LOG_VERBOSE("channel: %s\n", printable(channel));
    if (channel != nullptr) {
        *channel_out = channel; // before the remaining checks: callers release it whatever the status
    }
    if (!stamp_reply_channel(request.get(), function)) {
        return TAVRIX_ERR_GENERAL;
    }
    Text encoded = encode_request(request.get(), function);
    if (!encoded) {
        return TAVRIX_ERR_GENERAL;
    }
    *request_out = encoded.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_router_socket_extract_request(const int *listen_sock, int *client_out, json_t **request_out) {
    constexpr char function[] = "tavrix_jrpc_router_socket_extract_request";
    if (listen_sock == nullptr || client_out == nullptr || request_out == nullptr) {
        LOG_DEBUG("[%s]: NULL pointer!\n", function);
        return TAVRIX_ERR_GENERAL;
    }
    const int rc = tavrix_socket_accept(listen_sock, client_out);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[%s]: Failed socket_accept, rc = %d\n", function, rc);
        return rc;
    }
    char buffer[TAVRIX_ROUTER_MAX_REQUEST + 1];
    const int readsize = read_request(client_out, buffer);
    if (readsize < 1) {
        LOG_DEBUG("[%s]: Failed socket_recv, readsize = %d\n", function, readsize);
        return TAVRIX_ERR_GENERAL; // the client stays open: the caller may answer, and closes it
    }
    Json request = parse_object(buffer, function);
    if (!request) {
        return TAVRIX_ERR_GENERAL;
    }
    *request_out = request.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_router_mq_dispatch_request(const int *pub_sock, json_t *request) {
    constexpr char function[] = "tavrix_jrpc_router_mq_dispatch_request";
    if (pub_sock == nullptr || request == nullptr) {
        LOG_DEBUG("[%s]: NULL pointer!\n", function);
        return TAVRIX_ERR_GENERAL;
    }
    if (!show_routed_request(request, nullptr, function)) {
        return TAVRIX_ERR_GENERAL;
    }
    const char *method = routed_method(request, function);
    if (method == nullptr) {
        return TAVRIX_ERR_GENERAL;
    }
    const Text channel(tavrix_api_router_json_parse_channel(method));
    LOG_VERBOSE("channel: %s\n", printable(channel.get()));
    if (!channel) {
        LOG_DEBUG("[%s]: No JSON uuid\n", function);
        return TAVRIX_ERR_GENERAL;
    }
    if (!stamp_reply_channel(request, function)) {
        return TAVRIX_ERR_GENERAL;
    }
    const Text encoded = encode_request(request, function);
    if (!encoded) {
        return TAVRIX_ERR_GENERAL;
    }
    LOG_DEBUG("[%s]: Sending response over mq_pub ...\n", function); // sic, for log filters
    const int rc = tavrix_jrpc_mq_pub(pub_sock, channel.get(), encoded.get());
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[%s]: Error mq_pub, rc = %d\n", function, rc);
    }
    return rc;
}

// --- Router: responses ---------------------------------------------------------------------------------------------

int tavrix_jrpc_router_mq_to_socket(const int *sub_sock, int *client_sock) {
    if (sub_sock == nullptr || client_sock == nullptr) {
        LOG_DEBUG("[tavrix_jrpc_router_mq_to_socket]: Null Pointer!\n");
        return TAVRIX_ERR_NULL_INPUT;
    }
    const Client client(std::exchange(*client_sock, -1)); // closed on every way out
    LOG_VERBOSE("[tavrix_jrpc_router_mq_to_socket]: waiting to receive... \n");
    Frame frame;
    int rc = receive_frame(*sub_sock, &frame, 0);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (frame.empty()) {
        return TAVRIX_ERR_GENERAL;
    }
    LOG_VERBOSE("[tavrix_jrpc_router_mq_to_socket]: mq_recv msg[%d]: %s\n", frame.length, frame.text.get());
    Text json_text;
    rc = split_frame(&frame, &json_text);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_router_mq_to_socket]: Error parse_msg, rc = %d\n", rc);
        return rc;
    }
    LOG_VERBOSE("[tavrix_jrpc_router_mq_to_socket]: parse_msg json_msg[%d]: %s\n", length_of(json_text.get()),
                json_text.get());
    rc = tavrix_socket_send(client.get(), json_text.get());
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_router_mq_to_socket]: Error send, rc = %d\n", rc);
    }
    return rc;
}

int tavrix_jrpc_router_mq_extract_response(const int *sub_sock, json_t **response_out) {
    constexpr char function[] = "tavrix_jrpc_router_mq_extract_response";
    if (sub_sock == nullptr || response_out == nullptr) {
        LOG_DEBUG("[%s]: NULL pointer!\n", function);
        return TAVRIX_ERR_GENERAL;
    }
    Text json_text;
    const int rc = receive_reply(*sub_sock, &json_text);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    LOG_VERBOSE("[%s]: Recv: %s\n", function, json_text.get());
    Json response = parse_object(json_text.get(), function);
    if (!response) {
        return TAVRIX_ERR_GENERAL;
    }
    *response_out = response.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_router_socket_dispatch_response(const int *client_sock, json_t *response) {
    constexpr char function[] = "tavrix_jrpc_router_socket_dispatch_response";
    if (client_sock == nullptr || response == nullptr) {
        LOG_DEBUG("[%s]: NULL pointer!\n", function);
        return TAVRIX_ERR_GENERAL;
    }
    const Text text(json_dumps(response, wire_flags));
    if (!text) {
        LOG_DEBUG("[%s]: Cannot decode JSON message\n", function); // "decode", for a rendering: log filters match it
        return TAVRIX_ERR_GENERAL;
    }
    LOG_VERBOSE("JSON response sent, of string length %d\n", length_of(text.get()));
    LOG_VERBOSE("The JSON Request was:\n%s\n", text.get());
    LOG_DEBUG("[%s]: Sending response over socket ...\n", function);
    const int rc = tavrix_socket_send(client_sock, text.get());
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[tavrix_jrpc_router_mq_to_socket]: Error send, rc = %d\n", rc); // one line for both paths
    }
    return rc;
}

// --- Router: its own notifications and answers ---------------------------------------------------------------------

int tavrix_jrpc_router_eval_notification(json_t *notification, const tavrix_jrpc_method *table) {
    constexpr char function[] = "tavrix_jrpc_router_eval_notification";
    if (notification == nullptr || table == nullptr) {
        LOG_ERROR("[%s]: NULL pointer!\n", function);
        return TAVRIX_ERR_GENERAL;
    }
    json_t *params = nullptr;
    const char *name = check_notification(notification, &params);
    if (name == nullptr) {
        return TAVRIX_ERR_GENERAL;
    }
    const tavrix_jrpc_method *found = find_method(table, name);
    if (found == nullptr) {
        LOG_WARNING("[%s]: No method handler found\n", function);
        return TAVRIX_ERR_GENERAL;
    }
    Outcome dropped; // a notification has no reply
    const int rc = run_handler(found->handler, params, &dropped);
    if (rc != TAVRIX_OK) {
        LOG_ERROR("[%s]: Failed method handler, rc = %d\n", function, rc);
    }
    return rc;
}

int tavrix_jrpc_router_create_system_lock_response(json_t *request, json_t **response_out) {
    constexpr char function[] = "tavrix_jrpc_router_create_system_lock_response";
    if (request == nullptr || response_out == nullptr) {
        LOG_DEBUG("[%s]: NULL pointer!\n", function);
        return TAVRIX_ERR_GENERAL;
    }
    *response_out = nullptr;
    const json_t *id = json_object_get(request, "id");
    if (id == nullptr) {
        LOG_DEBUG("[%s]: No JSON id\n", function);
        return TAVRIX_ERR_GENERAL;
    }
    if (!json_is_string(id)) {
        LOG_DEBUG("[%s]: Invalid JSON method\n", function); // "method", for the id: log filters match it
        return TAVRIX_ERR_GENERAL;
    }
    *response_out = build_lock_response(json_string_value(id), json_object_get(request, "transaction_id")).release();
    return *response_out != nullptr ? TAVRIX_OK : TAVRIX_ERR_GENERAL;
}

int tavrix_jrpc_router_create_system_timeout_response(const char *id, int transaction_id, json_t **response_out) {
    if (response_out != nullptr) {
        *response_out = nullptr;
    }
    if (id == nullptr || response_out == nullptr) {
        LOG_DEBUG("[%s]: NULL pointer!\n", "tavrix_jrpc_router_create_system_timeout_response");
        return TAVRIX_ERR_GENERAL;
    }
    *response_out = build_timeout_response(id, transaction_id).release();
    return *response_out != nullptr ? TAVRIX_OK : TAVRIX_ERR_GENERAL;
}

/*
 * JSON-RPC 2.0 between daemons: error map, evaluation and responses, channel framing, the service endpoint and its
 * serving step, awaited replies, socket servers, and the router between client sockets and the bus.
 *
 * Stateless: every call owns what it parses and builds until it returns. Each chapter has its private part first, then
 * its public functions. The tables of codes, channels and attempts are in internal/jrpc_tables.h.
 */
#include "tavrix_jrpc.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/handles.h"
#include "common/log.h"
#include "common/message.h"
#include "common/sockets.h"
#include "internal/jrpc_tables.h"
#include "internal/json_text.h"
#include "internal/tavrix_jrpc_seam.h"
#include "tavrix_error.h"
#include "tavrix_mq.h"
#include "tavrix_socket.h"

namespace {

using tavrix::BusSocket;
using tavrix::Draft;
using tavrix::into;
using tavrix::is_text_or_number;
using tavrix::Json;
using tavrix::parse_flags;
using tavrix::protocol_version;
using tavrix::StreamSocket;
using tavrix::Text;
using tavrix::wire_flags;

constexpr char unit_name[] = "tavrix_jrpc";

constexpr size_t log_flags = JSON_INDENT(4);
constexpr int max_indent = 31;
constexpr char bar = '|';
constexpr int reply_timeout_ms = 1000;
constexpr int notification_attempts = 5;

// --- What all chapters use -----------------------------------------------------------------------------------------

/** For a null text, as of an id that is a number: what glibc's printf shows. */
const char *printable(const char *text) { return text != nullptr ? text : "(null)"; }

int length_of(const char *text) { return static_cast<int>(std::strlen(text)); }

bool is_version_2(const json_t *version) { return std::strcmp(json_string_value(version), protocol_version) == 0; }

// Some functions report a null argument in capitals, others do not: log filters match both.
constexpr char null_capitals[] = "NULL pointer!";
constexpr char null_initials[] = "Null Pointer!";

/** Logs why a function fails, at debug level and with the caller's line number, and returns its status. */
int refuse(const char *function, const char *words, int status = TAVRIX_ERR_GENERAL, int line = __builtin_LINE()) {
    static_cast<void>(tavrix_lsyslog_log(TAVRIX_LOG_DEBUG, unit_name, line, "[%s]: %s\n", function, words));
    return status;
}

/** The same for a call inside the function that failed with this status. */
int failed(const char *function, const char *words, int rc, int line = __builtin_LINE()) {
    static_cast<void>(
        tavrix_lsyslog_log(TAVRIX_LOG_DEBUG, unit_name, line, "[%s]: %s, rc = %d\n", function, words, rc));
    return rc;
}

/** The method's name, borrowed; logs why and returns null when there is none. */
const char *method_name(const json_t *message, const char *function) {
    const json_t *method = json_object_get(message, "method");
    if (!json_is_string(method)) {
        refuse(function, method == nullptr ? "No JSON method" : "Invalid JSON method");
    }
    return json_string_value(method);
}

} // namespace

// --- Error map -----------------------------------------------------------------------------------------------------

int tavrix_jrpc_error_convert_tavrix_to_jrpc(int internal_code) {
    LOG_DEBUG("Received error code <%d> to convert to jrpc error\n", internal_code);
    return tavrix::code_of_status(internal_code);
}

int tavrix_jrpc_error_convert_jrpc_to_tavrix(int jrpc_code) {
    LOG_DEBUG("Received jrpc error code <%d> to convert to tavrix error\n", jrpc_code);
    return tavrix::status_of_code(jrpc_code);
}

const char *tavrix_jrpc_error_message(int jrpc_code) { return tavrix::message_of_code(jrpc_code); }

// --- Evaluation ----------------------------------------------------------------------------------------------------

namespace {

/** Parses a message. The waits do so, too, in the evaluator's name: log filters match it. */
Json parse_message(const char *text) {
    json_error_t error;
    Json message(json_loads(text, parse_flags, &error));
    if (!message) {
        LOG_ERROR("tavrix_jrpc_eval_request: Cannot parse JSON data\n");
        LOG_ERROR("error: on line %d: %s\n", error.line, error.text);
    }
    return message;
}

/**
 * Shows a request at verbose level; false when it cannot be rendered. Nothing is rendered below that level.
 *
 * @param router   the router's function, which also logs what it received; null for the evaluator
 * @param received the text that the request was parsed from; null shows the rendering
 */
bool show_request(const json_t *request, const char *router, const char *received) {
    if (!tavrix_lsyslog_check_severity(TAVRIX_LOG_VERBOSE)) {
        return true;
    }
    const Text rendering(json_dumps(request, log_flags));
    if (!rendering) {
        return false;
    }
    if (router != nullptr) {
        LOG_VERBOSE("[%s]: [Recv]: %s\n", router, received != nullptr ? received : rendering.get());
    }
    LOG_VERBOSE("Valid JSON received, of length %d\n", length_of(rendering.get()));
    LOG_VERBOSE("JSON Data:\n%s\n", rendering.get());
    return true;
}

/** The members of a request that the evaluator looks at; borrowed from the document, null where absent. */
struct Envelope {
    json_t *id = nullptr;
    json_t *transaction_id = nullptr;
    json_t *params = nullptr;
    json_t *method = nullptr; ///< stays null when a check before it failed
};

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

/** A row without a name is never found. */
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
    return handler(params, into(outcome->result), into(outcome->error_data));
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

/** The text of a successful response; null, and the code set, when it cannot be built. */
Text respond(const Envelope &envelope, Outcome *outcome, int *jrpc_code) {
    LOG_VERBOSE("creating response\n");
    if (!outcome->result) {
        outcome->result.reset(json_integer(0));
    }
    if (!outcome->result) {
        return nullptr; // the code stays 0, "Unknown Error": to clients, "Internal error" is a result that has no text
    }
    // The response's id is the method's name: the router and waiting daemons recognise their reply by it.
    Text response(tavrix_jrpc_create_response(outcome->result.get(), envelope.method, 0, envelope.transaction_id));
    if (!response) {
        *jrpc_code = TAVRIX_JRPC_INTERNAL_ERROR;
    }
    return response;
}

/** Evaluates a request, an object; `response_text` is null before. */
int evaluate(const json_t *request, const tavrix_jrpc_method *table, char **response_text) {
    if (!show_request(request, nullptr, nullptr)) {
        LOG_ERROR("tavrix_jrpc_eval_request: Could not print JSON\n");
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
        // Without a method the builder refuses: callers recognise a reply by that name and would ignore this one.
        *response_text =
            tavrix_jrpc_create_error(code, envelope.method, outcome.error_data.get(), 0, envelope.transaction_id);
    }
    return *response_text != nullptr ? TAVRIX_OK : TAVRIX_ERR_GENERAL;
}

} // namespace

int tavrix_jrpc_eval_request(const char *request_text, const tavrix_jrpc_method *table, char **response_text) {
    if (response_text != nullptr) {
        *response_text = nullptr;
    }
    if (request_text == nullptr || table == nullptr || response_text == nullptr) {
        LOG_ERROR("tavrix_jrpc_eval_request: NULL pointer!\n");
        return TAVRIX_ERR_GENERAL;
    }
    const Json request = parse_message(request_text);
    if (!request) {
        return TAVRIX_ERR_GENERAL;
    }
    if (!json_is_object(request.get())) {
        LOG_ERROR("tavrix_jrpc_eval_request: Invalid JSON\n");
        return TAVRIX_ERR_GENERAL;
    }
    return evaluate(request.get(), table, response_text);
}

// --- Responses -----------------------------------------------------------------------------------------------------

namespace {

/** Both builders and the lock response report this in the evaluator's name: log filters match it. */
bool cannot_add_transaction_id() {
    LOG_ERROR("tavrix_jrpc_eval_request: Failed to add Transaction ID to response\n");
    return false;
}

/** Adds "transaction_id", shared, when there is one. */
bool add_transaction_id(json_t *response, json_t *transaction_id) {
    return transaction_id == nullptr || json_object_set(response, "transaction_id", transaction_id) == 0 ||
           cannot_add_transaction_id();
}

/** Adds the object under "error"; data is shared, null makes it a JSON null. */
bool add_error(json_t *response, int jrpc_code, json_t *data) {
    json_t *error = json_pack("{s:i,s:s,s:O}", "code", jrpc_code, "message", tavrix_jrpc_error_message(jrpc_code),
                              "data", data != nullptr ? data : json_null());
    return json_object_set_new(response, "error", error) == 0;
}

Text render_response(const Json &response, int indent) {
    return Text(json_dumps(response.get(), JSON_INDENT(static_cast<size_t>(indent)) | wire_flags));
}

Text build_error(int jrpc_code, json_t *id, json_t *data, int indent, json_t *transaction_id) {
    const Json response(json_pack("{s:s,s:O}", "jsonrpc", protocol_version, "id", id));
    const bool complete =
        response && add_transaction_id(response.get(), transaction_id) && add_error(response.get(), jrpc_code, data);
    return complete ? render_response(response, indent) : nullptr;
}

/** Through an object, with the member order of write_response(). */
Text pack_response(json_t *result, json_t *id, int indent, json_t *transaction_id) {
    const Json response(json_pack("{s:s,s:O,s:O}", "jsonrpc", protocol_version, "id", id, "result", result));
    const bool complete = response && add_transaction_id(response.get(), transaction_id);
    return complete ? render_response(response, indent) : nullptr;
}

bool write_value(Draft *draft, const json_t *value) { return draft->add(value, wire_flags | JSON_ENCODE_ANY); }

/**
 * A response on one line. Every request that is served pays for this envelope: written as text it costs next to
 * nothing, built as an object it makes a serving step a quarter slower.
 */
Text write_response(const json_t *result, const json_t *id, const json_t *transaction_id) {
    Draft draft;
    bool written = draft.add(R"({"jsonrpc":")") && draft.add(protocol_version) && draft.add(R"(","id":)") &&
                   write_value(&draft, id) && draft.add(R"(,"result":)") && write_value(&draft, result);
    if (written && transaction_id != nullptr) {
        written =
            (draft.add(R"(,"transaction_id":)") || cannot_add_transaction_id()) && write_value(&draft, transaction_id);
    }
    return written && draft.add("}") ? draft.finish() : nullptr;
}

Text build_response(json_t *result, json_t *id, int indent, json_t *transaction_id) {
    return indent == 0 ? write_response(result, id, transaction_id) : pack_response(result, id, indent, transaction_id);
}

bool is_indent(int indent) { return indent >= 0 && indent <= max_indent; }

} // namespace

char *tavrix_jrpc_create_response(json_t *result, json_t *id, int indent, json_t *transaction_id) {
    // An error here, debug in create_error(): every request without a method comes there, and must not fill the log.
    if (result == nullptr || id == nullptr) {
        LOG_ERROR("tavrix_jrpc_create_response: NULL pointer!\n");
        return nullptr;
    }
    if (!is_indent(indent)) {
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
        refuse(__func__, null_capitals);
        return nullptr;
    }
    if (!is_indent(indent)) {
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

namespace {

/** The reply channel that a message names, borrowed from it; a message that could not be parsed is null. */
int find_channel(const json_t *message, const json_error_t &error, const char **channel) {
    constexpr char function[] = "tavrix_jrpc_parse_channel"; // also when the serving step calls it
    if (message == nullptr) {
        refuse(function, "Cannot parse JSON message.");
        LOG_DEBUG("Error on line[%d]: %s\n", error.line, error.text);
        return TAVRIX_ERR_GENERAL;
    }
    if (!json_is_object(message)) {
        return refuse(function, "Invalid JSON");
    }
    const json_t *id = json_object_get(message, "id");
    if (id == nullptr) {
        LOG_VERBOSE("[%s]: No ID\n", function);
        return TAVRIX_ERR_NO_JSON_ID;
    }
    if (!json_is_string(id)) {
        return refuse(function, "Invalid ID");
    }
    *channel = json_string_value(id);
    return TAVRIX_OK;
}

} // namespace

char *tavrix_api_router_json_add_channel(const char *channel, const char *json_text) {
    if (channel == nullptr || json_text == nullptr) {
        refuse(__func__, null_initials);
        return nullptr;
    }
    const size_t channel_length = std::strlen(channel);
    const size_t text_length = std::strlen(json_text);
    char *frame = static_cast<char *>(std::malloc(channel_length + text_length + 2));
    if (frame == nullptr) {
        refuse(__func__, "Failed to allocate memory");
        return nullptr;
    }
    std::memcpy(frame, channel, channel_length);
    frame[channel_length] = bar;
    std::memcpy(frame + channel_length + 1, json_text, text_length + 1);
    return frame;
}

int tavrix_jrpc_parse_msg(const char *frame, int length, char **json_out) {
    constexpr char function[] = "tavrix_connect_parse_msg"; // a name that no function has: log filters match it
    if (frame == nullptr || json_out == nullptr) {
        return refuse(function, null_initials, TAVRIX_ERR_NULL_INPUT);
    }
    const void *found = length > 0 ? std::memchr(frame, bar, static_cast<size_t>(length)) : nullptr;
    if (found == nullptr) {
        return refuse(function, "Failed to parse JSON message");
    }
    const char *text = static_cast<const char *>(found) + 1;
    const size_t text_length = static_cast<size_t>(frame + length - text);
    char *copy = static_cast<char *>(std::malloc(text_length + 1));
    if (copy == nullptr) {
        return refuse(function, "Failed to allocate memory");
    }
    std::memcpy(copy, text, text_length);
    copy[text_length] = '\0';
    *json_out = copy;
    return TAVRIX_OK;
}

int tavrix_jrpc_parse_channel(const char *json_text, char **channel_out) {
    if (json_text == nullptr || channel_out == nullptr) {
        return refuse(__func__, null_initials, TAVRIX_ERR_NULL_INPUT);
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
        refuse(__func__, null_initials);
        return nullptr;
    }
    return strdup(tavrix::service_channel(method));
}

// --- Endpoint ------------------------------------------------------------------------------------------------------

namespace {

/** A received bus message. */
struct Frame {
    Text text;
    int length = 0;

    bool empty() const { return !text || length < 1; }
};

int receive_frame(int sock, Frame *frame, int nonblock) {
    return tavrix_mq_socket_recv(sock, into(frame->text), &frame->length, nonblock);
}

/** Takes the JSON text out of a frame and releases the frame: a long message is not held twice by what follows. */
int split_frame(Frame *frame, Text *json_text) {
    const int rc = tavrix_jrpc_parse_msg(frame->text.get(), frame->length, into(*json_text));
    frame->text.reset();
    return rc;
}

/** Receives a frame and takes the JSON text out of it, for the serving step and tavrix_jrpc_router_mq_to_socket(). */
int receive_text(const char *function, int sock, int nonblock, Text *json_text) {
    LOG_VERBOSE("[%s]: waiting to receive... \n", function);
    Frame frame;
    int rc = receive_frame(sock, &frame, nonblock);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (frame.empty()) {
        return TAVRIX_ERR_GENERAL;
    }
    LOG_VERBOSE("[%s]: mq_recv msg[%d]: %s\n", function, frame.length, frame.text.get());
    rc = split_frame(&frame, json_text);
    return rc == TAVRIX_OK ? rc : failed(function, "Error parse_msg", rc);
}

/** Publishes a text for one of the functions. The line says "response" even for a request: log filters match it. */
int publish(const char *function, const int *pub_sock, const char *channel, const char *json_text,
            const char *failure) {
    LOG_DEBUG("[%s]: Sending response over mq_pub ...\n", function);
    const int rc = tavrix_jrpc_mq_pub(pub_sock, channel, json_text);
    return rc == TAVRIX_OK ? rc : failed(function, failure, rc);
}

} // namespace

int tavrix_jrpc_mq_pub_init(const char *address, int *pub_sock_out) {
    if (address == nullptr || pub_sock_out == nullptr) {
        return refuse(__func__, null_capitals, TAVRIX_ERR_NULL_INPUT);
    }
    BusSocket pub;
    int rc = tavrix_mq_socket_init(TAVRIX_SP_PUB, pub.place());
    if (rc != TAVRIX_OK) {
        failed(__func__, "Error mq_socket_init for pub", rc);
        return TAVRIX_ERR_GENERAL;
    }
    int endpoint = 0;
    rc = tavrix_mq_socket_bind(pub.get(), TAVRIX_TRANSPORT_TCP, address, &endpoint);
    if (rc != TAVRIX_OK) {
        static_cast<void>(pub.release()); // stays open: a daemon without a publisher ends, and the socket with it
        return failed(__func__, "Error mq_socket_bind for pub", rc);
    }
    LOG_DEBUG("[%s]: mq_socket for pub initialized.\n", __func__);
    *pub_sock_out = pub.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_mq_sub_init(int *sub_sock_out, int with_timeout) {
    if (sub_sock_out == nullptr) {
        return refuse(__func__, null_capitals, TAVRIX_ERR_NULL_INPUT);
    }
    BusSocket sub;
    int rc = tavrix_mq_socket_init(TAVRIX_SP_SUB, sub.place());
    if (rc != TAVRIX_OK) {
        failed(__func__, "Error mq_socket_init for sub", rc);
        return TAVRIX_ERR_GENERAL;
    }
    rc = with_timeout != 0 ? tavrix_mq_socket_set_timeout(sub.get(), reply_timeout_ms) : TAVRIX_OK;
    if (rc != TAVRIX_OK) {
        static_cast<void>(sub.release()); // stays open, like a publisher that could not bind
        failed(__func__, "Error tavrix_mq_socket_set_timeout for sub", rc);
        return TAVRIX_ERR_GENERAL;
    }
    LOG_DEBUG("[%s]: mq_socket for sub initialized.\n", __func__);
    *sub_sock_out = sub.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_mq_sub_set_channel(const char *address, const char *channel, int *sub_sock) {
    if (address == nullptr || channel == nullptr || sub_sock == nullptr) {
        return refuse(__func__, null_capitals, TAVRIX_ERR_NULL_INPUT);
    }
    int endpoint = 0;
    const char *failure = "Error mq_socket_connect for sub";
    int rc = tavrix_mq_socket_connect(*sub_sock, TAVRIX_TRANSPORT_TCP, address, &endpoint);
    if (rc == TAVRIX_OK) {
        failure = "Error mq_socket_subscribe for sub";
        rc = tavrix_mq_socket_subscribe(*sub_sock, channel);
    }
    if (rc != TAVRIX_OK) {
        failed(__func__, failure, rc);
        static_cast<void>(tavrix_mq_socket_close(*sub_sock));
        return TAVRIX_ERR_GENERAL;
    }
    return TAVRIX_OK;
}

int tavrix_jrpc_mq_run(int *sub_sock, int *pub_sock, const tavrix_jrpc_method *table, int nonblock) {
    if (sub_sock == nullptr || pub_sock == nullptr || table == nullptr) {
        return refuse(__func__, null_initials, TAVRIX_ERR_NULL_INPUT);
    }
    Text json_text;
    int rc = receive_text(__func__, *sub_sock, nonblock, &json_text);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    json_error_t error;
    const Json request(json_loads(json_text.get(), parse_flags, &error));
    json_text.reset(); // freed early: what follows uses what was parsed of it
    const char *channel = nullptr;
    rc = find_channel(request.get(), error, &channel);
    if (rc != TAVRIX_OK && rc != TAVRIX_ERR_NO_JSON_ID) {
        return failed(__func__, "Error parse_channel", rc);
    }
    Text response;
    rc = evaluate(request.get(), table, into(response));
    return rc == TAVRIX_OK && response ? publish(__func__, pub_sock, channel, response.get(), "Error mq_send") : rc;
}

int tavrix_jrpc_mq_pub(const int *pub_sock, const char *channel, const char *json_text) {
    if (pub_sock == nullptr || channel == nullptr || json_text == nullptr) {
        return refuse(__func__, null_initials, TAVRIX_ERR_NULL_INPUT);
    }
    LOG_VERBOSE("[%s]: Prefixing channel with response...\n", __func__);
    const Text frame(tavrix_api_router_json_add_channel(channel, json_text));
    if (!frame) {
        return refuse(__func__, "add_channel failed");
    }
    LOG_VERBOSE("[%s]: Sending message over mq_pub...\n", __func__);
    const int rc = tavrix_mq_socket_send(*pub_sock, frame.get());
    if (rc != TAVRIX_OK) {
        return failed(__func__, "Error mq_send", rc);
    }
    LOG_VERBOSE("[%s]: mq_send msg[%d]: %s\n", __func__, length_of(frame.get()), frame.get());
    return TAVRIX_OK;
}

// --- Waits ---------------------------------------------------------------------------------------------------------

namespace {

bool has_version_2(const json_t *candidate) {
    const json_t *version = json_object_get(candidate, "jsonrpc");
    if (version == nullptr) {
        LOG_DEBUG("Received invalid JSON-RPC format.\n");
        return false;
    }
    if (!json_is_string(version)) {
        LOG_ERROR("tavrix_jrpc_eval_request: Invalid Request ID\n"); // about the version, too: log filters match it
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

/** Ends a match: an awaited candidate is handed over if the caller wants it. */
int conclude(bool is_awaited, const char *found, const char *method, Json candidate, json_t **out) {
    if (!is_awaited) {
        LOG_DEBUG("Found incorrect method \"%s\".\n", printable(found));
        return TAVRIX_ERR_GENERAL;
    }
    LOG_DEBUG("Found correct method \"%s\".\n", method);
    if (out != nullptr) {
        *out = candidate.release();
    }
    return TAVRIX_OK;
}

/** What distinguishes the two waits: how they recognise what they wait for, and what they log. */
struct Wait {
    const char *function;
    int (*match)(const char *method, const char *json_text, json_t **out);
    const char *attempt;
    const char *not_received;
    const char *received;
    const char *not_parsed;
    const char *parsed;
    const char *not_awaited;
    const char *exhausted;
};

constexpr Wait reply_wait = {
    "tavrix_jrpc_mq_sub_for_method",
    tavrix_jrpc_eval_method,
    "Waiting for API response <%s>, attempts remaining: %d\n",
    "Unable to receive an API response, rc = %d\n",
    "[%s] Received:\n%s\n",
    "Unable to parse API response, rc = %d\n",
    "[%s] Received API response, evaluating id...\n",
    "Incorrect API response received. rc = %d\n",
    "Could not receive expected API response.\n",
};
constexpr Wait notification_wait = {
    "tavrix_jrpc_mq_sub_for_notifcation",
    tavrix_jrpc_eval_notification,
    "[tavrix_jrpc_mq_sub_for_notifcation] Waiting for <%s> response, attempts remaining: %d\n",
    "Unable to receive an API response from TRLX Service, rc = %d\n", // of no daemon here: log filters match it
    "[%s] Recv:\n%s\n",
    "Unable to parse notification message, rc = %d\n",
    "[%s] Received notification, evaluating method name...\n",
    "Incorrect notification received. rc = %d\n",
    "Could not receive expected notification.\n",
};

Json await_once(const Wait &wait, int sub_sock, const char *method) {
    Frame frame;
    int rc = receive_frame(sub_sock, &frame, 0);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG(wait.not_received, rc);
        return nullptr;
    }
    LOG_DEBUG(wait.received, wait.function, frame.text.get());
    Text json_text;
    rc = split_frame(&frame, &json_text);
    if (rc != TAVRIX_OK) {
        LOG_DEBUG(wait.not_parsed, rc);
        return nullptr;
    }
    LOG_DEBUG(wait.parsed, wait.function);
    Json awaited;
    rc = wait.match(method, json_text.get(), into(awaited));
    if (rc != TAVRIX_OK) {
        LOG_DEBUG(wait.not_awaited, rc);
    }
    return awaited;
}

Json await(const Wait &wait, int sub_sock, const char *method, int attempts) {
    Json awaited;
    for (; !awaited && attempts > 0; --attempts) {
        LOG_DEBUG(wait.attempt, method, attempts);
        awaited = await_once(wait, sub_sock, method);
    }
    return awaited;
}

/** Hands over what a wait has brought, if anything; else returns the status. */
int hand_over(const Wait &wait, Json awaited, json_t **out, int status) {
    if (!awaited) {
        LOG_DEBUG("%s", wait.exhausted);
        return status;
    }
    LOG_DEBUG("[%s] JSON Out: %s\n", wait.function, printable(Text(json_dumps(awaited.get(), 0)).get()));
    *out = awaited.release();
    return TAVRIX_OK;
}

} // namespace

int tavrix_jrpc_mq_sub_for_method(int sub_sock, const char *method, json_t **reply_out) {
    if (method == nullptr || reply_out == nullptr) {
        return refuse(__func__, null_initials, TAVRIX_ERR_NULL_INPUT);
    }
    Json reply = await(reply_wait, sub_sock, method, tavrix::attempts_for(method));
    return hand_over(reply_wait, std::move(reply), reply_out, TAVRIX_ERR_NO_RESPONSE);
}

int tavrix_jrpc_eval_method(const char *method, const char *json_text, json_t **reply_out) {
    if (method == nullptr || json_text == nullptr) {
        return refuse(__func__, null_initials, TAVRIX_ERR_NULL_INPUT);
    }
    Json candidate = parse_message(json_text);
    if (!candidate) {
        return TAVRIX_ERR_GENERAL;
    }
    const bool is_awaited = is_reply_to(candidate.get(), method);
    const char *id = json_string_value(json_object_get(candidate.get(), "id"));
    return conclude(is_awaited, id, method, std::move(candidate), reply_out);
}

int tavrix_jrpc_mq_sub_for_notifcation(int sub_sock, const char *method, json_t **notification_out) {
    if (method == nullptr || notification_out == nullptr) {
        return refuse(__func__, null_initials, TAVRIX_ERR_NULL_INPUT);
    }
    constexpr char not_set[] = "Error mq_socket_set_timeout for sub";
    int timeout_ms = 0;
    int rc = tavrix_mq_socket_get_timeout(sub_sock, &timeout_ms);
    if (rc != TAVRIX_OK) {
        failed(__func__, "Error mq_socket_get_timeout for sub", rc);
        return TAVRIX_ERR_GENERAL;
    }
    rc = tavrix_mq_socket_set_timeout(sub_sock, -1);
    if (rc != TAVRIX_OK) {
        failed(__func__, not_set, rc);
        return TAVRIX_ERR_GENERAL;
    }
    Json notification = await(notification_wait, sub_sock, method, notification_attempts);
    rc = tavrix_mq_socket_set_timeout(sub_sock, timeout_ms);
    if (rc != TAVRIX_OK) {
        failed(__func__, not_set, rc); // only logged: what the wait has brought counts more
    }
    // Not TAVRIX_ERR_NO_RESPONSE: nobody was asked, so no service is to blame.
    return hand_over(notification_wait, std::move(notification), notification_out, TAVRIX_ERR_GENERAL);
}

int tavrix_jrpc_eval_notification(const char *method, const char *json_text, json_t **out) {
    if (method == nullptr || json_text == nullptr || out == nullptr) {
        return refuse(__func__, null_initials, TAVRIX_ERR_NULL_INPUT);
    }
    Json candidate = parse_message(json_text);
    if (!candidate || !has_version_2(candidate.get())) {
        return TAVRIX_ERR_GENERAL;
    }
    const char *name = method_name(candidate.get(), __func__);
    if (name == nullptr) {
        return TAVRIX_ERR_GENERAL;
    }
    LOG_VERBOSE("JSON Method: %s\n", name);
    return conclude(std::strcmp(name, method) == 0, name, method, std::move(candidate), out);
}

// --- Socket servers ------------------------------------------------------------------------------------------------

namespace {

/** What distinguishes the Unix-domain server from the TCP server. */
struct StreamServer {
    int (*accept)(const int *listen_sock, int *client_out);
    const char *function;
    const char *sending_function;
};

constexpr StreamServer unix_server = {tavrix_socket_accept, "tavrix_jrpc_unix_socket_run",
                                      "tavrix_jrpc_unix_socket_run"};
// The second name leaves out the "tcp": log filters match it.
constexpr StreamServer tcp_server = {tavrix_tcp_socket_accept, "tavrix_jrpc_tcp_socket_run", "tavrix_jrpc_socket_run"};

/** Logs what became of a listener. If it failed the handle is 0: daemons start without it and look at the handle. */
int store_listener(const char *function, const char *kind, int rc, int listener, int *sock_out) {
    if (rc != TAVRIX_OK) {
        LOG_DEBUG("[%s]: cannot init %s socket!\n", function, kind);
    } else {
        LOG_DEBUG("[%s]: %s socket initialized!\n", function, kind);
    }
    *sock_out = listener;
    return TAVRIX_OK;
}

int run_stream_server(const StreamServer &server, const int *listen_sock, const tavrix_jrpc_method *table) {
    if (listen_sock == nullptr || table == nullptr) {
        return refuse(server.function, null_capitals, TAVRIX_ERR_NULL_INPUT);
    }
    StreamSocket client;
    int rc = server.accept(listen_sock, client.place());
    if (rc != TAVRIX_OK) {
        return rc;
    }
    char request[TAVRIX_SERVER_MAX_REQUEST + 1] = "";
    if (tavrix_socket_recv(client.place(), request, TAVRIX_SERVER_MAX_REQUEST) < 1) {
        return TAVRIX_ERR_GENERAL;
    }
    Text response;
    rc = tavrix_jrpc_eval_request(request, table, into(response));
    if (rc != TAVRIX_OK) {
        return rc;
    }
    rc = response ? tavrix_socket_send(client.place(), response.get()) : TAVRIX_OK;
    if (rc != TAVRIX_OK) {
        return refuse(server.sending_function, "Error response!", rc);
    }
    int fd = client.release(); // closed only once: after a failure the number may be another thread's already
    return tavrix_socket_close(&fd);
}

} // namespace

int tavrix_jrpc_unix_socket_init(const char *path, int *sock_out, int nonblocking) {
    if (sock_out == nullptr) {
        return refuse(__func__, null_capitals, TAVRIX_ERR_NULL_INPUT);
    }
    int listener = 0;
    const int rc = tavrix_unix_socket_init(path, &listener, nonblocking);
    return store_listener(__func__, "unix", rc, listener, sock_out);
}

int tavrix_jrpc_tcp_socket_init(unsigned port, int *sock_out, int nonblocking) {
    if (sock_out == nullptr) {
        return refuse(__func__, null_capitals, TAVRIX_ERR_NULL_INPUT);
    }
    int listener = 0;
    const int rc = tavrix_tcp_socket_init(port, &listener, nonblocking);
    return store_listener(__func__, "tcp", rc, listener, sock_out);
}

int tavrix_jrpc_unix_socket_run(const int *listen_sock, const tavrix_jrpc_method *table) {
    return run_stream_server(unix_server, listen_sock, table);
}

int tavrix_jrpc_tcp_socket_run(const int *listen_sock, const tavrix_jrpc_method *table) {
    return run_stream_server(tcp_server, listen_sock, table);
}

int tavrix_jrpc_pull_socket_init(const char *address, int *sock_out) {
    // The lines carry the names of the TCP server and of the publisher: log filters match them.
    constexpr char function[] = "tavrix_jrpc_tcp_socket_init";
    if (sock_out == nullptr) {
        return refuse(function, null_capitals, TAVRIX_ERR_NULL_INPUT);
    }
    BusSocket pull;
    if (tavrix_mq_socket_init(TAVRIX_SP_PULL, pull.place()) != TAVRIX_OK) {
        LOG_ERROR("[%s]: cannot init pull socket!\n", function);
    } else {
        LOG_DEBUG("[%s]: pull socket initialized!\n", function);
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
        return refuse(__func__, null_capitals, TAVRIX_ERR_NULL_INPUT);
    }
    Frame request;
    if (receive_frame(sock, &request, 0) != TAVRIX_OK) {
        return TAVRIX_ERR_GENERAL;
    }
    Text never_sent; // a pull socket cannot answer
    return tavrix_jrpc_eval_request(request.text.get(), table, into(never_sent));
}

// --- Router: requests ----------------------------------------------------------------------------------------------

namespace {

/** Parses an object and logs what is wrong with it in the function's name. */
Json parse_object(const char *text, const char *function) {
    json_error_t error;
    Json object(json_loads(text, parse_flags, &error));
    if (!object) {
        LOG_DEBUG("[%s]: line: %d, text: %s\n", function, error.line, error.text);
        return nullptr;
    }
    if (!json_is_object(object.get())) {
        refuse(function, "Invalid JSON message");
        return nullptr;
    }
    return object;
}

/**
 * Shows a request and chooses its service channel, which is null when memory runs out.
 *
 * A request that cannot be rendered is refused at every log level: a bare value, and an object that a caller has built
 * and that has no JSON text.
 *
 * @param received the text that the request was parsed from, which proves that it can be rendered; or null
 */
int choose_channel(const json_t *request, const char *received, const char *function, Text *channel) {
    const bool is_container = json_is_object(request) || json_is_array(request);
    const bool has_rendering = is_container && (received != nullptr || tavrix::is_renderable(request));
    if (!has_rendering || !show_request(request, function, received)) {
        return refuse(function, "Cannot print JSON message");
    }
    const char *method = method_name(request, function);
    if (method == nullptr) {
        return TAVRIX_ERR_GENERAL;
    }
    LOG_VERBOSE("[%s]: JSON Method: %s\n", function, method);
    channel->reset(tavrix_api_router_json_parse_channel(method));
    LOG_VERBOSE("channel: %s\n", printable(channel->get()));
    return TAVRIX_OK;
}

/** Replaces the client's id, which is not kept, by the router's reply channel and encodes the request. */
int stamp_and_encode(json_t *request, const char *function, Text *encoded) {
    const json_t *id = json_object_get(request, "id");
    if (!is_text_or_number(id)) {
        return refuse(function, id == nullptr ? "No JSON ID" : "Invalid JSON ID");
    }
    LOG_VERBOSE("JSON ID: %s\n", printable(json_string_value(id)));
    if (json_object_del(request, "id") != 0) {
        return refuse(function, "Cannot delete JSON ID");
    }
    if (json_object_set_new(request, "id", json_string(TAVRIX_ROUTER_REPLY_CHANNEL)) != 0) {
        return refuse(function, "Cannot update JSON ID");
    }
    encoded->reset(json_dumps(request, wire_flags));
    if (!*encoded) {
        return refuse(function, "Cannot re-encode JSON message");
    }
    LOG_VERBOSE("JSON request sent, of string length %d\n", length_of(encoded->get()));
    LOG_VERBOSE("The JSON Request was:\n%s\n", encoded->get());
    return TAVRIX_OK;
}

int publish_request(const char *function, const int *pub_sock, const Text &channel, const Text &request) {
    return publish(function, pub_sock, channel.get(), request.get(), "Error mq_pub");
}

} // namespace

int tavrix_jrpc_router_socket_to_mq(const int *listen_sock, const int *pub_sock, int *client_out) {
    if (listen_sock == nullptr || pub_sock == nullptr || client_out == nullptr) {
        return refuse(__func__, null_capitals, TAVRIX_ERR_NULL_INPUT);
    }
    StreamSocket client;
    int rc = tavrix_socket_accept(listen_sock, client.place());
    if (rc != TAVRIX_OK) {
        return rc;
    }
    char buffer[TAVRIX_ROUTER_MAX_REQUEST + 1] = "";
    if (tavrix_socket_recv(client.place(), buffer, TAVRIX_ROUTER_MAX_REQUEST) < 1) {
        return TAVRIX_ERR_GENERAL;
    }
    Text request;
    Text channel;
    rc = tavrix_jrpc_router_process_msg(buffer, into(request), into(channel));
    if (rc != TAVRIX_OK) {
        return refuse(__func__, "router_process_msg: failed", rc);
    }
    rc = publish_request(__func__, pub_sock, channel, request);
    if (rc == TAVRIX_OK) {
        *client_out = client.release();
    }
    return rc;
}

int tavrix_jrpc_router_process_msg(const char *text, char **request_out, char **channel_out) {
    if (text == nullptr || request_out == nullptr || channel_out == nullptr) {
        return TAVRIX_ERR_GENERAL;
    }
    const Json request = parse_object(text, __func__);
    if (!request) {
        return TAVRIX_ERR_GENERAL;
    }
    Text channel;
    int rc = choose_channel(request.get(), text, __func__, &channel);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (channel) {
        *channel_out = channel.release(); // before the remaining checks: callers release it whatever the status
    }
    Text encoded;
    rc = stamp_and_encode(request.get(), __func__, &encoded);
    if (rc == TAVRIX_OK) {
        *request_out = encoded.release();
    }
    return rc;
}

int tavrix_jrpc_router_socket_extract_request(const int *listen_sock, int *client_out, json_t **request_out) {
    if (listen_sock == nullptr || client_out == nullptr || request_out == nullptr) {
        return refuse(__func__, null_capitals);
    }
    const int rc = tavrix_socket_accept(listen_sock, client_out);
    if (rc != TAVRIX_OK) {
        return failed(__func__, "Failed socket_accept", rc);
    }
    char buffer[TAVRIX_ROUTER_MAX_REQUEST + 1] = "";
    const int readsize = tavrix_socket_recv(client_out, buffer, TAVRIX_ROUTER_MAX_REQUEST);
    if (readsize < 1) {
        LOG_DEBUG("[%s]: Failed socket_recv, readsize = %d\n", __func__, readsize);
        return TAVRIX_ERR_GENERAL; // the client stays open: the caller may answer, and closes it
    }
    Json request = parse_object(buffer, __func__);
    if (!request) {
        return TAVRIX_ERR_GENERAL;
    }
    *request_out = request.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_router_mq_dispatch_request(const int *pub_sock, json_t *request) {
    if (pub_sock == nullptr || request == nullptr) {
        return refuse(__func__, null_capitals);
    }
    Text channel;
    int rc = choose_channel(request, nullptr, __func__, &channel);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (!channel) {
        return refuse(__func__, "No JSON uuid");
    }
    Text encoded;
    rc = stamp_and_encode(request, __func__, &encoded);
    return rc == TAVRIX_OK ? publish_request(__func__, pub_sock, channel, encoded) : rc;
}

// --- Router: responses ---------------------------------------------------------------------------------------------

namespace {

/** Receives the next message on the reply channel, for the split path. */
int receive_reply(const char *function, int sub_sock, Text *json_text) {
    LOG_VERBOSE("[%s]: waiting to receive...\n", function);
    Frame frame;
    int rc = receive_frame(sub_sock, &frame, 0);
    if (rc != TAVRIX_OK) {
        return failed(function, "Failed mq_socket_recv", rc);
    }
    if (frame.empty()) {
        return TAVRIX_ERR_GENERAL;
    }
    rc = split_frame(&frame, json_text);
    return rc == TAVRIX_OK ? rc : failed(function, "Error parse_msg", rc);
}

/** A failure is always reported in the name of tavrix_jrpc_router_mq_to_socket(): log filters match it. */
int send_response(const int *client_sock, const Text &text) {
    const int rc = tavrix_socket_send(client_sock, text.get());
    return rc == TAVRIX_OK ? rc : failed("tavrix_jrpc_router_mq_to_socket", "Error send", rc);
}

} // namespace

int tavrix_jrpc_router_mq_to_socket(const int *sub_sock, int *client_sock) {
    if (sub_sock == nullptr || client_sock == nullptr) {
        return refuse(__func__, null_initials, TAVRIX_ERR_NULL_INPUT);
    }
    const StreamSocket client(std::exchange(*client_sock, -1)); // closed whatever happens
    Text json_text;
    const int rc = receive_text(__func__, *sub_sock, 0, &json_text);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    LOG_VERBOSE("[%s]: parse_msg json_msg[%d]: %s\n", __func__, length_of(json_text.get()), json_text.get());
    return send_response(client.place(), json_text);
}

int tavrix_jrpc_router_mq_extract_response(const int *sub_sock, json_t **response_out) {
    if (sub_sock == nullptr || response_out == nullptr) {
        return refuse(__func__, null_capitals);
    }
    Text json_text;
    const int rc = receive_reply(__func__, *sub_sock, &json_text);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    LOG_VERBOSE("[%s]: Recv: %s\n", __func__, json_text.get());
    Json response = parse_object(json_text.get(), __func__);
    if (!response) {
        return TAVRIX_ERR_GENERAL;
    }
    *response_out = response.release();
    return TAVRIX_OK;
}

int tavrix_jrpc_router_socket_dispatch_response(const int *client_sock, json_t *response) {
    if (client_sock == nullptr || response == nullptr) {
        return refuse(__func__, null_capitals);
    }
    const Text text(json_dumps(response, wire_flags));
    if (!text) {
        return refuse(__func__, "Cannot decode JSON message"); // "decode" for encoding: log filters match it
    }
    LOG_VERBOSE("JSON response sent, of string length %d\n", length_of(text.get()));
    LOG_VERBOSE("The JSON Request was:\n%s\n", text.get());
    LOG_DEBUG("[%s]: Sending response over socket ...\n", __func__);
    return send_response(client_sock, text);
}

// --- Router: its own notifications and answers ---------------------------------------------------------------------

namespace {

/** What is wrong with a notification to the router itself; null when nothing is. */
const char *find_flaw(const json_t *notification) {
    if (json_object_get(notification, "id") != nullptr) {
        return "Invalid Request id found in notification";
    }
    const json_t *version = json_object_get(notification, "jsonrpc");
    if (version == nullptr) {
        return "Empty jsonrpc";
    }
    if (!json_is_string(version)) {
        return "Invalid Request jsonrpc";
    }
    if (!is_version_2(version)) {
        return "Invalid Request jsonrpc version";
    }
    const json_t *params = json_object_get(notification, "params");
    if (params != nullptr && !json_is_object(params)) {
        return "Invalid Request params";
    }
    const json_t *method = json_object_get(notification, "method");
    if (method == nullptr) {
        return "No JSON method";
    }
    return json_is_string(method) ? nullptr : "Invalid Request method";
}

Json build_lock_response(const char *id, json_t *transaction_id) {
    Json response(json_pack("{s:s,s:s}", "jsonrpc", protocol_version, "id", id));
    const bool complete = response && add_error(response.get(), TAVRIX_JRPC_SYSTEM_BUSY, nullptr) &&
                          add_transaction_id(response.get(), transaction_id);
    return complete ? std::move(response) : nullptr;
}

Json build_timeout_response(const char *id, int transaction_id) {
    Json response(json_pack("{s:s,s:i,s:s}", "jsonrpc", protocol_version, "transaction_id", transaction_id, "id", id));
    const bool complete = response && add_error(response.get(), TAVRIX_JRPC_TIMED_OUT, nullptr);
    return complete ? std::move(response) : nullptr;
}

} // namespace

int tavrix_jrpc_router_eval_notification(json_t *notification, const tavrix_jrpc_method *table) {
    if (notification == nullptr || table == nullptr) {
        LOG_ERROR("[%s]: %s\n", __func__, null_capitals);
        return TAVRIX_ERR_GENERAL;
    }
    const char *flaw = find_flaw(notification);
    if (flaw != nullptr) {
        LOG_ERROR("[%s]: %s\n", __func__, flaw);
        return TAVRIX_ERR_GENERAL;
    }
    const char *name = json_string_value(json_object_get(notification, "method"));
    const tavrix_jrpc_method *found = find_method(table, name);
    if (found == nullptr) {
        LOG_WARNING("[%s]: No method handler found\n", __func__);
        return TAVRIX_ERR_GENERAL;
    }
    Outcome dropped; // a notification has no reply
    const int rc = run_handler(found->handler, json_object_get(notification, "params"), &dropped);
    if (rc != TAVRIX_OK) {
        LOG_ERROR("[%s]: Failed method handler, rc = %d\n", __func__, rc);
    }
    return rc;
}

int tavrix_jrpc_router_create_system_lock_response(json_t *request, json_t **response_out) {
    if (request == nullptr || response_out == nullptr) {
        return refuse(__func__, null_capitals);
    }
    *response_out = nullptr;
    const json_t *id = json_object_get(request, "id");
    if (!json_is_string(id)) {
        // "method" for an id of the wrong type: log filters match it.
        return refuse(__func__, id == nullptr ? "No JSON id" : "Invalid JSON method");
    }
    *response_out = build_lock_response(json_string_value(id), json_object_get(request, "transaction_id")).release();
    return *response_out != nullptr ? TAVRIX_OK : TAVRIX_ERR_GENERAL;
}

int tavrix_jrpc_router_create_system_timeout_response(const char *id, int transaction_id, json_t **response_out) {
    if (response_out != nullptr) {
        *response_out = nullptr;
    }
    if (id == nullptr || response_out == nullptr) {
        return refuse(__func__, null_capitals);
    }
    *response_out = build_timeout_response(id, transaction_id).release();
    return *response_out != nullptr ? TAVRIX_OK : TAVRIX_ERR_GENERAL;
}

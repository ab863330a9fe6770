/**
 * JSON-RPC requests and notifications, as every program here makes them.
 */
#ifndef TAVRIX_COMMON_MESSAGE_H
#define TAVRIX_COMMON_MESSAGE_H

#include <cstddef>
#include <cstring>

#include "common/handles.h"
#include "tavrix_jrpc.h"

namespace tavrix {

constexpr char protocol_version[] = "2.0";
/** Compact, and ASCII whatever stands in the texts. */
constexpr size_t wire_flags = JSON_COMPACT | JSON_ENSURE_ASCII;

/** Bytes behind the JSON text are ignored. */
constexpr size_t parse_flags = JSON_REJECT_DUPLICATES | JSON_DISABLE_EOF_CHECK | JSON_DECODE_ANY;

/** What an id may be. */
inline bool is_text_or_number(const json_t *value) { return json_is_string(value) || json_is_number(value); }

/** The JSON-RPC code of a request's first fault, in the order of the library's evaluator; 0 without any. */
inline int find_envelope_error(const json_t *request) {
    const json_t *id = json_object_get(request, "id");
    const json_t *transaction_id = json_object_get(request, "transaction_id");
    const json_t *params = json_object_get(request, "params");
    const char *version = json_string_value(json_object_get(request, "jsonrpc"));
    if ((id != nullptr && !is_text_or_number(id)) || (transaction_id != nullptr && !json_is_number(transaction_id)) ||
        version == nullptr) {
        return TAVRIX_JRPC_INVALID_REQUEST;
    }
    if (std::strcmp(version, protocol_version) != 0) {
        return TAVRIX_JRPC_VERSION_NOT_SUPPORTED;
    }
    if (params != nullptr && !json_is_object(params)) {
        return TAVRIX_JRPC_INVALID_PARAMS;
    }
    return json_is_string(json_object_get(request, "method")) ? 0 : TAVRIX_JRPC_METHOD_NOT_FOUND;
}

/** Takes the values; `params` may be null. Null without memory, or for a null `id`. */
inline Json make_request(const char *method, json_t *params, json_t *id) {
    return Json(
        json_pack("{s:s, s:s, s:o, s:o*}", "jsonrpc", protocol_version, "method", method, "id", id, "params", params));
}

inline Json make_notification(const char *method, json_t *params) {
    return Json(json_pack("{s:s, s:s, s:o*}", "jsonrpc", protocol_version, "method", method, "params", params));
}

} // namespace tavrix

#endif

/**
 * JSON-RPC requests and notifications, as every program here makes them.
 */
#ifndef TAVRIX_COMMON_MESSAGE_H
#define TAVRIX_COMMON_MESSAGE_H

#include <cstddef>

#include "common/handles.h"

namespace tavrix {

constexpr char protocol_version[] = "2.0";
/** Compact, and ASCII whatever stands in the texts. */
constexpr size_t wire_flags = JSON_COMPACT | JSON_ENSURE_ASCII;

/** Null without memory, or without an id. The values are taken; there may be no parameters. */
inline Json make_request(const char *method, json_t *params, json_t *id) {
    return Json(
        json_pack("{s:s, s:s, s:o, s:o*}", "jsonrpc", protocol_version, "method", method, "id", id, "params", params));
}

inline Json make_notification(const char *method, json_t *params) {
    return Json(json_pack("{s:s, s:s, s:o*}", "jsonrpc", protocol_version, "method", method, "params", params));
}

} // namespace tavrix

#endif

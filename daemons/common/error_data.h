/**
 * Error data of the daemons: each error response says in words what is wrong, as {"message": ...}.
 */
#ifndef TAVRIX_DAEMONS_COMMON_ERROR_DATA_H
#define TAVRIX_DAEMONS_COMMON_ERROR_DATA_H

#include <jansson.h>

#include "tavrix_error.h"
#include "tavrix_jrpc.h"

namespace daemon_support {

/** Null for a null message. */
inline json_t *error_message(const char *message) { return json_pack("{s:s}", "message", message); }

/** Runs a handler; an error for which it gives no data of its own gets the text of its status. */
template <tavrix_jrpc_handler Handler>
int with_error_data(json_t *params, json_t **result, json_t **error_data) {
    const int rc = Handler(params, result, error_data);
    if (rc < 0 && *error_data == nullptr) {
        *error_data = error_message(tavrix_error_decode(rc));
    }
    return rc;
}

/** A row of a daemon's method table. */
template <tavrix_jrpc_handler Handler>
tavrix_jrpc_method method(const char *name) {
    return {name, with_error_data<Handler>};
}

} // namespace daemon_support

#endif

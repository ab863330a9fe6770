/**
 * The debug-message builders of tavrix_jrpc_utils, for its white-box tests.
 *
 * Both store {"message": text} at `debug_message` unless there is an object already, and return 0;
 * TAVRIX_ERR_JSON_RESPONSE when the object cannot be made; TAVRIX_ERR_NULL_INPUT for a null address.
 */
#ifndef TAVRIX_INTERNAL_JRPC_UTILS_SEAM_H
#define TAVRIX_INTERNAL_JRPC_UTILS_SEAM_H

#include <jansson.h>

#ifdef __cplusplus
extern "C" {
#endif

int tavrix_jrpc_utils_set_missing_param_message(json_t **debug_message, const char *key);
int tavrix_jrpc_utils_set_wrong_type_message(json_t **debug_message, const char *key, const char *type_name);

#ifdef __cplusplus
}
#endif

#endif

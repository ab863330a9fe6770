/**
 * The debug-message builders of tavrix_jrpc_utils, for its white-box tests.
 *
 * Both store {"message": text} in the slot unless it holds an object already, and return 0, or -30 when the object
 * cannot be made, or -20 when the slot's address is null.
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

/**
 * @file tavrix_jrpc.h
 */
#ifndef TAVRIX_JRPC_H
#define TAVRIX_JRPC_H

#include "tavrix_export.h"
#include <jansson.h>

#ifdef __cplusplus
extern "C" {
#endif

/** JSON-RPC error codes that the library itself answers with. */
enum tavrix_jrpc_code {
    TAVRIX_JRPC_UNKNOWN_ERROR = -32001,
    TAVRIX_JRPC_VERSION_NOT_SUPPORTED = -32002,
    TAVRIX_JRPC_TIMED_OUT = -32005,
    TAVRIX_JRPC_SYSTEM_BUSY = -32014,
    TAVRIX_JRPC_INVALID_REQUEST = -32600,
    TAVRIX_JRPC_METHOD_NOT_FOUND = -32601,
    TAVRIX_JRPC_INVALID_PARAMS = -32602,
    TAVRIX_JRPC_INTERNAL_ERROR = -32603,
    TAVRIX_JRPC_PARSE_ERROR = -32700
};

/** The service channels, by the first letters of a method's name. */
#define TAVRIX_CHANNEL_FIRST "3a6f8f51-502f-4238-9638-29764ff1a8a4"      /**< d, p, en, mz */
#define TAVRIX_CHANNEL_EVENTS "505a5451-3ef2-4618-8087-9a22b800a510"     /**< ev */
#define TAVRIX_CHANNEL_INTERFACES "b4469f46-e963-42ef-9fd2-f978e73adc76" /**< i */
#define TAVRIX_CHANNEL_DEFAULT "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3"    /**< anything else */

/** The channel on which every reply to the router arrives. */
#define TAVRIX_ROUTER_REPLY_CHANNEL "2524546b-ca99-4868-a062-359cefacff7c"

/** The most bytes that are read of one request. */
#define TAVRIX_ROUTER_MAX_REQUEST 8192
#define TAVRIX_SERVER_MAX_REQUEST 1024

typedef int (*tavrix_jrpc_handler)(json_t *params, json_t **result, json_t **error_data);
typedef struct tavrix_jrpc_method {
    const char *name;
    tavrix_jrpc_handler handler;
} tavrix_jrpc_method;

TAVRIX_API int tavrix_jrpc_error_convert_tavrix_to_jrpc(int internal_code);
TAVRIX_API int tavrix_jrpc_error_convert_jrpc_to_tavrix(int jrpc_code);
TAVRIX_API const char *tavrix_jrpc_error_message(int jrpc_code);

TAVRIX_API int tavrix_jrpc_eval_request(const char *request_text, const tavrix_jrpc_method *table,
                                        char **response_text);
TAVRIX_API char *tavrix_jrpc_create_response(json_t *result, json_t *id, int indent, json_t *transaction_id);
TAVRIX_API char *tavrix_jrpc_create_error(int jrpc_code, json_t *id, json_t *data, int indent, json_t *transaction_id);

TAVRIX_API char *tavrix_api_router_json_add_channel(const char *channel, const char *json_text);
TAVRIX_API int tavrix_jrpc_parse_msg(const char *frame, int length, char **json_out);
TAVRIX_API int tavrix_jrpc_parse_channel(const char *json_text, char **channel_out);
TAVRIX_API char *tavrix_api_router_json_parse_channel(const char *method);

TAVRIX_API int tavrix_jrpc_mq_pub_init(const char *address, int *pub_sock_out);
TAVRIX_API int tavrix_jrpc_mq_sub_init(int *sub_sock_out, int with_timeout);
TAVRIX_API int tavrix_jrpc_mq_sub_set_channel(const char *address, const char *channel, int *sub_sock);
TAVRIX_API int tavrix_jrpc_mq_run(int *sub_sock, int *pub_sock, const tavrix_jrpc_method *table, int nonblock);
TAVRIX_API int tavrix_jrpc_mq_pub(const int *pub_sock, const char *channel, const char *json_text);
TAVRIX_API int tavrix_jrpc_mq_sub_for_method(int sub_sock, const char *method, json_t **reply_out);
TAVRIX_API int tavrix_jrpc_eval_method(const char *method, const char *json_text, json_t **reply_out);
TAVRIX_API int tavrix_jrpc_mq_sub_for_notifcation(int sub_sock, const char *method, json_t **notification_out);
TAVRIX_API int tavrix_jrpc_eval_notification(const char *method, const char *json_text, json_t **out);

TAVRIX_API int tavrix_jrpc_unix_socket_init(const char *path, int *sock_out, int nonblocking);
TAVRIX_API int tavrix_jrpc_tcp_socket_init(unsigned port, int *sock_out, int nonblocking);
TAVRIX_API int tavrix_jrpc_unix_socket_run(const int *listen_sock, const tavrix_jrpc_method *table);
TAVRIX_API int tavrix_jrpc_tcp_socket_run(const int *listen_sock, const tavrix_jrpc_method *table);
TAVRIX_API int tavrix_jrpc_pull_socket_init(const char *address, int *sock_out);
TAVRIX_API int tavrix_jrpc_pull_socket_run(int sock, const tavrix_jrpc_method *table);

TAVRIX_API int tavrix_jrpc_router_socket_to_mq(const int *listen_sock, const int *pub_sock, int *client_out);
TAVRIX_API int tavrix_jrpc_router_socket_extract_request(const int *listen_sock, int *client_out, json_t **request_out);
TAVRIX_API int tavrix_jrpc_router_mq_dispatch_request(const int *pub_sock, json_t *request);
TAVRIX_API int tavrix_jrpc_router_mq_to_socket(const int *sub_sock, int *client_sock);
TAVRIX_API int tavrix_jrpc_router_mq_extract_response(const int *sub_sock, json_t **response_out);
TAVRIX_API int tavrix_jrpc_router_socket_dispatch_response(const int *client_sock, json_t *response);
TAVRIX_API int tavrix_jrpc_router_eval_notification(json_t *notification, const tavrix_jrpc_method *table);
TAVRIX_API int tavrix_jrpc_router_create_system_lock_response(json_t *request, json_t **response_out);
TAVRIX_API int tavrix_jrpc_router_create_system_timeout_response(const char *id, int transaction_id,
                                                                 json_t **response_out);

#ifdef __cplusplus
}
#endif

#endif

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

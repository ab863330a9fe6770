/**
 * @file tavrix_mq.h
 */
#ifndef TAVRIX_MQ_H
#define TAVRIX_MQ_H

#include "tavrix_export.h"

#ifdef __cplusplus
extern "C" {
#endif

TAVRIX_API int tavrix_mq_socket_init(int sp_type, int *sock_out);
TAVRIX_API int tavrix_mq_socket_bind(int sock, int transport, const char *addr, int *eid_out);
TAVRIX_API int tavrix_mq_socket_connect(int sock, int transport, const char *addr, int *eid_out);
TAVRIX_API int tavrix_mq_socket_recv(int sock, char **msg_out, int *len_out, int nonblock);
TAVRIX_API int tavrix_mq_socket_send(int sock, const char *text);
TAVRIX_API int tavrix_mq_socket_send_nonblock(int sock, const char *text);
TAVRIX_API int tavrix_mq_socket_shutdown(int sock, int eid);
TAVRIX_API int tavrix_mq_socket_close(int sock);
TAVRIX_API void tavrix_mq_socket_terminate(void);
TAVRIX_API int tavrix_mq_socket_freemsg(void *msg);
TAVRIX_API int tavrix_mq_socket_recvfd(int sock, int *fd_out);
TAVRIX_API int tavrix_mq_socket_sendfd(int sock, int *fd_out);
TAVRIX_API int tavrix_mq_socket_subscribe(int sock, const char *topic);
TAVRIX_API int tavrix_mq_socket_unsubscribe(int sock, const char *topic);
TAVRIX_API int tavrix_mq_socket_set_timeout(int sock, int ms);
TAVRIX_API int tavrix_mq_socket_get_timeout(int sock, int *ms_out);

#ifdef __cplusplus
}
#endif

#endif

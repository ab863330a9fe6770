/**
 * @file tavrix_socket.h
 */
#ifndef TAVRIX_SOCKET_H
#define TAVRIX_SOCKET_H

#include "tavrix_export.h"
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

TAVRIX_API int tavrix_unix_socket_init(const char *path, int *sock_out, int nonblocking);
TAVRIX_API int tavrix_tcp_socket_init(unsigned port, int *sock_out, int nonblocking);
TAVRIX_API int tavrix_socket_accept(const int *listen_sock, int *client_out);
TAVRIX_API int tavrix_tcp_socket_accept(const int *listen_sock, int *client_out);
TAVRIX_API int tavrix_tcp_socket_connect(const char *ipv4_text, unsigned port, int *sock_out);
TAVRIX_API int tavrix_socket_recv(const int *sock, char *buf, size_t len);
TAVRIX_API int tavrix_socket_send(const int *sock, const char *text);
TAVRIX_API int tavrix_socket_close(int *sock);
TAVRIX_API int tavrix_socket_shutdown(int *sock);

#ifdef __cplusplus
}
#endif

#endif

/**
 * @file tavrix_socket.h
 * Stream sockets: listeners, accept, connect, receive, send, close.
 *
 * A handle is the caller's descriptor, passed by pointer; a closed one holds -1. System calls that fail are reported on
 * standard error through perror.
 *
 * @code
 * int listener, client;
 * char text[1025] = "";
 * tavrix_unix_socket_init("/run/tavrix/example.sock", &listener, 0);
 * if (tavrix_socket_accept(&listener, &client) == TAVRIX_OK) {
 *     if (tavrix_socket_recv(&client, text, sizeof text - 1) > 0)
 *         tavrix_socket_send(&client, "hello\n");
 *     tavrix_socket_close(&client);
 * }
 * @endcode
 *
 * A signal that interrupts a wait makes the call fail with TAVRIX_ERR_GENERAL if its handler was installed without
 * SA_RESTART. With SA_RESTART the call goes on waiting, a receive too, and gives the caller no chance to look at its
 * flags. A send that has passed on a part before the signal came is not an error.
 *
 * Thread-safety: no state; callers that share a descriptor serialise themselves.
 */
#ifndef TAVRIX_SOCKET_H
#define TAVRIX_SOCKET_H

#include "tavrix_export.h"
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The longest path of a Unix-domain socket, in bytes; a longer one is cut to it. */
#define TAVRIX_SOCKET_MAX_PATH 107

/** How many clients may wait to be accepted. */
#define TAVRIX_SOCKET_BACKLOG 10

/**
 * Opens a Unix-domain listener. A file that an earlier run left at the path is removed first; the new one has mode 0666
 * whatever the umask.
 *
 * @param path        the path, cut to TAVRIX_SOCKET_MAX_PATH bytes
 * @param sock_out    receives the descriptor; the caller closes it
 * @param nonblocking not 0: accepts do not wait
 * @return 0; TAVRIX_ERR_GENERAL for a null pointer or a failing call, and nothing stays open
 */
TAVRIX_API int tavrix_unix_socket_init(const char *path, int *sock_out, int nonblocking);

/**
 * Opens a TCP listener on every local IPv4 address. It is always non-blocking, and no socket option is set: a port that
 * was just in use may be refused for a while.
 *
 * @param port        the low 16 bits count; 0 lets the system choose
 * @param sock_out    receives the descriptor; the caller closes it
 * @param nonblocking has no effect
 * @return 0; TAVRIX_ERR_GENERAL for a null pointer or a failing call, and nothing stays open
 */
TAVRIX_API int tavrix_tcp_socket_init(unsigned port, int *sock_out, int nonblocking);

/**
 * Accepts one client of a Unix-domain listener.
 *
 * @param listen_sock the listener
 * @param client_out  receives the client's descriptor, blocking; -1 on failure
 * @return 0; TAVRIX_ERR_GENERAL, without a message when the listener is non-blocking and nobody is waiting
 */
TAVRIX_API int tavrix_socket_accept(const int *listen_sock, int *client_out);

/** tavrix_socket_accept() for a TCP listener. */
TAVRIX_API int tavrix_tcp_socket_accept(const int *listen_sock, int *client_out);

/**
 * Connects to a TCP server, waiting for as long as the system does.
 *
 * @param ipv4_text dotted-quad address
 * @param port      the low 16 bits count
 * @param sock_out  receives the descriptor, blocking; the caller closes it
 * @return 0; TAVRIX_ERR_CONNECT_TIMEOUT when the system's time-out ran out; TAVRIX_ERR_GENERAL for any other failure,
 *         including a null argument (`sock_out` is checked last)
 */
TAVRIX_API int tavrix_tcp_socket_connect(const char *ipv4_text, unsigned port, int *sock_out);

/**
 * Receives once. No terminator is added: clear the buffer and pass one byte less than it holds.
 *
 * @param len size of `buf` in bytes
 * @return the bytes received; 0 at the end of the stream and for a null pointer; TAVRIX_ERR_GENERAL
 */
TAVRIX_API int tavrix_socket_recv(const int *sock, char *buf, size_t len);

/**
 * Sends a text without its terminator, once. A closed peer is a failure, never a signal.
 *
 * @return 0, also when only a part was taken, because the descriptor does not block or a signal arrived;
 *         TAVRIX_ERR_GENERAL
 */
TAVRIX_API int tavrix_socket_send(const int *sock, const char *text);

/**
 * Closes a descriptor and sets it to -1.
 *
 * @return 0; TAVRIX_ERR_GENERAL for a null pointer or a failing close, and the handle keeps its value
 */
TAVRIX_API int tavrix_socket_close(int *sock);

/**
 * Closes a descriptor and sets it to -1 whatever the outcome, without a message.
 *
 * @return what close returned; TAVRIX_ERR_GENERAL for a null pointer
 */
TAVRIX_API int tavrix_socket_shutdown(int *sock);

#ifdef __cplusplus
}
#endif

#endif

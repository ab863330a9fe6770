/**
 * @file tavrix_mq.h
 * Bus sockets: whole text messages over nanomsg's scalability protocols.
 *
 * A socket is a number, an endpoint an id. The library keeps nothing but the topics of a subscribe socket, until it is
 * closed. The order of calls is init, bind or connect (any number of endpoints), subscribe for a subscribe socket, then
 * send and receive, then close.
 *
 * @code
 * int sock, eid;
 * tavrix_mq_socket_init(TAVRIX_SP_SUB, &sock);
 * tavrix_mq_socket_connect(sock, TAVRIX_TRANSPORT_TCP, "tcp://127.0.0.1:7001", &eid);
 * tavrix_mq_socket_subscribe(sock, "events");
 * tavrix_mq_socket_set_timeout(sock, 1000);
 * char *text;
 * int length;
 * if (tavrix_mq_socket_recv(sock, &text, &length, 0) == TAVRIX_OK)
 *     free(text);
 * @endcode
 *
 * Publish/subscribe drops whatever is published before a subscriber is connected.
 *
 * A function that lists no statuses returns 0, or TAVRIX_ERR_GENERAL when nanomsg refuses; a failure is logged with
 * nanomsg's own message. Thread-safety: nanomsg's rules for sharing a socket hold; threads that change one socket's
 * topics at the same moment take turns.
 */
#ifndef TAVRIX_MQ_H
#define TAVRIX_MQ_H

#include "tavrix_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Socket types; the answering side of each pair comes first. */
enum tavrix_sp_type {
    TAVRIX_SP_PAIR = 1,
    TAVRIX_SP_REP = 2,
    TAVRIX_SP_REQ = 3,
    TAVRIX_SP_PUB = 4,
    TAVRIX_SP_SUB = 5,
    TAVRIX_SP_PULL = 6,
    TAVRIX_SP_PUSH = 7,
    TAVRIX_SP_SURVEYOR = 8,
    TAVRIX_SP_RESPONDENT = 9,
    TAVRIX_SP_BUS = 10
};

/** Transports, with the scheme that the address must contain. */
enum tavrix_transport {
    TAVRIX_TRANSPORT_INPROC = 1, /**< "inproc://" */
    TAVRIX_TRANSPORT_IPC = 2,    /**< "ipc://" */
    TAVRIX_TRANSPORT_TCP = 3     /**< "tcp://" */
};

/** The longest address, in characters. */
#define TAVRIX_MQ_MAX_ADDRESS 128

/**
 * Creates a socket.
 *
 * @param sp_type  1 to 10, see tavrix_sp_type
 * @param sock_out receives the socket; the caller closes it
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null pointer; TAVRIX_ERR_VALIDATION for another type; TAVRIX_ERR_GENERAL
 */
TAVRIX_API int tavrix_mq_socket_init(int sp_type, int *sock_out);

/**
 * Binds a socket to an address.
 *
 * @param sock      a socket
 * @param transport 1 to 3, see tavrix_transport
 * @param addr      at most 128 characters; the transport's scheme has to occur somewhere in it. An "ipc://" address is
 *                  the path of a file, at most 113 characters including the scheme; an existing file is removed unless
 *                  somebody listens on it
 * @param eid_out   receives the endpoint's id, for tavrix_mq_socket_shutdown()
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null pointer; TAVRIX_ERR_VALIDATION for a bad transport or address;
 *         TAVRIX_ERR_GENERAL, also for an "ipc://" address on which nanomsg would abort the process: one that is too
 *         long, a folder, or a file that cannot be removed
 */
TAVRIX_API int tavrix_mq_socket_bind(int sock, int transport, const char *addr, int *eid_out);

/**
 * Connects a socket to an address; parameters and statuses as for tavrix_mq_socket_bind(). Returns before the peer is
 * there. A folder is refused here too: nobody can be listening on it.
 */
TAVRIX_API int tavrix_mq_socket_connect(int sock, int transport, const char *addr, int *eid_out);

/**
 * Receives one message.
 *
 * @param sock     a socket
 * @param msg_out  receives a new, terminated copy; the caller releases it with `free`, not with
 *                 tavrix_mq_socket_freemsg()
 * @param len_out  receives its length in bytes, without the terminator
 * @param nonblock above 0: do not wait; otherwise wait up to the socket's receive time-out
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null pointer; TAVRIX_ERR_MQ_TIMEOUT when no message is waiting or the time-out
 *         ran out; TAVRIX_ERR_GENERAL for any other failure, a signal that interrupts the wait among them
 */
TAVRIX_API int tavrix_mq_socket_recv(int sock, char **msg_out, int *len_out, int nonblock);

/**
 * Sends a text without its terminator, waiting for as long as nanomsg does.
 *
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null text; TAVRIX_ERR_GENERAL
 */
TAVRIX_API int tavrix_mq_socket_send(int sock, const char *text);

/** tavrix_mq_socket_send() that does not wait: what would block fails with TAVRIX_ERR_GENERAL. */
TAVRIX_API int tavrix_mq_socket_send_nonblock(int sock, const char *text);

/** Removes one endpoint from a socket. */
TAVRIX_API int tavrix_mq_socket_shutdown(int sock, int eid);

/**
 * Closes a socket; a failure is logged as a warning. Releases what is kept about its topics; a socket that is closed
 * with `nn_close` leaves that behind until its number is used again.
 */
TAVRIX_API int tavrix_mq_socket_close(int sock);

/** Does nothing. */
TAVRIX_API void tavrix_mq_socket_terminate(void);

/**
 * Releases a message that nanomsg itself allocated, never one from tavrix_mq_socket_recv().
 *
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null pointer; TAVRIX_ERR_GENERAL
 */
TAVRIX_API int tavrix_mq_socket_freemsg(void *msg);

/**
 * Reads the descriptor that becomes readable when a message can be received, for poll.
 *
 * @param fd_out receives the descriptor; it stays nanomsg's
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null pointer; TAVRIX_ERR_GENERAL, also for a socket type that cannot receive
 */
TAVRIX_API int tavrix_mq_socket_recvfd(int sock, int *fd_out);

/** The counterpart for sending: readable when a message can be sent. */
TAVRIX_API int tavrix_mq_socket_sendfd(int sock, int *fd_out);

/**
 * Adds a prefix to what a subscribe socket lets through; the empty topic lets everything through.
 *
 * Topics that extend a shorter one may continue it with at most eight different bytes: at the ninth nanomsg 1.1.5 loses
 * the shorter topic, and again when they are back to eight. With the empty topic subscribed, that means at most eight
 * different first bytes on the socket.
 *
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null topic; TAVRIX_ERR_GENERAL when nanomsg refuses or memory runs out
 */
TAVRIX_API int tavrix_mq_socket_subscribe(int sock, const char *topic);

/**
 * Removes one subscription of a prefix; the others stay. A prefix that was subscribed twice has to be removed twice.
 * Only topics that were subscribed through this library are known, and they have to be removed through it.
 *
 * @param sock  a subscribe socket
 * @param topic the prefix; for an unknown one nothing changes, and the status is 0 or TAVRIX_ERR_GENERAL, whichever
 *              nanomsg reports
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null topic; TAVRIX_ERR_GENERAL when nanomsg refuses
 */
TAVRIX_API int tavrix_mq_socket_unsubscribe(int sock, const char *topic);

/** Sets the receive time-out in milliseconds; -1 waits for ever. */
TAVRIX_API int tavrix_mq_socket_set_timeout(int sock, int ms);

/**
 * Reads the receive time-out in milliseconds.
 *
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null pointer; TAVRIX_ERR_GENERAL
 */
TAVRIX_API int tavrix_mq_socket_get_timeout(int sock, int *ms_out);

#ifdef __cplusplus
}
#endif

#endif

/**
 * @file tavrix_jrpc.h
 * JSON-RPC 2.0 between daemons, and between clients and daemons.
 *
 * A service keeps a method table and serves it step by step; a router carries requests from client sockets to the bus
 * and the replies back. A bus frame is a channel's name, one vertical bar, and the JSON text.
 *
 * @code
 * static int say(json_t *params, json_t **result, json_t **error_data) {
 *     *result = json_string("hello");
 *     return TAVRIX_OK;
 * }
 * static const tavrix_jrpc_method methods[] = {{"hello.Say", say}, {NULL, NULL}};
 *
 * int pub, sub;
 * tavrix_jrpc_mq_pub_init("tcp://127.0.0.1:7009", &pub);
 * tavrix_jrpc_mq_sub_init(&sub, 1);
 * tavrix_jrpc_mq_sub_set_channel("tcp://127.0.0.1:7001", TAVRIX_CHANNEL_DEFAULT, &sub);
 * while (!stop)
 *     tavrix_jrpc_mq_run(&sub, &pub, methods, 0);
 * @endcode
 *
 * The caller releases returned texts with `free` and JSON values with `json_decref`. Unless its comment says otherwise,
 * a function returns 0 or TAVRIX_ERR_GENERAL; those that return TAVRIX_ERR_NULL_INPUT for a null argument say so.
 * Thread-safety: no state; handlers run on the caller's thread.
 *
 * Signals: one that arrives while a call waits on the bus makes it fail with TAVRIX_ERR_GENERAL, SA_RESTART or not;
 * tavrix_jrpc_mq_sub_for_method() and tavrix_jrpc_mq_sub_for_notifcation() count that as one attempt and go on. On
 * client sockets the system decides: with SA_RESTART an accept or a receive goes on waiting, without it it fails with
 * TAVRIX_ERR_GENERAL. An answer that a signal cuts short counts as sent.
 */
#ifndef TAVRIX_JRPC_H
#define TAVRIX_JRPC_H

#include "tavrix_export.h"
#include <jansson.h>

#ifdef __cplusplus
extern "C" {
#endif

/** JSON-RPC error codes; tavrix_jrpc_error_message() has the message of each. */
enum tavrix_jrpc_code {
    TAVRIX_JRPC_UNKNOWN_ERROR = -32001,
    TAVRIX_JRPC_VERSION_NOT_SUPPORTED = -32002,
    TAVRIX_JRPC_UNSUPPORTED_FEATURE = -32003,
    TAVRIX_JRPC_RESPONSE_FAILED = -32004,
    TAVRIX_JRPC_TIMED_OUT = -32005,
    TAVRIX_JRPC_RESERVED_VALUE = -32006,
    TAVRIX_JRPC_NOT_UNIQUE = -32007,
    TAVRIX_JRPC_DATABASE_ERROR = -32010,
    TAVRIX_JRPC_NO_MEMORY = -32011,
    TAVRIX_JRPC_HARDWARE_ERROR = -32012,
    TAVRIX_JRPC_NO_RECORDS = -32013,
    TAVRIX_JRPC_SYSTEM_BUSY = -32014,
    TAVRIX_JRPC_MZU_OFFLINE = -32020,
    TAVRIX_JRPC_MZU_ONLINE = -32021,
    TAVRIX_JRPC_NO_SUCH_MZU = -32022,
    TAVRIX_JRPC_MZU_EXISTS = -32023,
    TAVRIX_JRPC_EXPECTED_MZU = -32024,
    TAVRIX_JRPC_MZU_LIMIT = -32025,
    TAVRIX_JRPC_MAC_LIMIT_UNSUPPORTED = -32026,
    TAVRIX_JRPC_MODEL_UNSUPPORTED = -32027,
    TAVRIX_JRPC_CONFIG_QUEUE_BUSY = -32028,
    TAVRIX_JRPC_CONFIG_PENDING = -32029,
    TAVRIX_JRPC_INVALID_PORT = -32030,
    TAVRIX_JRPC_EXPECTED_D_PORT = -32031,
    TAVRIX_JRPC_EXPECTED_C_PORT = -32032,
    TAVRIX_JRPC_TOO_MANY_VLAN_IDS = -32033,
    TAVRIX_JRPC_NO_SUCH_PORT = -32034,
    TAVRIX_JRPC_NO_POE = -32035,
    TAVRIX_JRPC_MACS_RESTRICTED = -32036,
    TAVRIX_JRPC_E13_MAC_LIMIT = -32037,
    TAVRIX_JRPC_D4_PEER_TO_PEER = -32038,
    TAVRIX_JRPC_TOO_MANY_ENTRIES = -32039,
    TAVRIX_JRPC_MAC_EXISTS = -32040,
    TAVRIX_JRPC_NO_SUCH_MAC = -32041,
    TAVRIX_JRPC_NO_SUCH_MODEL = -32042,
    TAVRIX_JRPC_MAC_EXPECTED = -32043,
    TAVRIX_JRPC_IP_IN_USE = -32044,
    TAVRIX_JRPC_SUBNET_CONFLICT = -32045,
    TAVRIX_JRPC_UNIT_NOT_ACTIVE = -32050,
    TAVRIX_JRPC_INVALID_DATE_TIME = -32051,
    TAVRIX_JRPC_NO_FIRMWARE_FILE = -32052,
    TAVRIX_JRPC_FACTORY_VERSION = -32053,
    TAVRIX_JRPC_LASER_ADDRESSES_DIFFER = -32054,
    TAVRIX_JRPC_LASER_IN_PROTECT_MODE = -32055,
    TAVRIX_JRPC_NO_ACTIVE_LASER = -32056,
    TAVRIX_JRPC_DATE_NOT_SET = -32057,
    TAVRIX_JRPC_MANAGEMENT_VLAN = -32058,
    TAVRIX_JRPC_INVALID_REQUEST = -32600,
    TAVRIX_JRPC_METHOD_NOT_FOUND = -32601,
    TAVRIX_JRPC_INVALID_PARAMS = -32602,
    TAVRIX_JRPC_INTERNAL_ERROR = -32603,
    TAVRIX_JRPC_PARSE_ERROR = -32700
};

/**
 * The service channels, each for the methods whose names begin with these letters.
 * tavrix_api_router_json_parse_channel() chooses.
 */
#define TAVRIX_CHANNEL_FIRST "3a6f8f51-502f-4238-9638-29764ff1a8a4"      /**< d, p, en, mz */
#define TAVRIX_CHANNEL_EVENTS "505a5451-3ef2-4618-8087-9a22b800a510"     /**< ev */
#define TAVRIX_CHANNEL_INTERFACES "b4469f46-e963-42ef-9fd2-f978e73adc76" /**< i */
#define TAVRIX_CHANNEL_DEFAULT "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3"    /**< anything else */

/** The channel on which every reply to the router arrives. */
#define TAVRIX_ROUTER_REPLY_CHANNEL "2524546b-ca99-4868-a062-359cefacff7c"

/** The largest request that is read, in bytes; it has to arrive in one piece. */
#define TAVRIX_ROUTER_MAX_REQUEST 8192 /**< the router */
#define TAVRIX_SERVER_MAX_REQUEST 1024 /**< the Unix-domain and TCP request servers */

/**
 * Performs a method.
 *
 * @param params     the request's "params" object, borrowed; null when the request has none
 * @param result     receives a new value, the response's "result"; the engine releases it. Left null it becomes 0.
 * @param error_data receives a new value, the error's "data"; the engine releases it
 * @return 0 or a positive number for success, a negative status for failure
 */
typedef int (*tavrix_jrpc_handler)(json_t *params, json_t **result, json_t **error_data);

/**
 * A row of a method table; the table ends with a row whose handler is null. Names are compared byte for byte, the first
 * row of a name counts, and a row without a name is never called.
 */
typedef struct tavrix_jrpc_method {
    const char *name;
    tavrix_jrpc_handler handler;
} tavrix_jrpc_method;

/**
 * The JSON-RPC code that clients see for a status.
 *
 * @code
 * int code = tavrix_jrpc_error_convert_tavrix_to_jrpc(TAVRIX_ERR_SYSTEM_BUSY);
 * puts(tavrix_jrpc_error_message(code)); // System is busy.
 * @endcode
 *
 * @param internal_code a status of tavrix_error.h
 * @return the code; TAVRIX_JRPC_UNKNOWN_ERROR for a status without one
 */
TAVRIX_API int tavrix_jrpc_error_convert_tavrix_to_jrpc(int internal_code);

/**
 * The first status that clients see as this JSON-RPC code.
 *
 * @param jrpc_code see tavrix_jrpc_code
 * @return the status; TAVRIX_JRPC_UNKNOWN_ERROR, which is a code and not a status, when there is none
 */
TAVRIX_API int tavrix_jrpc_error_convert_jrpc_to_tavrix(int jrpc_code);

/**
 * The message of a JSON-RPC code.
 *
 * @param jrpc_code see tavrix_jrpc_code
 * @return a text in constant storage, never released; "Unknown Error" for a code without one
 */
TAVRIX_API const char *tavrix_jrpc_error_message(int jrpc_code);

/**
 * Evaluates one request: checks its envelope, calls its method, builds the response.
 *
 * @code
 * char *response;
 * if (tavrix_jrpc_eval_request(request, methods, &response) == TAVRIX_OK && response != NULL)
 *     tavrix_socket_send(&client, response);
 * free(response);
 * @endcode
 *
 * @param request_text  the request; what follows its object is ignored
 * @param table         the methods
 * @param response_text set to null first; receives the response's text, which the caller sends
 *                      and releases, or null when there is nothing to send: for a notification, and when a check
 *                      before the method's name failed or the name is missing
 * @return 0 when a response was built, be it an error response, or when a notification succeeded; TAVRIX_ERR_GENERAL
 *         otherwise, also for a null argument. The response's "id" is the value of "method", whatever the request's id.
 */
TAVRIX_API int tavrix_jrpc_eval_request(const char *request_text, const tavrix_jrpc_method *table,
                                        char **response_text);

/**
 * Builds the text of a successful response. The values are shared: the caller keeps its references.
 *
 * @param result         the response's "result"
 * @param id             the response's "id"
 * @param indent         spaces per level, 0 to 31; 0 puts everything on one line
 * @param transaction_id the response's "transaction_id"; null for none
 * @return a new text, compact and ASCII only; null for a null result or id, an indent out of range, or a value that has
 *         no JSON text
 */
TAVRIX_API char *tavrix_jrpc_create_response(json_t *result, json_t *id, int indent, json_t *transaction_id);

/**
 * Builds the text of an error response; ownership and limits as for tavrix_jrpc_create_response().
 *
 * @param jrpc_code      see tavrix_jrpc_code; its message comes with it
 * @param id             the response's "id"
 * @param data           the error's "data"; null makes it a JSON null
 * @param indent         spaces per level, 0 to 31; 0 puts everything on one line
 * @param transaction_id the response's "transaction_id"; null for none
 * @return a new text; null for a null id, an indent out of range, or a value that has no JSON text
 */
TAVRIX_API char *tavrix_jrpc_create_error(int jrpc_code, json_t *id, json_t *data, int indent, json_t *transaction_id);

/**
 * Builds a frame: a channel's name, a bar, a JSON text.
 *
 * @code
 * char *frame = tavrix_api_router_json_add_channel("me", "{}"); // me|{}
 * char *text;
 * if (frame != NULL && tavrix_jrpc_parse_msg(frame, (int)strlen(frame), &text) == TAVRIX_OK)
 *     free(text); // {}
 * free(frame);
 * @endcode
 *
 * @param channel   a name without a bar
 * @param json_text any text
 * @return a new text; null for a null argument or when memory runs out
 */
TAVRIX_API char *tavrix_api_router_json_add_channel(const char *channel, const char *json_text);

/**
 * Takes the JSON text out of a frame: what follows the first bar.
 *
 * @param frame    a received frame; needs no terminator
 * @param length   length of the frame in bytes; nothing is found in 0 or fewer
 * @param json_out receives a new, terminated text
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; TAVRIX_ERR_GENERAL when there is no bar or no memory
 */
TAVRIX_API int tavrix_jrpc_parse_msg(const char *frame, int length, char **json_out);

/**
 * Takes the reply channel out of a request: its "id", when that is a string.
 *
 * @param json_text   a request; what follows its object is ignored
 * @param channel_out receives a new text; null when the result is TAVRIX_ERR_NO_JSON_ID; untouched by the other
 *                    failures
 * @return 0; TAVRIX_ERR_NO_JSON_ID for a notification, which has no "id"; TAVRIX_ERR_NULL_INPUT for a null argument;
 *         TAVRIX_ERR_GENERAL for any other id or text, or when memory runs out
 */
TAVRIX_API int tavrix_jrpc_parse_channel(const char *json_text, char **channel_out);

/**
 * The service channel for a method's name, by its first letters.
 *
 * @param method a method's name; the empty one goes to the default channel
 * @return a new text; null for a null name or without memory
 */
TAVRIX_API char *tavrix_api_router_json_parse_channel(const char *method);

/**
 * Opens a publisher.
 *
 * A failed bind leaves its bus socket open until the process ends, and a process has only 512: do not retry in a loop
 * until the address is free.
 *
 * @param address      a "tcp://" address to bind to
 * @param pub_sock_out receives the bus socket; the caller closes it
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; the bind's status (TAVRIX_ERR_VALIDATION, TAVRIX_ERR_GENERAL);
 *         TAVRIX_ERR_GENERAL when there is no bus socket left
 */
TAVRIX_API int tavrix_jrpc_mq_pub_init(const char *address, int *pub_sock_out);

/**
 * Opens a subscriber that does not listen to anything yet.
 *
 * @param sub_sock_out receives the bus socket; the caller closes it
 * @param with_timeout not 0: a receive waits at most 1000 ms; 0: it waits for ever
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null pointer; TAVRIX_ERR_GENERAL when there is no bus socket left, or when the
 *         time-out cannot be set: then the socket stays open until the process ends
 */
TAVRIX_API int tavrix_jrpc_mq_sub_init(int *sub_sock_out, int with_timeout);

/**
 * Connects a subscriber to a publisher and lets a channel through, by prefix; call it again for further channels.
 *
 * @param address  the publisher's "tcp://" address; the publisher may appear later
 * @param channel  the prefix of the frames to let through
 * @param sub_sock the subscriber. When the connection or the subscription fails it is closed, and the variable keeps
 *                 its value; after TAVRIX_ERR_NULL_INPUT it is still open.
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; TAVRIX_ERR_GENERAL when the connection or the subscription
 *         fails
 */
TAVRIX_API int tavrix_jrpc_mq_sub_set_channel(const char *address, const char *channel, int *sub_sock);

/**
 * One serving step: receives one frame, evaluates it, publishes the response on the channel that the request's "id"
 * names.
 *
 * @param sub_sock the subscriber that requests arrive on
 * @param pub_sock the publisher for the responses
 * @param table    the methods; their handlers run inside this call
 * @param nonblock above 0: return at once when nothing is waiting; otherwise wait up to the socket's receive time-out
 * @return 0 served, a notification too; TAVRIX_ERR_MQ_TIMEOUT when nothing arrived; TAVRIX_ERR_NULL_INPUT for a null
 *         argument; TAVRIX_ERR_GENERAL for a frame that is no request (an "id" that is no string among them), a failed
 *         evaluation, receive or send
 */
TAVRIX_API int tavrix_jrpc_mq_run(int *sub_sock, int *pub_sock, const tavrix_jrpc_method *table, int nonblock);

/**
 * Publishes a JSON text on a channel.
 *
 * @param pub_sock  a publisher
 * @param channel   a name without a bar
 * @param json_text any text; it stays the caller's
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; TAVRIX_ERR_GENERAL
 */
TAVRIX_API int tavrix_jrpc_mq_pub(const int *pub_sock, const char *channel, const char *json_text);

/**
 * Waits for the reply to a method, attempt after attempt, each as long as the socket's receive time-out. With the
 * 1000 ms of tavrix_jrpc_mq_sub_init() the attempts are seconds, by the method's exact name:
 * - 60 for "ports.Get" and "ports.SetEnabled";
 * - 100 for "ports.SetVlanLocal", "ports.SetVlanAccess" and "ports.SetVlanTrunk";
 * - 200 for "ports.poe.GetInstantPower" and "db.ApplyBackup";
 * - 10 for any other.
 *
 * Anything else that arrives costs an attempt, and so does a receive that fails or that a signal interrupts.
 *
 * A reply is recognised by the method's name alone: the first reply to that method counts, whoever asked, even one to
 * an earlier request that was abandoned. Listen on a channel of your own, and tell replies apart by "transaction_id".
 * Subscribe to the request's "id" before it is published.
 *
 * @code
 * json_t *reply;
 * tavrix_jrpc_mq_sub_set_channel("tcp://127.0.0.1:7009", "me", &sub);
 * tavrix_jrpc_mq_pub(&pub, TAVRIX_CHANNEL_FIRST, "{\"jsonrpc\":\"2.0\",\"id\":\"me\",\"method\":\"ports.Get\"}");
 * if (tavrix_jrpc_mq_sub_for_method(sub, "ports.Get", &reply) == TAVRIX_OK)
 *     json_decref(reply);
 * @endcode
 *
 * @param sub_sock  the subscriber; without a receive time-out an attempt waits for ever
 * @param method    the method's name
 * @param reply_out receives the whole reply object; the caller releases it
 * @return 0; TAVRIX_ERR_NO_RESPONSE when the attempts ran out; TAVRIX_ERR_NULL_INPUT for a null argument
 */
TAVRIX_API int tavrix_jrpc_mq_sub_for_method(int sub_sock, const char *method, json_t **reply_out);

/**
 * Tells whether a text is a reply to a method, whoever asked: a JSON-RPC 2.0 object whose "id" is the method's name.
 *
 * @param method    the method's name
 * @param json_text the text, without a channel
 * @param reply_out receives the object, which the caller releases; may be null when only the verdict counts
 * @return 0 for the reply; TAVRIX_ERR_GENERAL for anything else; TAVRIX_ERR_NULL_INPUT for a null method or text
 */
TAVRIX_API int tavrix_jrpc_eval_method(const char *method, const char *json_text, json_t **reply_out);

/**
 * Waits for a notification of a method, without a time-out, for five attempts: any other frame costs one, and so does a
 * receive that fails or that a signal interrupts. The socket's receive time-out is lifted meanwhile and always put
 * back, so nothing else may receive on it. (The misspelt name is part of the interface.)
 *
 * @param sub_sock         the subscriber
 * @param method           the method's name
 * @param notification_out receives the whole notification object; the caller releases it
 * @return 0; TAVRIX_ERR_GENERAL when the attempts ran out or the time-out cannot be read or changed;
 *         TAVRIX_ERR_NULL_INPUT for a null argument
 */
TAVRIX_API int tavrix_jrpc_mq_sub_for_notifcation(int sub_sock, const char *method, json_t **notification_out);

/**
 * Tells whether a text is a notification of a method: a JSON-RPC 2.0 object whose "method" is the name.
 *
 * @param method    the method's name
 * @param json_text the text, without a channel
 * @param out       receives the object; the caller releases it
 * @return 0 for the notification; TAVRIX_ERR_GENERAL for anything else; TAVRIX_ERR_NULL_INPUT for a null argument
 */
TAVRIX_API int tavrix_jrpc_eval_notification(const char *method, const char *json_text, json_t **out);

/**
 * Opens a Unix-domain request server.
 *
 * @code
 * int listener;
 * tavrix_jrpc_unix_socket_init("/run/hello.sock", &listener, 0);
 * while (listener > 0 && !stop)
 *     tavrix_jrpc_unix_socket_run(&listener, methods);
 * @endcode
 *
 * @param path        the socket's path, cut after TAVRIX_SOCKET_MAX_PATH bytes; a file that is there is removed
 * @param sock_out    receives the listener, or 0; the caller closes it
 * @param nonblocking not 0: the accept of tavrix_jrpc_unix_socket_run() does not wait
 * @return 0, also when the listener cannot be opened: then the handle is 0 and the log says why; TAVRIX_ERR_NULL_INPUT
 *         for a null `sock_out`
 */
TAVRIX_API int tavrix_jrpc_unix_socket_init(const char *path, int *sock_out, int nonblocking);

/**
 * Opens a TCP request server on every local address. Its accept never waits.
 *
 * @param port        1 to 65535; 0 lets the system choose
 * @param sock_out    receives the listener, or 0; the caller closes it
 * @param nonblocking has no effect
 * @return as tavrix_jrpc_unix_socket_init()
 */
TAVRIX_API int tavrix_jrpc_tcp_socket_init(unsigned port, int *sock_out, int nonblocking);

/**
 * Serves one client: one request of at most TAVRIX_SERVER_MAX_REQUEST bytes in one piece, one answer, connection
 * closed. A notification is not answered.
 *
 * @param listen_sock the listener
 * @param table       the methods
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; TAVRIX_ERR_GENERAL when nobody is waiting, when nothing could
 *         be read, and for a failed evaluation, send or close
 */
TAVRIX_API int tavrix_jrpc_unix_socket_run(const int *listen_sock, const tavrix_jrpc_method *table);

/** tavrix_jrpc_unix_socket_run() for a TCP listener. */
TAVRIX_API int tavrix_jrpc_tcp_socket_run(const int *listen_sock, const tavrix_jrpc_method *table);

/**
 * Opens a server for one-way requests on a bus pull socket.
 *
 * @param address  a "tcp://" address to bind to
 * @param sock_out receives the bus socket; the caller closes it
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; the bind's status (TAVRIX_ERR_VALIDATION, TAVRIX_ERR_GENERAL).
 *         Nothing stays open on failure.
 */
TAVRIX_API int tavrix_jrpc_pull_socket_init(const char *address, int *sock_out);

/**
 * Receives one message, which has no channel, and evaluates it; nothing is ever sent.
 *
 * @param sock  the pull socket; waits up to its receive time-out
 * @param table the methods
 * @return the evaluation's 0 or TAVRIX_ERR_GENERAL; TAVRIX_ERR_NULL_INPUT for a null table; TAVRIX_ERR_GENERAL when
 *         nothing could be received, including a time-out
 */
TAVRIX_API int tavrix_jrpc_pull_socket_run(int sock, const tavrix_jrpc_method *table);

/**
 * The router's request path in one call: accepts a client, reads its request (at most TAVRIX_ROUTER_MAX_REQUEST bytes
 * in one piece), puts the reply channel in the place of its id, publishes it on its service channel. One request at a
 * time: the next message on the reply channel is taken for its reply.
 *
 * @code
 * int client;
 * if (tavrix_jrpc_router_socket_to_mq(&listener, &pub, &client) == TAVRIX_OK)
 *     tavrix_jrpc_router_mq_to_socket(&sub, &client);
 * @endcode
 *
 * @param listen_sock the listener
 * @param pub_sock    the router's publisher
 * @param client_out  receives the client, for tavrix_jrpc_router_mq_to_socket(); untouched on failure, when the client
 *                    is closed here
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; the accept's or the publishing's status; TAVRIX_ERR_GENERAL for
 *         a request that is refused
 */
TAVRIX_API int tavrix_jrpc_router_socket_to_mq(const int *listen_sock, const int *pub_sock, int *client_out);

/**
 * The first half of the split request path: accepts a client and parses its request, without checking its members.
 *
 * @code
 * int client = -1;
 * json_t *request = NULL, *response = NULL;
 * if (tavrix_jrpc_router_socket_extract_request(&listener, &client, &request) == TAVRIX_OK &&
 *     tavrix_jrpc_router_mq_dispatch_request(&pub, request) == TAVRIX_OK &&
 *     tavrix_jrpc_router_mq_extract_response(&sub, &response) == TAVRIX_OK)
 *     tavrix_jrpc_router_socket_dispatch_response(&client, response);
 * json_decref(response);
 * json_decref(request);
 * if (client >= 0)
 *     tavrix_socket_close(&client);
 * @endcode
 *
 * @param listen_sock the listener
 * @param client_out  receives the client; it stays open when the request is refused, and the caller closes it; -1 when
 *                    nobody was accepted
 * @param request_out receives the request object; the caller releases it
 * @return 0; the accept's status; TAVRIX_ERR_GENERAL, also for a null argument
 */
TAVRIX_API int tavrix_jrpc_router_socket_extract_request(const int *listen_sock, int *client_out, json_t **request_out);

/**
 * The second half: rewrites the caller's object in place and publishes it.
 *
 * @param pub_sock the router's publisher
 * @param request  the request object; it stays the caller's, its "id" becomes the reply channel
 * @return 0; the publishing's status; TAVRIX_ERR_GENERAL for a null argument, and, with the object unchanged, for one
 *         that has no JSON text, for a request without a method, and for an id that is missing or neither a string nor
 *         a number
 */
TAVRIX_API int tavrix_jrpc_router_mq_dispatch_request(const int *pub_sock, json_t *request);

/**
 * The router's response path in one call: the next message on the subscriber goes to the client, unchanged.
 *
 * @param sub_sock    the router's subscriber, on the reply channel
 * @param client_sock the client; if the arguments are valid it is always closed and set to -1
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; the receive's status (TAVRIX_ERR_MQ_TIMEOUT for a time-out);
 *         TAVRIX_ERR_GENERAL
 */
TAVRIX_API int tavrix_jrpc_router_mq_to_socket(const int *sub_sock, int *client_sock);

/**
 * The first half of the split response path: receives the next message and parses it.
 *
 * @param sub_sock     the router's subscriber, on the reply channel
 * @param response_out receives the response object; the caller releases it
 * @return 0; the receive's status (TAVRIX_ERR_MQ_TIMEOUT for a time-out); TAVRIX_ERR_GENERAL, also for a null argument
 */
TAVRIX_API int tavrix_jrpc_router_mq_extract_response(const int *sub_sock, json_t **response_out);

/**
 * The second half: sends an object to the client, compact and ASCII only.
 *
 * @param client_sock the client; it stays open
 * @param response    the object; it stays the caller's
 * @return 0; TAVRIX_ERR_GENERAL, also for a null argument
 */
TAVRIX_API int tavrix_jrpc_router_socket_dispatch_response(const int *client_sock, json_t *response);

/**
 * Evaluates a notification to the router itself.
 *
 * @param notification the notification object, without an "id"; it stays the caller's
 * @param table        the methods
 * @return 0; the handler's own value when it is not 0, even a positive one; TAVRIX_ERR_GENERAL when the notification
 *         is malformed or has no handler, and for a null argument
 */
TAVRIX_API int tavrix_jrpc_router_eval_notification(json_t *notification, const tavrix_jrpc_method *table);

/**
 * Builds the answer of a busy system to a request.
 *
 * @param request      the request object; it stays the caller's, its "transaction_id" is shared with the answer
 * @param response_out receives the object, which the caller releases; null when it cannot be built, untouched for a
 *                     null argument
 * @return 0; TAVRIX_ERR_GENERAL for a null argument, for an id that is missing or not a string, or when memory runs out
 */
TAVRIX_API int tavrix_jrpc_router_create_system_lock_response(json_t *request, json_t **response_out);

/**
 * Builds the answer to a request that got no reply in time.
 *
 * @param id             the response's "id"
 * @param transaction_id the response's "transaction_id"; 0 is sent like any other
 * @param response_out   receives the object, which the caller releases; null with every TAVRIX_ERR_GENERAL
 * @return 0; TAVRIX_ERR_GENERAL for a null argument, for an id that is not UTF-8, or when memory runs out
 */
TAVRIX_API int tavrix_jrpc_router_create_system_timeout_response(const char *id, int transaction_id,
                                                                 json_t **response_out);

#ifdef __cplusplus
}
#endif

#endif

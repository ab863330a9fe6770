/**
 * @file tavrix_service.h
 * The service kit: a daemon that answers methods, calls other services and tells of events, around one event loop.
 *
 * A service is a name and a table of methods. The kit connects to the router's session socket, registers, settles the
 * bus, takes requests, checks their parameters by the rows of the table, and registers again by itself when the router
 * comes back. Handlers run on the loop, one after the other: they answer at once, or defer and answer later, and never
 * wait.
 *
 * @code
 * #include <tavrix_service.h>
 *
 * static int say(tavrix_call *call) {
 *     return tavrix_call_reply(call, json_pack("{s:s}", "hello", tavrix_call_text(call, "name")));
 * }
 *
 * static const tavrix_service_param say_params[] = {
 *     TAVRIX_PARAM_RANGE("name", TAVRIX_KIND_TEXT, "whom to greet", 0, 1, 40),
 *     TAVRIX_PARAM_END,
 * };
 * static const tavrix_service_param say_result[] = {
 *     TAVRIX_PARAM("hello", TAVRIX_KIND_TEXT, "who was greeted", 0),
 *     TAVRIX_PARAM_END,
 * };
 * static const tavrix_service_method methods[] = {
 *     TAVRIX_METHOD("hello.Say", say, "Greets somebody.", say_params, say_result, TAVRIX_METHOD_READS),
 *     TAVRIX_METHOD_END,
 * };
 *
 * int main(int argc, char **argv) {
 *     const tavrix_service_options options = {.name = "hello", .methods = methods};
 *     return tavrix_service_main(&options, argc, argv);
 * }
 * @endcode
 *
 * Unless a function says otherwise it returns 0 or a negative status of tavrix_error.h, tests its pointers for null
 * (TAVRIX_ERR_NULL_INPUT), and does nothing on failure. What can be ended is named by a number that is never used again
 * in the life of the service, so that what is ended too late or twice is refused; 0 is no number. Function names,
 * tables, rows and texts that are handed over by pointer in options and rows have to live as long as the service;
 * others are copied. A `json_t *` that is handed over (`result`, `params`, `data`) is one reference, taken on failure
 * too.
 *
 * Thread-safety: a service and everything of it belong to the thread that runs it. No function throws.
 */
#ifndef TAVRIX_SERVICE_H
#define TAVRIX_SERVICE_H

#include <jansson.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_jrpc_utils.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Visible in the shared library; everything else is built hidden. */
#define TAVRIX_SERVICE_API __attribute__((visibility("default")))

/** The router's session socket, unless the options or the environment's TAVRIX_SESSION name another. */
#define TAVRIX_SERVICE_SESSION "/run/tavrix/session.sock"

#define TAVRIX_SERVICE_MAX_NAME 50       /**< bytes of a service's name: letters, digits, dots, hyphens, underscores */
#define TAVRIX_SERVICE_MAX_METHOD 255    /**< bytes of a method's name, or of a pattern */
#define TAVRIX_SERVICE_MAX_METHODS 256   /**< rows of a table */
#define TAVRIX_SERVICE_MAX_ADDRESSES 8   /**< bus addresses to publish on */
#define TAVRIX_SERVICE_MAX_PARAMS 32     /**< rows of a method, or of the members of one parameter */
#define TAVRIX_SERVICE_MAX_DEFERRED 4096 /**< calls that wait for their answer; more get TAVRIX_JRPC_SYSTEM_BUSY */
#define TAVRIX_SERVICE_MAX_REQUESTS 4096 /**< calls to others in flight at once; more are refused */
#define TAVRIX_SERVICE_MAX_CLIENTS 256   /**< on direct sockets; a user has half of them at most */

struct event_base;

/** A service. */
typedef struct tavrix_service tavrix_service;

/** A request that is being answered. */
typedef struct tavrix_call tavrix_call;

/**
 * @name The table
 * What is declared here is what is checked, described and documented: the kit makes an OpenRPC document of it, hands
 * that to the router when it registers, and answers it to `<prefix>.Discover`, where the prefix is the first method's
 * name up to its first dot, unless the table has a method of that name. The texts are UTF-8.
 * @{
 */

/**
 * What a parameter is. A kind is checked by the library's retriever of its name in tavrix_jrpc_utils.h; the comment
 * says with which getter the checked value is read.
 *
 * A text is refused when it holds a control character (below U+0020, U+007F to U+009F), U+2028 or U+2029, unless its
 * row has #TAVRIX_MULTILINE. Nothing looks into what has no rows: a #TAVRIX_KIND_JSON, and arrays and objects without
 * members, hold any text, with newlines too. The bounds of a #TAVRIX_KIND_TEXT count characters (code points), as the
 * description's `minLength` and `maxLength` do; the library's own kinds, such as #TAVRIX_KIND_ALIAS, count
 * bytes, so that fewer characters fit when some are beyond ASCII.
 *
 * A refusal is TAVRIX_JRPC_INVALID_PARAMS, unless the catalogue has a code of its own for what the retriever says: port
 * ids where one sort of port alone, or a unit too, is allowed, and more VLAN ids than 32.
 */
typedef enum tavrix_kind {
    TAVRIX_KIND_NONE = 0,

    TAVRIX_KIND_TEXT,    /**< text, `min` to `max` characters (0, 0: any length); tavrix_call_text() */
    TAVRIX_KIND_INTEGER, /**< integer, `min` to `max` (0, 0: what 32 bits hold); tavrix_call_integer() */
    TAVRIX_KIND_BOOLEAN, /**< true or false; tavrix_call_boolean() */
    TAVRIX_KIND_NUMBER,  /**< integer or real, `min` to `max` (0, 0: any); tavrix_call_real() */
    TAVRIX_KIND_UINT64,  /**< a number of 64 bits in a text: decimal, 0x, or octal after 0; tavrix_call_uint64() */
    TAVRIX_KIND_FLOAT,   /**< a real in a text; tavrix_call_real() */
    TAVRIX_KIND_WORD,    /**< one of the row's `words`; tavrix_call_text(), tavrix_call_word() */
    TAVRIX_KIND_ARRAY,   /**< array of `min` to `max` elements (0, 0: any), each as `members` say; tavrix_call_json() */
    TAVRIX_KIND_OBJECT,  /**< object with the `members`; tavrix_call_json() */
    TAVRIX_KIND_JSON,    /**< any value, whatever its texts hold; tavrix_call_json() */

    TAVRIX_KIND_PORT_ID,                  /**< in the forms that the flags allow; tavrix_call_text() */
    TAVRIX_KIND_MZU_ID,                   /**< a unit's id, `all` too with #TAVRIX_ALLOW_ALL; tavrix_call_text() */
    TAVRIX_KIND_STATUS,                   /**< `enable` or `disable`; tavrix_call_text(), tavrix_call_word() */
    TAVRIX_KIND_DESCRIPTION,              /**< tavrix_call_text() */
    TAVRIX_KIND_VLAN_MODE,                /**< tavrix_call_text(), tavrix_call_word() */
    TAVRIX_KIND_MZU_MODEL,                /**< tavrix_call_text(), tavrix_call_word() */
    TAVRIX_KIND_MZU_SW_UPGRADE_FILENAME,  /**< tavrix_call_text() */
    TAVRIX_KIND_UNIT_SW_UPGRADE_FILENAME, /**< tavrix_call_text() */
    TAVRIX_KIND_UNIT_SW_BANK,             /**< tavrix_call_text(), tavrix_call_word() */
    TAVRIX_KIND_MAC_ADDRESS,              /**< handed out in upper case with colons; tavrix_call_text() */
    TAVRIX_KIND_MACADDR_ALLOWED,          /**< a MAC address in that form, or `none`; tavrix_call_text() */
    TAVRIX_KIND_IP_ADDRESS,               /**< tavrix_call_text() */
    TAVRIX_KIND_USERNAME,                 /**< tavrix_call_text() */
    TAVRIX_KIND_PASSWORD,                 /**< never shown in a refusal; tavrix_call_text() */
    TAVRIX_KIND_DATE,                     /**< tavrix_call_text() */
    TAVRIX_KIND_TIME,                     /**< tavrix_call_text() */
    TAVRIX_KIND_ENTITY_NAME,              /**< tavrix_call_text() */
    TAVRIX_KIND_ENTITY_EXTENSION,         /**< tavrix_call_text() */
    TAVRIX_KIND_ALIAS,                    /**< handed out in upper case; tavrix_call_text() */
    TAVRIX_KIND_SECURE_OPTION,            /**< tavrix_call_text(), tavrix_call_word() */

    TAVRIX_KIND_VLAN_ID, /**< within `min` to `max`, where they are narrower than its own bounds;
                              tavrix_call_integer(); as all until #TAVRIX_KIND_ENABLE */
    TAVRIX_KIND_UNIT_ID,
    TAVRIX_KIND_PERIODIC_INTERVAL,
    TAVRIX_KIND_LASER_ID,
    TAVRIX_KIND_OLT_ID,
    TAVRIX_KIND_ONU_ID,
    TAVRIX_KIND_PORT_NUMBER,
    TAVRIX_KIND_PORT_LINK_SPEED,
    TAVRIX_KIND_ENABLE,

    TAVRIX_KIND_VLAN_IDS,       /**< `min` to `max`, at most 32, and 32 when that is 0; tavrix_call_integers() */
    TAVRIX_KIND_PORTS,          /**< `min` to `max`, 128 when that is 0; tavrix_call_ports() */
    TAVRIX_KIND_PORTS_HARDWARE, /**< `min` to `max`, 128 when that is 0; tavrix_call_ports_hardware() */
    TAVRIX_KIND_MAC_FILTERS,    /**< `min` to `max`, 128 when that is 0; tavrix_call_mac_filters() */

    TAVRIX_KIND_COUNT /**< how many there are; no kind */
} tavrix_kind;

/** Flags of a parameter. */
enum tavrix_param_flags {
    TAVRIX_OPTIONAL = 1 << 0,     /**< may be absent; tavrix_call_has() tells */
    TAVRIX_MULTILINE = 1 << 1,    /**< the text may hold newlines, tabs and other control characters */
    TAVRIX_ALLOW_ALL = 1 << 2,    /**< port and unit ids: the word `all` */
    TAVRIX_ALLOW_MZU = 1 << 3,    /**< port ids: a unit's id, for all its ports */
    TAVRIX_ALLOW_C_PORT = 1 << 4, /**< port ids: c1-1 and the like */
    TAVRIX_ALLOW_D_PORT = 1 << 5, /**< port ids: d1 to d4 */
    TAVRIX_ANY_PORT = TAVRIX_ALLOW_C_PORT | TAVRIX_ALLOW_D_PORT,
    TAVRIX_ANY_PORTS = TAVRIX_ANY_PORT | TAVRIX_ALLOW_MZU | TAVRIX_ALLOW_ALL
};

/** A row of parameters, or of a result's members. Rows end with #TAVRIX_PARAM_END. */
typedef struct tavrix_service_param tavrix_service_param;
struct tavrix_service_param {
    const char *name; /**< the member's name; empty: the element of an array, or the result, itself */
    tavrix_kind kind;
    const char *summary; /**< one line */
    unsigned flags;      /**< see tavrix_param_flags; 0 is a required one */
    int64_t min;         /**< see the kind: others take none; min and max both 0: no bound but the kind's own */
    int64_t max;
    const char *const *words;            /**< for #TAVRIX_KIND_WORD: ended by a null pointer */
    const tavrix_service_param *members; /**< for objects and arrays of objects: rows, 8 levels at most; null: any */
};

/** A row without bounds. */
#define TAVRIX_PARAM(name, kind, summary, flags)                                                                       \
    { name, kind, summary, flags, 0, 0, NULL, NULL }
/** A row with bounds. */
#define TAVRIX_PARAM_RANGE(name, kind, summary, flags, min, max)                                                       \
    { name, kind, summary, flags, min, max, NULL, NULL }
/** A row for one of a table's words, such as tavrix_link_speed_strings. */
#define TAVRIX_PARAM_WORDS(name, words, summary, flags)                                                                \
    { name, TAVRIX_KIND_WORD, summary, flags, 0, 0, words, NULL }
/** A row for an object, or for an array of `min` to `max` objects. */
#define TAVRIX_PARAM_MEMBERS(name, kind, summary, flags, min, max, members)                                            \
    { name, kind, summary, flags, min, max, NULL, members }
/** The last row. */
#define TAVRIX_PARAM_END                                                                                               \
    { NULL, TAVRIX_KIND_NONE, NULL, 0, 0, 0, NULL, NULL }

/**
 * Performs a method, on the loop's thread.
 *
 * @return 0 or more: answered, deferred, or else answered here with the result 0; negative: the status that the call
 *         fails with, unless it has been answered
 */
typedef int (*tavrix_call_handler)(tavrix_call *call);

/** Flags of a method. */
enum tavrix_method_flags {
    TAVRIX_METHOD_READS = 1 << 0,   /**< changes nothing */
    TAVRIX_METHOD_CHANGES = 1 << 1, /**< changes something */
    TAVRIX_METHOD_STRICT = 1 << 2   /**< parameters without a row are refused, and members without one of objects whose
                                         members have rows; otherwise they are ignored */
};

/** A row of the table. The table ends with #TAVRIX_METHOD_END. */
typedef struct tavrix_service_method {
    const char *name; /**< 1 to #TAVRIX_SERVICE_MAX_METHOD bytes without control characters; all names of a table
                           belong to one channel. Every service answers logger.ReloadConf and service.Hello by itself:
                           they, service.Probe and service.Welcome are refused */
    tavrix_call_handler handler;
    const char *summary;                /**< one line */
    const tavrix_service_param *params; /**< null: none */
    const tavrix_service_param *result; /**< the result's members, or one row without a name; null: the result is 0 */
    unsigned flags;                     /**< see tavrix_method_flags */
} tavrix_service_method;

/**
 * A row. A `result` of NULL does not mean any: it says that the result is 0, and the description tells clients so. Give
 * rows to a method that answers something, if only one of #TAVRIX_KIND_JSON without a name. A result that is another
 * than the row says is sent all the same, with a line in the log at debug level.
 */
#define TAVRIX_METHOD(name, handler, summary, params, result, flags)                                                   \
    { name, handler, summary, params, result, flags }
/** The last row. */
#define TAVRIX_METHOD_END                                                                                              \
    { NULL, NULL, NULL, NULL, NULL, 0 }
/** @} */

/**
 * @name The service
 * @{
 */

/** Flags of a service. */
enum tavrix_service_flags {
    TAVRIX_SERVICE_BUS = 1 << 0,         /**< take requests on the bus instead of on the session */
    TAVRIX_SERVICE_NEED_ROUTER = 1 << 1, /**< end with a failure when the router is not there at the start */
    TAVRIX_SERVICE_NO_SIGNALS = 1 << 2,  /**< leave SIGTERM, SIGINT, SIGHUP and SIGPIPE alone */
    TAVRIX_SERVICE_SILENT = 1 << 3       /**< bind no publisher: the service's notifications go over its session */
};

/** What a service is made of. What is null or 0 is chosen by the kit. */
typedef struct tavrix_service_options {
    const char *name; /**< also the logger's name, which is kept as the pointer: has to live as long as the process */
    const tavrix_service_method *methods; /**< null: a client that only calls and listens, and registers nowhere */
    void *user;                           /**< for tavrix_service_user() and tavrix_call_user() */
    const char *session; /**< the router's session socket, at most #TAVRIX_SOCKET_MAX_PATH bytes (tavrix_socket.h);
                              null: TAVRIX_SESSION or #TAVRIX_SERVICE_SESSION; empty: none, only the bus,
                              whose addresses are given */
    const char *const *publish; /**< bus addresses to publish on, at most 8, each `tcp://` or `ipc://` and at most 113
                                     bytes, ended by null; null: one in the router's folder */
    const char *const *connect; /**< bus addresses to listen to besides the router's and the services' that it knows,
                                     in the same form, ended by null */
    unsigned flags;             /**< see tavrix_service_flags */
    struct event_base *base;    /**< the loop to live in; null: one of its own */
    /** Called by tavrix_service_main() before it runs: open what the handlers need, or fail. */
    int (*start)(tavrix_service *service, void *user);
    /** Called each time when the service has registered; requests and subscriptions can be made before, too. */
    void (*ready)(tavrix_service *service, void *user);
    /** Called by tavrix_service_main() before it closes the service. */
    void (*stop)(tavrix_service *service, void *user);
    const char *summary; /**< one line, for --help and the description */
    const char *version; /**< for --version and the description */
} tavrix_service_options;

/**
 * Makes a service: checks the table, names the logger, catches the signals, binds the given addresses. Connects to
 * nothing yet. SIGTERM and SIGINT, unless #TAVRIX_SERVICE_NO_SIGNALS is set, end the service from now on and the
 * process no longer: one that comes before tavrix_service_run() ends that as soon as it begins. Several services of one
 * process live in one loop, or all but one of them with #TAVRIX_SERVICE_NO_SIGNALS: a loop takes another's signals
 * away.
 *
 * @param options     copied; what it points to has to live as long as the service
 * @param service_out receives the service; tavrix_service_close() releases it
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; TAVRIX_ERR_PARAMETER for options that cannot be: a bad name,
 *         two channels in one table, a row that cannot be served; TAVRIX_ERR_GENERAL for an address that cannot be
 *         bound; TAVRIX_ERR_NO_MEMORY. The log tells at error level what is wrong and what to do.
 */
TAVRIX_SERVICE_API int tavrix_service_open(const tavrix_service_options *options, tavrix_service **service_out);

/**
 * Serves until tavrix_service_stop(), SIGTERM or SIGINT. Then requests to others are cancelled, deferred calls are
 * answered TAVRIX_JRPC_SYSTEM_BUSY, what waits to be written is written, and answers on the bus reach the router, for
 * a second at most.
 *
 * @return 0 when it was stopped; TAVRIX_ERR_GENERAL, with a line in the log, when it cannot go on
 */
TAVRIX_SERVICE_API int tavrix_service_run(tavrix_service *service);

/**
 * Starts what tavrix_service_run() starts, without running the loop: for a program that runs the event_base itself.
 * It then ends the service with tavrix_service_close().
 */
TAVRIX_SERVICE_API int tavrix_service_start(tavrix_service *service);

/** Ends tavrix_service_run(), from a handler, a callback or before it. */
TAVRIX_SERVICE_API void tavrix_service_stop(tavrix_service *service);

/**
 * Releases the service: cancels its requests, answers deferred calls TAVRIX_JRPC_SYSTEM_BUSY as far as that can be
 * written at once, closes its sockets. Not from a handler or a callback: while tavrix_service_run() is on the stack it
 * only stops the service, with a line in the log. A null service is passed over.
 */
TAVRIX_SERVICE_API void tavrix_service_close(tavrix_service *service);

/**
 * A whole daemon: reads the options that every service has from the command line (--session, --publish, --connect,
 * --bus, --need-router, --help, --version), opens, calls `start`, runs, calls `stop`, closes.
 *
 * @return what main returns: 0 stopped by a signal, 1 cannot start or go on, 2 wrong usage
 */
TAVRIX_SERVICE_API int tavrix_service_main(const tavrix_service_options *options, int argc, char **argv);

/** The options' user pointer. */
TAVRIX_SERVICE_API void *tavrix_service_user(const tavrix_service *service);

/** The service's name. */
TAVRIX_SERVICE_API const char *tavrix_service_name(const tavrix_service *service);

/** The loop: everything that libevent has works beside the service. It stays the service's, or the options'. */
TAVRIX_SERVICE_API struct event_base *tavrix_service_base(const tavrix_service *service);

/** Whether the service is registered and settled at this moment. */
TAVRIX_SERVICE_API bool tavrix_service_is_ready(const tavrix_service *service);

/**
 * Ends what a number names: a request (its callback is called with #TAVRIX_OUTCOME_CANCELLED before this returns), a
 * subscription, a timer, a listener.
 *
 * @return 0; TAVRIX_ERR_NO_RECORDS when the number names nothing any more
 */
TAVRIX_SERVICE_API int tavrix_service_cancel(tavrix_service *service, uint64_t number);
/** @} */

/**
 * @name Answering a call
 * A handle is valid while its handler runs. With tavrix_call_defer() it stays valid until the call is answered or
 * abandoned; the number that names it finds it again, or finds that it is gone.
 * @{
 */

/** How a call came. */
typedef enum tavrix_road {
    TAVRIX_ROAD_SESSION, /**< from the router, over the session */
    TAVRIX_ROAD_BUS,     /**< over the bus: from a router, or from another daemon */
    TAVRIX_ROAD_UNIX,    /**< over a unix socket of the service's own */
    TAVRIX_ROAD_TCP,     /**< over a TCP port of the service's own */
    TAVRIX_ROAD_PULL     /**< one-way, over a pull socket */
} tavrix_road;

/**
 * Who calls: the process that has connected to a unix socket, the router's or the service's own, and its user and
 * group, as the kernel tells them. -1 where nobody knows: over TCP, also the router's, over the bus and over pull
 * sockets, and through a router that is too old to say. The router takes nobody's own word for it. A call that another
 * service passes on is that service's.
 *
 * The process may have ended, and its number be another's by now: decide by the user and the group.
 */
typedef struct tavrix_caller {
    tavrix_road road;
    pid_t pid; /**< -1 also for a process that the router does not see, such as one outside of its container */
    uid_t uid;
    gid_t gid;
} tavrix_caller;

TAVRIX_SERVICE_API tavrix_service *tavrix_call_service(const tavrix_call *call);
/** The options' user pointer. */
TAVRIX_SERVICE_API void *tavrix_call_user(const tavrix_call *call);
/** The row of the table. */
TAVRIX_SERVICE_API const tavrix_service_method *tavrix_call_method(const tavrix_call *call);
/** Who calls; of a null call nobody knows. */
TAVRIX_SERVICE_API tavrix_caller tavrix_call_caller(const tavrix_call *call);
/** Whether an answer is wanted: false for one without an "id". */
TAVRIX_SERVICE_API bool tavrix_call_wants_answer(const tavrix_call *call);
/** How long the caller goes on waiting, in milliseconds; 0 when that has passed. */
TAVRIX_SERVICE_API int tavrix_call_time_left_ms(const tavrix_call *call);

/** The request's "params", borrowed; null when it has none. */
TAVRIX_SERVICE_API json_t *tavrix_call_params(const tavrix_call *call);

/**
 * Whether an optional parameter is there. The getters give null, 0 or false for one that is not, and, with a line in
 * the log, for a name that has no row or a row of another kind. Texts and records live as long as the handle.
 */
TAVRIX_SERVICE_API bool tavrix_call_has(const tavrix_call *call, const char *name);
TAVRIX_SERVICE_API const char *tavrix_call_text(const tavrix_call *call, const char *name);
TAVRIX_SERVICE_API int64_t tavrix_call_integer(const tavrix_call *call, const char *name);
TAVRIX_SERVICE_API uint64_t tavrix_call_uint64(const tavrix_call *call, const char *name);
TAVRIX_SERVICE_API double tavrix_call_real(const tavrix_call *call, const char *name);
TAVRIX_SERVICE_API bool tavrix_call_boolean(const tavrix_call *call, const char *name);
/** The position of an enumerated word in its table: the row's, or the kind's, such as tavrix_vlan_mode_strings. */
TAVRIX_SERVICE_API int tavrix_call_word(const tavrix_call *call, const char *name);
/** The value as it came, checked, borrowed. */
TAVRIX_SERVICE_API json_t *tavrix_call_json(const tavrix_call *call, const char *name);
/** The VLAN ids; `*count_out` receives how many. */
TAVRIX_SERVICE_API const int *tavrix_call_integers(const tavrix_call *call, const char *name, int *count_out);
TAVRIX_SERVICE_API tavrix_port_input *tavrix_call_ports(const tavrix_call *call, const char *name, int *count_out);
TAVRIX_SERVICE_API tavrix_port_hardware_input *tavrix_call_ports_hardware(const tavrix_call *call, const char *name,
                                                                          int *count_out);
/** `first` and `second` of the records are 0. */
TAVRIX_SERVICE_API tavrix_mac_filter *tavrix_call_mac_filters(const tavrix_call *call, const char *name,
                                                              int *count_out);

/**
 * Answers with a result. One that nobody could read is answered TAVRIX_JRPC_RESPONSE_FAILED instead, with a line in the
 * log: an answer has at most 8 MiB on the bus and nearly 9 MiB on the session (9371648 bytes), its envelope
 * included, any size on the service's own sockets, and is nowhere nested deeper than 2047 levels. The same holds for an
 * error's data.
 *
 * @param call   may be null, as tavrix_service_deferred() gives it for a call that is over
 * @param result taken; null is answered TAVRIX_JRPC_INTERNAL_ERROR, as when json_pack() found no memory
 * @return 0; TAVRIX_ERR_NO_RECORDS when the call is null or has been answered already
 */
TAVRIX_SERVICE_API int tavrix_call_reply(tavrix_call *call, json_t *result);

/**
 * Answers with the JSON-RPC error that belongs to a status, and the status's words as `{"message": ...}`.
 *
 * @return the status itself, so that a handler can end with it; TAVRIX_ERR_NO_RECORDS as for tavrix_call_reply()
 */
TAVRIX_SERVICE_API int tavrix_call_fail(tavrix_call *call, int status);

/**
 * Answers with a JSON-RPC error.
 *
 * @param code    see tavrix_jrpc_code; the error's "message" is the catalogue's
 * @param message what is wrong, for a person: stored as "message" in the data; null for none. What is no UTF-8 is
 *                stored as ASCII with its other bytes as backslash, x and two digits, and cut when it is long
 * @param data    taken: an object, to which the message is added, or null for none; anything else is left out, with a
 *                line in the log
 * @return 0; TAVRIX_ERR_NO_RECORDS as for tavrix_call_reply()
 */
TAVRIX_SERVICE_API int tavrix_call_fail_with(tavrix_call *call, int code, const char *message, json_t *data);

/**
 * Lets the handler return without an answer.
 *
 * The call ends when it is answered, and when nobody waits for it any more: the router has cancelled it, its deadline
 * has passed, the session that it came over has ended, the client on the service's own socket has gone. A call from the
 * bus outlives the router's session.
 *
 * @param call      the handler's; once
 * @param abandoned called in the second case, while the handle is still valid for reading; may be null
 * @param user      for the callback
 * @return the call's number; 0 when too many are deferred, or without memory: then the call has been answered
 *         TAVRIX_JRPC_SYSTEM_BUSY. Also 0, and nothing happens, for a call that is null, is over (answered or
 * abandoned), or is deferred already: that one stays so, under its number
 */
TAVRIX_SERVICE_API uint64_t tavrix_call_defer(tavrix_call *call, void (*abandoned)(tavrix_call *call, void *user),
                                              void *user);

/**
 * The handle of a deferred call.
 *
 * @code
 * tavrix_call_reply(tavrix_service_deferred(service, number), json_true()); // does nothing when it is over
 * @endcode
 *
 * @return null when it has been answered or abandoned
 */
TAVRIX_SERVICE_API tavrix_call *tavrix_service_deferred(const tavrix_service *service, uint64_t number);
/** @} */

/**
 * @name Calling other services
 * @{
 */

/** How a request ended. */
typedef enum tavrix_outcome {
    TAVRIX_OUTCOME_RESULT,   /**< `result` */
    TAVRIX_OUTCOME_ERROR,    /**< `code`, `message`, `data` */
    TAVRIX_OUTCOME_TIMEOUT,  /**< no answer in time; `code` is TAVRIX_JRPC_TIMED_OUT */
    TAVRIX_OUTCOME_GONE,     /**< the service is not there or went away; `code` is TAVRIX_JRPC_METHOD_NOT_FOUND */
    TAVRIX_OUTCOME_CANCELLED /**< by tavrix_service_cancel(), or because the service ends */
} tavrix_outcome;

/** A request's end. The values are borrowed. */
typedef struct tavrix_answer {
    tavrix_outcome outcome;
    json_t *result;      /**< null unless there is one */
    int code;            /**< the error's JSON-RPC code; 0 for a result and a cancellation */
    const char *message; /**< the error's message, never null */
    json_t *data;        /**< the error's data; may be null */
} tavrix_answer;

/** Called once for each request, never before tavrix_service_request() has returned. */
typedef void (*tavrix_answer_callback)(tavrix_service *service, const tavrix_answer *answer, void *user);

/**
 * Sends a request through the router. One that is made before the session stands waits for it.
 *
 * @param method     a method's name, 1 to #TAVRIX_SERVICE_MAX_METHOD bytes
 * @param params     taken: an object, or null for none. The whole request has at most 65535 bytes, and 2047 levels
 * @param timeout_ms at least 1: how long the answer may take, from now on, also while there is no session. The router
 *                   waits for its --reply-timeout (10 seconds unless it is told otherwise) and no longer: a call that
 *                   may take more than that ends with #TAVRIX_OUTCOME_TIMEOUT by then, the service is told that nobody
 *                   waits any more, and its answer is dropped. Have such work answer at once, and tell its end by a
 *                   notification
 * @param callback   receives the outcome. The router lets one service have --max-in-flight requests (512 unless it is
 *                   told otherwise), and one user half of those that others leave free: what is beyond that ends with
 *                   TAVRIX_JRPC_SYSTEM_BUSY
 * @param user       for the callback
 * @return the request's number, for tavrix_service_cancel(); 0 when the request cannot be made: then the log tells why,
 *         and the callback is not called
 */
TAVRIX_SERVICE_API uint64_t tavrix_service_request(tavrix_service *service, const char *method, json_t *params,
                                                   int timeout_ms, tavrix_answer_callback callback, void *user);

/**
 * Passes a request's failure on as the answer to a call: code, message and data as they came; a call that depends on
 * another then fails as that one did. A result is passed on as it is.
 */
TAVRIX_SERVICE_API int tavrix_call_pass_on(tavrix_call *call, const tavrix_answer *answer);

/**
 * Sends a request and waits for its answer: for simple programs. It needs no service, and serves none while it waits;
 * inside a running service's loop it says so in the log.
 *
 * @param session      the session socket; null as in the options
 * @param method       a method's name, 1 to #TAVRIX_SERVICE_MAX_METHOD bytes
 * @param params       taken: an object, or null for none; nested no deeper than 2047 levels. A router answers a request
 *                     of more than 65535 bytes with an error
 * @param timeout_ms   at least 1; after the router's --reply-timeout the response is its error TAVRIX_JRPC_TIMED_OUT
 * @param response_out receives the whole response object, with "result" or "error"; the caller releases it
 * @return 0; TAVRIX_ERR_TIMEOUT without an answer in time; TAVRIX_ERR_CONNECT_TIMEOUT when the router is not there;
 *         TAVRIX_ERR_NO_RESPONSE when it went away; TAVRIX_ERR_PARAMETER for a bad method or time, and for a
 *         request that is nested too deep; TAVRIX_ERR_NO_MEMORY
 */
TAVRIX_SERVICE_API int tavrix_request_wait(const char *session, const char *method, json_t *params, int timeout_ms,
                                           json_t **response_out);
/** @} */

/**
 * @name Notifications
 * @{
 */

/**
 * Publishes a notification.
 *
 * @param method its name, 1 to #TAVRIX_SERVICE_MAX_METHOD bytes
 * @param params taken: an object, or null for none
 * @return 0; TAVRIX_ERR_PARAMETER for a bad name or params that are no object, and, with a line in the log, for a
 *         notification of more than 8 MiB (without a publisher: than the session takes, see tavrix_call_reply()) or of
 *         more than 2047 levels, which nobody could read; TAVRIX_ERR_NO_MEMORY; TAVRIX_ERR_GENERAL when there is
 *         neither a publisher nor a session
 */
TAVRIX_SERVICE_API int tavrix_service_publish(tavrix_service *service, const char *method, json_t *params);

/** Called for each notification; the values are borrowed, `params` may be null. */
typedef void (*tavrix_notification_callback)(tavrix_service *service, const char *method, json_t *params, void *user);

/**
 * Asks the router for every service's notifications of a pattern, now and after each reconnection.
 *
 * @param pattern 1 to #TAVRIX_SERVICE_MAX_METHOD bytes: a method's name, or the beginning of one followed by `*`
 * @return the subscription's number, for tavrix_service_cancel(); 0 when it cannot be made: then the log tells why
 */
TAVRIX_SERVICE_API uint64_t tavrix_service_subscribe(tavrix_service *service, const char *pattern,
                                                     tavrix_notification_callback callback, void *user);

/**
 * Sets what is called when notifications have been lost: `count` of them because this service did not read for long;
 * with 0 an unknown number, because the connection to the router was away. Null for nothing.
 */
TAVRIX_SERVICE_API void tavrix_service_on_lost(tavrix_service *service,
                                               void (*lost)(tavrix_service *service, uint64_t count, void *user),
                                               void *user);
/** @} */

/**
 * @name Timers and sockets of the service's own
 * tavrix_service_cancel() ends each. On failure they return 0 and the log tells why.
 * @{
 */

/**
 * Calls back once, or again and again.
 *
 * @param first_ms    the first time, in milliseconds from now; 0 is the loop's next turn, a negative one is refused
 * @param interval_ms between further ones, in milliseconds; 0 for none, a negative one is refused
 * @param callback    may cancel the timer
 * @param user        for the callback
 * @return the timer's number
 */
TAVRIX_SERVICE_API uint64_t tavrix_service_timer(tavrix_service *service, int first_ms, int interval_ms,
                                                 void (*callback)(tavrix_service *service, void *user), void *user);

/**
 * Answers requests on a unix socket, as tavrix_jrpc_unix_socket_run() does: one of at most #TAVRIX_SERVER_MAX_REQUEST
 * bytes, one answer, closed; it may come in pieces. Takes the place of a socket that was left behind, not that of a
 * daemon that serves there, nor that of another file. A client that sends nothing costs a descriptor until it is closed
 * after ten seconds, or earlier when there are too many.
 *
 * @param path 1 to #TAVRIX_SOCKET_MAX_PATH bytes; a longer one is refused, not cut
 */
TAVRIX_SERVICE_API uint64_t tavrix_service_listen_unix(tavrix_service *service, const char *path);

/**
 * The same on a TCP port.
 *
 * @param address  an IPv4 address; null: 127.0.0.1
 * @param port     1 to 65535; 0 lets the system choose
 * @param port_out receives the port; may be null
 */
TAVRIX_SERVICE_API uint64_t tavrix_service_listen_tcp(tavrix_service *service, const char *address, unsigned port,
                                                      unsigned *port_out);

/**
 * Takes one-way requests on a bus pull socket; nothing is ever answered.
 *
 * @param address to bind to: `tcp://` or `ipc://`, at most 113 bytes
 */
TAVRIX_SERVICE_API uint64_t tavrix_service_listen_pull(tavrix_service *service, const char *address);
/** @} */

#ifdef __cplusplus
}
#endif

#endif

/**
 * What the units of the kit share: the service's one record, and the functions that they use of each other.
 *
 * Everything that is named by a number (deferred calls, requests, subscriptions, timers, listeners) begins with an
 * Entry, stands in one directory by its number and in one list by its type. All records are plain and come from calloc:
 * the kit carries no C++ runtime.
 */
#ifndef TAVRIX_SERVICE_INTERNAL_H
#define TAVRIX_SERVICE_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <event2/event.h>
#include <event2/event_struct.h>
#include <jansson.h>
#include <sys/types.h>

#include "common/bus.h"
#include "common/handles.h"
#include "common/log.h"
#include "common/message.h"
#include "common/names.h"
#include "common/text.h"
#include "common/unix_socket.h"
#include "common/wire.h"
#include "tavrix_service.h"

namespace kit {

namespace names = tavrix::names;
using tavrix::has_control_characters;
using tavrix::Json;
using tavrix::matches;
using tavrix::max_bus_address;
using tavrix::max_reply_line;
using tavrix::max_request_line;
using tavrix::parse_flags;
using tavrix::protocol_version;
using tavrix::Text;
using tavrix::transport_of;
using tavrix::wire_flags;

constexpr size_t max_answer_line =
    max_reply_line - max_request_line; // the router puts the client's id, of any length, back into it
constexpr size_t max_nesting = JSON_PARSER_MAX_DEPTH - 1; // of brackets; a parser counts the value within them, too
constexpr int control_timeout_ms = tavrix::default_reply_timeout_ms; // of what the kit itself asks the router
constexpr size_t max_unwritten = 16 * tavrix::mebibyte;

template <class Record>
Record *make() {
    return static_cast<Record *>(std::calloc(1, sizeof(Record)));
}

/**
 * The counterpart of make(). Not inline: clang-tidy's analyzer would report a use after free in every loop that empties
 * a list.
 */
void unmake(void *record);

int64_t now_ms();
timeval time_of_ms(int64_t ms);

/** A clock that stands still until a test moves it; below 0 the time is the system's. */
extern int64_t played_clock_ms;

/** The one timer of a numbered thing. Under a played clock it is only noted when it is due. */
struct Alarm {
    event ready;
    int64_t due_ms;   ///< played; 0 is never
    int64_t every_ms; ///< played; 0 is once
};
/** Sets an alarm whose event has been assigned; false without memory. */
bool set_alarm(Alarm *alarm, int64_t ms);
void clear_alarm(Alarm *alarm);

// --- Bytes ---------------------------------------------------------------------------------------------------------

/** A growing buffer that is written at its end and read from its start. */
struct Buffer {
    char *bytes;
    size_t start;
    size_t end;
    size_t capacity;

    char *data() const { return bytes + start; }
    size_t size() const { return end - start; }
};
/** Makes room for `count` more bytes; false without memory. */
bool buffer_reserve(Buffer *buffer, size_t count);
bool buffer_append(Buffer *buffer, const char *bytes, size_t count);
/** Takes bytes off the start; an empty buffer that has grown gives its memory back. */
void buffer_consume(Buffer *buffer, size_t count);
void buffer_free(Buffer *buffer);
/** Writes what a socket takes of it; 0, or why it takes no more: EAGAIN, or an error. */
int buffer_send(Buffer *buffer, int fd);

/** Foreign text for a log line; a null pointer is shown as nothing. */
struct Printable {
    explicit Printable(const char *foreign) {
        tavrix::make_printable(foreign, foreign != nullptr ? std::strlen(foreign) : 0, text, sizeof text);
    }
    char text[160];
};

/** What keeps a message's receiver from reading it: its size, or how deep it is nested. */
struct Obstacle {
    /** `most` is how many bytes the receiver takes. */
    Obstacle(const char *message, size_t most);
    explicit operator bool() const { return words[0] != '\0'; }
    char words[96]; ///< for people; empty when nothing does
};

/** False for null. */
inline bool is_method_name(const char *name) { return name != nullptr && tavrix::is_method_name(name); }

// --- Numbered things -----------------------------------------------------------------------------------------------

enum EntryType { entry_call, entry_request, entry_subscription, entry_timer, entry_listener, entry_type_count };

struct Entry {
    Entry *chain; ///< the next of the same bucket
    Entry *previous;
    Entry *next;
    uint64_t number;
    EntryType type;
};

/** The first members of calls, requests and timers. */
struct TimedEntry {
    Entry entry;
    Alarm alarm;
};

struct EntryList {
    Entry *first;
    Entry *last;
    size_t count;
};

constexpr size_t bucket_count = 1024;

struct Directory {
    Entry *buckets[bucket_count];
    EntryList lists[entry_type_count];
    uint64_t last_number;
};

void append(EntryList *list, Entry *entry);
void remove(EntryList *list, Entry *entry);
uint64_t enter(Directory *directory, Entry *entry, EntryType type);
void leave(Directory *directory, Entry *entry);
Entry *find(const Directory *directory, uint64_t number);
Entry *find(const Directory *directory, uint64_t number, EntryType type);
/** The records of a list, which begin with their entries. */
template <class Record>
Record *first_of(const EntryList &list) {
    return reinterpret_cast<Record *>(list.first);
}
template <class Record>
Record *next_of(const Record *record) {
    return reinterpret_cast<Record *>(record->entry.next);
}

// --- Parameters ----------------------------------------------------------------------------------------------------

struct alignas(std::max_align_t) ArenaChunk {
    ArenaChunk *next; ///< its bytes lie behind
};
/** Memory that lives as long as a call; the first bytes lie in the call itself. */
struct Arena {
    ArenaChunk *chunks;
    size_t used;
    alignas(ArenaChunk) char first[640];
};
void *arena_take(Arena *arena, size_t size);
void arena_clear(Arena *arena);

/** A checked value; which member counts is the kind's affair. */
struct Value {
    bool present;
    const char *text;
    int64_t integer; ///< also the position of a word, true as 1
    uint64_t unsigned_integer;
    double real;
    void *records;
    int count;
};

/**
 * Checks the parameters of a request by the rows of its method, in their order.
 *
 * @param values_out receives one value for each row, in the arena
 * @param data_out   receives the error's data when a parameter is refused
 * @return 0, or the status of the refusal
 */
int check_params(const tavrix_service_method *method, json_t *params, Arena *arena, Value **values_out,
                 json_t **data_out);
/** Checks that a method's rows can be served, all the way down; logs what is wrong with them. */
bool check_rows(const tavrix_service_method &method);
/** The row of that name, of parameters or of methods; null without one. The rows may be null. */
template <class Row>
const Row *find_row(const Row *rows, const char *name) {
    while (rows != nullptr && rows->name != nullptr && std::strcmp(rows->name, name) != 0) {
        ++rows;
    }
    return rows != nullptr && rows->name != nullptr ? rows : nullptr;
}
/** Whether it is one row without a name: the value itself, not its members. */
bool is_bare(const tavrix_service_param *rows);

/** Which member of Value holds a kind's value. */
enum Storage {
    stored_text,
    stored_integer,
    stored_uint64,
    stored_real,
    stored_boolean,
    stored_json,
    stored_integers,
    stored_ports,
    stored_ports_hardware,
    stored_mac_filters
};
Storage storage_of(tavrix_kind kind);

// What a row lets through: the check, the words of a refusal and the description of the service take it from here.
constexpr size_t max_depth = 8; ///< of values within values: deeper tables are refused
constexpr int max_vlan_ids = sizeof(tavrix_port_input::vlan_ids) / sizeof(int32_t);
constexpr size_t max_number_text = 99;
constexpr size_t allowed_size = 400;
bool has_bounds(const tavrix_service_param *row);
/** The bounds of an integer's row. */
int64_t lowest_of(const tavrix_service_param *row);
int64_t highest_of(const tavrix_service_param *row);
/** The most elements of a list's row. */
int most_records(const tavrix_service_param *row);
/** An example of a kind of text; null where the row's own words or bounds decide. */
const char *example_of_kind(tavrix_kind kind);
/** The kind's list of words; null for one without. */
const char *const *words_allowed(const tavrix_service_param *row);
/** For people. */
void describe_allowed(const tavrix_service_param *row, char (&out)[allowed_size]);

// --- Calls ---------------------------------------------------------------------------------------------------------

struct Client;

} // namespace kit

struct tavrix_call {
    kit::Entry entry; ///< in the directory once it is deferred
    kit::Alarm deadline;
    tavrix_service *service;
    const tavrix_service_method *row;
    json_t *request; ///< owned; the next four are borrowed from it
    json_t *params;
    json_t *method;
    json_t *transaction_id;
    const char *channel; ///< where a bus reply goes
    bool wants_answer;
    bool in_handler;
    bool deferred;
    bool over; ///< answered or abandoned
    tavrix_caller caller;
    uint64_t session; ///< the connection that it came by
    kit::Client *client;
    int64_t deadline_ms;
    void (*abandoned)(tavrix_call *call, void *user);
    void *abandoned_user;
    kit::Value *values;
    kit::Arena arena;
};

namespace kit {

/** Who calls, when nobody says it. */
constexpr tavrix_caller unknown_caller(tavrix_road road) {
    return {road, -1, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
}

/** Where a request came from. */
struct Origin {
    tavrix_caller caller;
    const char *channel; ///< bus: where the reply goes; borrowed from the request
    Client *client;      ///< one on the service's own sockets
};

/** Whether every service answers a method by itself, or its bus does: a row of that name would never be used. */
bool is_own_method(const char *name);
/** Evaluates a request as tavrix_jrpc_eval_request() does, and answers it on the road that it came by. */
void evaluate(tavrix_service *service, Json request, const Origin &origin);
/** Nobody waits for the calls any more: tells their handlers, releases them. */
void abandon_session_calls(tavrix_service *service);
void abandon_cancelled_call(tavrix_service *service, const json_t *transaction_id);
void abandon_call(tavrix_call *call);
/** Answers what is still deferred: the service ends. */
void refuse_deferred_calls(tavrix_service *service);

// --- Discovery -----------------------------------------------------------------------------------------------------

/** The service's OpenRPC document; null, with a line in the log, when it cannot be made. */
json_t *make_document(const tavrix_service *service);
/** Whether a method is `<prefix>.Discover`, the prefix being that of the table's first method. */
bool is_discovery(const tavrix_service *service, const char *method);

// --- Session -------------------------------------------------------------------------------------------------------

enum SessionState {
    session_off,     ///< not asked for, or not started
    session_waiting, ///< for the next attempt to connect
    session_open,    ///< connected; asking for the bus, or registering
    session_ready    ///< registered
};

struct SessionLink {
    SessionState state;
    char path[TAVRIX_SOCKET_MAX_PATH + 1];
    int fd;
    uint64_t generation; ///< counts connections
    event readable;
    event writable;
    event flush; ///< made active when there is something to write: what one turn of the loop writes goes out at once
    event retry;
    Buffer in;
    size_t searched; ///< of `in`: no line ends there
    Buffer out;
    int backoff_ms;
    bool outage_told;
    bool was_ready;
    bool lost_subscriptions; ///< notifications may have been missed
    int refusal;             ///< the registration's last refusal, told once
};

/** Whether a router's socket for single requests has said this before it closed: an answer without a newline. */
bool is_single_answer(const Buffer &in);
bool session_prepare(tavrix_service *service);
void session_start(tavrix_service *service);
bool session_is_connected(const tavrix_service *service);
/** Appends a line; written at the end of this turn of the loop. False when it is not connected, or without memory. */
bool session_write(tavrix_service *service, const char *text, size_t length);
void session_close(tavrix_service *service);
/** Says ready: once a connection. */
void become_ready(tavrix_service *service);

// --- Bus -----------------------------------------------------------------------------------------------------------

constexpr size_t max_endpoints = 1024;

/** A publisher that the subscriber is connected to. */
struct Endpoint {
    char address[max_bus_address + 1];
    char owner[TAVRIX_SERVICE_MAX_NAME + 1]; ///< a service's name; empty: the router's
    bool fixed;                              ///< given in the options
    bool wanted;
    int id;
};

struct BusLink {
    int pub;
    int sub;
    bool sub_listens;
    event readable;
    Endpoint *endpoints;
    size_t endpoint_count;
    json_t *published; ///< an array of addresses, where the service publishes; null before there is one
    uint64_t said;     ///< frames that the router has to have read before the service may close its socket
    uint64_t asked;    ///< the number of the last hello
    uint64_t heard;    ///< the number of the last welcome
};

/** Binds the options' addresses; logs what fails. */
bool bus_publish_given(tavrix_service *service);
/** Does what the answer to router.Bus says; false, with a log line, when that cannot be done. */
bool bus_follow(tavrix_service *service, const json_t *answer);
bool bus_start(tavrix_service *service);
/** A service that the router tells of. The service itself is ignored; a client ignores all. */
void bus_service_up(tavrix_service *service, const json_t *description);
void bus_service_down(tavrix_service *service, const json_t *params);
/** The router has gone: disconnects from its addresses. */
void bus_router_gone(tavrix_service *service);
int bus_publish(tavrix_service *service, const char *channel, const char *text);
/** How many bytes a message on a channel may have. */
size_t bus_room(const char *channel);
/** Publishes an answer: the service does not go before the router has it. */
void bus_answer(tavrix_service *service, const char *channel, const char *text);
/**
 * Whether all answers have arrived, and all requests that were sent meanwhile; asks the router unless it has been
 * asked. Publish/subscribe acknowledges nothing, and a socket that is closed takes what it has not sent along.
 */
bool bus_is_heard(tavrix_service *service);
void bus_close(tavrix_service *service);
const char *bus_error();

// --- Requests, notifications, timers, listeners --------------------------------------------------------------------

/** Sends it at once, before the registration, too; without a connection it waits for the next one. */
uint64_t send_request(tavrix_service *service, const char *method, json_t *params, int timeout_ms,
                      tavrix_answer_callback callback, void *user);
/** The answer to a request, when it is one of those in flight. */
void take_response(tavrix_service *service, const json_t *response);
/** Ends all that are in flight, or with `sent_only` those that the lost connection has taken along. */
void end_requests(tavrix_service *service, tavrix_outcome outcome, bool sent_only);
/** The words of an error, or of an answer that did not come, for a log line. */
Printable words_of(const tavrix_answer *answer);
/** A text {"jsonrpc", "method", "params", "id"}; takes `params`; 0 is no id. Null without memory. */
Text request_text(const char *method, json_t *params, uint64_t id);

/** Subscribes anew, over a new connection, and sends the requests that have waited for it; false without memory. */
bool send_what_waits(tavrix_service *service);
void take_notification(tavrix_service *service, const json_t *message, const char *method);
void tell_lost(tavrix_service *service, uint64_t count);
/** Each cancels its kind of entry; false when that has ended already, in a callback of the same notification. */
bool cancel_request(tavrix_service *service, Entry *entry);
bool cancel_subscription(tavrix_service *service, Entry *entry);
bool cancel_timer(tavrix_service *service, Entry *entry);
bool close_listener(tavrix_service *service, Entry *entry);
void client_answer(Client *client, const char *text);
bool clients_have_unwritten(const tavrix_service *service);
void close_clients(tavrix_service *service);

// --- The service ---------------------------------------------------------------------------------------------------

/** Whether a service runs on this thread: a call that waits would hold it up. */
bool is_inside_a_loop();
/** Every request gets its outcome, every deferred call its answer. */
void end_everything(tavrix_service *service);
/** Ends the service's run with a failure. */
void give_up(tavrix_service *service);

} // namespace kit

struct tavrix_service {
    tavrix_service_options options;
    char name[TAVRIX_SERVICE_MAX_NAME + 1];
    const char *channel; ///< null for a client
    size_t method_count;
    event_base *base;
    bool owns_base;
    bool started;
    bool running; ///< tavrix_service_run() is on the stack
    bool stopping;
    bool failed;
    event signals[3]; ///< those that have been assigned are caught
    int reply_timeout_ms;
    kit::Directory directory;
    kit::SessionLink session;
    kit::BusLink bus;
    kit::EntryList clients; ///< who has been silent for longest stands first
    void (*lost)(tavrix_service *service, uint64_t count, void *user);
    void *lost_user;
    int notifying; ///< subscriptions that end meanwhile are released afterwards
};

#endif

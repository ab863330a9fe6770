/*
 * Calls: a request is evaluated, its parameters are checked, its handler runs, and exactly one answer goes back on the
 * road that it came by, now or later. While a call is deferred it stands in the directory.
 */
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <utility>

#include "internal.h"
#include "tavrix_jrpc.h"
#include "tavrix_utils.h"

using namespace kit;

namespace kit {

namespace {

constexpr char unit_name[] = "service_calls";
constexpr const char *own_methods[] = {names::reload_conf, names::say_hello, names::probe, names::welcome};

// --- Records -------------------------------------------------------------------------------------------------------

void release_call(tavrix_call *call) {
    json_decref(call->request);
    arena_clear(&call->arena);
    unmake(call);
}

/** Takes a deferred call out of the directory; it is released when its handler no longer runs. */
void end_deferred(tavrix_call *call) {
    clear_alarm(&call->deadline);
    leave(&call->service->directory, &call->entry);
    call->deferred = false;
    if (!call->in_handler) {
        release_call(call);
    }
}

// --- Answers -------------------------------------------------------------------------------------------------------

Text error_text(tavrix_call *call, int code, json_t *data) {
    if (!call->wants_answer) {
        return nullptr;
    }
    return Text(tavrix_jrpc_create_error(code, call->method, data, 0, call->transaction_id));
}

/** The method's name, for a log line. */
Printable name_of(const tavrix_call *call) { return Printable(json_string_value(call->method)); }

/** How many bytes an answer may have on the road that the call came by. */
size_t room_for_answer(const tavrix_call *call) {
    return call->caller.road == TAVRIX_ROAD_SESSION ? max_answer_line
           : call->caller.road == TAVRIX_ROAD_BUS   ? bus_room(call->channel)
                                                    : SIZE_MAX; // a client of the service's own reads what it wants to
}

/** A result that is another than the description promises misleads whoever goes by that. */
void compare_with_row(const tavrix_call *call, const json_t *result) {
    const tavrix_service_param *rows = call->row != nullptr ? call->row->result : nullptr;
    const bool is_zero = json_is_integer(result) && json_integer_value(result) == 0;
    const bool has_members = rows != nullptr && rows->name != nullptr && rows->name[0] != '\0';
    if (call->row != nullptr && result != nullptr &&
        ((rows == nullptr && !is_zero) || (has_members && !json_is_object(result)))) {
        LOG_DEBUG("%s answers another result than its row says: %s\n", call->row->name,
                  has_members ? "an object" : "without rows it is 0");
    }
}

/** An answer that its receiver cannot read, and would cut the service off for, is an error instead. */
Text readable(tavrix_call *call, Text text) {
    const Obstacle obstacle(text.get(), room_for_answer(call));
    if (!obstacle) {
        return text;
    }
    LOG_ERROR("%s: the answer cannot be sent: %s\n", name_of(call).text, obstacle.words);
    char message[sizeof "The answer cannot be sent: ." + sizeof obstacle.words];
    std::snprintf(message, sizeof message, "The answer cannot be sent: %s.", obstacle.words);
    const Json data(json_pack("{s:s}", "message", message));
    text = error_text(call, TAVRIX_JRPC_RESPONSE_FAILED, data.get());
    const bool fits = text && !Obstacle(text.get(), room_for_answer(call)); // it repeats the method's name
    return fits ? std::move(text) : nullptr;
}

/** Sends what there is, if an answer is wanted, or lets a client go that gets nothing; the call is over. */
int finish(tavrix_call *call, Text text) {
    tavrix_service *service = call->service;
    call->over = true;
    text = text ? readable(call, std::move(text)) : nullptr;
    if (call->client != nullptr) {
        client_answer(call->client, text ? text.get() : "");
    } else if (text && call->caller.road == TAVRIX_ROAD_BUS) {
        bus_answer(service, call->channel, text.get());
    } else if (text && call->caller.road == TAVRIX_ROAD_SESSION && call->session == service->session.generation) {
        session_write(service, text.get(), std::strlen(text.get())); // a router that came back knows nothing of it
    }
    call->client = nullptr;
    if (call->deferred) {
        end_deferred(call);
    }
    return TAVRIX_OK;
}

/** The data is taken; without any the status's words are sent. */
int fail_with_data(tavrix_call *call, int status, json_t *data) {
    const char *words = tavrix_error_decode(status);
    const Json owner(data != nullptr ? data : json_pack("{s:s*}", "message", words));
    const int coded = status == TAVRIX_ERR_VALIDATION ? TAVRIX_ERR_INVALID_PARAMETER : status;
    return finish(call, error_text(call, tavrix_jrpc_error_convert_tavrix_to_jrpc(coded), owner.get()));
}

// --- Evaluation ----------------------------------------------------------------------------------------------------

/** Before "method" is known there is nobody to answer. */
bool has_good_envelope(const json_t *request) {
    const int fault = tavrix::find_envelope_error(request);
    return fault == 0 || (fault == TAVRIX_JRPC_METHOD_NOT_FOUND && json_object_get(request, "method") != nullptr);
}

/** The router's word: it lets no client's own through. What it does not say is unknown. */
void read_caller(const json_t *caller, tavrix_caller *out) {
    const json_t *uid = json_object_get(caller, "uid");
    const json_t *gid = json_object_get(caller, "gid");
    const json_int_t pid = json_integer_value(json_object_get(caller, "pid"));
    if (json_is_integer(uid) && json_is_integer(gid)) {
        out->pid = pid > 0 ? static_cast<pid_t>(pid) : -1; // 0 in another namespace of processes
        out->uid = static_cast<uid_t>(json_integer_value(uid));
        out->gid = static_cast<gid_t>(json_integer_value(gid));
    }
}

void run_handler(tavrix_call *call) {
    json_t *data = nullptr;
    int rc = check_params(call->row, call->params, &call->arena, &call->values, &data);
    if (rc != TAVRIX_OK) {
        fail_with_data(call, rc, data);
        return;
    }
    rc = call->row->handler(call);
    if (!call->over && rc < 0) {
        fail_with_data(call, rc, nullptr);
    } else if (!call->over && !call->deferred) {
        tavrix_call_reply(call, json_integer(0));
    }
}

/** Every service's own methods; false when the name is none of them. */
bool answer_own_method(tavrix_call *call, const char *name) {
    if (std::strcmp(name, names::reload_conf) == 0) {
        tavrix_lsyslog_reload_conf();
    } else if (std::strcmp(name, names::say_hello) != 0) {
        return false;
    }
    tavrix_call_reply(call, json_integer(0));
    return true;
}

void answer(tavrix_call *call) {
    const char *name = json_string_value(call->method);
    if (name != nullptr && answer_own_method(call, name)) {
        return;
    }
    if (call->service->stopping) {
        tavrix_call_fail_with(call, TAVRIX_JRPC_SYSTEM_BUSY, "The service ends.", nullptr);
        return;
    }
    call->row = name != nullptr ? find_row(call->service->options.methods, name) : nullptr;
    if (call->row == nullptr && name != nullptr && is_discovery(call->service, name)) {
        tavrix_call_reply(call, make_document(call->service));
        return;
    }
    if (call->row == nullptr && call->caller.road == TAVRIX_ROAD_BUS &&
        (call->service->options.flags & TAVRIX_SERVICE_BUS) == 0) {
        finish(call, nullptr); // another service on this channel answers it; this one's requests come over its session
        return;
    }
    if (call->row == nullptr) {
        LOG_DEBUG("There is no method <%s>\n", Printable(name).text);
        finish(call, error_text(call, TAVRIX_JRPC_METHOD_NOT_FOUND, nullptr));
        return;
    }
    run_handler(call);
}

// --- Ends that are no answer ---------------------------------------------------------------------------------------

void on_deadline(evutil_socket_t /*fd*/, short /*what*/, void *argument) {
    auto *call = static_cast<tavrix_call *>(argument);
    LOG_DEBUG("%s: no answer within the time that its caller waits\n", call->row->name);
    // The router gives its own answer, and whoever asks on the bus has a time of their own; nobody else tells a direct
    // client.
    if (call->wants_answer && call->client != nullptr) {
        const Text text = error_text(call, TAVRIX_JRPC_TIMED_OUT, nullptr);
        if (text) {
            client_answer(call->client, text.get());
            call->client = nullptr;
        }
    }
    abandon_call(call);
}

tavrix_call *first_deferred(const tavrix_service *service) {
    return first_of<tavrix_call>(service->directory.lists[entry_call]);
}

// --- Values --------------------------------------------------------------------------------------------------------

/** The value of a parameter that is there and is read as its kind wants; an empty one otherwise. */
const Value &value_of(const tavrix_call *call, const char *name, unsigned storages) {
    static constexpr Value none{};
    if (call == nullptr || name == nullptr) {
        return none;
    }
    const tavrix_service_param *row = find_row(call->row->params, name);
    if (row == nullptr) {
        LOG_ERROR("%s reads a parameter %s that has no row\n", call->row->name, name);
        return none;
    }
    if ((storages & (1U << storage_of(row->kind))) == 0) {
        LOG_ERROR("%s reads its parameter %s as another kind than its row says\n", call->row->name, name);
        return none;
    }
    const Value *value = call->values != nullptr ? &call->values[row - call->row->params] : &none;
    return value->present ? *value : none;
}

const Value &value_of(const tavrix_call *call, const char *name, Storage storage) {
    return value_of(call, name, 1U << storage);
}

void *records_of(const tavrix_call *call, const char *name, Storage storage, int *count_out) {
    const Value &value = value_of(call, name, storage);
    if (count_out != nullptr) {
        *count_out = value.count;
    }
    return value.records;
}

} // namespace

bool is_own_method(const char *name) {
    return std::any_of(std::begin(own_methods), std::end(own_methods),
                       [name](const char *own) { return std::strcmp(own, name) == 0; });
}

void evaluate(tavrix_service *service, Json request, const Origin &origin) {
    tavrix_call *call = has_good_envelope(request.get()) ? make<tavrix_call>() : nullptr;
    if (call == nullptr) {
        if (origin.client != nullptr) {
            client_answer(origin.client, "");
        }
        return;
    }
    call->service = service;
    call->request = request.release();
    call->params = json_object_get(call->request, "params");
    call->method = json_object_get(call->request, "method");
    call->transaction_id = json_object_get(call->request, "transaction_id");
    call->wants_answer = json_object_get(call->request, "id") != nullptr && origin.caller.road != TAVRIX_ROAD_PULL;
    call->caller = origin.caller;
    if (origin.caller.road == TAVRIX_ROAD_SESSION) {
        read_caller(json_object_get(call->request, "caller"), &call->caller);
    }
    call->channel = origin.channel;
    call->client = origin.client;
    call->session = service->session.generation;
    call->in_handler = true;
    answer(call);
    call->in_handler = false;
    if (!call->deferred) {
        release_call(call);
    }
}

void abandon_call(tavrix_call *call) {
    call->over = true;
    if (call->client != nullptr) {
        client_answer(call->client, "");
        call->client = nullptr;
    }
    if (call->abandoned != nullptr) {
        call->abandoned(call, call->abandoned_user);
    }
    end_deferred(call);
}

void abandon_session_calls(tavrix_service *service) {
    for (auto *call = first_deferred(service); call != nullptr; call = next_of(call)) {
        // First all: what a callback answers must not change the list.
        call->over = call->over || call->caller.road == TAVRIX_ROAD_SESSION;
    }
    for (auto *call = first_deferred(service); call != nullptr;) {
        if (!call->over) {
            call = next_of(call);
            continue;
        }
        abandon_call(call);
        call = first_deferred(service);
    }
}

void abandon_cancelled_call(tavrix_service *service, const json_t *transaction_id) {
    for (auto *call = first_deferred(service); call != nullptr; call = next_of(call)) {
        if (call->caller.road == TAVRIX_ROAD_SESSION && json_equal(call->transaction_id, transaction_id) != 0) {
            LOG_DEBUG("%s: cancelled\n", call->row->name);
            abandon_call(call);
            return;
        }
    }
}

void refuse_deferred_calls(tavrix_service *service) {
    while (tavrix_call *call = first_deferred(service)) {
        tavrix_call_fail_with(call, TAVRIX_JRPC_SYSTEM_BUSY, "The service ends.", nullptr);
    }
}

} // namespace kit

// --- What a call is ------------------------------------------------------------------------------------------------

tavrix_service *tavrix_call_service(const tavrix_call *call) { return call != nullptr ? call->service : nullptr; }

void *tavrix_call_user(const tavrix_call *call) { return call != nullptr ? call->service->options.user : nullptr; }

const tavrix_service_method *tavrix_call_method(const tavrix_call *call) {
    return call != nullptr ? call->row : nullptr;
}

tavrix_caller tavrix_call_caller(const tavrix_call *call) {
    return call != nullptr ? call->caller : unknown_caller(TAVRIX_ROAD_SESSION);
}

bool tavrix_call_wants_answer(const tavrix_call *call) { return call != nullptr && call->wants_answer && !call->over; }

int tavrix_call_time_left_ms(const tavrix_call *call) {
    if (call == nullptr || call->over) {
        return 0;
    }
    if (!call->deferred) {
        return call->service->reply_timeout_ms; // in its handler: the time has only begun
    }
    const int64_t left = call->deadline_ms - now_ms();
    return left > 0 ? static_cast<int>(left) : 0;
}

json_t *tavrix_call_params(const tavrix_call *call) { return call != nullptr ? call->params : nullptr; }

// --- Values --------------------------------------------------------------------------------------------------------

bool tavrix_call_has(const tavrix_call *call, const char *name) { return value_of(call, name, ~0U).present; }

const char *tavrix_call_text(const tavrix_call *call, const char *name) {
    return value_of(call, name, stored_text).text;
}

int64_t tavrix_call_integer(const tavrix_call *call, const char *name) {
    return value_of(call, name, stored_integer).integer;
}

uint64_t tavrix_call_uint64(const tavrix_call *call, const char *name) {
    return value_of(call, name, stored_uint64).unsigned_integer;
}

double tavrix_call_real(const tavrix_call *call, const char *name) { return value_of(call, name, stored_real).real; }

bool tavrix_call_boolean(const tavrix_call *call, const char *name) {
    return value_of(call, name, stored_boolean).integer != 0;
}

int tavrix_call_word(const tavrix_call *call, const char *name) {
    return static_cast<int>(value_of(call, name, stored_text).integer);
}

json_t *tavrix_call_json(const tavrix_call *call, const char *name) {
    return value_of(call, name, ~0U).present ? json_object_get(call->params, name) : nullptr;
}

const int *tavrix_call_integers(const tavrix_call *call, const char *name, int *count_out) {
    return static_cast<const int *>(records_of(call, name, stored_integers, count_out));
}

tavrix_port_input *tavrix_call_ports(const tavrix_call *call, const char *name, int *count_out) {
    return static_cast<tavrix_port_input *>(records_of(call, name, stored_ports, count_out));
}

tavrix_port_hardware_input *tavrix_call_ports_hardware(const tavrix_call *call, const char *name, int *count_out) {
    return static_cast<tavrix_port_hardware_input *>(records_of(call, name, stored_ports_hardware, count_out));
}

tavrix_mac_filter *tavrix_call_mac_filters(const tavrix_call *call, const char *name, int *count_out) {
    return static_cast<tavrix_mac_filter *>(records_of(call, name, stored_mac_filters, count_out));
}

// --- Answers -------------------------------------------------------------------------------------------------------

int tavrix_call_reply(tavrix_call *call, json_t *result) {
    const Json owner(result);
    if (call == nullptr || call->over) {
        return TAVRIX_ERR_NO_RECORDS;
    }
    if (!call->wants_answer) {
        return finish(call, nullptr);
    }
    Text text;
    compare_with_row(call, result);
    if (result != nullptr) {
        text.reset(tavrix_jrpc_create_response(result, call->method, 0, call->transaction_id));
    }
    if (!text) {
        text = error_text(call, TAVRIX_JRPC_INTERNAL_ERROR, nullptr);
    }
    return finish(call, std::move(text));
}

int tavrix_call_fail(tavrix_call *call, int status) {
    if (call == nullptr || call->over) {
        return TAVRIX_ERR_NO_RECORDS;
    }
    status = status < 0 ? status : TAVRIX_ERR_GENERAL;
    fail_with_data(call, status, nullptr);
    return status;
}

int tavrix_call_fail_with(tavrix_call *call, int code, const char *message, json_t *data) {
    Json owner(data);
    if (call == nullptr || call->over) {
        return TAVRIX_ERR_NO_RECORDS;
    }
    if (owner && !json_is_object(owner.get())) {
        LOG_ERROR("%s: an error's data that is not an object is left out\n", name_of(call).text);
        owner.reset();
    }
    if (message != nullptr) {
        if (!owner) {
            owner.reset(json_object());
        }
        json_t *text = json_string(message); // null for what is no UTF-8, such as a device's own words
        json_object_set_new(owner.get(), "message", text != nullptr ? text : json_string(Printable(message).text));
    }
    return finish(call, error_text(call, code, owner.get()));
}

int tavrix_call_pass_on(tavrix_call *call, const tavrix_answer *answer) {
    if (answer == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    if (answer->outcome == TAVRIX_OUTCOME_RESULT) {
        return tavrix_call_reply(call, json_incref(answer->result));
    }
    if (call == nullptr || call->over) {
        return TAVRIX_ERR_NO_RECORDS;
    }
    const bool cancelled = answer->outcome == TAVRIX_OUTCOME_CANCELLED;
    return finish(call, error_text(call, cancelled ? TAVRIX_JRPC_SYSTEM_BUSY : answer->code, answer->data));
}

uint64_t tavrix_call_defer(tavrix_call *call, void (*abandoned)(tavrix_call *call, void *user), void *user) {
    if (call == nullptr || call->over || call->deferred) {
        return 0;
    }
    tavrix_service *service = call->service;
    if (service->directory.lists[entry_call].count >= TAVRIX_SERVICE_MAX_DEFERRED) {
        tavrix_call_fail_with(call, TAVRIX_JRPC_SYSTEM_BUSY, "Too many calls wait for their answers.", nullptr);
        return 0;
    }
    evtimer_assign(&call->deadline.ready, service->base, on_deadline, call);
    if (!set_alarm(&call->deadline, service->reply_timeout_ms)) {
        tavrix_call_fail_with(call, TAVRIX_JRPC_SYSTEM_BUSY, "No memory to wait for an answer.", nullptr);
        return 0;
    }
    call->deferred = true;
    call->abandoned = abandoned;
    call->abandoned_user = user;
    call->deadline_ms = now_ms() + service->reply_timeout_ms;
    return enter(&service->directory, &call->entry, entry_call);
}

tavrix_call *tavrix_service_deferred(const tavrix_service *service, uint64_t number) {
    return service != nullptr ? reinterpret_cast<tavrix_call *>(find(&service->directory, number, entry_call))
                              : nullptr;
}

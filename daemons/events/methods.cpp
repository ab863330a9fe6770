#include "methods.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include <fcntl.h>
#include <strings.h>
#include <sys/mman.h>
#include <unistd.h>

#include "common/log.h"
#include "common/names.h"
#include "tavrix.h"

namespace events {

namespace {

constexpr char unit_name[] = "events";
constexpr int max_report = 127; // characters
constexpr size_t most_kept = 1000;

json_t *to_json(const Event &event) {
    return json_pack("{s:i, s:s, s:s, s:s}", "number", event.number, "kind", event.kind.c_str(), "entity",
                     event.entity.c_str(), "text", event.text.c_str());
}

Log &log_of(const tavrix_call *call) { return static_cast<Context *>(tavrix_call_user(call))->log; }

int reply_with(tavrix_call *call, const Event *event) {
    return event != nullptr ? tavrix_call_reply(call, to_json(*event)) : TAVRIX_ERR_NO_RECORDS;
}

int get(tavrix_call *call) {
    return reply_with(call, log_of(call).find(static_cast<int>(tavrix_call_integer(call, "number"))));
}

int last(tavrix_call *call) { return reply_with(call, log_of(call).last()); }

int report(tavrix_call *call) {
    return reply_with(call, &log_of(call).add("report", "", tavrix_call_text(call, "text")));
}

/** A call of events.Describe between its question to the ports service and the answer. */
struct Description {
    uint64_t call;
    uint64_t question;
    std::string port_id;
};

void on_ports(tavrix_service *service, const tavrix_answer *answer, void *user) {
    const std::unique_ptr<const Description> description(static_cast<const Description *>(user));
    tavrix_call *call = tavrix_service_deferred(service, description->call);
    if (call != nullptr && answer->outcome != TAVRIX_OUTCOME_RESULT) {
        tavrix_call_pass_on(call, answer);
    } else if (call != nullptr) {
        const Event *event = log_of(call).last_of(description->port_id);
        tavrix_call_reply(call, json_pack("{s:O, s:o}", "ports", json_object_get(answer->result, "ports"), "last_event",
                                          event != nullptr ? to_json(*event) : json_null()));
    }
}

/** The caller has gone: cancels the question, whose callback frees the description. */
void on_description_abandoned(tavrix_call *call, void *user) {
    tavrix_service_cancel(tavrix_call_service(call), static_cast<const Description *>(user)->question);
}

int describe(tavrix_call *call) {
    const char *port_id = tavrix_call_text(call, "port_id");
    const int timeout_ms = static_cast<Context *>(tavrix_call_user(call))->wait_timeout_ms;
    auto description = std::make_unique<Description>(Description{0, 0, port_id});
    description->call = tavrix_call_defer(call, on_description_abandoned, description.get());
    if (description->call != 0) {
        description->question =
            tavrix_service_request(tavrix_call_service(call), "ports.Get", json_pack("{s:s}", "port_id", port_id),
                                   timeout_ms, on_ports, description.get());
    }
    if (description->question == 0) {
        return TAVRIX_ERR_SYSTEM_BUSY;
    }
    static_cast<void>(description.release()); // on_ports has it, which is called once, however the question ends
    return TAVRIX_OK;
}

// --- The script ----------------------------------------------------------------------------------------------------

void on_timer(tavrix_service *service, void *user) {
    auto *context = static_cast<Context *>(user);
    const LinkChange &change = context->script[context->next_change++ % context->script.size()];
    const Event &event = context->log.add("link", change.port_id, change.state);
    if (tavrix_service_publish(service, tavrix::names::link_changed, to_json(event)) != TAVRIX_OK) {
        LOG_ERROR("Cannot publish event %d\n", event.number);
    }
}

// --- Table ---------------------------------------------------------------------------------------------------------

const tavrix_service_param get_params[] = {
    TAVRIX_PARAM("number", TAVRIX_KIND_INTEGER, "an event's number; the first one of a run is 1", 0), TAVRIX_PARAM_END};
const tavrix_service_param report_params[] = {
    TAVRIX_PARAM_RANGE("text", TAVRIX_KIND_TEXT, "what has happened", 0, 0, max_report), TAVRIX_PARAM_END};
const tavrix_service_param describe_params[] = {
    TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "a converter port or a dedicated port", TAVRIX_ANY_PORT),
    TAVRIX_PARAM_END};
const tavrix_service_param event_rows[] = {TAVRIX_PARAM("number", TAVRIX_KIND_INTEGER, "counted from 1 in each run", 0),
                                           TAVRIX_PARAM("kind", TAVRIX_KIND_TEXT, "link or report", 0),
                                           TAVRIX_PARAM("entity", TAVRIX_KIND_TEXT, "the port of a link event", 0),
                                           TAVRIX_PARAM("text", TAVRIX_KIND_TEXT, "up, down, or what was reported", 0),
                                           TAVRIX_PARAM_END};
const tavrix_service_param describe_result[] = {
    TAVRIX_PARAM("ports", TAVRIX_KIND_ARRAY, "the port, as ports.Get shows it", 0),
    TAVRIX_PARAM("last_event", TAVRIX_KIND_JSON, "its latest event; null when none is kept", 0), TAVRIX_PARAM_END};

const tavrix_service_method table[] = {
    TAVRIX_METHOD("events.Get", get, "Reads an event.", get_params, event_rows, TAVRIX_METHOD_READS),
    TAVRIX_METHOD("events.Last", last, "Reads the latest event.", nullptr, event_rows, TAVRIX_METHOD_READS),
    TAVRIX_METHOD("events.Report", report, "Makes an event of a text.", report_params, event_rows,
                  TAVRIX_METHOD_CHANGES),
    TAVRIX_METHOD("events.Describe", describe, "Reads a port and its latest event.", describe_params, describe_result,
                  TAVRIX_METHOD_READS),
    TAVRIX_METHOD_END,
};

} // namespace

bool Log::share(const std::string &slot) {
    if (!slot_.empty()) {
        return true;
    }
    if (tavrix_shm_create(slot.c_str(), sizeof last_number_) != TAVRIX_OK ||
        tavrix_shm_set_int(slot.c_str(), &last_number_) != TAVRIX_OK) {
        return false;
    }
    slot_ = slot;
    return true;
}

const Event &Log::add(const std::string &kind, const std::string &entity, const std::string &text) {
    ++last_number_;
    kept_.push_back(Event{last_number_, kind, entity, text});
    if (kept_.size() > most_kept) {
        kept_.pop_front();
    }
    if (!slot_.empty() && tavrix_shm_set_int(slot_.c_str(), &last_number_) != TAVRIX_OK) {
        LOG_ERROR("The number of event %d is not shared\n", last_number_);
    }
    return kept_.back();
}

const Event *Log::find(int number) const {
    const auto found =
        std::find_if(kept_.begin(), kept_.end(), [number](const Event &event) { return event.number == number; });
    return found != kept_.end() ? &*found : nullptr;
}

const Event *Log::last_of(const std::string &port_id) const {
    const auto found = std::find_if(kept_.rbegin(), kept_.rend(), [&port_id](const Event &event) {
        return strcasecmp(event.entity.c_str(), port_id.c_str()) == 0;
    });
    return found != kept_.rend() ? &*found : nullptr;
}

bool read_script(const std::string &path, std::vector<LinkChange> *out) {
    std::ifstream file(path);
    const auto complain = [&path] {
        LOG_ERROR("Cannot read the script %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    };
    if (!file) {
        return complain();
    }
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        std::istringstream words(line);
        LinkChange change;
        std::string more;
        if (!(words >> change.port_id) || change.port_id[0] == '#') {
            continue;
        }
        const bool complete = static_cast<bool>(words >> change.state) && !(words >> more);
        if (!complete || validate_port_id(change.port_id.c_str()) != 0 ||
            (change.state != "up" && change.state != "down")) {
            LOG_ERROR("%s:%d: a port id and up or down are wanted\n", path.c_str(), number);
            return false;
        }
        out->push_back(change);
    }
    if (file.bad()) { // a folder opens, too
        return complain();
    }
    return true;
}

const tavrix_service_method *methods() { return table; }

/** Why the slot cannot be had: opens it again for errno, since the library does not tell. */
static std::string reason_against(const std::string &slot) {
    const int again = shm_open(slot.c_str(), O_RDWR | O_CREAT, 0);
    if (again < 0) {
        return std::strerror(errno);
    }
    close(again);
    return "there is no memory for it";
}

void share_number(tavrix_service *service, void *user) {
    auto *context = static_cast<Context *>(user);
    if (!context->slot.empty() && !context->log.share(context->slot)) {
        LOG_ERROR("Cannot share the last event's number in %s: %s; is the slot another user's? --slot names another\n",
                  context->slot.c_str(), reason_against(context->slot).c_str());
        context->has_failed = true;
        tavrix_service_stop(service);
    }
}

bool play_script(tavrix_service *service, Context *context, int interval_ms) {
    return context->script.empty() || tavrix_service_timer(service, interval_ms, interval_ms, on_timer, context) != 0;
}

} // namespace events

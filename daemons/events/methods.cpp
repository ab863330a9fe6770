#include "methods.h"

#include <algorithm>
#include <array>
#include <random>

#include "common/error_data.h"
#include "common/log.h"
#include "common/signals.h"

namespace events {

namespace {

using daemon_support::error_message;
using daemon_support::Json;
using daemon_support::method;
using daemon_support::Text;

constexpr char unit_name[] = "events";
constexpr char reply_channel[] = "eventsd.replies";
constexpr char get_method[] = "ports.Get";
constexpr size_t text_size = 128;

Service service;

using Buffer = std::array<char, text_size>;

int answer(json_t *value, json_t **result) {
    *result = value;
    return value != nullptr ? TAVRIX_OK : TAVRIX_ERR_NO_MEMORY;
}

int milliseconds_until(std::chrono::steady_clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    return std::max(0, static_cast<int>(left.count()));
}

int get(json_t *params, json_t **result, json_t **error_data) {
    int number = 0;
    const int rc = tavrix_jrpc_utils_parse_input_integer(params, error_data, "number", &number);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    const Event *event = service.log->find(number);
    if (event == nullptr) {
        return TAVRIX_ERR_NO_RECORDS;
    }
    return answer(to_json(*event), result);
}

int last(json_t * /*params*/, json_t **result, json_t ** /*error_data*/) {
    const Event *event = service.log->last();
    if (event == nullptr) {
        return TAVRIX_ERR_NO_RECORDS;
    }
    return answer(to_json(*event), result);
}

int report(json_t *params, json_t **result, json_t **error_data) {
    Buffer text{};
    const int rc = tavrix_jrpc_utils_parse_input_string(params, error_data, "text", text.data(), text.size());
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (json_string_length(json_object_get(params, "text")) >= text.size()) { // it has been cut
        *error_data = error_message("Parameter 'text' has more than 127 bytes.");
        return TAVRIX_ERR_INVALID_PARAMETER;
    }
    return answer(to_json(service.log->add("report", "", text.data())), result);
}

int describe(json_t *params, json_t **result, json_t **error_data) {
    Buffer port_id{};
    int rc = tavrix_jrpc_utils_retrieve_input_port_id(params, error_data, "port_id", port_id.data(), port_id.size(),
                                                      false, false, true, true);
    if (rc == TAVRIX_ERR_VALIDATION) {
        *error_data = error_message("Parameter 'port_id' has no valid value.");
        return TAVRIX_ERR_INVALID_PARAMETER;
    }
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (service.ports == nullptr) {
        return TAVRIX_ERR_UNIMPLEMENTED;
    }
    json_t *ports = nullptr;
    rc = service.ports->get(port_id.data(), &ports, error_data);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    const Event *event = service.log->last_of(port_id.data());
    json_t *last_event = event != nullptr ? to_json(*event) : json_null();
    return answer(json_pack("{s:o, s:o}", "ports", ports, "last_event", last_event), result);
}

} // namespace

bool PortsClient::open(const std::string &ports_address, const int *publisher, int timeout_ms,
                       std::vector<daemon_support::Watch> meanwhile) {
    publisher_ = publisher;
    timeout_ms_ = timeout_ms;
    meanwhile_ = std::move(meanwhile);
    transaction_id_ = std::random_device()(); // a reply to an earlier run's call must not fit one of this run's
    if (tavrix_jrpc_mq_sub_init(replies_.place(), 1) != TAVRIX_OK ||
        !daemon_support::receive_large_messages(replies_)) {
        return false;
    }
    if (tavrix_jrpc_mq_sub_set_channel(ports_address.c_str(), reply_channel, replies_.place()) != TAVRIX_OK) {
        replies_.forget(); // closed by the failed call
        return false;
    }
    // Only what is there is received, poll does the waiting.
    return tavrix_mq_socket_set_timeout(*replies_.get(), 0) == TAVRIX_OK;
}

int PortsClient::publish_request(const char *method, json_t *params) const {
    const Json request(json_pack("{s:s, s:s, s:s, s:I, s:o}", "jsonrpc", "2.0", "method", method, "id", reply_channel,
                                 "transaction_id", transaction_id_, "params", params));
    const Text text(json_dumps(request.get(), JSON_COMPACT | JSON_ENSURE_ASCII));
    return text ? tavrix_jrpc_mq_pub(publisher_, TAVRIX_CHANNEL_FIRST, text.get()) : TAVRIX_ERR_NO_MEMORY;
}

/** A reply to a call that was given up is passed over: it must not answer the next one. */
bool PortsClient::await_reply(const char *method, Clock::time_point end, Json *reply) const {
    const auto take = [&] {
        json_t *received = nullptr;
        if (tavrix_jrpc_mq_sub_for_method(*replies_.get(), method, &received) != TAVRIX_OK) {
            return false;
        }
        reply->reset(received);
        const json_t *answered = json_object_get(received, "transaction_id");
        return json_is_integer(answered) && json_integer_value(answered) == transaction_id_;
    };
    return daemon_support::wait_within(milliseconds_until(end), method, replies_, take, meanwhile_);
}

/** Says hello until it is answered: a request that is published before the connections stand is lost. */
int PortsClient::settle(Clock::time_point end) const {
    Json reply;
    do {
        const int rc = publish_request(daemon_support::service_hello_method, json_object());
        if (rc != TAVRIX_OK) {
            return rc;
        }
        const auto next = Clock::now() + std::chrono::milliseconds(daemon_support::hello_interval_ms);
        if (await_reply(daemon_support::service_hello_method, std::min(next, end), &reply)) {
            return TAVRIX_OK;
        }
    } while (!daemon_support::stop_requested() && Clock::now() < end);
    return TAVRIX_ERR_TIMEOUT;
}

int PortsClient::get(const std::string &port_id, json_t **ports_out, json_t **error_data) {
    ++transaction_id_;
    const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms_);
    int rc = settle(end);
    if (rc == TAVRIX_OK) {
        rc = publish_request(get_method, json_pack("{s:s}", "port_id", port_id.c_str()));
    }
    if (rc != TAVRIX_OK) {
        return rc;
    }
    Json reply;
    if (!await_reply(get_method, end, &reply)) {
        return TAVRIX_ERR_TIMEOUT;
    }
    const json_t *error = json_object_get(reply.get(), "error");
    if (error != nullptr) {
        const json_int_t code = json_integer_value(json_object_get(error, "code"));
        json_t *data = json_object_get(error, "data");
        *error_data = json_is_object(data) ? json_incref(data) : nullptr;
        const int status = tavrix_jrpc_error_convert_jrpc_to_tavrix(static_cast<int>(code));
        return status == TAVRIX_JRPC_UNKNOWN_ERROR ? TAVRIX_ERR_GENERAL : status;
    }
    *ports_out = json_incref(json_object_get(json_object_get(reply.get(), "result"), "ports"));
    return *ports_out != nullptr ? TAVRIX_OK : TAVRIX_ERR_GENERAL;
}

void set_service(const Service &wanted) { service = wanted; }

std::vector<tavrix_jrpc_method> methods() {
    return {
        method<get>("events.Get"),
        method<last>("events.Last"),
        method<report>("events.Report"),
        method<describe>("events.Describe"),
    };
}

void publish_link_changed(const int *publisher, const Event &event) {
    const Json notification(
        json_pack("{s:s, s:s, s:o}", "jsonrpc", "2.0", "method", link_changed, "params", to_json(event)));
    const Text text(json_dumps(notification.get(), JSON_COMPACT | JSON_ENSURE_ASCII));
    if (!text || tavrix_jrpc_mq_pub(publisher, link_changed, text.get()) != TAVRIX_OK) {
        LOG_ERROR("Cannot publish event %d\n", event.number);
    }
}

} // namespace events

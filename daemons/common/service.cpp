#include "common/service.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <nanomsg/nn.h>
#include <poll.h>

#include "common/log.h"
#include "common/signals.h"
#include "tavrix_error.h"

namespace daemon_support {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char unit_name[] = "service";
constexpr int take_time_ms = 20;
constexpr size_t max_name = 50;
constexpr int messages_per_turn = 64; // a peer that floods the bus must not keep the rest of the loop waiting

Service *the_service = nullptr;

/** True for a request or notification of logger.ReloadConf. */
bool is_reload(const char *json_text) {
    const Json message(json_loads(json_text, JSON_DISABLE_EOF_CHECK, nullptr));
    const char *method = json_string_value(json_object_get(message.get(), "method"));
    return method != nullptr && std::string(method) == reload_method;
}

pollfd readable(int descriptor) { return pollfd{descriptor, POLLIN, 0}; }

void obey_reload_request() {
    if (take_reload_request()) {
        tavrix_lsyslog_reload_conf();
    }
}

void add_watched(const std::vector<Watch> &watches, std::vector<pollfd> *descriptors) {
    for (const Watch &watch : watches) {
        descriptors->push_back(readable(watch.descriptor));
    }
}

/** `descriptors` end with those of the watches. */
void serve_watched(const std::vector<Watch> &watches, const std::vector<pollfd> &descriptors) {
    const size_t first = descriptors.size() - watches.size();
    for (size_t i = 0; i < watches.size() && !stop_requested(); ++i) {
        if (descriptors[first + i].revents != 0) {
            watches[i].on_readable();
        }
    }
}

int on_service_hello(json_t * /*params*/, json_t ** /*result*/, json_t ** /*error_data*/) { return TAVRIX_OK; }

} // namespace

bool receive_large_messages(const BusSocket &socket) {
    constexpr int limit = 8 * 1024 * 1024;
    return nn_setsockopt(*socket.get(), NN_SOL_SOCKET, NN_RCVMAXSIZE, &limit, sizeof limit) == 0;
}

bool wait_within(int timeout_ms, const char *awaited, const BusSocket &socket, const std::function<bool()> &take,
                 const std::vector<Watch> &meanwhile) {
    int descriptor = -1;
    if (tavrix_mq_socket_recvfd(*socket.get(), &descriptor) != TAVRIX_OK) {
        return false;
    }
    LOG_DEBUG("Waiting for %s, %d ms at most\n", awaited, timeout_ms);
    const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    std::vector<pollfd> descriptors = {readable(descriptor), readable(signal_descriptor())};
    add_watched(meanwhile, &descriptors);
    while (!stop_requested() && Clock::now() < end) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        const int ready = poll(descriptors.data(), descriptors.size(), std::max(0, static_cast<int>(left.count())));
        drain_signal_descriptor();
        obey_reload_request();
        if (ready <= 0) {
            continue;
        }
        if (descriptors[0].revents != 0) {
            const Deadline deadline(take_time_ms);
            if (take()) {
                return true;
            }
        }
        serve_watched(meanwhile, descriptors);
    }
    return false;
}

Service::Service(ServiceConfig config, const std::vector<tavrix_jrpc_method> &methods)
    : config_(std::move(config)), methods_(methods) {
    methods_.push_back({welcome_method, on_welcome});
    methods_.push_back({probe_method, on_probe});
    methods_.push_back({service_hello_method, on_service_hello});
    methods_.push_back({reload_method, tavrix_lsyslog_reload_conf_api});
    methods_.push_back({nullptr, nullptr});
    the_service = this;
}

Service::~Service() { the_service = nullptr; }

bool Service::listen_on(const std::string &channel, BusSocket *socket, int *descriptor) {
    if (tavrix_jrpc_mq_sub_init(socket->place(), 1) != TAVRIX_OK || !receive_large_messages(*socket) ||
        tavrix_mq_socket_recvfd(*socket->get(), descriptor) != TAVRIX_OK) {
        LOG_ERROR("Cannot make a subscriber\n");
        return false;
    }
    for (const std::string &address : config_.connect) {
        if (tavrix_jrpc_mq_sub_set_channel(address.c_str(), channel.c_str(), socket->place()) != TAVRIX_OK) {
            socket->forget(); // closed by the failed call
            LOG_ERROR("Cannot listen to %s\n", address.c_str());
            return false;
        }
    }
    return true;
}

/** The logger reads no longer name from its configuration, and the bus carries text only. */
bool Service::has_usable_name() const {
    const Json text(json_string(config_.name.c_str()));
    return text && !config_.name.empty() && config_.name.size() <= max_name;
}

bool Service::open() {
    if (!has_usable_name()) {
        LOG_ERROR("The name has to be 1 to %d bytes of UTF-8\n", static_cast<int>(max_name));
        return false;
    }
    if (tavrix_jrpc_mq_pub_init(config_.publish.c_str(), pub_.place()) != TAVRIX_OK) {
        LOG_ERROR("Cannot publish on %s\n", config_.publish.c_str());
        return false;
    }
    return listen_on(config_.channel, &sub_, &sub_descriptor_) &&
           listen_on(TAVRIX_CHANNEL_DEFAULT, &control_, &control_descriptor_);
}

int Service::on_welcome(json_t *params, json_t ** /*result*/, json_t ** /*error_data*/) {
    const char *name = json_string_value(json_object_get(params, "name"));
    const bool is_own = name != nullptr && the_service->config_.name == name; // several may share a channel
    if (is_own && !the_service->welcomed_) {
        the_service->welcomed_ = true;
        LOG_INFO("%s ready\n", the_service->config_.name.c_str());
    }
    return TAVRIX_OK;
}

int Service::on_probe(json_t * /*params*/, json_t ** /*result*/, json_t ** /*error_data*/) {
    the_service->say_hello();
    return TAVRIX_OK;
}

void Service::say_hello() {
    const Json hello(json_pack("{s:s, s:s, s:{s:s, s:s}}", "jsonrpc", "2.0", "method", hello_method, "params", "name",
                               config_.name.c_str(), "channel", config_.channel.c_str()));
    const Text text(json_dumps(hello.get(), JSON_COMPACT));
    if (text) {
        tavrix_jrpc_mq_pub(pub_.get(), TAVRIX_ROUTER_REPLY_CHANNEL, text.get());
    }
}

void Service::serve_requests() {
    for (int left = messages_per_turn; left > 0 && !stop_requested(); --left) {
        if (tavrix_jrpc_mq_run(sub_.place(), pub_.place(), methods_.data(), 1) != TAVRIX_OK) {
            return;
        }
    }
}

/** False when none has arrived. */
bool Service::serve_control_message() {
    static const tavrix_jrpc_method reload_only[] = {{reload_method, tavrix_lsyslog_reload_conf_api},
                                                     {nullptr, nullptr}};
    char *frame = nullptr;
    int length = 0;
    if (tavrix_mq_socket_recv(*control_.get(), &frame, &length, 1) != TAVRIX_OK) {
        return false;
    }
    const Text frame_owner(frame);
    char *json_text = nullptr;
    const int split = tavrix_jrpc_parse_msg(frame, length, &json_text);
    const Text json_owner(json_text);
    if (split != TAVRIX_OK || !is_reload(json_text)) {
        return true; // another daemon's: several share this channel
    }
    char *channel = nullptr;
    tavrix_jrpc_parse_channel(json_text, &channel);
    const Text channel_owner(channel);
    char *response = nullptr;
    tavrix_jrpc_eval_request(json_text, reload_only, &response);
    const Text response_owner(response);
    if (channel != nullptr && response != nullptr) {
        tavrix_jrpc_mq_pub(pub_.get(), channel, response);
    }
    return true;
}

void Service::serve_control() {
    for (int left = messages_per_turn; left > 0 && !stop_requested() && serve_control_message(); --left) {
    }
}

bool Service::serve() {
    LOG_INFO("%s serving\n", config_.name.c_str());
    std::vector<pollfd> descriptors = {readable(signal_descriptor()), readable(sub_descriptor_),
                                       readable(control_descriptor_)};
    add_watched(watches_, &descriptors);
    while (!stop_requested()) {
        if (!welcomed_) {
            say_hello();
        }
        const int ready = poll(descriptors.data(), descriptors.size(), welcomed_ ? -1 : hello_interval_ms);
        const int reason = errno;
        drain_signal_descriptor();
        obey_reload_request();
        if (ready < 0 && reason == EINTR) {
            continue; // a signal: the loop's condition and the reload above have looked at it
        }
        if (ready < 0) {
            LOG_ERROR("Cannot wait for requests: %s\n", std::strerror(reason));
            return false;
        }
        serve_requests();
        serve_control();
        serve_watched(watches_, descriptors);
    }
    LOG_INFO("%s stopped\n", config_.name.c_str());
    return true;
}

} // namespace daemon_support

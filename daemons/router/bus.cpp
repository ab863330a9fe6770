#include "bus.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/stat.h>

#include "common/log.h"
#include "foreign_log.h"
#include "message.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"

#include <nanomsg/nn.h>

namespace router {

namespace {

constexpr char unit_name[] = "bus";
constexpr int messages_per_turn = 100; // a flood on the bus must not keep clients waiting,
constexpr size_t bytes_per_turn =
    size_t{1024} * 1024; // nor fill what they are sent faster than they could ever read it
constexpr mode_t for_the_group = 0007;

} // namespace

std::string folder_of(const std::string &address) {
    if (tavrix::transport_of(address.c_str()) != TAVRIX_TRANSPORT_IPC) {
        return "";
    }
    const std::string path = address.substr(std::strlen("ipc://"));
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max(slash, size_t{1}));
}

bool Bus::open(event_base *base, const std::vector<std::string> &publish) {
    const mode_t before = umask(for_the_group); // who may enter the folder may also connect
    bool bound = tavrix::open_bus_socket(TAVRIX_SP_PUB, pub_.place());
    for (const std::string &address : publish) {
        int endpoint = 0;
        if (!bound ||
            tavrix_mq_socket_bind(pub_.get(), tavrix::transport_of(address.c_str()), address.c_str(), &endpoint) != 0) {
            const char *usual = tavrix::transport_of(address.c_str()) == TAVRIX_TRANSPORT_IPC
                                    ? "does its folder exist?"
                                    : "is that address one of this machine?";
            const char *advice = nn_errno() == EADDRINUSE ? "is another router running?" : usual;
            if (tavrix::transport_of(address.c_str()) == 0) {
                LOG_ERROR("Cannot publish on %s: an address begins with tcp:// or ipc:// and has at most %zu bytes\n",
                          address.c_str(), tavrix::max_bus_address);
            } else {
                LOG_ERROR("Cannot publish on %s: %s; %s\n", address.c_str(), nn_strerror(nn_errno()), advice);
            }
            bound = false;
        }
    }
    umask(before);
    int descriptor = -1;
    if (!bound || !tavrix::open_bus_socket(TAVRIX_SP_SUB, sub_.place()) ||
        tavrix_mq_socket_subscribe(sub_.get(), TAVRIX_ROUTER_REPLY_CHANNEL) != TAVRIX_OK ||
        tavrix_mq_socket_recvfd(sub_.get(), &descriptor) != TAVRIX_OK) {
        return false;
    }
    readable_.reset(event_new(base, descriptor, EV_READ | EV_PERSIST, on_readable, this));
    return readable_ && event_add(readable_.get(), nullptr) == 0;
}

int Bus::connect(const std::string &address) {
    int endpoint = -1;
    if (tavrix_mq_socket_connect(sub_.get(), tavrix::transport_of(address.c_str()), address.c_str(), &endpoint) !=
        TAVRIX_OK) {
        LOG_FOREIGN("Cannot listen to %s: it is not an address of the bus\n", printable(address).c_str());
        return -1;
    }
    return endpoint;
}

void Bus::disconnect(int endpoint) { tavrix_mq_socket_shutdown(sub_.get(), endpoint); }

bool Bus::publish(std::string_view channel, std::string_view text) {
    auto *frame = static_cast<char *>(nn_allocmsg(channel.size() + 1 + text.size(), 0));
    if (frame == nullptr) {
        return false;
    }
    channel.copy(frame, channel.size());
    frame[channel.size()] = '|';
    text.copy(frame + channel.size() + 1, text.size());
    if (nn_send(pub_.get(), &frame, NN_MSG, NN_DONTWAIT) >= 0) {
        return true;
    }
    nn_freemsg(frame);
    return false;
}

void Bus::listen_to_everything(bool wanted) {
    if (wanted != everything_) {
        const int rc =
            wanted ? tavrix_mq_socket_subscribe(sub_.get(), "") : tavrix_mq_socket_unsubscribe(sub_.get(), "");
        everything_ = rc == TAVRIX_OK ? wanted : everything_;
    }
}

/** nanomsg keeps the descriptor readable until nothing is left, which is found out by receiving only. */
void Bus::on_readable(evutil_socket_t /*descriptor*/, short /*what*/, void *context) {
    auto *self = static_cast<Bus *>(context);
    size_t bytes = 0;
    for (int left = messages_per_turn; left > 0 && bytes < bytes_per_turn; --left) {
        char *frame = nullptr;
        const int length = nn_recv(self->sub_.get(), &frame, NN_MSG, NN_DONTWAIT);
        if (length < 0) {
            return;
        }
        const tavrix::BusMessage owner(frame);
        const std::string_view text(frame, static_cast<size_t>(length));
        const size_t bar = text.find('|');
        bytes += text.size();
        if (bar != std::string_view::npos) {
            self->receiver_(text.substr(0, bar), text.substr(bar + 1));
        }
    }
}

} // namespace router

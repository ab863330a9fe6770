/*
 * Bus sockets: a thin wrapper over nanomsg's scalability-protocol sockets.
 *
 * A socket is nanomsg's number, an endpoint nanomsg's id. The only state is what each subscribe socket has subscribed,
 * from its first topic until it is closed, because nanomsg does not survive the removal of a topic that is not there.
 */
#include "tavrix_mq.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <nanomsg/bus.h>
#include <nanomsg/nn.h>
#include <nanomsg/pair.h>
#include <nanomsg/pipeline.h>
#include <nanomsg/pubsub.h>
#include <nanomsg/reqrep.h>
#include <nanomsg/survey.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/log.h"
#include "common/sockets.h"
#include "common/unix_socket.h"
#include "internal/tables.h"
#include "internal/topics.h"
#include "tavrix_error.h"

namespace {

constexpr char unit_name[] = "tavrix_mq";

// The library's SP types 1 to 10 in their order: the answering side of each pair comes first.
constexpr int protocols[] = {
    NN_PAIR, NN_REP, NN_REQ, NN_PUB, NN_SUB, NN_PULL, NN_PUSH, NN_SURVEYOR, NN_RESPONDENT, NN_BUS,
};
constexpr int lowest_sp_type = TAVRIX_SP_PAIR;
constexpr int highest_sp_type = TAVRIX_SP_BUS;
static_assert(tavrix::count_of(protocols) == highest_sp_type, "one protocol for each SP type");

// The transports 1 to 3 in their order.
constexpr const char *schemes[] = {"inproc://", "ipc://", "tcp://"};
constexpr int lowest_transport = TAVRIX_TRANSPORT_INPROC;
constexpr int highest_transport = TAVRIX_TRANSPORT_TCP;
static_assert(tavrix::count_of(schemes) == highest_transport, "one scheme for each transport");

const char *bus_error() { return nn_strerror(nn_errno()); }

/** One of the protocols; -1 for a number that no socket has. */
int protocol_of(int sock) {
    int protocol = 0;
    size_t size = sizeof protocol;
    return nn_getsockopt(sock, NN_SOL_SOCKET, NN_PROTOCOL, &protocol, &size) == 0 ? protocol : -1;
}

// --- Checks ---

int check_sp_type(int sp_type) {
    LOG_DEBUG("Validating SP type: %d\n", sp_type);
    if (sp_type < lowest_sp_type || sp_type > highest_sp_type) {
        LOG_DEBUG("FAIL: SP type outside acceptable range [%d, %d]\n", lowest_sp_type, highest_sp_type);
        return TAVRIX_ERR_VALIDATION;
    }
    return TAVRIX_OK;
}

int check_transport(int transport, const char *addr) {
    LOG_DEBUG("Validating transport type: %d with sp_addr: %s\n", transport, addr);
    const size_t length = std::strlen(addr);
    if (length > TAVRIX_MQ_MAX_ADDRESS) {
        LOG_DEBUG("FAIL: SP address is too long [%d] v/s max %d\n", static_cast<int>(length), TAVRIX_MQ_MAX_ADDRESS);
        return TAVRIX_ERR_VALIDATION;
    }
    if (transport < lowest_transport || transport > highest_transport) {
        LOG_DEBUG("FAIL: Transport type outside acceptable range [%d, %d]\n", lowest_transport, highest_transport);
        return TAVRIX_ERR_VALIDATION;
    }
    // Anywhere in addr: TAVRIX_ERR_VALIDATION only tells callers that the transport is wrong; nanomsg judges the rest.
    return std::strstr(addr, schemes[transport - 1]) != nullptr ? TAVRIX_OK : TAVRIX_ERR_VALIDATION;
}

int null_pointer() {
    LOG_DEBUG("NULL pointer!\n");
    return TAVRIX_ERR_NULL_INPUT;
}

// --- Paths of ipc addresses ---

// nanomsg aborts the process on a path that the system rejects, so such paths are caught before nanomsg sees them.

/** The path if nanomsg would take the address for an ipc one, whatever transport was given with it; else null. */
const char *ipc_path(const char *addr) {
    const char *scheme = schemes[TAVRIX_TRANSPORT_IPC - 1];
    const size_t length = std::strlen(scheme);
    return std::strncmp(addr, scheme, length) == 0 ? addr + length : nullptr;
}

bool is_folder(const char *path) {
    struct stat found = {};
    return lstat(path, &found) == 0 && S_ISDIR(found.st_mode);
}

/**
 * Removes a left-over socket file as nanomsg itself would before a bind; nanomsg aborts when it is not allowed to.
 *
 * @return 0, or the errno of the removal
 */
int clear_the_way(const char *path) {
    const bool left_over = !tavrix::connect_unix(path) && errno == ECONNREFUSED;
    return left_over && unlink(path) != 0 && errno != ENOENT ? errno : 0;
}

/** 0, or the errno to report when nanomsg must not see the path. */
int refuse_path(const char *path, bool to_bind) {
    if (std::strlen(path) >= sizeof sockaddr_un::sun_path) {
        return ENAMETOOLONG;
    }
    if (is_folder(path)) {
        return EISDIR;
    }
    return to_bind ? clear_the_way(path) : 0;
}

// --- Endpoints and options ---

using Attach = int (*)(int, const char *);

/** The endpoint's id; -1 and `errno` when the address is refused, here or by nanomsg. */
int make_endpoint(Attach attach_to, int sock, const char *addr) {
    const char *path = ipc_path(addr);
    // For a closed socket nothing is removed, and nanomsg reports the failure itself.
    const bool looked_at = path != nullptr && protocol_of(sock) >= 0;
    const int reason = looked_at ? refuse_path(path, attach_to == nn_bind) : 0;
    if (reason != 0) {
        errno = reason;
        return -1;
    }
    return attach_to(sock, addr);
}

int attach(Attach attach_to, int sock, int transport, const char *addr, int *eid_out) {
    if (addr == nullptr || eid_out == nullptr) {
        return null_pointer();
    }
    const int rc = check_transport(transport, addr);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    const int eid = make_endpoint(attach_to, sock, addr);
    if (eid < 0) {
        // nn_bind for a failed connect, too: log filters match this one text for both.
        LOG_DEBUG("nn_bind failed for SP addr [%s]: %s\n", addr, bus_error());
        return TAVRIX_ERR_GENERAL;
    }
    *eid_out = eid;
    return TAVRIX_OK;
}

int read_option(int sock, int option, int *out) {
    if (out == nullptr) {
        return null_pointer();
    }
    int value = 0;
    size_t size = sizeof value;
    if (nn_getsockopt(sock, NN_SOL_SOCKET, option, &value, &size) < 0) {
        LOG_DEBUG("nn_getsockopt failed for mq_socket [%d]: %s\n", sock, bus_error());
        return TAVRIX_ERR_GENERAL;
    }
    *out = value;
    return TAVRIX_OK;
}

int option_not_written(int sock) {
    LOG_DEBUG("nn_setsockopt failed for mq_socket [%d]: %s\n", sock, bus_error());
    return TAVRIX_ERR_GENERAL;
}

int write_option(int sock, int level, int option, const void *value, size_t size) {
    return nn_setsockopt(sock, level, option, value, size) < 0 ? option_not_written(sock) : TAVRIX_OK;
}

// --- Topics ---

/** More than any daemon has sockets; sockets whose numbers differ by a multiple of it share a place. */
constexpr unsigned place_count = 64;
std::atomic<tavrix::Topic *> kept_topics[place_count];

/** Marks a place whose topics a thread is working on. */
tavrix::Topic at_work = {};

/** Takes the topics out of their place while they are worked on. */
tavrix::Topic *take_topics(std::atomic<tavrix::Topic *> *place) {
    tavrix::Topic *first = nullptr;
    while ((first = place->exchange(&at_work, std::memory_order_acquire)) == &at_work) {
        // Another thread is changing topics. Merely yielding could starve it if its priority is lower.
        constexpr timespec moment = {0, 50000};
        static_cast<void>(nanosleep(&moment, nullptr));
    }
    return first;
}

/** nanomsg names each socket by its number; a socket whose topics are kept is given another name. */
bool has_its_first_name(int sock) {
    char name[64] = ""; // nanomsg's own size
    char number[16];
    size_t size = sizeof name;
    static_cast<void>(std::snprintf(number, sizeof number, "%d", sock));
    return nn_getsockopt(sock, NN_SOL_SOCKET, NN_SOCKET_NAME, name, &size) < 0 || std::strcmp(name, number) == 0;
}

void give_name(int sock) {
    char name[24];
    const int length = std::snprintf(name, sizeof name, "tavrix-%d", sock);
    static_cast<void>(nn_setsockopt(sock, NN_SOL_SOCKET, NN_SOCKET_NAME, name, static_cast<size_t>(length)));
}

/** The kept topics of a socket, for one thread at a time. */
class SocketTopics {
  public:
    explicit SocketTopics(int sock)
        : sock_(sock), place_(&kept_topics[static_cast<unsigned>(sock) % place_count]), topics_(take_topics(place_)) {
        // Left by a socket that was closed behind the library's back; nanomsg has given its number to a new one.
        if (topics_.any_of(sock) && has_its_first_name(sock)) {
            topics_.remove_all_of(sock);
        }
    }
    SocketTopics(const SocketTopics &) = delete;
    SocketTopics &operator=(const SocketTopics &) = delete;
    ~SocketTopics() { place_->store(topics_.first(), std::memory_order_release); }

    bool any() const { return topics_.any_of(sock_); }
    bool has_node(const tavrix::TopicName &name) { return topics_.has_node(name); }
    void add(tavrix::OwnedTopic topic) {
        if (!any() && has_its_first_name(sock_)) {
            give_name(sock_);
        }
        topics_.add(std::move(topic));
    }
    void remove(const tavrix::TopicName &name) { topics_.remove(name); }
    void remove_all() { topics_.remove_all_of(sock_); }

  private:
    int sock_;
    std::atomic<tavrix::Topic *> *place_;
    tavrix::Topics topics_;
};

int write_topic(int option, const tavrix::TopicName &name) {
    return write_option(name.sock, NN_SUB, option, name.text, name.length);
}

int subscribe(const tavrix::TopicName &name) {
    tavrix::OwnedTopic topic = tavrix::make_topic(name);
    if (!topic) {
        return option_not_written(name.sock);
    }
    SocketTopics kept(name.sock);
    const int rc = write_topic(NN_SUB_SUBSCRIBE, name);
    if (rc == TAVRIX_OK) {
        kept.add(std::move(topic));
    }
    return rc;
}

int unsubscribe(const tavrix::TopicName &name) {
    SocketTopics kept(name.sock);
    if (!kept.has_node(name) && protocol_of(name.sock) == NN_SUB) {
        // nanomsg must not be asked. When it survives that, it reports a failure only for a socket without topics.
        if (kept.any()) {
            return TAVRIX_OK;
        }
        errno = EINVAL;
        return option_not_written(name.sock);
    }
    const int rc = write_topic(NN_SUB_UNSUBSCRIBE, name);
    if (rc == TAVRIX_OK) {
        kept.remove(name);
    }
    return rc;
}

// --- Messages ---

/** nanomsg tells an expired time-out from a receive that would wait; here both mean that there is no message. */
bool nothing_received(int reason) { return reason == EAGAIN || reason == ETIMEDOUT; }

int receive_failed(int sock) {
    if (nothing_received(nn_errno())) {
        LOG_VERBOSE("nn_recv no data in mq_socket [%d]: %s\n", sock, bus_error());
        return TAVRIX_ERR_MQ_TIMEOUT;
    }
    LOG_DEBUG("nn_recv failed for mq_socket [%d]: %s\n", sock, bus_error());
    return TAVRIX_ERR_GENERAL;
}

int send_text(int sock, const char *text, int flags) {
    if (text == nullptr) {
        return null_pointer();
    }
    const size_t length = std::strlen(text);
    LOG_VERBOSE("[tavrix_mq_socket_send]: message[%d]: %s\n", static_cast<int>(length), text);
    tavrix::BusMessage message(nn_allocmsg(length, 0));
    if (!message) {
        LOG_DEBUG("nn_allocmsg failed to allocate buffer for message: %s\n", bus_error());
        return TAVRIX_ERR_GENERAL;
    }
    std::memcpy(message.get(), text, length);
    void *body = message.get();
    const int sent = nn_send(sock, &body, NN_MSG, flags);
    if (sent < 0) {
        LOG_DEBUG("nn_send failed for mq_socket [%d]: %s\n", sock, bus_error());
        return TAVRIX_ERR_GENERAL;
    }
    static_cast<void>(message.release()); // nanomsg owns it now
    LOG_VERBOSE("[tavrix_mq_socket_send]: sent: %d out of %d\n", sent, static_cast<int>(length));
    return TAVRIX_OK;
}

} // namespace

int tavrix_mq_socket_init(int sp_type, int *sock_out) {
    if (sock_out == nullptr) {
        return null_pointer();
    }
    const int rc = check_sp_type(sp_type);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    const int sock = nn_socket(AF_SP, protocols[sp_type - 1]);
    if (sock < 0) {
        LOG_DEBUG("nn_socket failed for SP type [%d]: %s\n", sp_type, bus_error());
        return TAVRIX_ERR_GENERAL;
    }
    *sock_out = sock;
    return TAVRIX_OK;
}

int tavrix_mq_socket_bind(int sock, int transport, const char *addr, int *eid_out) {
    return attach(nn_bind, sock, transport, addr, eid_out);
}

int tavrix_mq_socket_connect(int sock, int transport, const char *addr, int *eid_out) {
    return attach(nn_connect, sock, transport, addr, eid_out);
}

int tavrix_mq_socket_recv(int sock, char **msg_out, int *len_out, int nonblock) {
    if (msg_out == nullptr || len_out == nullptr) {
        return null_pointer();
    }
    void *body = nullptr;
    const int length = nn_recv(sock, &body, NN_MSG, nonblock > 0 ? NN_DONTWAIT : 0);
    if (length < 0) {
        return receive_failed(sock);
    }
    tavrix::BusMessage message(body);
    const size_t size = static_cast<size_t>(length);
    tavrix::Text copy(static_cast<char *>(std::malloc(size + 1)));
    if (!copy) {
        LOG_DEBUG("nn_recv failed for mq_socket [%d]: %s\n", sock, nn_strerror(ENOMEM));
        return TAVRIX_ERR_GENERAL;
    }
    std::memcpy(copy.get(), body, size);
    copy.get()[size] = '\0';
    if (nn_freemsg(message.release()) < 0) {
        LOG_DEBUG("nn_freemsg failed to free received message: %s\n", bus_error());
        return TAVRIX_ERR_GENERAL;
    }
    *msg_out = copy.release();
    *len_out = length;
    return TAVRIX_OK;
}

int tavrix_mq_socket_send(int sock, const char *text) { return send_text(sock, text, 0); }

int tavrix_mq_socket_send_nonblock(int sock, const char *text) { return send_text(sock, text, NN_DONTWAIT); }

int tavrix_mq_socket_shutdown(int sock, int eid) {
    if (nn_shutdown(sock, eid) < 0) {
        LOG_DEBUG("nn_shutdown failed for mq_eid [%d]: %s\n", eid, bus_error());
        return TAVRIX_ERR_GENERAL;
    }
    return TAVRIX_OK;
}

int tavrix_mq_socket_close(int sock) {
    SocketTopics(sock).remove_all(); // before closing: afterwards the number may belong to another thread
    if (nn_close(sock) < 0) {
        LOG_WARNING("nn_close failed for mq_socket [%d]: %s\n", sock, bus_error());
        return TAVRIX_ERR_GENERAL;
    }
    return TAVRIX_OK;
}

void tavrix_mq_socket_terminate(void) {}

int tavrix_mq_socket_freemsg(void *msg) {
    if (msg == nullptr) {
        return null_pointer();
    }
    if (nn_freemsg(msg) < 0) {
        LOG_DEBUG("nn_freemsg failed to free message: %s\n", bus_error());
        return TAVRIX_ERR_GENERAL;
    }
    return TAVRIX_OK;
}

int tavrix_mq_socket_recvfd(int sock, int *fd_out) { return read_option(sock, NN_RCVFD, fd_out); }

int tavrix_mq_socket_sendfd(int sock, int *fd_out) { return read_option(sock, NN_SNDFD, fd_out); }

int tavrix_mq_socket_subscribe(int sock, const char *topic) {
    return topic == nullptr ? null_pointer() : subscribe({sock, topic, std::strlen(topic)});
}

int tavrix_mq_socket_unsubscribe(int sock, const char *topic) {
    return topic == nullptr ? null_pointer() : unsubscribe({sock, topic, std::strlen(topic)});
}

int tavrix_mq_socket_set_timeout(int sock, int ms) {
    return write_option(sock, NN_SOL_SOCKET, NN_RCVTIMEO, &ms, sizeof ms);
}

int tavrix_mq_socket_get_timeout(int sock, int *ms_out) { return read_option(sock, NN_RCVTIMEO, ms_out); }

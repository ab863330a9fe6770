/*
 * The bus: a publisher, and a subscriber that is connected to the router and to the other services.
 *
 * The endpoint table follows what the router tells: its own addresses and those of the services that it knows. nanomsg
 * goes on trying to reach an address until it is let go, so nobody who has gone stays in the table.
 */
#include <cerrno>
#include <cstdio>

#include <arpa/inet.h>
#include <nanomsg/nn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"
#include "tavrix_mq.h"

namespace kit {

namespace {

constexpr char unit_name[] = "service_bus";
constexpr int messages_per_turn = 64; // a peer that floods the bus must not keep the rest of the loop waiting
constexpr int port_attempts = 8;
constexpr mode_t private_to_group = 0007;

// --- Sockets -------------------------------------------------------------------------------------------------------

void close_socket(int *socket) {
    if (*socket >= 0) {
        tavrix_mq_socket_close(*socket);
    }
    *socket = -1;
}

bool is_published(const BusLink *bus, const char *address) {
    for (size_t i = 0; i < json_array_size(bus->published); ++i) {
        if (std::strcmp(json_string_value(json_array_get(bus->published, i)), address) == 0) {
            return true;
        }
    }
    return false;
}

/** Binds the publisher to one more address; errno tells why not. */
bool bind_publisher(tavrix_service *service, const char *address) {
    BusLink *bus = &service->bus;
    if (is_published(bus, address)) {
        return true;
    }
    if (bus->pub < 0 && !tavrix::open_bus_socket(TAVRIX_SP_PUB, &bus->pub)) {
        return false;
    }
    int id = 0;
    const mode_t mask = umask(private_to_group); // who may connect to a socket's file is what its mode says
    const int rc = tavrix_mq_socket_bind(bus->pub, transport_of(address), address, &id);
    const int reason = nn_errno();
    umask(mask);
    errno = reason;
    bus->published = bus->published != nullptr ? bus->published : json_array();
    return rc == TAVRIX_OK && json_array_append_new(bus->published, json_string_nocheck(address)) == 0;
}

bool publish_on(tavrix_service *service, const char *address) {
    if (transport_of(address) == 0) {
        LOG_ERROR("Cannot publish on %s: an address begins with tcp:// or ipc:// and has at most %zu bytes\n",
                  Printable(address).text, max_bus_address);
        return false;
    }
    char absolute[max_bus_address + 1];
    tavrix::make_absolute(address, absolute);
    if (!bind_publisher(service, absolute)) {
        if (errno == EADDRINUSE) {
            LOG_ERROR("Cannot publish on %s: %s; is another %s running?\n", Printable(address).text, bus_error(),
                      service->name);
        } else {
            LOG_ERROR("Cannot publish on %s: %s\n", Printable(address).text, bus_error());
        }
        return false;
    }
    return true;
}

/** A loopback port that nobody listens on at the moment; 0 without one. */
unsigned free_port() {
    const tavrix::Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr *>(&address), size) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr *>(&address), &size) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

bool publish_on_free_port(tavrix_service *service) {
    for (int left = port_attempts; left > 0; --left) {
        char address[max_bus_address + 1];
        std::snprintf(address, sizeof address, "tcp://127.0.0.1:%u", free_port());
        if (bind_publisher(service, address)) {
            return true;
        }
    }
    LOG_ERROR("Cannot publish on a free port of 127.0.0.1: %s\n", bus_error());
    return false;
}

/**
 * The router's folder belongs to its group. What root makes there, or a member of the group who has another group of
 * their own, would keep the router out.
 */
void give_to_group_of(const char *folder, const char *path) {
    struct stat place {};
    struct stat file {};
    // A sandbox may forbid the call itself; a service of the group's own user needs none.
    const bool differs = stat(folder, &place) == 0 && stat(path, &file) == 0 && file.st_gid != place.st_gid;
    if (differs && chown(path, static_cast<uid_t>(-1), place.st_gid) != 0) {
        LOG_ERROR("Cannot give %s to the group of its folder: %s; the router may not reach it\n", Printable(path).text,
                  std::strerror(errno));
    }
}

/** The service's own address: in the router's folder, or else a loopback port. Kept over the router's restarts. */
bool publish_where_told(tavrix_service *service, const char *folder) {
    if (service->options.publish != nullptr || (service->options.flags & TAVRIX_SERVICE_SILENT) != 0) {
        return true;
    }
    if (folder == nullptr) {
        return json_array_size(service->bus.published) > 0 || publish_on_free_port(service);
    }
    char address[2 * max_bus_address];
    const int length = std::snprintf(address, sizeof address, "ipc://%s/%s", folder, service->name);
    if (length < 0 || static_cast<size_t>(length) > max_bus_address || has_control_characters(address)) {
        LOG_ERROR("Cannot publish in the router's folder %s: the path would be too long\n", Printable(folder).text);
        return false;
    }
    if (!publish_on(service, address)) {
        return false;
    }
    give_to_group_of(folder, address + std::strlen("ipc://"));
    return true;
}

// --- Endpoints -----------------------------------------------------------------------------------------------------

Endpoint *find_endpoint(BusLink *bus, const char *address) {
    for (size_t i = 0; i < bus->endpoint_count; ++i) {
        if (std::strcmp(bus->endpoints[i].address, address) == 0) {
            return &bus->endpoints[i];
        }
    }
    return nullptr;
}

/** Lets those go that `is_unwanted` names. */
template <class Predicate>
void let_go_if(BusLink *bus, Predicate is_unwanted) {
    for (size_t i = 0; i < bus->endpoint_count;) {
        if (!bus->endpoints[i].fixed && is_unwanted(bus->endpoints[i])) {
            tavrix_mq_socket_shutdown(bus->sub, bus->endpoints[i].id);
            bus->endpoints[i] = bus->endpoints[--bus->endpoint_count];
        } else {
            ++i;
        }
    }
}

bool subscribe(tavrix_service *service) {
    BusLink *bus = &service->bus;
    if (bus->sub >= 0) {
        return true;
    }
    const bool made = tavrix::open_bus_socket(TAVRIX_SP_SUB, &bus->sub) &&
                      tavrix_mq_socket_subscribe(bus->sub, service->channel) == TAVRIX_OK &&
                      (std::strcmp(service->channel, TAVRIX_CHANNEL_DEFAULT) == 0 ||
                       tavrix_mq_socket_subscribe(bus->sub, TAVRIX_CHANNEL_DEFAULT) == TAVRIX_OK);
    if (!made) {
        LOG_ERROR("Cannot make a subscriber: %s\n", bus_error());
        close_socket(&bus->sub);
    }
    return made;
}

bool connect_endpoint(tavrix_service *service, const char *address, const char *owner, bool fixed) {
    BusLink *bus = &service->bus;
    Endpoint *known = find_endpoint(bus, address);
    if (known != nullptr) {
        known->wanted = true;
        return true;
    }
    if (is_published(bus, address) || bus->sub < 0) {
        return true;
    }
    Endpoint endpoint{};
    endpoint.wanted = true;
    endpoint.fixed = fixed;
    const int transport = transport_of(address);
    void *grown = bus->endpoint_count < max_endpoints
                      ? std::realloc(bus->endpoints, (bus->endpoint_count + 1) * sizeof endpoint)
                      : nullptr;
    if (grown != nullptr) {
        bus->endpoints = static_cast<Endpoint *>(grown);
    }
    if (transport == 0 || grown == nullptr ||
        tavrix_mq_socket_connect(bus->sub, transport, address, &endpoint.id) != TAVRIX_OK) {
        LOG_ERROR("Cannot listen to %s: %s\n", Printable(address).text,
                  transport == 0 ? "this is not a bus address"
                                 : (grown == nullptr ? "too many addresses" : bus_error()));
        return false;
    }
    std::snprintf(endpoint.address, sizeof endpoint.address, "%s", address);
    std::snprintf(endpoint.owner, sizeof endpoint.owner, "%s", owner);
    bus->endpoints[bus->endpoint_count++] = endpoint;
    return true;
}

/** Listens to the first that can be: all carry the same, and a request that came over each would be run as often. */
void connect_to_one(tavrix_service *service, const json_t *addresses, const char *owner) {
    bool is_connected = false;
    for (size_t i = 0; i < json_array_size(addresses) && !is_connected; ++i) {
        const char *address = json_string_value(json_array_get(addresses, i));
        is_connected = address != nullptr && connect_endpoint(service, address, owner, false);
    }
}

// --- Frames --------------------------------------------------------------------------------------------------------

/** With a number it is welcomed, under the same. */
void say_hello(tavrix_service *service, uint64_t number) {
    json_t *params = json_pack("{s:s, s:s}", "name", service->name, "channel", service->channel);
    if (number != 0) {
        json_object_set_new(params, "number", json_integer(static_cast<json_int_t>(number)));
    }
    const Text text = request_text(names::hello, params, 0);
    if (text) {
        bus_publish(service, TAVRIX_ROUTER_REPLY_CHANNEL, text.get());
    }
}

/** The router's own words on the bus, to which several services listen; false for any other method. */
bool take_bus_notice(tavrix_service *service, const char *method, const json_t *params) {
    const bool is_probe = std::strcmp(method, names::probe) == 0;
    const bool is_welcome = std::strcmp(method, names::welcome) == 0;
    const char *name = json_string_value(json_object_get(params, "name")); // without one they are for all
    if ((is_probe || is_welcome) && (name == nullptr || std::strcmp(name, service->name) == 0)) {
        if (is_probe) {
            say_hello(service, 0);
        } else if (const json_t *number = json_object_get(params, "number"); json_is_integer(number)) {
            service->bus.heard = static_cast<uint64_t>(json_integer_value(number));
        }
        if (service->session.path[0] == '\0' && service->session.state != session_ready) {
            become_ready(service); // without a session this frame is the only sign that the router is there
        }
    }
    return is_probe || is_welcome;
}

void take_frame(tavrix_service *service, const char *frame, size_t length) {
    const auto *bar = static_cast<const char *>(std::memchr(frame, '|', length));
    if (bar == nullptr) {
        return;
    }
    const auto channel_length = static_cast<size_t>(bar - frame);
    const bool own =
        std::strlen(service->channel) == channel_length && std::memcmp(service->channel, frame, channel_length) == 0;
    Json message(json_loadb(bar + 1, length - channel_length - 1, parse_flags, nullptr));
    const char *method = json_string_value(json_object_get(message.get(), "method"));
    if (method == nullptr || (!own && std::strcmp(method, names::reload_conf) != 0)) {
        return; // on the default channel the others' requests pass by
    }
    if (take_bus_notice(service, method, json_object_get(message.get(), "params"))) {
        return;
    }
    const json_t *id = json_object_get(message.get(), "id");
    const char *channel = json_string_value(id);
    const bool answerable = channel != nullptr && is_method_name(channel);
    if (id != nullptr && !answerable) {
        LOG_DEBUG("%s: a request on the bus whose id is not a channel is passed over\n", Printable(method).text);
        return;
    }
    evaluate(service, std::move(message), {unknown_caller(TAVRIX_ROAD_BUS), channel, nullptr});
}

void on_readable(evutil_socket_t /*fd*/, short /*what*/, void *argument) {
    auto *service = static_cast<tavrix_service *>(argument);
    for (int left = messages_per_turn; left > 0 && service->bus.sub >= 0; --left) {
        char *frame = nullptr;
        int length = 0;
        if (tavrix_mq_socket_recv(service->bus.sub, &frame, &length, 1) != TAVRIX_OK) {
            return;
        }
        const Text owner(frame);
        if (frame != nullptr && length > 0) {
            take_frame(service, frame, static_cast<size_t>(length));
        }
    }
}

} // namespace

const char *bus_error() { return nn_strerror(nn_errno()); }

bool bus_publish_given(tavrix_service *service) {
    const char *const *addresses = service->options.publish;
    bool bound = true;
    for (size_t i = 0; bound && addresses != nullptr && addresses[i] != nullptr; ++i) {
        if (i == TAVRIX_SERVICE_MAX_ADDRESSES) {
            LOG_ERROR("Cannot publish on %s: a service has at most %d addresses\n", Printable(addresses[i]).text,
                      TAVRIX_SERVICE_MAX_ADDRESSES);
            return false;
        }
        bound = publish_on(service, addresses[i]);
    }
    return bound;
}

bool bus_start(tavrix_service *service) {
    BusLink *bus = &service->bus;
    if (bus->sub_listens) {
        return true;
    }
    int descriptor = -1;
    if (!subscribe(service) || tavrix_mq_socket_recvfd(bus->sub, &descriptor) != TAVRIX_OK) {
        return false;
    }
    event_assign(&bus->readable, service->base, descriptor, EV_READ | EV_PERSIST, on_readable, service);
    if (event_add(&bus->readable, nullptr) != 0) {
        LOG_ERROR("Cannot listen to the bus: no memory\n");
        return false;
    }
    bus->sub_listens = true;
    const bool is_direct = service->session.path[0] != '\0' && (service->options.flags & TAVRIX_SERVICE_BUS) == 0;
    bus->said = is_direct ? 0 : 1; // one word of the router first: a request that lay here unread would have no answer
    for (const char *const *address = service->options.connect; address != nullptr && *address != nullptr; ++address) {
        if (!connect_endpoint(service, *address, "", true)) {
            return false;
        }
    }
    return true;
}

bool bus_follow(tavrix_service *service, const json_t *answer) {
    BusLink *bus = &service->bus;
    if (!publish_where_told(service, json_string_value(json_object_get(answer, "folder"))) || !bus_start(service)) {
        return false;
    }
    for (size_t i = 0; i < bus->endpoint_count; ++i) {
        bus->endpoints[i].wanted = false;
    }
    connect_to_one(service, json_object_get(answer, "publish"), "");
    const json_t *services = json_object_get(answer, "services");
    for (size_t i = 0; i < json_array_size(services); ++i) {
        bus_service_up(service, json_array_get(services, i));
    }
    let_go_if(bus, [](const Endpoint &endpoint) { return !endpoint.wanted; });
    return true;
}

void bus_service_up(tavrix_service *service, const json_t *description) {
    const char *name = json_string_value(json_object_get(description, "name"));
    if (name != nullptr && *name != '\0' && std::strcmp(name, service->name) != 0) {
        connect_to_one(service, json_object_get(description, "publish"), name);
    }
}

void bus_service_down(tavrix_service *service, const json_t *params) {
    const char *name = json_string_value(json_object_get(params, "name"));
    if (name != nullptr && *name != '\0') {
        let_go_if(&service->bus, [name](const Endpoint &endpoint) { return std::strcmp(endpoint.owner, name) == 0; });
    }
}

void bus_router_gone(tavrix_service *service) {
    let_go_if(&service->bus, [](const Endpoint &endpoint) { return endpoint.owner[0] == '\0'; });
}

size_t bus_room(const char *channel) {
    constexpr size_t around = sizeof "|"; // the bar, and the terminator that some services send along
    return tavrix::max_frame - std::strlen(channel) - around;
}

int bus_publish(tavrix_service *service, const char *channel, const char *text) {
    if (service->bus.pub < 0) {
        return TAVRIX_ERR_GENERAL;
    }
    const int rc = tavrix_jrpc_mq_pub(&service->bus.pub, channel, text);
    if (rc != TAVRIX_OK) {
        LOG_ERROR("Cannot publish on channel %s: %s\n", Printable(channel).text, bus_error());
    }
    return rc;
}

void bus_answer(tavrix_service *service, const char *channel, const char *text) {
    bus_publish(service, channel, text);
    ++service->bus.said;
}

bool bus_is_heard(tavrix_service *service) {
    BusLink *bus = &service->bus;
    if (bus->heard == bus->said || bus->pub < 0 || service->session.state != session_ready) {
        return true; // without the router nobody would tell
    }
    if (bus->asked != bus->said) {
        bus->asked = bus->said;
        say_hello(service, bus->said);
    }
    return false;
}

void bus_close(tavrix_service *service) {
    BusLink *bus = &service->bus;
    if (bus->sub_listens) {
        event_del(&bus->readable);
    }
    close_socket(&bus->sub);
    close_socket(&bus->pub);
    std::free(bus->endpoints);
    json_decref(bus->published);
    *bus = BusLink{};
}

} // namespace kit

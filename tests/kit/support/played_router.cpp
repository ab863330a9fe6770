#include "kit/support/played_router.h"

#include <cstring>
#include <memory>

#include <event2/event.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/json.h"
#include "tavrix_mq.h"

namespace support {

namespace {

std::string working_directory() {
    char path[512];
    return getcwd(path, sizeof path) != nullptr ? path : "";
}

} // namespace

PlayedRouter::PlayedRouter(std::string path) : path_(std::move(path)) {
    folder = working_directory() + "/bus";
    mkdir(folder.c_str(), 0770);
    bus_address = "ipc://" + folder + "/router";
    listen();
}

PlayedRouter::~PlayedRouter() { die(); }

void PlayedRouter::listen() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path_.c_str());
    unlink(path_.c_str());
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << path_;
    ASSERT_EQ(::listen(listener_, 64), 0);
}

void PlayedRouter::hang_up() {
    if (client_ >= 0) {
        close(client_);
    }
    client_ = -1;
    in_.clear();
    pending_register_.clear();
}

void PlayedRouter::die() {
    hang_up();
    if (listener_ >= 0) {
        close(listener_);
    }
    listener_ = -1;
    unlink(path_.c_str());
}

void PlayedRouter::say_bytes(const std::string &bytes) {
    ASSERT_EQ(send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

void PlayedRouter::say(const std::string &line) { say_bytes(line + "\n"); }

void PlayedRouter::step() {
    const int newcomer = listener_ >= 0 ? accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC) : -1;
    if (newcomer >= 0) {
        hang_up();
        client_ = newcomer;
        const int size = 1 << 20;
        setsockopt(client_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
    char bytes[65536];
    size_t searched = 0;
    const ssize_t count = client_ >= 0 ? recv(client_, bytes, sizeof bytes, 0) : -1;
    if (count == 0) {
        hang_up();
    } else if (count > 0) {
        searched = in_.size();
        in_.append(bytes, static_cast<size_t>(count));
    }
    size_t end = 0;
    while ((end = in_.find('\n', searched)) != std::string::npos) {
        searched = 0;
        const std::string line = in_.substr(0, end);
        in_.erase(0, end + 1);
        take_line(line);
    }
    settle();
}

void PlayedRouter::result(const json_t *id, const std::string &value) {
    say("{\"jsonrpc\":\"2.0\",\"id\":" + rendered(id) + ",\"result\":" + value + "}");
}

void PlayedRouter::answer(const json_t *request, const std::string &method) {
    const json_t *id = json_object_get(request, "id");
    const json_t *params = json_object_get(request, "params");
    if (method == "router.Bus") {
        if (settles) {
            open_bus();
        }
        result(id, R"({"publish":[")" + bus_address + R"("],"folder":)" +
                       (folder.empty() ? "null" : "\"" + folder + "\"") + ",\"services\":" + services +
                       ",\"reply_timeout_ms\":" + std::to_string(reply_timeout_ms) + "}");
    } else if (method == "router.Register") {
        registration = rendered(params);
        if (!register_error.empty()) {
            say("{\"jsonrpc\":\"2.0\",\"id\":" + rendered(id) + ",\"error\":" + register_error + "}");
        } else if (!settles) {
            result(id, "0");
        } else {
            pending_register_ = rendered(id);
            connected_address_ = json_string_value(json_array_get(json_object_get(params, "publish"), 0));
        }
    } else if (method == "router.Describe") {
        description = rendered(json_object_get(params, "document"));
        if (describe_error.empty()) {
            result(id, "0");
        } else {
            say("{\"jsonrpc\":\"2.0\",\"id\":" + rendered(id) + ",\"error\":" + describe_error + "}");
        }
    } else {
        patterns = method + " " + rendered(json_object_get(params, "methods"));
        result(id, "0");
    }
}

void PlayedRouter::take_line(const std::string &line) {
    const Json message(json_loads(line.c_str(), JSON_DISABLE_EOF_CHECK, nullptr));
    const char *method = json_string_value(json_object_get(message.get(), "method"));
    if (method != nullptr) {
        heard_methods.emplace_back(method);
    }
    if (polite && method != nullptr && std::string(method).rfind("router.", 0) == 0) {
        answer(message.get(), method);
        return;
    }
    lines.push_back(line);
}

/** Before a service hears of the address: nanomsg tries again only after a while. */
void PlayedRouter::open_bus() {
    if (pub.number < 0) {
        tavrix_mq_socket_init(TAVRIX_SP_PUB, &pub.number);
        tavrix_mq_socket_init(TAVRIX_SP_SUB, &sub.number);
        int id = 0;
        const int transport = bus_address.rfind("ipc", 0) == 0 ? TAVRIX_TRANSPORT_IPC : TAVRIX_TRANSPORT_TCP;
        ASSERT_EQ(tavrix_mq_socket_bind(pub.number, transport, bus_address.c_str(), &id), TAVRIX_OK);
        tavrix_mq_socket_subscribe(sub.number, TAVRIX_ROUTER_REPLY_CHANNEL);
        tavrix_mq_socket_subscribe(sub.number, "t.");
    }
}

void PlayedRouter::settle() {
    if (pending_register_.empty()) {
        return;
    }
    if (!connected_address_.empty()) {
        int id = 0;
        const int transport = connected_address_.rfind("ipc", 0) == 0 ? TAVRIX_TRANSPORT_IPC : TAVRIX_TRANSPORT_TCP;
        ASSERT_EQ(tavrix_mq_socket_connect(sub.number, transport, connected_address_.c_str(), &id), TAVRIX_OK);
        connected_address_.clear();
    }
    const std::string probe = std::string(TAVRIX_CHANNEL_DEFAULT) +
                              R"(|{"jsonrpc":"2.0","method":"service.Probe","params":{"name":"tester"}})";
    tavrix_mq_socket_send(pub.number, probe.c_str());
    for (std::string frame; take_frame(sub.number, &frame, 1);) {
        if (frame.find("router.Hello") != std::string::npos && !pending_register_.empty()) {
            say("{\"jsonrpc\":\"2.0\",\"id\":" + pending_register_ + ",\"result\":0}");
            pending_register_.clear();
        }
    }
}

// --- Stage ---------------------------------------------------------------------------------------------------------

Stage::Stage() = default;

Stage::Stage(const tavrix_service_method *methods, tavrix_service_options options,
             const std::function<void(PlayedRouter &)> &prepare) {
    router.settles = false;
    if (prepare) {
        prepare(router);
    }
    open(methods, options);
    EXPECT_TRUE(wait_ready());
}

Stage::~Stage() { tavrix_service_close(service); }

void Stage::open(const tavrix_service_method *methods, tavrix_service_options options) {
    options.name = options.name != nullptr ? options.name : "tester";
    options.methods = methods;
    options.session = options.session != nullptr ? options.session : "session.sock";
    options.flags |= TAVRIX_SERVICE_NO_SIGNALS;
    ASSERT_EQ(tavrix_service_open(&options, &service), TAVRIX_OK);
    ASSERT_EQ(tavrix_service_start(service), TAVRIX_OK);
}

void Stage::step() {
    router.step();
    if (service != nullptr) {
        event_base_loop(tavrix_service_base(service), EVLOOP_NONBLOCK);
    }
}

bool Stage::wait(const std::function<bool()> &condition, int timeout_ms) {
    return wait_until(
        [&] {
            step();
            return condition();
        },
        timeout_ms);
}

bool Stage::wait_ready() {
    return wait([this] { return tavrix_service_is_ready(service); });
}

std::string Stage::next() {
    if (!wait([this] { return !router.lines.empty(); })) {
        return "(nothing)";
    }
    std::string line = router.lines.front();
    router.lines.pop_front();
    return line;
}

std::string Stage::ask(const std::string &method, const std::string &params, int transaction_id) {
    router.say(direct_request(method, params, transaction_id));
    return next();
}

std::string direct_request(const std::string &method, const std::string &params, int transaction_id) {
    return R"({"jsonrpc":"2.0","method":")" + method + R"(","transaction_id":)" + std::to_string(transaction_id) +
           R"(,"params":)" + params + R"(,"id":")" + TAVRIX_ROUTER_REPLY_CHANNEL + "\"}";
}

} // namespace support

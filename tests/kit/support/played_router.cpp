#include "kit/support/played_router.h"

#include <filesystem>

#include <event2/event.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/names.h"
#include "support/json.h"
#include "tavrix_mq.h"

namespace support {

namespace names = tavrix::names;

static constexpr char session_path[] = "session.sock";

PlayedRouter::PlayedRouter() {
    folder = std::filesystem::current_path().string() + "/bus";
    mkdir(folder.c_str(), 0770);
    bus_address = "ipc://" + folder + "/router";
    listen();
}

PlayedRouter::~PlayedRouter() { die(); }

void PlayedRouter::listen() {
    const sockaddr_un address = unix_address(session_path);
    unlink(session_path);
    listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener_.get(), 64), 0);
}

void PlayedRouter::hang_up() {
    client_.reset();
    in_.clear();
    pending_register_.clear();
}

void PlayedRouter::die() {
    hang_up();
    listener_.reset();
    unlink(session_path);
}

void PlayedRouter::say_bytes(const std::string &bytes) {
    ASSERT_EQ(send(client_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

void PlayedRouter::say(const std::string &line) { say_bytes(line + "\n"); }

void PlayedRouter::step() {
    const int newcomer = listener_ ? accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC) : -1;
    if (newcomer >= 0) {
        hang_up();
        client_.reset(newcomer);
        const int size = 1 << 20;
        setsockopt(newcomer, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
    char bytes[65536];
    size_t searched = 0;
    const ssize_t count = client_ ? recv(client_.get(), bytes, sizeof bytes, 0) : -1;
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

void PlayedRouter::reply(const std::string &id, const std::string &error, const std::string &result) {
    const std::string outcome = error.empty() ? "\"result\":" + result : "\"error\":" + error;
    say("{\"jsonrpc\":\"2.0\",\"id\":" + id + "," + outcome + "}");
}

void PlayedRouter::answer(const json_t *request, const std::string &method) {
    const std::string id = rendered(json_object_get(request, "id"));
    const json_t *params = json_object_get(request, "params");
    if (method == names::bus) {
        if (settles) {
            open_bus();
        }
        reply(id, "",
              R"({"publish":[")" + bus_address + R"("],"folder":)" + (folder.empty() ? "null" : "\"" + folder + "\"") +
                  ",\"services\":" + services + ",\"reply_timeout_ms\":" + std::to_string(reply_timeout_ms) + "}");
    } else if (method == names::register_service) {
        registration = rendered(params);
        if (settles && register_error.empty()) {
            pending_register_ = id;
            connected_address_ = json_string_value(json_array_get(json_object_get(params, "publish"), 0));
        } else {
            reply(id, register_error);
        }
    } else if (method == names::describe) {
        description = rendered(json_object_get(params, "document"));
        reply(id, describe_error);
    } else {
        patterns = method + " " + rendered(json_object_get(params, "methods"));
        reply(id, "");
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
        pub.bind(bus_address);
        tavrix_mq_socket_subscribe(sub.number, TAVRIX_ROUTER_REPLY_CHANNEL);
        tavrix_mq_socket_subscribe(sub.number, "t.");
    }
}

void PlayedRouter::settle() {
    if (pending_register_.empty()) {
        return;
    }
    if (!connected_address_.empty()) {
        sub.connect(std::exchange(connected_address_, ""));
    }
    const std::string probe = std::string(TAVRIX_CHANNEL_DEFAULT) +
                              R"(|{"jsonrpc":"2.0","method":"service.Probe","params":{"name":"tester"}})";
    tavrix_mq_socket_send(pub.number, probe.c_str());
    for (std::string frame; take_frame(sub.number, &frame, 1);) {
        if (frame.find(names::hello) != std::string::npos && !pending_register_.empty()) {
            reply(std::exchange(pending_register_, ""), "");
        }
    }
}

static json_int_t n_of(const tavrix_call *call) {
    return json_integer_value(json_object_get(tavrix_call_params(call), "n"));
}

int accept(tavrix_call * /*call*/) { return TAVRIX_OK; }

int echo(tavrix_call *call) {
    json_t *params = tavrix_call_params(call);
    return params != nullptr ? tavrix_call_reply(call, json_incref(params)) : TAVRIX_OK;
}

int fill(tavrix_call *call) {
    return tavrix_call_reply(call, json_string(std::string(static_cast<size_t>(n_of(call)), 'x').c_str()));
}

int nest(tavrix_call *call) {
    json_t *value = json_array();
    for (json_int_t left = n_of(call); left > 1; --left) {
        value = json_pack("[o]", value);
    }
    return tavrix_call_reply(call, value);
}

int defer(tavrix_call *call) {
    deferred = tavrix_call_defer(
        call, [](tavrix_call * /*call*/, void * /*user*/) { ++abandoned; }, nullptr);
    return TAVRIX_OK;
}
uint64_t deferred = 0;
int abandoned = 0;

std::string caller_of(const tavrix_call *call) {
    static const char *const roads[] = {"session", "bus", "unix", "tcp", "pull"};
    const tavrix_caller caller = tavrix_call_caller(call);
    return std::string(roads[caller.road]) + " " + std::to_string(caller.pid) + " " + std::to_string(caller.uid) + " " +
           std::to_string(caller.gid);
}

std::string outcome_of(const tavrix_answer *answer) {
    static const char *const names[] = {"result", "error", "time-out", "gone", "cancelled"};
    return std::string(names[answer->outcome]) + " " + std::to_string(answer->code);
}

Methods::Methods(std::initializer_list<Row> rows) {
    for (const Row &row : rows) {
        table.push_back(TAVRIX_METHOD(row.name, row.handler, "Does one thing.", row.params, row.result, row.flags));
    }
    table.push_back(TAVRIX_METHOD_END);
}

static tavrix_service *started(const tavrix_service_method *methods, tavrix_service_options options) {
    options.name = options.name != nullptr ? options.name : "tester";
    options.methods = methods;
    options.session = options.session != nullptr ? options.session : session_path;
    options.flags |= TAVRIX_SERVICE_NO_SIGNALS;
    tavrix_service *service = nullptr;
    EXPECT_EQ(tavrix_service_open(&options, &service), TAVRIX_OK);
    EXPECT_EQ(tavrix_service_start(service), TAVRIX_OK);
    return service;
}

Service started_service(const char *name, const tavrix_service_method *methods, tavrix_service_options options) {
    options.name = name;
    Service service(started(methods, options));
    EXPECT_TRUE(wait_until([&] {
        event_base_loop(tavrix_service_base(service.get()), EVLOOP_NONBLOCK);
        return tavrix_service_is_ready(service.get());
    })) << name;
    return service;
}

Stage::Stage() {
    deferred = 0;
    abandoned = 0;
}

Stage::Stage(const tavrix_service_method *methods, const tavrix_service_options &options,
             const std::function<void(PlayedRouter &)> &prepare)
    : Stage() {
    if (prepare) {
        prepare(router);
    }
    serve(methods, options);
}

Stage::~Stage() { close(); }

void Stage::close() {
    tavrix_service_close(service);
    service = nullptr;
}

void Stage::open(const tavrix_service_method *methods, const tavrix_service_options &options) {
    service = started(methods, options);
}

void Stage::serve(const tavrix_service_method *methods, const tavrix_service_options &options) {
    router.settles = false;
    open(methods, options);
    EXPECT_TRUE(wait_ready());
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

void Stage::restart_router() {
    router.die();
    EXPECT_TRUE(wait([this] { return !tavrix_service_is_ready(service); }));
    router.listen();
    EXPECT_TRUE(wait_ready());
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

std::string Stage::result_of(const std::string &method, const std::string &params) {
    return member(ask(method, params), "result");
}

std::string Stage::code_of(const std::string &method, const std::string &params) {
    return support::code_of(ask(method, params));
}

std::string Stage::hear(const StreamClient &client) {
    std::string text;
    return wait([&] { return client.take(&text); }) ? text : "(time-out)";
}

std::string direct_request(const std::string &method, const std::string &params, int transaction_id) {
    return R"({"jsonrpc":"2.0","method":")" + method + R"(","transaction_id":)" + std::to_string(transaction_id) +
           R"(,"params":)" + params + R"(,"id":")" + TAVRIX_ROUTER_REPLY_CHANNEL + "\"}";
}

} // namespace support

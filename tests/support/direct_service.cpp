#include "support/direct_service.h"

#include <stdexcept>

#include <sys/socket.h>

#include "support/json.h"

namespace support {

namespace {

constexpr char first_channel[] = "3a6f8f51-502f-4238-9638-29764ff1a8a4";

std::string quoted_list(const std::vector<std::string> &words) {
    std::string list;
    for (const std::string &word : words) {
        list += (list.empty() ? "\"" : ",\"") + word + "\"";
    }
    return "[" + list + "]";
}

} // namespace

DirectService::DirectService(const std::string &name, const std::vector<std::string> &methods, Handler handler)
    : session_(StreamClient::unix_path("session.sock")), handler_(std::move(handler)) {
    session_.say(request("router.Register", "1",
                         R"(,"params":{"name":")" + name + R"(","channel":")" + first_channel +
                             R"(","publish":[],"direct":true,"methods":)" + quoted_list(methods) + "}") +
                 "\n");
    const std::string answer = next_line();
    if (member(answer, "result") != "0") {
        throw std::runtime_error("the played service is not registered: " + answer);
    }
    thread_ = std::thread([this] { serve(); });
}

DirectService::~DirectService() {
    shutdown(session_.fd(), SHUT_RDWR);
    thread_.join();
}

std::string DirectService::accept_all(const std::string & /*method*/, const std::string & /*params*/) {
    return R"("result":0)";
}

void DirectService::publish(const std::string &method, const std::string &params) const {
    session_.say(R"({"jsonrpc":"2.0","method":")" + method + R"(","params":)" + params + "}\n");
}

std::string DirectService::next_line() {
    char chunk[4096];
    size_t end = 0;
    while ((end = received_.find('\n')) == std::string::npos) {
        const ssize_t got = recv(session_.fd(), chunk, sizeof chunk, 0);
        if (got <= 0) {
            return "";
        }
        received_.append(chunk, static_cast<size_t>(got));
    }
    std::string line = received_.substr(0, end);
    received_.erase(0, end + 1);
    return line;
}

void DirectService::serve() {
    for (std::string line = next_line(); !line.empty(); line = next_line()) {
        take(line);
    }
}

void DirectService::take(const std::string &line) const {
    const std::string quoted = member(line, "method");
    if (member(line, "id") == "(none)") {
        return; // what the router tells its services
    }
    const std::string said = handler_(quoted.substr(1, quoted.size() - 2), member(line, "params"));
    if (!said.empty()) {
        session_.say(R"({"jsonrpc":"2.0","id":)" + quoted + "," + said + R"(,"transaction_id":)" +
                     member(line, "transaction_id") + "}\n");
    }
}

} // namespace support

#include "support/answering_service.h"

#include <sys/socket.h>

#include "support/json.h"

namespace support {

namespace {

constexpr int for_ever_ms = 3600000;

std::string quoted_list(const std::vector<std::string> &words) {
    std::string list;
    for (const std::string &word : words) {
        list += (list.empty() ? "\"" : ",\"") + word + "\"";
    }
    return "[" + list + "]";
}

} // namespace

AnsweringService::AnsweringService(const std::string &name, const std::vector<std::string> &methods, Handler handler)
    : session_({name, TAVRIX_CHANNEL_FIRST, "[]", quoted_list(methods), "true"}), handler_(std::move(handler)) {
    thread_ = std::thread([this] {
        for (std::string line = session_.hear(for_ever_ms); line[0] == '{'; line = session_.hear(for_ever_ms)) {
            take(line);
        }
    });
}

AnsweringService::~AnsweringService() {
    shutdown(session_.fd(), SHUT_RDWR);
    thread_.join();
}

std::string AnsweringService::accept_all(const std::string & /*method*/, const std::string & /*params*/) {
    return R"("result":0)";
}

void AnsweringService::take(const std::string &line) const {
    const std::string quoted = member(line, "method");
    if (id_of(line) == "(none)") {
        return; // what the router tells its services
    }
    const std::string said = handler_(quoted.substr(1, quoted.size() - 2), member(line, "params"));
    if (!said.empty()) {
        session_.say(R"({"jsonrpc":"2.0","id":)" + quoted + "," + said + R"(,"transaction_id":)" +
                     member(line, "transaction_id") + "}");
    }
}

} // namespace support

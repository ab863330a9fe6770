#include "support/answering_service.h"

#include <sys/socket.h>

#include "support/json.h"

namespace support {

namespace {

constexpr int for_ever_ms = 3600000;

} // namespace

AnsweringService::AnsweringService(const std::string &name, const std::vector<std::string> &methods, Handler handler)
    : session_({name, TAVRIX_CHANNEL_FIRST, "[]",
                array_of(methods.size(), [&methods](size_t i) { return "\"" + methods[i] + "\""; }), "true"}),
      handler_(std::move(handler)) {
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

void AnsweringService::take(const std::string &line) const {
    const std::string quoted = member(line, "method");
    if (id_of(line) == "(none)") {
        return; // what the router tells its services
    }
    const std::string said =
        handler_ ? handler_(quoted.substr(1, quoted.size() - 2), member(line, "params")) : R"("result":0)";
    if (!said.empty()) {
        session_.say(R"({"jsonrpc":"2.0","id":)" + quoted + "," + said + R"(,"transaction_id":)" +
                     member(line, "transaction_id") + "}");
    }
}

} // namespace support

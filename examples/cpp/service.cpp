/*
 * The smallest service: answers hello.Say on the default channel until SIGTERM.
 * usage: service PUBLISH_ADDRESS ROUTER_ADDRESS      e.g. service tcp://127.0.0.1:7102 tcp://127.0.0.1:7101
 */
#include <array>
#include <csignal>

#include <tavrix.h>

namespace {

volatile std::sig_atomic_t stop = 0;

int say(json_t *params, json_t **result, json_t **error_data) {
    std::array<char, 64> text{};
    const int rc = tavrix_jrpc_utils_parse_input_string(params, error_data, "text", text.data(), text.size());
    if (rc != TAVRIX_OK) {
        return rc; // what was wrong with the parameter is in *error_data already
    }
    if (json_string_length(json_object_get(params, "text")) >= text.size()) {
        return TAVRIX_ERR_INVALID_PARAMETER; // it was cut to the buffer, perhaps inside a character
    }
    *result = json_pack("{s:s}", "said", text.data());
    return TAVRIX_OK;
}

constexpr tavrix_jrpc_method methods[] = {{"hello.Say", say}, {nullptr, nullptr}};

/** A bus socket, closed with its scope. */
struct BusSocket {
    int number = -1;
    ~BusSocket() {
        if (number >= 0) {
            tavrix_mq_socket_close(number);
        }
    }
};

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = [](int) { stop = 1; }; // no SA_RESTART: a waiting receive has to come back
    sigaction(SIGTERM, &action, nullptr);
    tavrix_lsyslog_init("hello");
    BusSocket pub;
    BusSocket sub;
    if (tavrix_jrpc_mq_pub_init(argv[1], &pub.number) != TAVRIX_OK ||
        tavrix_jrpc_mq_sub_init(&sub.number, 1) != TAVRIX_OK ||
        tavrix_jrpc_mq_sub_set_channel(argv[2], TAVRIX_CHANNEL_DEFAULT, &sub.number) != TAVRIX_OK) {
        return 1;
    }
    while (stop == 0) {
        tavrix_jrpc_mq_run(&sub.number, &pub.number, methods, 0); // one request, or a second without any
    }
    return 0;
}

/*
 * tavrix-routerd: the router between client sockets and the bus.
 *
 *     tavrix-routerd --socket /run/tavrix/router.sock --publish tcp://127.0.0.1:7001 --connect tcp://127.0.0.1:7002
 */
#include "common/log.h"
#include "common/options.h"
#include "common/signals.h"
#include "router.h"

namespace {

constexpr char unit_name[] = "routerd";
constexpr int longest_timeout_ms = 24 * 60 * 60 * 1000;

} // namespace

int main(int argc, char **argv) {
    router::Config config;
    std::string name = "routerd";
    daemon_support::Options options("tavrix-routerd", "routerd", "Carries requests from client sockets to the bus.",
                                    "tavrix-routerd --socket /run/tavrix/router.sock --publish tcp://127.0.0.1:7001 "
                                    "--connect tcp://127.0.0.1:7002");
    options.text("name", "NAME", "the daemon's name in the logger's configuration", &name);
    options.text("socket", "PATH", "unix socket to listen on, in a folder that exists", &config.socket_path);
    options.number("tcp", "PORT",
                   "TCP port to listen on, on every address, 0 for none; one that is not free yet is tried again", 0,
                   65535, &config.tcp_port);
    options.text("publish", "ADDRESS", "bus address to publish on", &config.publish);
    options.list("connect", "ADDRESS", "a service's bus address; may be repeated", &config.connect);
    options.number("reply-timeout", "MS", "how long a service may take to reply", 1, longest_timeout_ms,
                   &config.reply_timeout_ms);
    options.number("client-timeout", "MS",
                   "how long each client may keep silent, or not read; the others wait meanwhile", 1,
                   longest_timeout_ms, &config.client_timeout_ms);
    options.note(
        "One client is served at a time, in the order in which they connected, and the time-outs of those\n"
        "before it add up: behind ten silent clients the next one waits ten times --client-timeout. Unix socket\n"
        "and TCP port take turns.\n"
        "\n"
        "Every local user may connect to the unix socket, and there also ask router.Lock, router.Unlock and\n"
        "router.Status of the router itself. Over TCP these are refused.");
    int exit_status = 0;
    if (!options.parse(argc, argv, &exit_status)) {
        return exit_status;
    }
    tavrix_lsyslog_init(name.c_str());
    router::Router router(config);
    if (!daemon_support::install_signals() || !router.open()) {
        LOG_ERROR("routerd cannot start\n");
        return 1;
    }
    router.serve();
    return 0;
}

/*
 * tavrix-routerd: the router between clients and services.
 */
#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "base/options.h"
#include "common/notify.h"
#include "router.h"

namespace {

constexpr char unit_name[] = "routerd";
constexpr int longest_timeout_ms = 24 * 60 * 60 * 1000;
constexpr int most_clients = 100000;

/** Services that are started after this find the sockets. */
void notify_manager() {
    const char *path = tavrix::ready_notice_address();
    if (path != nullptr && !tavrix::send_ready_notice(path)) {
        LOG_ERROR("Cannot tell the service manager that the router is ready: %s\n", std::strerror(errno));
    }
}

} // namespace

int main(int argc, char **argv) {
    router::Config config;
    std::string name = "routerd";
    daemon_support::Options options("tavrix-routerd", "routerd", "Carries requests from clients to services.",
                                    "tavrix-routerd --tcp 8090 --policy /etc/tavrix/policy.conf");
    options.text("name", "NAME", "the daemon's name in the logger's configuration", &name);
    options.text("socket", "PATH", "unix socket for one request a connection, in a folder that exists",
                 &config.socket_path);
    options.text("session", "PATH", "unix socket for sessions and services; empty for none", &config.session_path);
    options.number("tcp", "PORT",
                   "TCP port for one request a connection, 0 for none; one that is not free yet is tried again", 0,
                   65535, &config.tcp_port);
    options.text("tcp-address", "ADDRESS", "where the TCP port listens; 0.0.0.0 is everywhere", &config.tcp_address);
    options.list("publish", "ADDRESS", "bus address to publish on, ipc:// or tcp://; may be repeated", &config.publish);
    options.list("connect", "ADDRESS", "bus address of a service that does not register; may be repeated",
                 &config.connect);
    options.text("policy", "FILE", "who may call what, see below", &config.policy);
    options.number("reply-timeout", "MS", "how long a service may take to reply", 1, longest_timeout_ms,
                   &config.reply_timeout_ms);
    options.number("client-timeout", "MS", "how long a client may take to send its request, or to read its answer", 1,
                   longest_timeout_ms, &config.client_timeout_ms);
    options.number("max-clients", "N", "connections at a time; one user gets half of what the others leave", 2,
                   most_clients, &config.max_clients);
    options.number("max-in-flight", "N", "requests at a time for each service; one user gets half as above", 2,
                   most_clients, &config.max_in_flight);
    options.note(
        "Every local user may connect to the two unix sockets and call the services. router.Lock, router.Unlock,\n"
        "router.Register, router.Bus and router.Monitor are for root, this daemon's user and its group. Over TCP\n"
        "nothing is allowed until a policy says so: a file with sections [unix], [tcp] and [session], whose lines are\n"
        "all=PATTERN,... or user.NAME=... or group.NAME=... SIGHUP reads it again.\n"
        "\n"
        "The folder of an ipc address is made for this daemon's group. Who can reach a bus address can read requests,\n"
        "answer in a service's place, and end this daemon with a malformed message: keep tcp:// bus addresses on\n"
        "127.0.0.1, and without users whom you do not trust.");
    int exit_status = 0;
    if (!options.parse(argc, argv, &exit_status)) {
        return exit_status;
    }
    daemon_support::never_wait_for_log();
    tavrix_lsyslog_init(name.c_str());
    router::Router router(config);
    if (!router.open()) {
        LOG_ERROR("routerd cannot start\n");
        return 1;
    }
    notify_manager();
    return router.serve() ? 0 : 1;
}

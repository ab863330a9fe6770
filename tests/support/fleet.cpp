#include "support/fleet.h"

#include <stdexcept>

#include <sys/mman.h>

#include "support/fleet_database.h"
#include "support/json.h"
#include "tavrix_jrpc.h"
#include "tavrix_mq.h"

namespace support {

std::unique_ptr<Process> started_router(const std::string &address, const std::vector<std::string> &more,
                                        const std::string &folder) {
    return started("routerd",
                   {TAVRIX_ROUTERD, "--socket", folder + "router.sock", "--session", folder + "session.sock",
                    "--publish", address},
                   more);
}

Fleet::Fleet() {
    write_log_levels("routerd=info\nportsd=info\neventsd=info\nunit-test=off");
    make_fleet_database();
}

Process &Fleet::start_lone_router(const std::vector<std::string> &more) {
    router.reset();
    router = started_router(router_address, more);
    return *router;
}

Process &Fleet::start_router(const std::vector<std::string> &more) {
    std::vector<std::string> arguments = {"--connect", ports_address};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return start_lone_router(arguments);
}

Process &Fleet::start_router_with_tcp(int port, std::vector<std::string> more) {
    more.insert(more.end(), {"--connect", ports_address});
    return start_lone_router_with_tcp(port, more);
}

Process &Fleet::start_lone_router_with_tcp(int port, std::vector<std::string> more) {
    write_file("policy.conf", "[tcp]\nall=*\n");
    more.insert(more.end(), {"--tcp", std::to_string(port), "--policy", "policy.conf"});
    return start_lone_router(more);
}

Process &Fleet::start_ports(const std::vector<std::string> &more) {
    ports.reset();
    ports = started("portsd", {TAVRIX_PORTSD, "--session", "session.sock", "--publish", ports_address}, more);
    return *ports;
}

Process &Fleet::start_events(const std::string &interval_ms, const std::vector<std::string> &more) {
    write_file("links.txt", "# port and state\nc1-1 up\n\nd2 down\n");
    events.reset();
    events =
        started("eventsd",
                {TAVRIX_EVENTSD, "--session", "session.sock", "--publish", events_address, "--socket", "events.sock",
                 "--pull", pull_address, "--script", "links.txt", "--interval", interval_ms, "--slot", slot},
                more);
    const std::string shared = "/dev/shm" + slot; // which comes right after the line
    if (!wait_until([&] { return access(shared.c_str(), F_OK) == 0; })) {
        throw std::runtime_error("the events service does not make its slot: " + events->log());
    }
    return *events;
}

Fleet::~Fleet() { shm_unlink(slot.c_str()); }

std::string Fleet::ask(const std::string &request) const { return connect().ask(request); }

std::string Fleet::status(const char *key) const { return result_of(ask(request("router.Status", "1")), key); }

void write_log_levels(const std::string &levels) {
    write_file("tavrix_lsyslog.conf", "[logging_levels]\n" + levels + "\n");
}

PlayedService::PlayedService(const Fleet &fleet, const std::string &channel, const std::string &address)
    : pub(TAVRIX_SP_PUB), sub(TAVRIX_SP_SUB) {
    pub.bind(address);
    sub.connect(fleet.router_address);
    tavrix_mq_socket_subscribe(sub.number, channel.c_str());
}

PlayedService::PlayedService(const Fleet &fleet, const std::string &channel)
    : PlayedService(fleet, channel, fleet.ports_address) {
    const bool settled = wait_until([&] {
        reply(notification("router.Hello", R"({"name":"played","channel":")" + channel + "\"}"));
        return next_request(50).find("service.Welcome") != std::string::npos;
    });
    if (!settled) {
        throw std::runtime_error("the router does not welcome the played service");
    }
    // Welcomes to repeated hellos may still be on their way.
    while (next_request(100) != "(nothing)") {
    }
}

void PlayedService::reply(const std::string &json) const { publish(TAVRIX_ROUTER_REPLY_CHANNEL, json); }

void PlayedService::reply(const std::string &request, const std::string &result) const {
    reply(service_reply(request, result));
}

void PlayedService::publish(const std::string &channel, const std::string &text) const {
    tavrix_mq_socket_send(pub.number, (channel + "|" + text).c_str());
}

} // namespace support

/*
 * tavrix-eventsd: the events service. Plays link changes from a script, keeps them, and tells of them.
 *
 *     tavrix-eventsd --publish tcp://127.0.0.1:7003 --connect tcp://127.0.0.1:7001 --script links.txt --interval 1000
 */

#include <cerrno>

#include <poll.h>

#include "common/log.h"
#include "common/options.h"
#include "common/service.h"
#include "common/signals.h"
#include "common/unix_listener.h"
#include "methods.h"

namespace {

using daemon_support::BusSocket;
using daemon_support::Service;

constexpr char unit_name[] = "eventsd";
constexpr int client_timeout_ms = 500;
constexpr int pause_ms = 200;
constexpr int longest_time_ms = 24 * 60 * 60 * 1000;

struct Config {
    daemon_support::ServiceConfig service;
    std::string ports_address;
    std::string socket_path;
    std::string pull_address;
    std::string script;
    std::string slot = "/tavrix_last_event";
    int interval_ms = 1000;
    int wait_timeout_ms = 5000;
};

/** A descriptor from the timer family, released with its scope. */
class Timer {
  public:
    Timer() = default;
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;
    ~Timer() {
        if (fd_ >= 0) {
            tavrix_timer_free(&fd_);
        }
    }
    bool start(int interval_ms) {
        const float seconds = static_cast<float>(interval_ms) / 1000.0F;
        return tavrix_timer_init(&fd_, 1) == TAVRIX_OK && tavrix_timer_nsec_set(fd_, seconds, seconds) == TAVRIX_OK;
    }
    int get() const { return fd_; }

  private:
    int fd_ = -1;
};

/** Everything that lives beside the service's own endpoint. */
class EventsDaemon {
  public:
    explicit EventsDaemon(const Config &config)
        : config_(config), table_(events::methods()), service_(config.service, table_) {
        table_.push_back({nullptr, nullptr});
    }
    EventsDaemon(const EventsDaemon &) = delete;
    EventsDaemon &operator=(const EventsDaemon &) = delete;

    bool open() {
        const bool with_ports = !config_.ports_address.empty();
        if (!service_.open() || !open_script() || !open_direct() || !open_pull() || (with_ports && !open_ports())) {
            return false;
        }
        events::set_service({&log_, with_ports ? &ports_ : nullptr});
        return log_.open(config_.slot); // last: what fails to start leaves a running daemon's slot alone
    }
    bool serve() { return service_.serve(); }

  private:
    bool open_script() {
        if (config_.script.empty()) {
            return true;
        }
        if (!events::read_script(config_.script, &script_) || !timer_.start(config_.interval_ms)) {
            return false;
        }
        service_.watch(script_watch());
        return true;
    }

    daemon_support::Watch script_watch() {
        return {timer_.get(), [this] { on_timer(); }};
    }

    void on_timer() {
        if (tavrix_timer_read(timer_.get()) == TAVRIX_OK && !script_.empty()) {
            const events::LinkChange &change = script_[next_++ % script_.size()];
            events::publish_link_changed(service_.publisher(), log_.add("link", change.port_id, change.state));
        }
    }

    bool open_direct() {
        if (config_.socket_path.empty()) {
            return true;
        }
        if (!listener_.open(config_.socket_path)) {
            return false;
        }
        service_.watch({*listener_.socket().get(), [this] { serve_direct(); }});
        return true;
    }

    void serve_direct() {
        // A silent client holds nobody up for longer; a handler that waits has a bound of its own.
        const daemon_support::Interruption bound(client_timeout_ms);
        errno = 0;
        tavrix_jrpc_unix_socket_run(listener_.socket().get(), table_.data());
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            poll(nullptr, 0, pause_ms); // the client waits on the listener: poll would come back at once
        }
    }

    bool open_pull() {
        if (config_.pull_address.empty()) {
            return true;
        }
        int descriptor = -1;
        if (tavrix_jrpc_pull_socket_init(config_.pull_address.c_str(), pull_.place()) != TAVRIX_OK ||
            tavrix_mq_socket_recvfd(*pull_.get(), &descriptor) != TAVRIX_OK ||
            // What poll has seen may be gone with its sender by now: only what is there is received.
            tavrix_mq_socket_set_timeout(*pull_.get(), 0) != TAVRIX_OK) {
            LOG_ERROR("Cannot take one-way requests on %s\n", config_.pull_address.c_str());
            return false;
        }
        service_.watch({descriptor, [this] { tavrix_jrpc_pull_socket_run(*pull_.get(), table_.data()); }});
        return true;
    }

    bool open_ports() {
        // The script plays on while a call waits: the ports service may be waiting for one of its link changes.
        std::vector<daemon_support::Watch> meanwhile;
        if (!script_.empty()) {
            meanwhile.push_back(script_watch());
        }
        if (!ports_.open(config_.ports_address, service_.publisher(), config_.wait_timeout_ms, meanwhile)) {
            LOG_ERROR("Cannot listen to %s\n", config_.ports_address.c_str());
            return false;
        }
        return true;
    }

    Config config_;
    std::vector<tavrix_jrpc_method> table_;
    Service service_;
    events::Log log_;
    events::PortsClient ports_;
    std::vector<events::LinkChange> script_;
    size_t next_ = 0;
    Timer timer_;
    daemon_support::UnixListener listener_;
    BusSocket pull_;
};

} // namespace

int main(int argc, char **argv) {
    Config config;
    config.service.name = "eventsd";
    config.service.channel = TAVRIX_CHANNEL_EVENTS;
    config.service.publish = "tcp://127.0.0.1:7003";
    config.service.connect = {"tcp://127.0.0.1:7001"};
    daemon_support::Options options("tavrix-eventsd", "eventsd", "The events service of the fleet.",
                                    "tavrix-eventsd --publish tcp://127.0.0.1:7003 --connect tcp://127.0.0.1:7001 "
                                    "--script links.txt");
    options.text("name", "NAME", "the daemon's name in the logger's configuration", &config.service.name);
    options.text("publish", "ADDRESS", "bus address to publish on", &config.service.publish);
    options.list("connect", "ADDRESS", "bus address to listen to: the router's; may be repeated",
                 &config.service.connect);
    options.text("ports", "ADDRESS",
                 "where the ports service publishes, for events.Describe; it has to --connect to this service too",
                 &config.ports_address);
    options.number("wait-timeout", "MS", "how long events.Describe waits for it; other requests wait as long", 1,
                   longest_time_ms, &config.wait_timeout_ms);
    options.text("socket", "PATH", "unix socket to answer requests on directly", &config.socket_path);
    options.text("pull", "ADDRESS", "bus address to take one-way requests on", &config.pull_address);
    options.text("script", "FILE", "link changes to play, a line each, like: c1-1 up", &config.script);
    options.number("interval", "MS", "time between two of them", 1, longest_time_ms, &config.interval_ms);
    options.text("slot", "NAME", "shared-memory slot for the last event's number, which begins anew", &config.slot);
    options.note(
        "--wait-timeout has to be less than the router's --reply-timeout: the router would give up first, and this\n"
        "service go on waiting. If the ports service waits for a link change at that time (ports.WaitLinkChanged),\n"
        "it replies when the script's next one comes, or when it has given up itself.");
    options.note(
        "The slot's mode gives its owner no access: whoever is not root needs CAP_DAC_OVERRIDE to share the number,\n"
        "and to start again once the slot is there. Remove a slot that somebody else has made from /dev/shm.");
    int exit_status = 0;
    if (!options.parse(argc, argv, &exit_status)) {
        return exit_status;
    }
    tavrix_lsyslog_init(config.service.name.c_str());
    EventsDaemon daemon(config);
    if (!daemon_support::install_signals() || !daemon.open()) {
        LOG_ERROR("eventsd cannot start\n");
        return 1;
    }
    return daemon.serve() ? 0 : 1;
}

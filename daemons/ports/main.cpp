/*
 * tavrix-portsd: the ports service. Reads and changes the ports of the fleet in the configuration database.
 *
 *     tavrix-portsd --publish tcp://127.0.0.1:7002 --connect tcp://127.0.0.1:7001 --database fleet.db
 */
#include "common/log.h"
#include "common/options.h"
#include "common/service.h"
#include "common/signals.h"
#include "methods.h"

namespace {

constexpr char unit_name[] = "portsd";
constexpr int longest_wait_ms = 24 * 60 * 60 * 1000;

} // namespace

int main(int argc, char **argv) {
    daemon_support::ServiceConfig config;
    config.name = "portsd";
    config.channel = TAVRIX_CHANNEL_FIRST;
    config.publish = "tcp://127.0.0.1:7002";
    config.connect = {"tcp://127.0.0.1:7001"};
    std::string database_path = TAVRIX_CFGDB_PATH;
    ports::Service service_context;

    daemon_support::Options options("tavrix-portsd", "portsd", "The ports service of the fleet.",
                                    "tavrix-portsd --publish tcp://127.0.0.1:7002 --connect tcp://127.0.0.1:7001");
    options.text("name", "NAME", "the daemon's name in the logger's configuration", &config.name);
    options.text("publish", "ADDRESS", "bus address to publish on", &config.publish);
    options.list(
        "connect", "ADDRESS",
        "bus address to listen to: the router's, and that of each service that calls this one; may be repeated",
        &config.connect);
    options.text("database", "FILE", "the configuration database", &database_path);
    options.text("events", "ADDRESS", "where the events service publishes, for ports.WaitLinkChanged",
                 &service_context.events_address);
    options.number("wait-timeout", "MS", "how long ports.WaitLinkChanged waits; other requests wait as long", 1,
                   longest_wait_ms, &service_context.wait_timeout_ms);
    options.note("Keep --wait-timeout below the router's --reply-timeout: otherwise the router gives up first, and\n"
                 "requests wait for an event that nobody waits for any more.");
    int exit_status = 0;
    if (!options.parse(argc, argv, &exit_status)) {
        return exit_status;
    }
    tavrix_lsyslog_init(config.name.c_str());

    ports::Database database(database_path);
    service_context.database = &database;
    daemon_support::Service service(config, ports::methods());
    if (!daemon_support::install_signals() || database.open() != TAVRIX_OK || !ports::set_service(service_context) ||
        !service.open()) {
        LOG_ERROR("portsd cannot start\n");
        return 1;
    }
    return service.serve() ? 0 : 1;
}

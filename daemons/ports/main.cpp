/*
 * tavrix-portsd: the ports service. Reads and changes the ports of the fleet in the configuration database.
 *
 *     tavrix-portsd --database fleet.db
 */
#include "base/log.h"
#include "base/service_options.h"
#include "methods.h"

namespace {

constexpr char unit_name[] = "portsd";
constexpr int longest_wait_ms = 24 * 60 * 60 * 1000;

} // namespace

int main(int argc, char **argv) {
    daemon_support::ServiceOptions common("portsd");
    std::string database_path = TAVRIX_CFGDB_PATH;
    ports::Context context;
    daemon_support::Options options("tavrix-portsd", "portsd", "The ports service of the fleet.",
                                    "tavrix-portsd --database fleet.db");
    common.add_to(&options);
    options.text("database", "FILE", "the configuration database", &database_path);
    options.number("wait-timeout", "MS", "how long ports.WaitLinkChanged waits", 1, longest_wait_ms,
                   &context.wait_timeout_ms);
    options.note("Keep --wait-timeout below the router's --reply-timeout: otherwise the router gives up first.");
    int exit_status = 0;
    if (!options.parse(argc, argv, &exit_status)) {
        return exit_status;
    }
    daemon_support::never_wait_for_log();
    ports::Database database(database_path);
    context.database = &database;
    const daemon_support::KitService service(common, ports::methods(), &context);
    if (!service || database.check_schema() != TAVRIX_OK || !ports::listen_for_link_changes(service.get(), &context)) {
        LOG_ERROR("portsd cannot start\n");
        return 1;
    }
    return tavrix_service_run(service.get()) == TAVRIX_OK ? 0 : 1;
}

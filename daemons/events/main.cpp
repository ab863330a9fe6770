/*
 * tavrix-eventsd: the events service. Plays link changes from a script, keeps them, and tells of them.
 *
 *     tavrix-eventsd --script links.txt --interval 1000
 */
#include "base/log.h"
#include "base/service_options.h"
#include "methods.h"

namespace {

constexpr char unit_name[] = "eventsd";
constexpr int longest_time_ms = 24 * 60 * 60 * 1000;

struct Config {
    daemon_support::ServiceOptions service{"eventsd"};
    std::string socket_path;
    std::string pull_address;
    std::string script;
    int interval_ms = 1000;
};

bool open(const Config &config, tavrix_service *service, events::Context *context) {
    return (config.socket_path.empty() || tavrix_service_listen_unix(service, config.socket_path.c_str()) != 0) &&
           (config.pull_address.empty() || tavrix_service_listen_pull(service, config.pull_address.c_str()) != 0) &&
           (config.script.empty() || events::read_script(config.script, &context->script)) &&
           events::play_script(service, context, config.interval_ms) && tavrix_service_start(service) == TAVRIX_OK;
}

void add_options(daemon_support::Options *options, Config *config, events::Context *context) {
    config->service.add_to(options);
    options->number("wait-timeout", "MS", "how long events.Describe waits for the ports service", 1, longest_time_ms,
                    &context->wait_timeout_ms);
    options->text("socket", "PATH", "unix socket to answer requests on directly", &config->socket_path);
    options->text("pull", "ADDRESS", "bus address to take one-way requests on", &config->pull_address);
    options->text("script", "FILE", "link changes to play, a line each, like: c1-1 up", &config->script);
    options->number("interval", "MS", "time between two of them", 1, longest_time_ms, &config->interval_ms);
    options->text("slot", "NAME", "shared-memory slot for the last event's number, which begins anew; empty for none",
                  &context->slot);
    options->note("--wait-timeout has to be less than the router's --reply-timeout: the router would give up first.");
    options->note(
        "The slot's mode gives its owner no access: whoever is not root needs CAP_DAC_OVERRIDE to share the number,\n"
        "and to start again once the slot is there. Remove a slot that somebody else has made from /dev/shm.");
}

} // namespace

int main(int argc, char **argv) {
    Config config;
    events::Context context;
    daemon_support::Options options("tavrix-eventsd", "eventsd", "The events service of the fleet.",
                                    "tavrix-eventsd --script links.txt");
    add_options(&options, &config, &context);
    int exit_status = 0;
    if (!options.parse(argc, argv, &exit_status)) {
        return exit_status;
    }
    daemon_support::never_wait_for_log();
    const daemon_support::KitService service(config.service, events::methods(), &context, events::share_number);
    if (!service || !open(config, service.get(), &context)) {
        LOG_ERROR("eventsd cannot start\n");
        return 1;
    }
    return tavrix_service_run(service.get()) == TAVRIX_OK && !context.has_failed ? 0 : 1;
}

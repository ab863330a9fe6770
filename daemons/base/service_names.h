/**
 * The methods by which router and services find each other on the bus.
 */
#ifndef TAVRIX_DAEMONS_BASE_SERVICE_NAMES_H
#define TAVRIX_DAEMONS_BASE_SERVICE_NAMES_H

namespace daemon_support {

constexpr char hello_method[] = "router.Hello";
constexpr char welcome_method[] = "service.Welcome";
constexpr char probe_method[] = "service.Probe";
constexpr char reload_method[] = "logger.ReloadConf";

} // namespace daemon_support

#endif

/**
 * The names by which the router, the services and the client know each other.
 */
#ifndef TAVRIX_COMMON_NAMES_H
#define TAVRIX_COMMON_NAMES_H

namespace tavrix {

constexpr char router_socket[] = "/run/tavrix/router.sock"; ///< for one request a connection
constexpr char openrpc_version[] = "1.2.6";

namespace names {

// Between the router and services that register, over their session.
constexpr char register_service[] = "router.Register";
constexpr char describe[] = "router.Describe";
constexpr char bus[] = "router.Bus";
constexpr char service_up[] = "router.ServiceUp";
constexpr char service_down[] = "router.ServiceDown";
constexpr char cancel[] = "service.Cancel";

// On the bus.
constexpr char hello[] = "router.Hello";
constexpr char say_hello[] = "service.Hello";
constexpr char welcome[] = "service.Welcome";
constexpr char probe[] = "service.Probe";

// For every client.
constexpr char status[] = "router.Status";
constexpr char metrics[] = "router.Metrics";
constexpr char discover[] = "rpc.discover";
constexpr char lock[] = "router.Lock";
constexpr char unlock[] = "router.Unlock";
constexpr char reload_conf[] = "logger.ReloadConf";
constexpr char subscribe[] = "router.Subscribe";
constexpr char unsubscribe[] = "router.Unsubscribe";
constexpr char lost[] = "router.Lost";
constexpr char monitor[] = "router.Monitor";
constexpr char traffic[] = "router.Traffic";

// The reference services'.
constexpr char link_changed[] = "events.LinkChanged";

} // namespace names

} // namespace tavrix

#endif

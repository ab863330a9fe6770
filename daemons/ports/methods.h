/**
 * The methods that the ports service offers.
 *
 * | method                    | parameters                                         | result                     |
 * |---------------------------|----------------------------------------------------|----------------------------|
 * | ports.Get                 | port_id: a port, a unit's id, or "all"             | ports: [...]               |
 * | ports.SetEnabled          | port_id as above, status: "enable" or "disable"    | 0                          |
 * | ports.SetVlanLocal        | port_id: a port                                    | 0                          |
 * | ports.SetVlanAccess       | port_id: a port, vlan_id                           | 0                          |
 * | ports.SetVlanTrunk        | port_id: a port, vlan_ids: [...]                   | 0                          |
 * | ports.poe.GetInstantPower | port_id: a C-port                                  | port_id, power_mw          |
 * | ports.SetMacFilters       | port_id: a C-port, filters: [{mac, mask}]          | 0                          |
 * | ports.WaitLinkChanged     | none; waits for the events service, not for ever   | the notification's params  |
 * | mzu.List                  | none                                               | mzus: [...]                |
 * | mzu.Register              | mzu_id, model, mac, alias                          | mzu_id                     |
 *
 * Every error has {"message": ...} as its data: which parameter is refused and why, or the status's text.
 */
#ifndef TAVRIX_DAEMONS_PORTS_METHODS_H
#define TAVRIX_DAEMONS_PORTS_METHODS_H

#include <string>
#include <vector>

#include "database.h"
#include "tavrix.h"

namespace ports {

/** What the handlers work on: handlers are plain functions, so there is one for the process. */
struct Service {
    Database *database = nullptr;
    std::string events_address; ///< where the events service publishes; empty when there is none
    int wait_timeout_ms = 5000; ///< for one of its events; less than the router's --reply-timeout
};
/** False, with a log line, when the events service's address is none that can be listened to. */
bool set_service(const Service &service);

/** The method table, without its terminating record. */
std::vector<tavrix_jrpc_method> methods();

} // namespace ports

#endif

/**
 * The tables of tavrix_jrpc: JSON-RPC codes, their messages and statuses, service channels, and how long callers wait
 * for a reply.
 */
#ifndef TAVRIX_INTERNAL_JRPC_TABLES_H
#define TAVRIX_INTERNAL_JRPC_TABLES_H

#include <cstring>

#include "internal/tables.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"

namespace tavrix {

// --- Codes ---------------------------------------------------------------------------------------------------------

struct CatalogueRow {
    int jrpc_code;
    const char *message;
};

struct ConversionRow {
    int internal_code;
    int jrpc_code;
};

constexpr char unknown_message[] = "Unknown Error";

// By subject, each code once.
constexpr CatalogueRow catalogue[] = {
    {TAVRIX_JRPC_UNKNOWN_ERROR, "Unknown Error"},
    {TAVRIX_JRPC_VERSION_NOT_SUPPORTED, "JSONRPC Version not supported"},
    {TAVRIX_JRPC_UNSUPPORTED_FEATURE,
     "This feature is not supported in this version, or the API may be incorrectly formed.  Please check the "
     "API documentation for further details."},
    {TAVRIX_JRPC_RESPONSE_FAILED, "Unable to formulate a JSON response"},
    {TAVRIX_JRPC_TIMED_OUT, "Command timed out"},
    {TAVRIX_JRPC_RESERVED_VALUE, "The given value is reserved internally"},
    {TAVRIX_JRPC_NOT_UNIQUE, "Attempted to set unique parameter to a value that already exists."},
    {TAVRIX_JRPC_MZU_OFFLINE, "The MZU for the given MZU ID is offline, and is expected to be online."},
    {TAVRIX_JRPC_MZU_ONLINE, "The MZU for the given MZU ID is online, and is expected to be offline."},
    {TAVRIX_JRPC_NO_SUCH_MZU, "The given MZU ID does not represent an existing MZU."},
    {TAVRIX_JRPC_MZU_EXISTS, "The given MZU ID represents an MZU that already exists."},
    {TAVRIX_JRPC_EXPECTED_MZU, "An MZU ID was expected."},
    {TAVRIX_JRPC_MZU_LIMIT, "The maximum allowed limit for MZUs has been reached."},
    {TAVRIX_JRPC_MAC_LIMIT_UNSUPPORTED, "MAC address limiting is not supported by the MZU or port."},
    {TAVRIX_JRPC_MODEL_UNSUPPORTED, "Switch model does not support this function, or switch is in failed state."},
    {TAVRIX_JRPC_CONFIG_QUEUE_BUSY, "Configuration queue is busy. Cannot perform this action."},
    {TAVRIX_JRPC_CONFIG_PENDING, "There are pending configuration for this edge switch. Cannot perform this action."},
    {TAVRIX_JRPC_INVALID_PORT, "The given Port ID is invalid."},
    {TAVRIX_JRPC_NO_SUCH_PORT, "The given id does not represent any existing port(s)."},
    {TAVRIX_JRPC_EXPECTED_D_PORT, "The given Port ID does not represent a D-port."},
    {TAVRIX_JRPC_EXPECTED_C_PORT, "The given Port ID does not represent a C-port."},
    {TAVRIX_JRPC_TOO_MANY_VLAN_IDS, "The number of VLAN IDs entered exceed the maximum number allowed."},
    {TAVRIX_JRPC_NO_POE, "The given port(s) do not support POE."},
    {TAVRIX_JRPC_MACS_RESTRICTED,
     "Connected MAC addresses cannot be retrieved from this MZU model while MAC address restrictions are applied"},
    {TAVRIX_JRPC_E13_MAC_LIMIT, "Cannot put same MAC address allowed on more than one E13 port"},
    {TAVRIX_JRPC_D4_PEER_TO_PEER,
     "Cannot changed status or VLAN of port d4 while peer to peer communication is enabled"},
    {TAVRIX_JRPC_MANAGEMENT_VLAN, "Cannot set configuration where the management VLAN is not on a D port"},
    {TAVRIX_JRPC_TOO_MANY_ENTRIES, "Attempted to set too many entries for the switch or port."},
    {TAVRIX_JRPC_UNIT_NOT_ACTIVE, "The box is not in ACTIVE mode."},
    {TAVRIX_JRPC_INVALID_DATE_TIME, "Invalid date and time. Input format should be YYYY-MM-DD HH:MM"},
    {TAVRIX_JRPC_NO_FIRMWARE_FILE, "Firmware file not present in filesystem"},
    {TAVRIX_JRPC_FACTORY_VERSION, "Software is already the factory default version"},
    {TAVRIX_JRPC_LASER_ADDRESSES_DIFFER, "Multiple lasers are configured to be redundant with different IP addresses"},
    {TAVRIX_JRPC_LASER_IN_PROTECT_MODE,
     "A ZQN-H7 may not perform a config database sync while one of its lasers is in protect mode"},
    {TAVRIX_JRPC_NO_ACTIVE_LASER, "A ZQN-H7 may not perform a config database sync while no lasers are in active mode"},
    {TAVRIX_JRPC_IP_IN_USE, "The given IP address is already in use"},
    {TAVRIX_JRPC_SUBNET_CONFLICT, "Subnets of VLAN and LOCAL management IP addresses are conflicting"},
    {TAVRIX_JRPC_DATE_NOT_SET, "Date on the ZQN-H7 must be set"},
    {TAVRIX_JRPC_DATABASE_ERROR, "The database encountered an error while processing the data."},
    {TAVRIX_JRPC_NO_RECORDS, "No records in the database are found."},
    {TAVRIX_JRPC_NO_MEMORY, "Insufficient memory error. Please reset the H7."},
    {TAVRIX_JRPC_HARDWARE_ERROR, "One of the dependent hardware components returned an error."},
    {TAVRIX_JRPC_SYSTEM_BUSY, "System is busy."},
    {TAVRIX_JRPC_MAC_EXISTS, "The given MAC Address already exists."},
    {TAVRIX_JRPC_NO_SUCH_MAC, "The given MAC Address does not exist."},
    {TAVRIX_JRPC_NO_SUCH_MODEL, "The given model does not exist."},
    {TAVRIX_JRPC_MAC_EXPECTED, "A Switch MAC address is required for this operation."},
    {TAVRIX_JRPC_INVALID_REQUEST, "Invalid Request"},
    {TAVRIX_JRPC_METHOD_NOT_FOUND, "Method not found"},
    {TAVRIX_JRPC_INVALID_PARAMS, "Invalid parameter(s)"},
    {TAVRIX_JRPC_INTERNAL_ERROR, "Internal error"},
    {TAVRIX_JRPC_PARSE_ERROR, "Parse error"},
};
static_assert(count_of(catalogue) == 52, "one row for each JSON-RPC code");

// The first row of a code is also its way back to a status: callers compare that one.
constexpr ConversionRow conversions[] = {
    {TAVRIX_ERR_GENERAL, TAVRIX_JRPC_UNKNOWN_ERROR},
    {TAVRIX_ERR_JSON_RESPONSE, TAVRIX_JRPC_RESPONSE_FAILED},
    {TAVRIX_ERR_UNIMPLEMENTED, TAVRIX_JRPC_UNSUPPORTED_FEATURE},
    {TAVRIX_ERR_PARAMETER_NOT_FOUND, TAVRIX_JRPC_INVALID_PARAMS},
    {TAVRIX_ERR_TIMEOUT, TAVRIX_JRPC_TIMED_OUT},
    {TAVRIX_ERR_RESERVED_VALUE, TAVRIX_JRPC_RESERVED_VALUE},
    {TAVRIX_ERR_UNEXPECTED_PARAMETER, TAVRIX_JRPC_INVALID_PARAMS},
    {TAVRIX_ERR_NOT_UNIQUE, TAVRIX_JRPC_NOT_UNIQUE},
    {TAVRIX_ERR_INVALID_ENTITY, TAVRIX_JRPC_INVALID_PARAMS},
    {TAVRIX_ERR_MZU_OFFLINE, TAVRIX_JRPC_MZU_OFFLINE},
    {TAVRIX_ERR_MZU_ONLINE, TAVRIX_JRPC_MZU_ONLINE},
    {TAVRIX_ERR_NO_SUCH_MZU, TAVRIX_JRPC_NO_SUCH_MZU},
    {TAVRIX_ERR_MZU_EXISTS, TAVRIX_JRPC_MZU_EXISTS},
    {TAVRIX_ERR_EXPECTED_MZU, TAVRIX_JRPC_EXPECTED_MZU},
    {TAVRIX_ERR_MZU_LIMIT, TAVRIX_JRPC_MZU_LIMIT},
    {TAVRIX_ERR_NOT_SUPPORTED, TAVRIX_JRPC_MAC_LIMIT_UNSUPPORTED},
    {TAVRIX_ERR_CONFIG_QUEUE_BUSY, TAVRIX_JRPC_CONFIG_QUEUE_BUSY},
    {TAVRIX_ERR_CONFIG_PENDING, TAVRIX_JRPC_CONFIG_PENDING},
    {TAVRIX_ERR_MODEL_UNSUPPORTED, TAVRIX_JRPC_MODEL_UNSUPPORTED},
    {TAVRIX_ERR_INVALID_PORT, TAVRIX_JRPC_INVALID_PORT},
    {TAVRIX_ERR_NO_SUCH_PORT, TAVRIX_JRPC_NO_SUCH_PORT},
    {TAVRIX_ERR_EXPECTED_D_PORT, TAVRIX_JRPC_EXPECTED_D_PORT},
    {TAVRIX_ERR_EXPECTED_C_PORT, TAVRIX_JRPC_EXPECTED_C_PORT},
    {TAVRIX_ERR_TOO_MANY_VLAN_IDS, TAVRIX_JRPC_TOO_MANY_VLAN_IDS},
    {TAVRIX_ERR_NO_POE, TAVRIX_JRPC_NO_POE},
    {TAVRIX_ERR_MACS_RESTRICTED, TAVRIX_JRPC_MACS_RESTRICTED},
    {TAVRIX_ERR_E13_MAC_LIMIT, TAVRIX_JRPC_E13_MAC_LIMIT},
    {TAVRIX_ERR_D4_PEER_TO_PEER, TAVRIX_JRPC_D4_PEER_TO_PEER},
    {TAVRIX_ERR_TOO_MANY_ENTRIES, TAVRIX_JRPC_TOO_MANY_ENTRIES},
    {TAVRIX_ERR_UNIT_NOT_ACTIVE, TAVRIX_JRPC_UNIT_NOT_ACTIVE},
    {TAVRIX_ERR_INVALID_DATE_TIME, TAVRIX_JRPC_INVALID_DATE_TIME},
    {TAVRIX_ERR_FILE_OPEN, TAVRIX_JRPC_NO_FIRMWARE_FILE},
    {TAVRIX_ERR_FACTORY_VERSION, TAVRIX_JRPC_FACTORY_VERSION},
    {TAVRIX_ERR_LASER_ADDRESSES_DIFFER, TAVRIX_JRPC_LASER_ADDRESSES_DIFFER},
    {TAVRIX_ERR_LASER_IN_PROTECT_MODE, TAVRIX_JRPC_LASER_IN_PROTECT_MODE},
    {TAVRIX_ERR_NO_ACTIVE_LASER, TAVRIX_JRPC_NO_ACTIVE_LASER},
    {TAVRIX_ERR_IP_IN_USE, TAVRIX_JRPC_IP_IN_USE},
    {TAVRIX_ERR_SUBNET_CONFLICT, TAVRIX_JRPC_SUBNET_CONFLICT},
    {TAVRIX_ERR_DATE_NOT_SET, TAVRIX_JRPC_DATE_NOT_SET},
    {TAVRIX_ERR_SYSTEM_ACCESS, TAVRIX_JRPC_DATABASE_ERROR},
    {TAVRIX_ERR_DB_BUSY, TAVRIX_JRPC_DATABASE_ERROR},
    {TAVRIX_ERR_DB_UNFINISHED, TAVRIX_JRPC_DATABASE_ERROR},
    {TAVRIX_ERR_NO_RECORDS, TAVRIX_JRPC_NO_RECORDS},
    {TAVRIX_ERR_UNALLOCATED_WRITE, TAVRIX_JRPC_NO_MEMORY},
    {TAVRIX_ERR_NO_MEMORY, TAVRIX_JRPC_NO_MEMORY},
    {TAVRIX_ERR_HARDWARE, TAVRIX_JRPC_HARDWARE_ERROR},
    {TAVRIX_ERR_SYSTEM_BUSY, TAVRIX_JRPC_SYSTEM_BUSY},
    {TAVRIX_ERR_MAC_EXPECTED, TAVRIX_JRPC_MAC_EXPECTED},
    {TAVRIX_ERR_MANAGEMENT_VLAN, TAVRIX_JRPC_MANAGEMENT_VLAN},
    {TAVRIX_ERR_MAC_EXISTS, TAVRIX_JRPC_MAC_EXISTS},
    {TAVRIX_ERR_NO_SUCH_MODEL, TAVRIX_JRPC_NO_SUCH_MODEL},
    {TAVRIX_ERR_PARAMETER, TAVRIX_JRPC_UNKNOWN_ERROR},
    {TAVRIX_ERR_INVALID_PARAMETER, TAVRIX_JRPC_INVALID_PARAMS},
};
static_assert(count_of(conversions) == 53, "one row for each status that clients can see");

/** TAVRIX_JRPC_UNKNOWN_ERROR for a status that clients cannot see. */
inline int code_of_status(int internal_code) {
    for (const ConversionRow &row : conversions) {
        if (row.internal_code == internal_code) {
            return row.jrpc_code;
        }
    }
    return TAVRIX_JRPC_UNKNOWN_ERROR;
}

/** An unknown code yields TAVRIX_JRPC_UNKNOWN_ERROR: callers compare with it, and any status could be a real one. */
inline int status_of_code(int jrpc_code) {
    for (const ConversionRow &row : conversions) {
        if (row.jrpc_code == jrpc_code) {
            return row.internal_code;
        }
    }
    return TAVRIX_JRPC_UNKNOWN_ERROR;
}

inline const char *message_of_code(int jrpc_code) {
    for (const CatalogueRow &row : catalogue) {
        if (row.jrpc_code == jrpc_code) {
            return row.message;
        }
    }
    return unknown_message;
}

// --- Service channels ----------------------------------------------------------------------------------------------

struct ChannelRule {
    const char *prefix;
    const char *channel;
};

// The first letters, not whole names: deployed services listen by these, and a new family of methods needs no row.
constexpr ChannelRule channel_rules[] = {
    {"d", TAVRIX_CHANNEL_FIRST},  {"p", TAVRIX_CHANNEL_FIRST},   {"en", TAVRIX_CHANNEL_FIRST},
    {"mz", TAVRIX_CHANNEL_FIRST}, {"ev", TAVRIX_CHANNEL_EVENTS}, {"i", TAVRIX_CHANNEL_INTERFACES},
};

inline const char *service_channel(const char *method) {
    for (const ChannelRule &rule : channel_rules) {
        if (std::strncmp(method, rule.prefix, std::strlen(rule.prefix)) == 0) {
            return rule.channel;
        }
    }
    return TAVRIX_CHANNEL_DEFAULT;
}

// --- Patience ------------------------------------------------------------------------------------------------------

/** How many receives a caller spends waiting for the reply to a method. */
struct Patience {
    const char *method;
    int attempts;
};

constexpr int default_attempts = 10;
constexpr Patience patience[] = {
    {"ports.Get", 60},           {"ports.SetEnabled", 60},
    {"ports.SetVlanLocal", 100}, {"ports.SetVlanAccess", 100},
    {"ports.SetVlanTrunk", 100}, {"ports.poe.GetInstantPower", 200},
    {"db.ApplyBackup", 200},
};

inline int attempts_for(const char *method) {
    for (const Patience &row : patience) {
        if (std::strcmp(row.method, method) == 0) {
            return row.attempts;
        }
    }
    return default_attempts;
}

} // namespace tavrix

#endif

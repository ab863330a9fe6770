/**
 * @file tavrix_error.h
 * The numbered status catalogue.
 *
 * Every function of the library reports its outcome as a signed integer: 0 (or a count) for success, one of the
 * negative codes below for failure. The magnitude of a code is its position in @ref tavrix_error_strings.
 *
 * @code
 * int rc = tavrix_db_open(&db);
 * if (rc != TAVRIX_OK)
 *     fprintf(stderr, "cannot open the configuration: %s\n", tavrix_error_decode(rc));
 * @endcode
 *
 * Thread-safety: constant data only; every function may be called from any thread at any time.
 */
#ifndef TAVRIX_ERROR_H
#define TAVRIX_ERROR_H

#include "tavrix_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Status codes, what each means and what a caller does about it. The numbers are fixed: daemons compare them, and they
 * appear in logs.
 *
 * Statuses about units, ports, lasers and the appliance's settings come from the services' handlers; clients see them
 * as tavrix_jrpc_error_convert_tavrix_to_jrpc() converts them. A caller that has no use for a particular status logs
 * tavrix_error_decode() and gives up.
 */
enum tavrix_status {
    /** Success. Where a function returns a count, any number from 0 up is success. */
    TAVRIX_OK = 0,
    /** Any failure without a status of its own; the log says which. Give up, or retry where the function allows it. */
    TAVRIX_ERR_GENERAL = -1,
    /** No answer in time. The change may have been made all the same: read the state before asking for it again. */
    TAVRIX_ERR_TIMEOUT = -2,
    /** Not available in this version or on this appliance. Do without it. */
    TAVRIX_ERR_UNIMPLEMENTED = -3,
    /** An argument is null or impossible, such as a text that is not a port id. The same call fails again: fix it. */
    TAVRIX_ERR_PARAMETER = -4,
    /** Not a possible unit id. Ask for another. */
    TAVRIX_ERR_INVALID_MZU_ID = -5,
    /** Not a possible port id. Ask for another. */
    TAVRIX_ERR_INVALID_PORT = -6,
    /** The database or another part of the system refused; the log has the reason. Roll back or give up. */
    TAVRIX_ERR_SYSTEM_ACCESS = -7,
    /** The unit has to be connected for this and is not. Try again when it is. */
    TAVRIX_ERR_MZU_OFFLINE = -8,
    /** Never returned; the number is reserved. */
    TAVRIX_ERR_UNASSIGNED_9 = -9,
    /** The system's variables are not set up yet. Initialise them first. */
    TAVRIX_ERR_UNINITIALIZED = -10,
    /** The configuration database is locked, or busy with another change. Try again later. */
    TAVRIX_ERR_DB_BUSY = -11,
    /** The connection still has statements and stays open. Finalise them, then close it again. */
    TAVRIX_ERR_DB_UNFINISHED = -12,
    /** Only a C-port will do here. Ask for one. */
    TAVRIX_ERR_EXPECTED_C_PORT = -13,
    /** Only a D-port will do here. Ask for one. */
    TAVRIX_ERR_EXPECTED_D_PORT = -14,
    /** A unit id was expected here. Ask for one. */
    TAVRIX_ERR_EXPECTED_MZU = -15,
    /** A hardware component reports a failure. Pass it on to the user; trying again rarely helps. */
    TAVRIX_ERR_HARDWARE = -16,
    /** Never returned; the number is reserved. */
    TAVRIX_ERR_UNASSIGNED_17 = -17,
    /** Only one VLAN is allowed here. Ask for one. */
    TAVRIX_ERR_MULTIPLE_VLANS = -18,
    /** More VLAN ids than a port may have. Ask for fewer. */
    TAVRIX_ERR_TOO_MANY_VLAN_IDS = -19,
    /** A pointer argument is null: a bug in the calling program. */
    TAVRIX_ERR_NULL_INPUT = -20,
    /** A write beyond allocated memory was prevented: a bug. Report it. */
    TAVRIX_ERR_UNALLOCATED_WRITE = -21,
    /** Out of memory. Free what can be spared, or exit and be restarted. */
    TAVRIX_ERR_NO_MEMORY = -22,
    /** The database has no such entry. Ask for another. */
    TAVRIX_ERR_DB_ENTRY_NOT_FOUND = -23,
    /** A parameter was given more than once. Send it once. */
    TAVRIX_ERR_DUPLICATE_PARAMETER = -24,
    /** The timer has not expired yet; not an error. Wait on its descriptor. */
    TAVRIX_ERR_NO_TIMER_EXPIRATION = -25,
    /** The unit is already registered. Change it instead, or choose another id. */
    TAVRIX_ERR_MZU_EXISTS = -26,
    /** The MAC address is already in use. Choose another. */
    TAVRIX_ERR_MAC_EXISTS = -27,
    /** No model has this name. Choose one of tavrix_mzu_model_strings. */
    TAVRIX_ERR_NO_SUCH_MODEL = -28,
    /** The unit has to be disconnected for this and is not. Disconnect it first. */
    TAVRIX_ERR_MZU_ONLINE = -29,
    /** The JSON for the client could not be built: no memory, or a value that has no JSON text. Log it. */
    TAVRIX_ERR_JSON_RESPONSE = -30,
    /** A parameter of the request has the wrong type or a wrong value. Hand the debug message to the client. */
    TAVRIX_ERR_INVALID_PARAMETER = -31,
    /** The appliance is not in active mode. Ask the one that is, or activate this one. */
    TAVRIX_ERR_UNIT_NOT_ACTIVE = -32,
    /** Not a date and time of the form YYYY-MM-DD HH:MM. Ask for another. */
    TAVRIX_ERR_INVALID_DATE_TIME = -33,
    /** A value breaks its rule in tavrix_validation.h, or a bus socket's type or address is wrong. Ask for another. */
    TAVRIX_ERR_VALIDATION = -34,
    /** A parameter, or a key of a configuration file, is missing. Use the default if it is optional. */
    TAVRIX_ERR_PARAMETER_NOT_FOUND = -35,
    /** The maximum number of units is registered. Remove one first. */
    TAVRIX_ERR_MZU_LIMIT = -36,
    /** The port or unit has no power over Ethernet. Do without it. */
    TAVRIX_ERR_NO_POE = -37,
    /** The query found nothing; in the service kit, a number no longer names anything. Take it as empty, or as over. */
    TAVRIX_ERR_NO_RECORDS = -38,
    /** The change would violate a constraint of the database. Roll back and tell the client. */
    TAVRIX_ERR_DATA_CONSTRAINT = -39,
    /** The file cannot be opened. Check its path and permissions. */
    TAVRIX_ERR_FILE_OPEN = -40,
    /** The value is longer than the caller's buffer. Call again with a larger one. */
    TAVRIX_ERR_BUFFER_SPACE = -41,
    /** A value in the configuration file is not one of the allowed words. Correct the file. */
    TAVRIX_ERR_CONF_ENTRY = -42,
    /** A result contains an invalid entry. Do not use it. */
    TAVRIX_ERR_RESULT_ENTRY = -43,
    /** The request has no "id", so it is a notification; not an error. Serve it without an answer. */
    TAVRIX_ERR_NO_JSON_ID = -44,
    /** The system is locked or overloaded. Try again later. */
    TAVRIX_ERR_SYSTEM_BUSY = -45,
    /** No message is waiting, or none came in time; not an error. Go on with the loop. */
    TAVRIX_ERR_MQ_TIMEOUT = -46,
    /** A well-formed port id, but there is no such port. Ask for another. */
    TAVRIX_ERR_NO_SUCH_PORT = -47,
    /** The software is already the factory version. There is nothing to do. */
    TAVRIX_ERR_FACTORY_VERSION = -48,
    /** The system reserves this value for itself. Choose another. */
    TAVRIX_ERR_RESERVED_VALUE = -49,
    /** No reply within the attempts. The service may be down; read the state before asking for a change again. */
    TAVRIX_ERR_NO_RESPONSE = -50,
    /** Nobody answers at the other end, or the router is not running. Try again later. */
    TAVRIX_ERR_CONNECT_TIMEOUT = -51,
    /** Redundant lasers have different IP addresses. Give them the same one. */
    TAVRIX_ERR_LASER_ADDRESSES_DIFFER = -52,
    /** The configuration cannot be synchronised while a laser is in protect mode. Wait until none is. */
    TAVRIX_ERR_LASER_IN_PROTECT_MODE = -53,
    /** The configuration cannot be synchronised without an active laser. Activate one first. */
    TAVRIX_ERR_NO_ACTIVE_LASER = -54,
    /** Not the name of a unit, a port or a VLAN. Ask for another. */
    TAVRIX_ERR_INVALID_ENTITY = -55,
    /** The unit does not answer. Try again later. */
    TAVRIX_ERR_MZU_COMMUNICATION = -56,
    /** The method has no such parameter. Leave it out. */
    TAVRIX_ERR_UNEXPECTED_PARAMETER = -57,
    /** The port or unit does not support this, for example a limit on MAC addresses. Do without it. */
    TAVRIX_ERR_NOT_SUPPORTED = -58,
    /** A well-formed unit id, but no such unit is registered. Register it, or ask for another. */
    TAVRIX_ERR_NO_SUCH_MZU = -59,
    /** A unit reports a model that this software does not know. Treat it as a generic one. */
    TAVRIX_ERR_UNKNOWN_MODEL = -60,
    /** A switch's MAC address is missing. Send it along. */
    TAVRIX_ERR_MAC_EXPECTED = -61,
    /** The IP address is already in use. Choose another. */
    TAVRIX_ERR_IP_IN_USE = -62,
    /** The subnets of the VLAN and the local management addresses conflict. Change one of them. */
    TAVRIX_ERR_SUBNET_CONFLICT = -63,
    /** This model cannot list MAC addresses while they are restricted. Lift the restriction first. */
    TAVRIX_ERR_MACS_RESTRICTED = -64,
    /** The unit's model does not support this. Do without it. */
    TAVRIX_ERR_MODEL_UNSUPPORTED = -65,
    /** The appliance's date has to be set first. */
    TAVRIX_ERR_DATE_NOT_SET = -66,
    /** An E13 allows a MAC address on one of its ports only. Remove it from the other. */
    TAVRIX_ERR_E13_MAC_LIMIT = -67,
    /** Port d4 cannot be changed while peer-to-peer communication is enabled. Disable that first. */
    TAVRIX_ERR_D4_PEER_TO_PEER = -68,
    /** The change would leave the management VLAN on no D-port. Leave it on one. */
    TAVRIX_ERR_MANAGEMENT_VLAN = -69,
    /** The configuration queue is busy. Try again later. */
    TAVRIX_ERR_CONFIG_QUEUE_BUSY = -70,
    /** The unit has not yet applied its last configuration. Try again when it has. */
    TAVRIX_ERR_CONFIG_PENDING = -71,
    /** The value has to be unique and is already taken. Choose another. */
    TAVRIX_ERR_NOT_UNIQUE = -72,
    /** More entries than the unit or port has room for. Remove some. */
    TAVRIX_ERR_TOO_MANY_ENTRIES = -73
};

/**
 * The message of each status, at the position of its magnitude. Position 74 is a null pointer; the positions of the
 * unassigned numbers carry a placeholder text.
 */
TAVRIX_API extern const char *const tavrix_error_strings[75];

/**
 * The message of a status.
 *
 * @param code a status, of either sign: 20 and -20 give the same text
 * @return the message, in constant storage; the text of 0 when the magnitude is above 75; a null pointer for the
 *         magnitudes 74 and 75, which have no message
 */
TAVRIX_API const char *tavrix_error_decode(int code);

#ifdef __cplusplus
}
#endif

#endif

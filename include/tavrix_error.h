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

/** Status codes. The numbers are fixed; 9 and 17 are unassigned. */
enum tavrix_status {
    TAVRIX_OK = 0,
    TAVRIX_ERR_GENERAL = -1,
    TAVRIX_ERR_TIMEOUT = -2,
    TAVRIX_ERR_UNIMPLEMENTED = -3,
    TAVRIX_ERR_PARAMETER = -4,
    TAVRIX_ERR_INVALID_MZU_ID = -5,
    TAVRIX_ERR_INVALID_PORT = -6,
    TAVRIX_ERR_SYSTEM_ACCESS = -7,
    TAVRIX_ERR_MZU_OFFLINE = -8,
    TAVRIX_ERR_UNASSIGNED_9 = -9,
    TAVRIX_ERR_UNINITIALIZED = -10,
    TAVRIX_ERR_DB_BUSY = -11,
    TAVRIX_ERR_DB_UNFINISHED = -12,
    TAVRIX_ERR_EXPECTED_C_PORT = -13,
    TAVRIX_ERR_EXPECTED_D_PORT = -14,
    TAVRIX_ERR_EXPECTED_MZU = -15,
    TAVRIX_ERR_HARDWARE = -16,
    TAVRIX_ERR_UNASSIGNED_17 = -17,
    TAVRIX_ERR_MULTIPLE_VLANS = -18,
    TAVRIX_ERR_TOO_MANY_VLAN_IDS = -19,
    TAVRIX_ERR_NULL_INPUT = -20,
    TAVRIX_ERR_UNALLOCATED_WRITE = -21,
    TAVRIX_ERR_NO_MEMORY = -22,
    TAVRIX_ERR_DB_ENTRY_NOT_FOUND = -23,
    TAVRIX_ERR_DUPLICATE_PARAMETER = -24,
    TAVRIX_ERR_NO_TIMER_EXPIRATION = -25,
    TAVRIX_ERR_MZU_EXISTS = -26,
    TAVRIX_ERR_MAC_EXISTS = -27,
    TAVRIX_ERR_NO_SUCH_MODEL = -28,
    TAVRIX_ERR_MZU_ONLINE = -29,
    TAVRIX_ERR_JSON_RESPONSE = -30,
    TAVRIX_ERR_INVALID_PARAMETER = -31,
    TAVRIX_ERR_UNIT_NOT_ACTIVE = -32,
    TAVRIX_ERR_INVALID_DATE_TIME = -33,
    TAVRIX_ERR_VALIDATION = -34,
    TAVRIX_ERR_PARAMETER_NOT_FOUND = -35,
    TAVRIX_ERR_MZU_LIMIT = -36,
    TAVRIX_ERR_NO_POE = -37,
    TAVRIX_ERR_NO_RECORDS = -38,
    TAVRIX_ERR_DATA_CONSTRAINT = -39,
    TAVRIX_ERR_FILE_OPEN = -40,
    TAVRIX_ERR_BUFFER_SPACE = -41,
    TAVRIX_ERR_CONF_ENTRY = -42,
    TAVRIX_ERR_RESULT_ENTRY = -43,
    TAVRIX_ERR_NO_JSON_ID = -44,
    TAVRIX_ERR_SYSTEM_BUSY = -45,
    TAVRIX_ERR_MQ_TIMEOUT = -46,
    TAVRIX_ERR_NO_SUCH_PORT = -47,
    TAVRIX_ERR_FACTORY_VERSION = -48,
    TAVRIX_ERR_RESERVED_VALUE = -49,
    TAVRIX_ERR_NO_RESPONSE = -50,
    TAVRIX_ERR_CONNECT_TIMEOUT = -51,
    TAVRIX_ERR_LASER_ADDRESSES_DIFFER = -52,
    TAVRIX_ERR_LASER_IN_PROTECT_MODE = -53,
    TAVRIX_ERR_NO_ACTIVE_LASER = -54,
    TAVRIX_ERR_INVALID_ENTITY = -55,
    TAVRIX_ERR_MZU_COMMUNICATION = -56,
    TAVRIX_ERR_UNEXPECTED_PARAMETER = -57,
    TAVRIX_ERR_NOT_SUPPORTED = -58,
    TAVRIX_ERR_NO_SUCH_MZU = -59,
    TAVRIX_ERR_UNKNOWN_MODEL = -60,
    TAVRIX_ERR_MAC_EXPECTED = -61,
    TAVRIX_ERR_IP_IN_USE = -62,
    TAVRIX_ERR_SUBNET_CONFLICT = -63,
    TAVRIX_ERR_MACS_RESTRICTED = -64,
    TAVRIX_ERR_MODEL_UNSUPPORTED = -65,
    TAVRIX_ERR_DATE_NOT_SET = -66,
    TAVRIX_ERR_E13_MAC_LIMIT = -67,
    TAVRIX_ERR_D4_PEER_TO_PEER = -68,
    TAVRIX_ERR_MANAGEMENT_VLAN = -69,
    TAVRIX_ERR_CONFIG_QUEUE_BUSY = -70,
    TAVRIX_ERR_CONFIG_PENDING = -71,
    TAVRIX_ERR_NOT_UNIQUE = -72,
    TAVRIX_ERR_TOO_MANY_ENTRIES = -73
};

/**
 * The message of each status, at the position of its magnitude. Position 74 is a null pointer; the positions of the
 * unassigned numbers carry a placeholder text.
 */
TAVRIX_API extern const char *const tavrix_error_strings[75];

/**
 * Words for a status.
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

/**
 * @file tavrix_jrpc_utils.h
 * Parameters of a method handler: read by name, checked for type and rule, copied out.
 *
 * Parsers check the JSON type only; retrievers parse and then apply the field's rule of tavrix_validation.h; composite
 * readers fill records. A handler names the member, keeps one debug message for all its reads, and hands it on as the
 * error data of its reply.
 *
 * @code
 * int handle_set(json_t *params, json_t **result, json_t **error_data)
 * {
 *     char port[16];
 *     int speed;
 *     int rc = tavrix_jrpc_utils_retrieve_input_port_id(params, error_data, "port_id", port, sizeof port,
 *                                                       false, false, true, true);
 *     if (rc == TAVRIX_OK)
 *         rc = tavrix_jrpc_utils_retrieve_input_port_link_speed(params, error_data, "speed", &speed);
 *     return rc == TAVRIX_OK ? set_speed(port, speed, result) : rc;
 * }
 * @endcode
 *
 * The parameters that all of them share:
 * - `params`: the request's JSON object; borrowed and never changed. Null, or anything but an object, reads as an empty
 * one.
 * - `debug_message`: the address of the caller's JSON object pointer, null at first. The first parser that fails stores
 *   a new object {"message": text} there, of at most 99 characters; later failures leave it. The caller releases it
 *   with `json_decref`. With a null address nothing is stored.
 * - `key`: the member's name.
 * - `out`: where the value goes. On failure it stays as it was, unless said otherwise.
 * - `out_size`: the size of a text's buffer in bytes. A longer text is silently cut to fit; the rest of the buffer is
 *   cleared.
 *
 * The shared statuses, in the order of the checks:
 * - TAVRIX_ERR_PARAMETER: `key` or `out` is null;
 * - TAVRIX_ERR_PARAMETER_NOT_FOUND: the member is missing;
 * - TAVRIX_ERR_INVALID_PARAMETER: the member has the wrong type;
 * - TAVRIX_ERR_PARAMETER again: `out_size` is 0, in a retriever of a text.
 *
 * Only a missing member and a wrong type set the debug message. A null argument gives another status in three
 * functions: TAVRIX_ERR_NULL_INPUT in tavrix_jrpc_utils_retrieve_input_mac_filters() and
 * tavrix_jrpc_utils_populate_json_mac_addresses_array(), TAVRIX_ERR_INVALID_PARAMETER in
 * tavrix_jrpc_utils_parse_input_secure_option(). The two readers of port lists also return TAVRIX_ERR_PARAMETER for a
 * bad element.
 *
 * Of every JSON integer only the low 32 bits count, for the rule as for the value: 4294967297 is read, judged and
 * stored as 1. A handler that cannot accept this checks `json_integer_value` of the member itself.
 *
 * Thread-safety: no state; any thread at any time, each on its own request.
 */
#ifndef TAVRIX_JRPC_UTILS_H
#define TAVRIX_JRPC_UTILS_H

#include "tavrix_export.h"
#include "tavrix_utils.h"
#include <jansson.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** One element of a list of ports. */
typedef struct tavrix_port_input {
    int32_t user_tag; /* the daemon's own; never read or written here */
    int32_t port_number, port_status, poe_status, link_status, link_speed, vlan_mode;
    int32_t user_data[4]; /* the daemon's own */
    int32_t vlan_ids[32]; /**< the first vlan_count are set */
    int32_t vlan_count;
} tavrix_port_input;

/** One element of a list of ports, hardware only. */
typedef struct tavrix_port_hardware_input {
    int32_t port_number, poe_status, link_status, link_speed;
} tavrix_port_hardware_input;

/** One MAC filter. */
typedef struct tavrix_mac_filter {
    int32_t first, second;           /**< the caller's two numbers */
    char mac[TAVRIX_MAC_TEXT_SIZE];  /**< 17 characters, upper case, `:` between the pairs */
    char mask[TAVRIX_MAC_TEXT_SIZE]; /**< in the same form */
} tavrix_mac_filter;

/**
 * Finds a JSON true or false.
 *
 * @param out receives the member itself, borrowed; test it with `json_is_true`. Also written when the call fails with
 *            TAVRIX_ERR_PARAMETER_NOT_FOUND (null) or TAVRIX_ERR_INVALID_PARAMETER (the member of the wrong type).
 * @return 0 or a shared status
 */
TAVRIX_API int tavrix_jrpc_utils_parse_input_bool(json_t *params, json_t **debug_message, const char *key,
                                                  json_t **out);
/** Finds a JSON array; `out` and statuses as for tavrix_jrpc_utils_parse_input_bool(). */
TAVRIX_API int tavrix_jrpc_utils_parse_input_array(json_t *params, json_t **debug_message, const char *key,
                                                   json_t **out);
/**
 * Copies a JSON string.
 *
 * @param out_size the buffer's size; with 0 the member is checked and nothing is written
 * @return 0 or a shared status
 */
TAVRIX_API int tavrix_jrpc_utils_parse_input_string(json_t *params, json_t **debug_message, const char *key, char *out,
                                                    size_t out_size);
/**
 * Reads a JSON integer; a real such as 3.0 is the wrong type.
 *
 * @param out receives the low 32 bits
 * @return 0 or a shared status
 */
TAVRIX_API int tavrix_jrpc_utils_parse_input_integer(json_t *params, json_t **debug_message, const char *key, int *out);
/**
 * Reads an unsigned 64-bit number out of a JSON string of up to 99 characters, as `strtoull` does: decimal, `0x`
 * hexadecimal or `0` octal. A text that is not a number reads as 0.
 *
 * @return 0 or a shared status; a JSON number, too, is TAVRIX_ERR_INVALID_PARAMETER
 */
TAVRIX_API int tavrix_jrpc_utils_parse_input_uint64_t(json_t *params, json_t **debug_message, const char *key,
                                                      uint64_t *out);
/** Reads a number out of a JSON string as `atof` does; any other text reads as 0. @return 0 or a shared status */
TAVRIX_API int tavrix_jrpc_utils_parse_input_float(json_t *params, json_t **debug_message, const char *key, float *out);

/**
 * @name Text fields
 * Each copies a JSON string and applies the validator of its name, for example validate_status(). `out` keeps a
 * rejected value.
 *
 * @return 0 or a shared status; TAVRIX_ERR_VALIDATION when the validator refuses
 * @{
 */
/** See validate_status(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_status(json_t *params, json_t **debug_message, const char *key,
                                                       char *out, size_t out_size);
/** See validate_description(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_description(json_t *params, json_t **debug_message, const char *key,
                                                            char *out, size_t out_size);
/** See validate_vlan_mode(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_vlan_mode(json_t *params, json_t **debug_message, const char *key,
                                                          char *out, size_t out_size);
/** See validate_mzu_model(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_mzu_model(json_t *params, json_t **debug_message, const char *key,
                                                          char *out, size_t out_size);
/** See validate_mzu_sw_upgrade_filename(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_mzu_sw_upgrade_filename(json_t *params, json_t **debug_message,
                                                                        const char *key, char *out, size_t out_size);
/** See validate_mac_address(). An accepted address comes back in upper case with `:` between the pairs; `out` needs 18
 *  bytes; with fewer, every address is refused. */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_mac_address(json_t *params, json_t **debug_message, const char *key,
                                                            char *out, size_t out_size);
/** See validate_unit_sw_bank(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_unit_sw_bank(json_t *params, json_t **debug_message, const char *key,
                                                             char *out, size_t out_size);
/** See validate_ip_address(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_ip_address(json_t *params, json_t **debug_message, const char *key,
                                                           char *out, size_t out_size);
/** See validate_unit_sw_upgrade_filename(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_unit_sw_upgrade_filename(json_t *params, json_t **debug_message,
                                                                         const char *key, char *out, size_t out_size);
/** See validate_username(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_username(json_t *params, json_t **debug_message, const char *key,
                                                         char *out, size_t out_size);
/** See validate_password(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_password(json_t *params, json_t **debug_message, const char *key,
                                                         char *out, size_t out_size);
/** See validate_date(). The log calls it a password. */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_date(json_t *params, json_t **debug_message, const char *key, char *out,
                                                     size_t out_size);
/** See validate_time(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_time(json_t *params, json_t **debug_message, const char *key, char *out,
                                                     size_t out_size);
/** Any text: the name is not validated. */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_entity_name(json_t *params, json_t **debug_message, const char *key,
                                                            char *out, size_t out_size);
/** See validate_entity_extension(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_entity_extension(json_t *params, json_t **debug_message,
                                                                 const char *key, char *out, size_t out_size);

/** @} */

/**
 * @name Number fields
 * Each reads a JSON integer and applies the validator of its name, for example validate_vlan_id(). `out` keeps a
 * rejected value.
 *
 * @return 0 or a shared status; TAVRIX_ERR_VALIDATION when the validator refuses
 * @{
 */
/** See validate_vlan_id(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_vlan_id(json_t *params, json_t **debug_message, const char *key,
                                                        int *out);
/** See validate_unit_id(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_unit_id(json_t *params, json_t **debug_message, const char *key,
                                                        int *out);
/** See validate_periodic_interval(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_periodic_interval(json_t *params, json_t **debug_message,
                                                                  const char *key, int *out);
/** See validate_laser_id(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_laser_id(json_t *params, json_t **debug_message, const char *key,
                                                         int *out);
/** See validate_olt_id(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_olt_id(json_t *params, json_t **debug_message, const char *key,
                                                       int *out);
/** See validate_onu_id(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_onu_id(json_t *params, json_t **debug_message, const char *key,
                                                       int *out);
/** See validate_port_number(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_port_number(json_t *params, json_t **debug_message, const char *key,
                                                            int *out);
/** Any number: see validate_port_link_speed(). */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_port_link_speed(json_t *params, json_t **debug_message, const char *key,
                                                                int *out);
/** Any number. */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_enable(json_t *params, json_t **debug_message, const char *key,
                                                       int *out);

/** @} */

/**
 * Copies a port id of one of the kinds that the caller allows.
 *
 * @param out          keeps a rejected value
 * @param out_size     bytes, at least 1
 * @param allow_all    accept the word "all"
 * @param allow_mzu_id accept a switch unit, validate_mzu_id()
 * @param allow_c_port accept a C-port, validate_c_port_id()
 * @param allow_d_port accept a D-port, validate_d_port_id()
 * @return 0 or a shared status; for a refused value: TAVRIX_ERR_EXPECTED_MZU if units are allowed, else
 *         TAVRIX_ERR_EXPECTED_C_PORT if only C-ports are, TAVRIX_ERR_EXPECTED_D_PORT if only D-ports are, and
 *         TAVRIX_ERR_VALIDATION if both or neither
 */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_port_id(json_t *params, json_t **debug_message, const char *key,
                                                        char *out, size_t out_size, bool allow_all, bool allow_mzu_id,
                                                        bool allow_c_port, bool allow_d_port);
/**
 * Copies a switch unit's id, or the word "all" when `allow_all` is set; `out` keeps a rejected value.
 *
 * @return 0 or a shared status; TAVRIX_ERR_VALIDATION for anything else
 */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_mzu_id(json_t *params, json_t **debug_message, const char *key,
                                                       char *out, size_t out_size, bool allow_all);
/**
 * Reads a list of VLAN ids, each the low 32 bits of its integer. Sets no debug message.
 *
 * @param ids   room for 32 numbers; after TAVRIX_ERR_INVALID_PARAMETER the ones before the refused one are stored
 * @param count receives the length of the array, 0 for a member that is not an array; also written with
 *              TAVRIX_ERR_TOO_MANY_VLAN_IDS and TAVRIX_ERR_INVALID_PARAMETER
 * @return 0; TAVRIX_ERR_PARAMETER for a null `key`, `ids` or `count`; TAVRIX_ERR_PARAMETER_NOT_FOUND;
 *         TAVRIX_ERR_TOO_MANY_VLAN_IDS for more than 32; TAVRIX_ERR_INVALID_PARAMETER for anything but an integer, or
 *         for one whose low 32 bits are outside 1 to 4092
 */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_vlan_ids(json_t *params, json_t **debug_message, const char *key,
                                                         int *ids, int *count);
/**
 * Reads a list of objects with "port_number" (1 to 128), "port_status", "poe_status", "link_status", "link_speed",
 * "vlan_mode" (any integers) and "vlan_ids".
 *
 * @param records receives one record for each element, the daemon's own members untouched. After a failure the ones
 *                before the bad element are filled; in its own record the port number and the VLAN ids may be.
 * @param count   receives the length of the array, at most `max`; also written when an element is bad
 * @param max     the number of records there is room for; further elements are ignored. With a negative number nothing
 *                is read, the status is 0, and `count` receives that number.
 * @return 0; TAVRIX_ERR_PARAMETER for a null `key`, `records` or `count` and for any bad element;
 *         TAVRIX_ERR_PARAMETER_NOT_FOUND, TAVRIX_ERR_INVALID_PARAMETER
 */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_ports(json_t *params, json_t **debug_message, const char *key,
                                                      tavrix_port_input *records, int *count, int max);
/** tavrix_jrpc_utils_retrieve_input_ports() for "port_number", "poe_status", "link_status" and "link_speed" only. */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_ports_hardware(json_t *params, json_t **debug_message, const char *key,
                                                               tavrix_port_hardware_input *records, int *count,
                                                               int max);
/**
 * Reads a list of objects with "mac" and "mask", both MAC addresses, into a new array.
 *
 * @param filters receives the array, at least one element, even for an empty list; the caller releases it with `free`.
 *                Untouched on failure.
 * @param count   receives the length of the list; also written when an element is bad
 * @param first   copied into every element
 * @param second  copied into every element
 * @return 0; TAVRIX_ERR_NULL_INPUT for any null pointer, including `params` and `debug_message`; TAVRIX_ERR_NO_MEMORY
 *         when memory runs out; TAVRIX_ERR_PARAMETER_NOT_FOUND, TAVRIX_ERR_INVALID_PARAMETER; TAVRIX_ERR_VALIDATION for
 *         an address that is refused
 */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_mac_filters(json_t *params, json_t **debug_message, const char *key,
                                                            tavrix_mac_filter **filters, int *count, int first,
                                                            int second);
/**
 * Copies a MAC address as tavrix_jrpc_utils_retrieve_input_mac_address() does, or the word "none" as it is.
 *
 * @return 0 or a shared status; TAVRIX_ERR_VALIDATION for anything else
 */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_macaddr_allowed(json_t *params, json_t **debug_message, const char *key,
                                                                char *out, size_t out_size);
/**
 * Copies an alias of at most 8 characters in upper case; it may be empty.
 *
 * A longer one replaces the debug message and releases the old object. `out` keeps the rejected value; it needs more
 * than 9 bytes, or a longer alias is cut before it is measured.
 *
 * @return 0 or a shared status; TAVRIX_ERR_VALIDATION for a longer alias
 */
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_alias(json_t *params, json_t **debug_message, const char *key,
                                                      char *out, size_t out_size);
/**
 * Reads one of tavrix_secure_option_strings; the choice is always recorded in the log.
 *
 * @param out receives its number: "current" 0, "enable" 1, "disable" 2
 * @return 0; TAVRIX_ERR_INVALID_PARAMETER for any failure, including null arguments
 */
TAVRIX_API int tavrix_jrpc_utils_parse_input_secure_option(json_t *params, json_t **debug_message, const char *key,
                                                           int *out);
/**
 * Builds the JSON array of MAC addresses for a reply.
 *
 * @param array receives a new array, which the caller releases; null on failure, but untouched with
 *               TAVRIX_ERR_NULL_INPUT
 * @param macs  texts of up to 19 characters; may be null when `count` is 0
 * @param count the number of texts; at most TAVRIX_MAX_LISTED_MACS are listed, none for a negative number. The
 *              list ends early, with a warning in the log, at a text that is not UTF-8 or for which there is no memory.
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null `array`, and for null `macs` unless `count` is 0; TAVRIX_ERR_NO_MEMORY
 *         when there is none for the array; TAVRIX_ERR_GENERAL when an entry cannot be appended
 */
TAVRIX_API int tavrix_jrpc_utils_populate_json_mac_addresses_array(json_t **array, char (*macs)[TAVRIX_MAC_TEXT_SIZE],
                                                                   int count);

#ifdef __cplusplus
}
#endif

#endif

/**
 * @file tavrix_jrpc_utils.h
 */
#ifndef TAVRIX_JRPC_UTILS_H
#define TAVRIX_JRPC_UTILS_H

#include "tavrix_export.h"
#include <jansson.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tavrix_port_input {
    int32_t user_tag; /* the daemon's own; never read or written here */
    int32_t port_number, port_status, poe_status, link_status, link_speed, vlan_mode;
    int32_t user_data[4]; /* the daemon's own */
    int32_t vlan_ids[32];
    int32_t vlan_count;
} tavrix_port_input;

typedef struct tavrix_port_hardware_input {
    int32_t port_number, poe_status, link_status, link_speed;
} tavrix_port_hardware_input;

typedef struct tavrix_mac_filter {
    int32_t first, second;
    char mac[20];
    char mask[20];
} tavrix_mac_filter;

TAVRIX_API int tavrix_jrpc_utils_parse_input_bool(json_t *params, json_t **debug_message, const char *key,
                                                  json_t **out);
TAVRIX_API int tavrix_jrpc_utils_parse_input_array(json_t *params, json_t **debug_message, const char *key,
                                                   json_t **out);
TAVRIX_API int tavrix_jrpc_utils_parse_input_string(json_t *params, json_t **debug_message, const char *key, char *out,
                                                    size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_parse_input_integer(json_t *params, json_t **debug_message, const char *key, int *out);
TAVRIX_API int tavrix_jrpc_utils_parse_input_uint64_t(json_t *params, json_t **debug_message, const char *key,
                                                      uint64_t *out);
TAVRIX_API int tavrix_jrpc_utils_parse_input_float(json_t *params, json_t **debug_message, const char *key, float *out);

TAVRIX_API int tavrix_jrpc_utils_retrieve_input_status(json_t *params, json_t **debug_message, const char *key,
                                                       char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_description(json_t *params, json_t **debug_message, const char *key,
                                                            char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_vlan_mode(json_t *params, json_t **debug_message, const char *key,
                                                          char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_mzu_model(json_t *params, json_t **debug_message, const char *key,
                                                          char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_mzu_sw_upgrade_filename(json_t *params, json_t **debug_message,
                                                                        const char *key, char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_mac_address(json_t *params, json_t **debug_message, const char *key,
                                                            char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_unit_sw_bank(json_t *params, json_t **debug_message, const char *key,
                                                             char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_ip_address(json_t *params, json_t **debug_message, const char *key,
                                                           char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_unit_sw_upgrade_filename(json_t *params, json_t **debug_message,
                                                                         const char *key, char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_username(json_t *params, json_t **debug_message, const char *key,
                                                         char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_password(json_t *params, json_t **debug_message, const char *key,
                                                         char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_date(json_t *params, json_t **debug_message, const char *key, char *out,
                                                     size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_time(json_t *params, json_t **debug_message, const char *key, char *out,
                                                     size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_entity_name(json_t *params, json_t **debug_message, const char *key,
                                                            char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_entity_extension(json_t *params, json_t **debug_message,
                                                                 const char *key, char *out, size_t out_size);

TAVRIX_API int tavrix_jrpc_utils_retrieve_input_vlan_id(json_t *params, json_t **debug_message, const char *key,
                                                        int *out);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_unit_id(json_t *params, json_t **debug_message, const char *key,
                                                        int *out);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_periodic_interval(json_t *params, json_t **debug_message,
                                                                  const char *key, int *out);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_laser_id(json_t *params, json_t **debug_message, const char *key,
                                                         int *out);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_olt_id(json_t *params, json_t **debug_message, const char *key,
                                                       int *out);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_onu_id(json_t *params, json_t **debug_message, const char *key,
                                                       int *out);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_port_number(json_t *params, json_t **debug_message, const char *key,
                                                            int *out);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_port_link_speed(json_t *params, json_t **debug_message, const char *key,
                                                                int *out);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_enable(json_t *params, json_t **debug_message, const char *key,
                                                       int *out);

TAVRIX_API int tavrix_jrpc_utils_retrieve_input_port_id(json_t *params, json_t **debug_message, const char *key,
                                                        char *out, size_t out_size, bool allow_all, bool allow_mzu_id,
                                                        bool allow_c_port, bool allow_d_port);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_mzu_id(json_t *params, json_t **debug_message, const char *key,
                                                       char *out, size_t out_size, bool allow_all);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_vlan_ids(json_t *params, json_t **debug_message, const char *key,
                                                         int *ids, int *count);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_ports(json_t *params, json_t **debug_message, const char *key,
                                                      tavrix_port_input *records, int *count, int max);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_ports_hardware(json_t *params, json_t **debug_message, const char *key,
                                                               tavrix_port_hardware_input *records, int *count,
                                                               int max);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_mac_filters(json_t *params, json_t **debug_message, const char *key,
                                                            tavrix_mac_filter **filters, int *count, int first,
                                                            int second);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_macaddr_allowed(json_t *params, json_t **debug_message, const char *key,
                                                                char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_retrieve_input_alias(json_t *params, json_t **debug_message, const char *key,
                                                      char *out, size_t out_size);
TAVRIX_API int tavrix_jrpc_utils_parse_input_secure_option(json_t *params, json_t **debug_message, const char *key,
                                                           int *out);
TAVRIX_API int tavrix_jrpc_utils_populate_json_mac_addresses_array(json_t **array, char (*macs)[20], int count);

#ifdef __cplusplus
}
#endif

#endif

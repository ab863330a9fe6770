/**
 * @file tavrix_utils.h
 */
#ifndef TAVRIX_UTILS_H
#define TAVRIX_UTILS_H

#include "tavrix_export.h"
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

TAVRIX_API extern const char *const tavrix_state_troubled_strings[4];
TAVRIX_API extern const char *const tavrix_state_failed_strings[4];
TAVRIX_API extern const char *const tavrix_admin_status_strings[3];
TAVRIX_API extern const char *const tavrix_port_status_strings[3];
TAVRIX_API extern const char *const tavrix_poe_status_strings[6];
TAVRIX_API extern const char *const tavrix_link_status_strings[5];
TAVRIX_API extern const char *const tavrix_link_speed_strings[8];
TAVRIX_API extern const char *const tavrix_vlan_mode_strings[6];
TAVRIX_API extern const char *const tavrix_mzu_model_strings[12];
TAVRIX_API extern const char *const tavrix_secure_option_strings[4];

typedef struct tavrix_port_list {
    int32_t user_tag; /* the daemon's own */
    uint16_t ports[1000];
    uint16_t units[1000];
    int16_t count;
} tavrix_port_list;

typedef struct tavrix_mac_array {
    char (*entries)[20];
    int32_t count;
} tavrix_mac_array;

typedef struct tavrix_mac_vector {
    tavrix_mac_array *array;
    int32_t capacity;
} tavrix_mac_vector;

typedef struct tavrix_port_macs {
    char (*macs)[20];
    size_t count;
} tavrix_port_macs;

typedef struct tavrix_mzu_record {
    int32_t unit;
    int32_t model;
    int32_t connection_state;
    char mac[20];
} tavrix_mzu_record;

TAVRIX_API int16_t tavrix_validate_and_format_mac_addr_string(char *text);
TAVRIX_API int tavrix_str_to_mac_address(char *text, unsigned char *bytes);
TAVRIX_API int tavrix_mac_address_to_char_array(const char *text, unsigned char *bytes);
TAVRIX_API int tavrix_bytes_to_mac_address_string(char *out, const unsigned char *bytes);
TAVRIX_API int tavrix_mac_last_4_bytes_to_uint32_t(const unsigned char *bytes, uint32_t *out);
TAVRIX_API int tavrix_get_num_macs_to_list(int n);
TAVRIX_API int tavrix_mac_vector_init(tavrix_mac_vector *vector, tavrix_mac_array *array);
TAVRIX_API int tavrix_mac_vector_insert(tavrix_mac_vector *vector, const void *source, int is_text);
TAVRIX_API void tavrix_free_port_macs_array(tavrix_port_macs *entries, int count);
TAVRIX_API int tavrix_tokenize_ip_address(unsigned char *out, const char *text, int out_len);
TAVRIX_API int tavrix_create_port_id_str(char *out, size_t out_size, int unit, int port);
TAVRIX_API int tavrix_create_mzu_id_str(char *out, size_t out_size, int unit);
TAVRIX_API int tavrix_parse_mzu_port_id(int *unit, int *port, const char *text);
TAVRIX_API int tavrix_port_str_create(const tavrix_port_list *list, int *cursor, char *out, int width);
TAVRIX_API bool tavrix_mzu_is_online(const tavrix_mzu_record *record);
TAVRIX_API int tavrix_utils_sw_version_strcmp(const char *a, const char *b);

TAVRIX_API int tavrix_check_for_null(int count, ...);
TAVRIX_API int strparse(const char *text, const char *stops, char *out);
TAVRIX_API int isdigits(const char *text);
TAVRIX_API int tavrix_to_lower_case(char *out, size_t out_size, const char *text);
TAVRIX_API int tavrix_to_upper_case(char *text, int max);
TAVRIX_API int tavrix_str_to_upper(char *text);
TAVRIX_API int tavrix_remove_surrounding_quotes(const char *text, char *out, size_t out_size);
TAVRIX_API int tavrix_cli_desc_parse(const char *text, char *out);
TAVRIX_API int tavrix_enum_to_str(char *out, size_t out_size, int value, const char *const *table);
TAVRIX_API int tavrix_str_to_enum(int *out, const char *text, const char *const *table);

TAVRIX_API int mw_exec_command_line(const char *command, char *out);
TAVRIX_API int file_exists(const char *path);
TAVRIX_API char *tavrix_file_stats(const char *path, const char *filter1, const char *filter2, int column);
TAVRIX_API int tavrix_check_md5(const char *file, const char *md5_file, bool *match);
TAVRIX_API int tavrix_get_board_rev_number(void);
TAVRIX_API int tavrix_terminate_process(void);
TAVRIX_API int tavrix_utils_format_seconds_as_time_sentence(int seconds, char *out);
TAVRIX_API void tavrix_debug_print_bytes(const void *bytes, int length, const char *title);
TAVRIX_API void tavrix_utils_system_log(const char *tag, const char *file, int line, const char *format, ...);
TAVRIX_API int tavrix_get_nn_rcvfd(int socket, int *fd);

#ifdef __cplusplus
}
#endif

#endif

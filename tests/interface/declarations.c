/*
 * The binary interface once more, as the daemons in the field were compiled against it: a declaration or a record of
 * the headers that differs does not compile here.
 */
#include <stddef.h>
#include <tavrix.h>

/* clang-format off */
/* tavrix_error.h */

extern const char *const tavrix_error_strings[75];
const char *tavrix_error_decode(int code);

/* tavrix_lsyslog.h */

extern const char *const tavrix_log_level_strings[7];
int tavrix_lsyslog_init(const char *name);
int tavrix_lsyslog_shutdown(void);
int tavrix_lsyslog_set_socket(int fd);
int tavrix_lsyslog_log(int level, const char *file, int line, const char *format, ...);
int tavrix_lsyslog_check_severity(int level);
int tavrix_lsyslog_reload_conf(void);
int tavrix_lsyslog_reload_conf_api(json_t *params, json_t **result, json_t **error_data);
int tavrix_lsyslog_is_json_method_lsyslog(const char *method);

/* tavrix_conf_parser.h */

int tavrix_conf_parser_parse(const char *path, const char *section, const char *key, char *out, int out_size);

/* tavrix_mq.h */

int tavrix_mq_socket_init(int sp_type, int *sock_out);
int tavrix_mq_socket_bind(int sock, int transport, const char *addr, int *eid_out);
int tavrix_mq_socket_connect(int sock, int transport, const char *addr, int *eid_out);
int tavrix_mq_socket_recv(int sock, char **msg_out, int *len_out, int nonblock);
int tavrix_mq_socket_send(int sock, const char *text);
int tavrix_mq_socket_send_nonblock(int sock, const char *text);
int tavrix_mq_socket_shutdown(int sock, int eid);
int tavrix_mq_socket_close(int sock);
void tavrix_mq_socket_terminate(void);
int tavrix_mq_socket_freemsg(void *msg);
int tavrix_mq_socket_recvfd(int sock, int *fd_out);
int tavrix_mq_socket_sendfd(int sock, int *fd_out);
int tavrix_mq_socket_subscribe(int sock, const char *topic);
int tavrix_mq_socket_unsubscribe(int sock, const char *topic);
int tavrix_mq_socket_set_timeout(int sock, int ms);
int tavrix_mq_socket_get_timeout(int sock, int *ms_out);

/* tavrix_jrpc.h */

int tavrix_jrpc_error_convert_tavrix_to_jrpc(int internal_code);
int tavrix_jrpc_error_convert_jrpc_to_tavrix(int jrpc_code);
const char *tavrix_jrpc_error_message(int jrpc_code);
int tavrix_jrpc_eval_request(const char *request_text, const tavrix_jrpc_method *table, char **response_text);
char *tavrix_jrpc_create_response(json_t *result, json_t *id, int indent, json_t *transaction_id);
char *tavrix_jrpc_create_error(int jrpc_code, json_t *id, json_t *data, int indent, json_t *transaction_id);
char *tavrix_api_router_json_add_channel(const char *channel, const char *json_text);
int tavrix_jrpc_parse_msg(const char *frame, int length, char **json_out);
int tavrix_jrpc_parse_channel(const char *json_text, char **channel_out);
char *tavrix_api_router_json_parse_channel(const char *method);
int tavrix_jrpc_mq_pub_init(const char *address, int *pub_sock_out);
int tavrix_jrpc_mq_sub_init(int *sub_sock_out, int with_timeout);
int tavrix_jrpc_mq_sub_set_channel(const char *address, const char *channel, int *sub_sock);
int tavrix_jrpc_mq_run(int *sub_sock, int *pub_sock, const tavrix_jrpc_method *table, int nonblock);
int tavrix_jrpc_mq_pub(const int *pub_sock, const char *channel, const char *json_text);
int tavrix_jrpc_mq_sub_for_method(int sub_sock, const char *method, json_t **reply_out);
int tavrix_jrpc_eval_method(const char *method, const char *json_text, json_t **reply_out);
int tavrix_jrpc_mq_sub_for_notifcation(int sub_sock, const char *method, json_t **notification_out);
int tavrix_jrpc_eval_notification(const char *method, const char *json_text, json_t **out);
int tavrix_jrpc_unix_socket_init(const char *path, int *sock_out, int nonblocking);
int tavrix_jrpc_tcp_socket_init(unsigned port, int *sock_out, int nonblocking);
int tavrix_jrpc_unix_socket_run(const int *listen_sock, const tavrix_jrpc_method *table);
int tavrix_jrpc_tcp_socket_run(const int *listen_sock, const tavrix_jrpc_method *table);
int tavrix_jrpc_pull_socket_init(const char *address, int *sock_out);
int tavrix_jrpc_pull_socket_run(int sock, const tavrix_jrpc_method *table);
int tavrix_jrpc_router_socket_to_mq(const int *listen_sock, const int *pub_sock, int *client_out);
int tavrix_jrpc_router_socket_extract_request(const int *listen_sock, int *client_out, json_t **request_out);
int tavrix_jrpc_router_mq_dispatch_request(const int *pub_sock, json_t *request);
int tavrix_jrpc_router_mq_to_socket(const int *sub_sock, int *client_sock);
int tavrix_jrpc_router_mq_extract_response(const int *sub_sock, json_t **response_out);
int tavrix_jrpc_router_socket_dispatch_response(const int *client_sock, json_t *response);
int tavrix_jrpc_router_eval_notification(json_t *notification, const tavrix_jrpc_method *table);
int tavrix_jrpc_router_create_system_lock_response(json_t *request, json_t **response_out);
int tavrix_jrpc_router_create_system_timeout_response(const char *id, int transaction_id, json_t **response_out);

/* tavrix_socket.h */

int tavrix_unix_socket_init(const char *path, int *sock_out, int nonblocking);
int tavrix_tcp_socket_init(unsigned port, int *sock_out, int nonblocking);
int tavrix_socket_accept(const int *listen_sock, int *client_out);
int tavrix_tcp_socket_accept(const int *listen_sock, int *client_out);
int tavrix_tcp_socket_connect(const char *ipv4_text, unsigned port, int *sock_out);
int tavrix_socket_recv(const int *sock, char *buf, size_t len);
int tavrix_socket_send(const int *sock, const char *text);
int tavrix_socket_close(int *sock);
int tavrix_socket_shutdown(int *sock);

/* tavrix_validation.h */

int validate_port_id(const char *value);
int validate_c_port_id(const char *value);
int validate_d_port_id(const char *value);
int validate_vlan_name_id(const char *value);
int validate_mzu_id(const char *value);
int validate_mzu_sw_upgrade_filename(const char *value);
int validate_unit_sw_upgrade_filename(const char *value);
int validate_date(const char *value);
int validate_time(const char *value);
int validate_uuid(const char *value);
int validate_ip_address(const char *value);
int validate_mac_address(const char *value);
int validate_description(const char *value);
int validate_password(const char *value);
int validate_username(const char *value);
int validate_status(const char *value);
int validate_vlan_mode(const char *value);
int validate_unit_sw_bank(const char *value);
int validate_mzu_model(const char *value);
int validate_entity_name(const char *value);
int validate_entity_extension(const char *value);
int validate_vlan_id(int value);
int validate_unit_id(int value);
int validate_laser_id(int value);
int validate_olt_id(int value);
int validate_onu_id(int value);
int validate_port_number(int value);
int validate_periodic_interval(int value);
int validate_port_link_speed(int value);
int validate_date_time(const char *date, const char *time);

/* tavrix_jrpc_utils.h */

int tavrix_jrpc_utils_parse_input_bool(json_t *params, json_t **debug_message, const char *key, json_t **out);
int tavrix_jrpc_utils_parse_input_array(json_t *params, json_t **debug_message, const char *key, json_t **out);
int tavrix_jrpc_utils_parse_input_string(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_parse_input_integer(json_t *params, json_t **debug_message, const char *key, int *out);
int tavrix_jrpc_utils_parse_input_uint64_t(json_t *params, json_t **debug_message, const char *key, uint64_t *out);
int tavrix_jrpc_utils_parse_input_float(json_t *params, json_t **debug_message, const char *key, float *out);
int tavrix_jrpc_utils_retrieve_input_status(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_description(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_vlan_mode(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_mzu_model(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_mzu_sw_upgrade_filename(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_mac_address(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_unit_sw_bank(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_ip_address(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_unit_sw_upgrade_filename(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_username(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_password(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_date(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_time(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_entity_name(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_entity_extension(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_macaddr_allowed(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_alias(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
int tavrix_jrpc_utils_retrieve_input_vlan_id(json_t *params, json_t **debug_message, const char *key, int *out);
int tavrix_jrpc_utils_retrieve_input_unit_id(json_t *params, json_t **debug_message, const char *key, int *out);
int tavrix_jrpc_utils_retrieve_input_periodic_interval(json_t *params, json_t **debug_message, const char *key, int *out);
int tavrix_jrpc_utils_retrieve_input_laser_id(json_t *params, json_t **debug_message, const char *key, int *out);
int tavrix_jrpc_utils_retrieve_input_olt_id(json_t *params, json_t **debug_message, const char *key, int *out);
int tavrix_jrpc_utils_retrieve_input_onu_id(json_t *params, json_t **debug_message, const char *key, int *out);
int tavrix_jrpc_utils_retrieve_input_port_number(json_t *params, json_t **debug_message, const char *key, int *out);
int tavrix_jrpc_utils_retrieve_input_port_link_speed(json_t *params, json_t **debug_message, const char *key, int *out);
int tavrix_jrpc_utils_retrieve_input_enable(json_t *params, json_t **debug_message, const char *key, int *out);
int tavrix_jrpc_utils_retrieve_input_port_id(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size, bool allow_all, bool allow_mzu_id, bool allow_c_port, bool allow_d_port);
int tavrix_jrpc_utils_retrieve_input_mzu_id(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size, bool allow_all);
int tavrix_jrpc_utils_retrieve_input_vlan_ids(json_t *params, json_t **debug_message, const char *key, int *ids, int *count);
int tavrix_jrpc_utils_retrieve_input_ports(json_t *params, json_t **debug_message, const char *key, tavrix_port_input *records, int *count, int max);
int tavrix_jrpc_utils_retrieve_input_ports_hardware(json_t *params, json_t **debug_message, const char *key, tavrix_port_hardware_input *records, int *count, int max);
int tavrix_jrpc_utils_retrieve_input_mac_filters(json_t *params, json_t **debug_message, const char *key, tavrix_mac_filter **filters, int *count, int first, int second);
int tavrix_jrpc_utils_parse_input_secure_option(json_t *params, json_t **debug_message, const char *key, int *out);
int tavrix_jrpc_utils_populate_json_mac_addresses_array(json_t **array, char (*macs)[20], int count);

/* tavrix_sqlite3.h */

int tavrix_sqlite3_prepare_sql(sqlite3 *db, sqlite3_stmt **stmt_out, const char *format, ...);
int tavrix_sqlite3_prepare_sql_args(sqlite3 *db, sqlite3_stmt **stmt_out, const char *format, va_list args);
int tavrix_sqlite3_get_single_id_result(sqlite3 *db, int64_t *out, const char *format, ...);
int tavrix_sqlite3_get_single_id_result_args(sqlite3 *db, int64_t *out, const char *format, va_list args);
int tavrix_sqlite3_get_single_string_result(sqlite3 *db, char *out, size_t size, const char *format, ...);
int tavrix_sqlite3_step_retrieve_int(sqlite3_stmt *stmt, int64_t *out);
int tavrix_sqlite3_exec(sqlite3 *db, const char *sql, int (*callback)(void *, int, char **, char **), void *arg, char **errmsg);
int tavrix_sqlite3_exec_sql(sqlite3 *db, const char *format, ...);

/* tavrix_db_api.h */

int tavrix_db_open(sqlite3 **handle_var);
int tavrix_db_open_file(sqlite3 **handle_var, const char *path);
int tavrix_db_ensure_open(sqlite3 **handle_var);
int tavrix_db_ensure_open_file(sqlite3 **handle_var, const char *path);
int tavrix_db_close(sqlite3 *handle);
void tavrix_db_lock_cfgdb(void);
void tavrix_db_unlock_cfgdb(void);
int tavrix_db_prepare_statement(sqlite3 *handle, const char *path, sqlite3_stmt **stmt_out, const char *sql);
int tavrix_db_get_single_id_result(sqlite3 *handle, const char *path, const char *name, int64_t *out, const char *format, ...);
int tavrix_db_get_single_id_result_args(sqlite3 *handle, const char *path, const char *name, int64_t *out, const char *format, va_list args);
int tavrix_db_open_transaction(sqlite3 *handle);
int tavrix_db_commit_transaction(sqlite3 *handle);
int tavrix_db_rollback_transaction(sqlite3 *handle);

/* tavrix_timer.h */

int tavrix_timer_init(int *fd_out, int nonblock);
int tavrix_timer_set(int fd, int period_s, int interval_s);
int tavrix_timer_nsec_set(int fd, float period, float interval);
int tavrix_timer_read(int fd);
int tavrix_timer_free(int *fd);

/* tavrix_shm.h */

int tavrix_shm_create(const char *name, size_t size);
int tavrix_shm_set_string(const char *name, size_t len, const char *text);
int tavrix_shm_get_string(const char *name, size_t len, char *dst);
int tavrix_shm_set_int(const char *name, const int *value);
int tavrix_shm_get_int(const char *name, int *value_out);
int tavrix_shm_clear(const char *name, size_t len);

/* tavrix_utils.h */

extern const char *const tavrix_state_troubled_strings[4];
extern const char *const tavrix_state_failed_strings[4];
extern const char *const tavrix_admin_status_strings[3];
extern const char *const tavrix_port_status_strings[3];
extern const char *const tavrix_poe_status_strings[6];
extern const char *const tavrix_link_status_strings[5];
extern const char *const tavrix_link_speed_strings[8];
extern const char *const tavrix_vlan_mode_strings[6];
extern const char *const tavrix_mzu_model_strings[12];
extern const char *const tavrix_secure_option_strings[4];
int16_t tavrix_validate_and_format_mac_addr_string(char *text);
int tavrix_str_to_mac_address(char *text, unsigned char *bytes);
int tavrix_mac_address_to_char_array(const char *text, unsigned char *bytes);
int tavrix_bytes_to_mac_address_string(char *out, const unsigned char *bytes);
int tavrix_mac_last_4_bytes_to_uint32_t(const unsigned char *bytes, uint32_t *out);
int tavrix_get_num_macs_to_list(int n);
int tavrix_mac_vector_init(tavrix_mac_vector *vector, tavrix_mac_array *array);
int tavrix_mac_vector_insert(tavrix_mac_vector *vector, const void *source, int is_text);
void tavrix_free_port_macs_array(tavrix_port_macs *entries, int count);
int tavrix_tokenize_ip_address(unsigned char *out, const char *text, int out_len);
int tavrix_create_port_id_str(char *out, size_t out_size, int unit, int port);
int tavrix_create_mzu_id_str(char *out, size_t out_size, int unit);
int tavrix_parse_mzu_port_id(int *unit, int *port, const char *text);
int tavrix_port_str_create(const tavrix_port_list *list, int *cursor, char *out, int width);
bool tavrix_mzu_is_online(const tavrix_mzu_record *record);
int tavrix_utils_sw_version_strcmp(const char *a, const char *b);
int tavrix_check_for_null(int count, ...);
int strparse(const char *text, const char *stops, char *out);
int isdigits(const char *text);
int tavrix_to_lower_case(char *out, size_t out_size, const char *text);
int tavrix_to_upper_case(char *text, int max);
int tavrix_str_to_upper(char *text);
int tavrix_remove_surrounding_quotes(const char *text, char *out, size_t out_size);
int tavrix_cli_desc_parse(const char *text, char *out);
int tavrix_enum_to_str(char *out, size_t out_size, int value, const char *const *table);
int tavrix_str_to_enum(int *out, const char *text, const char *const *table);
int mw_exec_command_line(const char *command, char *out);
int file_exists(const char *path);
char *tavrix_file_stats(const char *path, const char *filter1, const char *filter2, int column);
int tavrix_check_md5(const char *file, const char *md5_file, bool *match);
int tavrix_get_board_rev_number(void);
int tavrix_terminate_process(void);
int tavrix_utils_format_seconds_as_time_sentence(int seconds, char *out);
void tavrix_debug_print_bytes(const void *bytes, int length, const char *title);
void tavrix_utils_system_log(const char *tag, const char *file, int line, const char *format, ...);
int tavrix_get_nn_rcvfd(int socket, int *fd);

/* clang-format on */

#define SAME_TYPE(expression, type) _Static_assert(_Generic((expression), type : 1, default : 0), #expression)
#define MEMBER_AT(record, member, offset) _Static_assert(offsetof(record, member) == (offset), #record "." #member)
#define SIZE_OF(record, size) _Static_assert(sizeof(record) == (size), #record)

SAME_TYPE((tavrix_jrpc_handler)0, int (*)(json_t *, json_t **, json_t **));
SIZE_OF(tavrix_jrpc_method, 2 * sizeof(void *));
MEMBER_AT(tavrix_jrpc_method, name, 0);
MEMBER_AT(tavrix_jrpc_method, handler, sizeof(void *));

SIZE_OF(tavrix_port_input, 176);
MEMBER_AT(tavrix_port_input, user_tag, 0);
MEMBER_AT(tavrix_port_input, port_number, 4);
MEMBER_AT(tavrix_port_input, port_status, 8);
MEMBER_AT(tavrix_port_input, poe_status, 12);
MEMBER_AT(tavrix_port_input, link_status, 16);
MEMBER_AT(tavrix_port_input, link_speed, 20);
MEMBER_AT(tavrix_port_input, vlan_mode, 24);
MEMBER_AT(tavrix_port_input, user_data, 28);
MEMBER_AT(tavrix_port_input, vlan_ids, 44);
MEMBER_AT(tavrix_port_input, vlan_count, 172);

SIZE_OF(tavrix_port_hardware_input, 16);
MEMBER_AT(tavrix_port_hardware_input, port_number, 0);
MEMBER_AT(tavrix_port_hardware_input, poe_status, 4);
MEMBER_AT(tavrix_port_hardware_input, link_status, 8);
MEMBER_AT(tavrix_port_hardware_input, link_speed, 12);

SIZE_OF(tavrix_mac_filter, 48);
MEMBER_AT(tavrix_mac_filter, first, 0);
MEMBER_AT(tavrix_mac_filter, second, 4);
MEMBER_AT(tavrix_mac_filter, mac, 8);
MEMBER_AT(tavrix_mac_filter, mask, 28);

SIZE_OF(tavrix_port_list, 4008);
MEMBER_AT(tavrix_port_list, ports, 4);
MEMBER_AT(tavrix_port_list, units, 2004);
MEMBER_AT(tavrix_port_list, count, 4004);

SIZE_OF(tavrix_mac_array, 2 * sizeof(void *));
MEMBER_AT(tavrix_mac_array, count, sizeof(void *));
SAME_TYPE(((tavrix_mac_array *)0)->entries, char (*)[20]);
SIZE_OF(tavrix_mac_vector, 2 * sizeof(void *));
MEMBER_AT(tavrix_mac_vector, capacity, sizeof(void *));
SAME_TYPE(((tavrix_mac_vector *)0)->array, tavrix_mac_array *);
SIZE_OF(tavrix_port_macs, 2 * sizeof(void *));
MEMBER_AT(tavrix_port_macs, count, sizeof(void *));
SAME_TYPE(((tavrix_port_macs *)0)->macs, char (*)[20]);
SAME_TYPE(((tavrix_port_macs *)0)->count, size_t);

SIZE_OF(tavrix_mzu_record, 32);
MEMBER_AT(tavrix_mzu_record, unit, 0);
MEMBER_AT(tavrix_mzu_record, model, 4);
MEMBER_AT(tavrix_mzu_record, connection_state, 8);
MEMBER_AT(tavrix_mzu_record, mac, 12);

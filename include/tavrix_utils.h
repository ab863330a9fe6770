/**
 * @file tavrix_utils.h
 * Enumeration words, addresses and identifiers, strings, shell and file helpers.
 *
 * @code
 * int unit, port;
 * char text[16];
 * if (tavrix_parse_mzu_port_id(&unit, &port, "c12-5") == TAVRIX_OK)
 *     tavrix_create_port_id_str(text, sizeof text, unit, port);
 * @endcode
 *
 * A port is a pair: unit 0 is the appliance with its ports d1 to d4, units 1 to 128 are the edge switches, port 32767
 * stands for a whole unit. A MAC address is 17 characters, upper-case pairs between colons, in buffers of 20 bytes.
 * Functions return 0 or a negative status unless they say otherwise.
 *
 * Thread-safety: strparse() and tavrix_parse_mzu_port_id() share a hidden, process-wide cursor and must not run on two
 * threads at once; the rest is re-entrant.
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

/**
 * Words by value; each table ends with a null pointer. The positions are stored in the configuration: they never move.
 */
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

/** Ports for display: entry i of both arrays is one port. */
typedef struct tavrix_port_list {
    int32_t user_tag; /* the daemon's own */
    uint16_t ports[1000];
    uint16_t units[1000];
    int16_t count;
} tavrix_port_list;

/** MAC texts and how many are used. */
typedef struct tavrix_mac_array {
    char (*entries)[20];
    int32_t count;
} tavrix_mac_array;

/** A MAC array that grows, and the entries it has room for. */
typedef struct tavrix_mac_vector {
    tavrix_mac_array *array;
    int32_t capacity;
} tavrix_mac_vector;

/** The MAC addresses seen on one port. */
typedef struct tavrix_port_macs {
    char (*macs)[20];
    size_t count;
} tavrix_port_macs;

/** A unit as the daemons know it; connected when connection_state is above 0. */
typedef struct tavrix_mzu_record {
    int32_t unit;
    int32_t model;
    int32_t connection_state;
    char mac[20];
} tavrix_mzu_record;

/** Checks a MAC address and rewrites it in canonical form, in place. @return 0; -4, and the text stays as it was */
TAVRIX_API int16_t tavrix_validate_and_format_mac_addr_string(char *text);

/**
 * Canonicalises a MAC address and converts it to 6 bytes. The text is cut into its pieces.
 *
 * @return 0; -20 for a null argument; -4
 */
TAVRIX_API int tavrix_str_to_mac_address(char *text, unsigned char *bytes);

/** Converts pairs between colons to 6 bytes. @return 0; -20 for a null argument; -4, some bytes may be written */
TAVRIX_API int tavrix_mac_address_to_char_array(const char *text, unsigned char *bytes);

/** Prints 6 bytes as a MAC address into a buffer of 20 bytes. The arguments are not tested. @return 0 */
TAVRIX_API int tavrix_bytes_to_mac_address_string(char *out, const unsigned char *bytes);

/** Bytes 2 to 5 as a big-endian number. The arguments are not tested. @return 0 */
TAVRIX_API int tavrix_mac_last_4_bytes_to_uint32_t(const unsigned char *bytes, uint32_t *out);

/** The smaller of `n` and 512, the most MAC addresses that a reply lists. */
TAVRIX_API int tavrix_get_num_macs_to_list(int n);

/**
 * Gives an array room for 8 entries and binds a vector to it. The caller releases `array->entries` with `free`.
 *
 * @return 0; -20 for a null argument; -22 without memory, after SIGTERM was raised
 */
TAVRIX_API int tavrix_mac_vector_init(tavrix_mac_vector *vector, tavrix_mac_array *array);

/**
 * Adds an entry, doubling the room when it is used up.
 *
 * @param source  a MAC text when `is_text` is 1 (cut to 19 characters), 6 bytes when it is 0
 * @return 0; -20 for a null argument; -4 for another flag; -1 without memory, after SIGTERM was raised
 */
TAVRIX_API int tavrix_mac_vector_insert(tavrix_mac_vector *vector, const void *source, int is_text);

/** Releases each element's list and the elements; null is fine. */
TAVRIX_API void tavrix_free_port_macs_array(tavrix_port_macs *entries, int count);

/** Splits a dotted quad into 4 bytes. @return 0; -20 for a null argument; -41 when `out_len` is not 4 */
TAVRIX_API int tavrix_tokenize_ip_address(unsigned char *out, const char *text, int out_len);

/** Prints a port's id, cut to the buffer: "d2", "c3-7". @return 0; -4 for a null buffer; -1 for a negative unit */
TAVRIX_API int tavrix_create_port_id_str(char *out, size_t out_size, int unit, int port);

/** Prints a unit's id, cut to the buffer: "c3". @return 0; -4 for a null buffer */
TAVRIX_API int tavrix_create_mzu_id_str(char *out, size_t out_size, int unit);

/**
 * Parses "c12-5", "C12/5", "c12" (the whole unit) or "d3", of at most 13 characters.
 *
 * @return 0; -5 for a unit above 1000; -6 for a D-port above 1000, or a port above 999 (then the unit is written
 *         already); -4 for anything else
 */
TAVRIX_API int tavrix_parse_mzu_port_id(int *unit, int *port, const char *text);

/**
 * Prints the next line of a port list: "c2-1, c2-2, d1", padded with blanks.
 *
 * @param cursor first entry to print; moved behind the last one looked at. One that does not fit any more is passed
 * over.
 * @param out    receives `width` characters and a terminator
 * @return 0; -20 for a null argument
 */
TAVRIX_API int tavrix_port_str_create(const tavrix_port_list *list, int *cursor, char *out, int width);

/** Whether a unit is connected; the record is not tested for null. */
TAVRIX_API bool tavrix_mzu_is_online(const tavrix_mzu_record *record);

/**
 * Compares versions number by number, as far as `b` goes; a number that `a` lacks counts as 0.
 *
 * @return -1, 0 or 1; -20 for a null argument
 */
TAVRIX_API int tavrix_utils_sw_version_strcmp(const char *a, const char *b);

/** Looks at `count` pointers; the first null one is logged by its index from 0. @return 0; -1 */
TAVRIX_API int tavrix_check_for_null(int count, ...);

/**
 * Takes the next piece of a text, up to a stop character, a newline or the end. The stop character is not skipped: the
 * next call begins with it.
 *
 * @param text  where to begin; null goes on behind the last piece
 * @param stops at most 11 characters count
 * @param out   receives the piece; the caller gives it room
 * @return 0; 1 when there is nothing to go on with; -4 for a null argument
 */
TAVRIX_API int strparse(const char *text, const char *stops, char *out);

/** 1 when every character is a decimal digit, also for the empty text; else 0. Not null. */
TAVRIX_API int isdigits(const char *text);

/** Copies a text in lower case, at most `out_size` - 1 characters. @return 0; -4 for a null argument */
TAVRIX_API int tavrix_to_lower_case(char *out, size_t out_size, const char *text);

/** Turns at most `max` characters to upper case, in place. @return 0; -4 for null */
TAVRIX_API int tavrix_to_upper_case(char *text, int max);

/** Turns a whole text to upper case, in place; not null. @return its length */
TAVRIX_API int tavrix_str_to_upper(char *text);

/**
 * Copies a text without its opening quote; the closing one stays. A copy that fills the buffer is not terminated.
 *
 * @return 0; -4 for a null argument
 */
TAVRIX_API int tavrix_remove_surrounding_quotes(const char *text, char *out, size_t out_size);

/**
 * Copies a text; when it stands between its only two quotes, without the opening one and without a terminator: clear
 * the buffer first.
 *
 * @return 0; -4 for a null argument
 */
TAVRIX_API int tavrix_cli_desc_parse(const char *text, char *out);

/** The word of a value, which has to lie within the table, cut to the buffer. @return 0; -4 for a null argument */
TAVRIX_API int tavrix_enum_to_str(char *out, size_t out_size, int value, const char *const *table);

/** The value of a word, compared exactly. @return 0; -4 for a null argument; -1 when the table lacks it */
TAVRIX_API int tavrix_str_to_enum(int *out, const char *text, const char *const *table);

/**
 * Runs a shell command and takes its first line, with its newline, at most 79 characters. Pass only trusted texts.
 *
 * @param out receives the line in at most 80 bytes; the empty text when there was none
 * @return 0; 1 when the command cannot be run
 */
TAVRIX_API int mw_exec_command_line(const char *command, char *out);

/** 1 when there is something at the path, else 0. */
TAVRIX_API int file_exists(const char *path);

/**
 * One column of a file's long listing, through the shell. Pass only trusted texts.
 *
 * @param filter1,filter2 words that the line has to hold; null or empty for none
 * @param column          from 1, as awk counts
 * @return a new text with its newline; null when there is none, or the command would not fit 3200 characters
 */
TAVRIX_API char *tavrix_file_stats(const char *path, const char *filter1, const char *filter2, int column);

/**
 * Compares a file's MD5 sum with the first word of another file.
 *
 * @param match receives whether they are equal; a difference is no failure
 * @return 0; -1 when either cannot be read
 */
TAVRIX_API int tavrix_check_md5(const char *file, const char *md5_file, bool *match);

/** The board's revision from the boot environment, one digit; 7 when it cannot be read. */
TAVRIX_API int tavrix_get_board_rev_number(void);

/** Logs and raises SIGTERM. @return what raise returned */
TAVRIX_API int tavrix_terminate_process(void);

/** Prints "1 days 01:01:01" into at least 32 bytes. @return 0; -4 for a null buffer */
TAVRIX_API int tavrix_utils_format_seconds_as_time_sentence(int seconds, char *out);

/** Logs bytes as hexadecimal at level 4, 16 a line; what goes beyond 10000 characters is left out. */
TAVRIX_API void tavrix_debug_print_bytes(const void *bytes, int length, const char *title);

/** Writes straight to standard error, past the level, with UTC time; adds no line end. Formats as printf does. */
TAVRIX_API void tavrix_utils_system_log(const char *tag, const char *file, int line, const char *format, ...);

/** The receive descriptor of a bus socket. @return 0; -1 */
TAVRIX_API int tavrix_get_nn_rcvfd(int socket, int *fd);

#ifdef __cplusplus
}
#endif

#endif

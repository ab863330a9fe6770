/**
 * @file tavrix_utils.h
 * Enumeration words, addresses and identifiers, strings, shell and file helpers.
 *
 * A port is a pair: unit 0 is the appliance with its ports d1 to d4, units 1 to 128 are the edge switches, port
 * TAVRIX_WHOLE_UNIT_PORT stands for a whole unit. A MAC address is 17 characters, upper-case pairs between colons, in
 * buffers of TAVRIX_MAC_TEXT_SIZE bytes, or TAVRIX_MAC_SIZE bytes. Functions return 0 or a negative status of
 * tavrix_error.h unless they say otherwise.
 *
 * Addresses and identifiers:
 * @code
 * int unit, port;
 * char text[16];
 * if (tavrix_parse_mzu_port_id(&unit, &port, "C12/5") == TAVRIX_OK)
 *     tavrix_create_port_id_str(text, sizeof text, unit, port); // "c12-5"
 * @endcode
 *
 * Enumerations:
 * @code
 * int mode;
 * char word[16];
 * if (tavrix_str_to_enum(&mode, "trunk", tavrix_vlan_mode_strings) == TAVRIX_OK && mode == TAVRIX_VLAN_MODE_TRUNK)
 *     tavrix_enum_to_str(word, sizeof word, TAVRIX_LINK_STATUS_UP, tavrix_link_status_strings); // "up"
 * @endcode
 *
 * Shell and files:
 * @code
 * bool match = false;
 * if (tavrix_check_md5("/media/usb/image", "/media/usb/image.md5", &match) == TAVRIX_OK && match)
 *     install("/media/usb/image");
 * @endcode
 *
 * Thread-safety: strparse() and tavrix_parse_mzu_port_id() share a hidden, process-wide cursor and must not run on two
 * threads at once; the rest is re-entrant, each call on its own objects.
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

/** The bytes of a MAC address, and of a buffer for its text. */
#define TAVRIX_MAC_SIZE 6
#define TAVRIX_MAC_TEXT_SIZE 20
/** The most MAC addresses that a reply lists. */
#define TAVRIX_MAX_LISTED_MACS 512
/** The port that stands for a whole unit. */
#define TAVRIX_WHOLE_UNIT_PORT 32767
/** The buffer sizes for mw_exec_command_line() and tavrix_utils_format_seconds_as_time_sentence(), in bytes. */
#define TAVRIX_COMMAND_OUTPUT_SIZE 80
#define TAVRIX_TIME_SENTENCE_SIZE 32
/** The board's revision when it cannot be read. */
#define TAVRIX_DEFAULT_BOARD_REVISION 7

/**
 * @name Enumerations
 * The values of the word tables below: the word of TAVRIX_LINK_STATUS_UP is
 * tavrix_link_status_strings[TAVRIX_LINK_STATUS_UP]. The numbers are stored in the configuration and never change.
 * Where there is an "unknown", it is 0, so that a zeroed record means unknown.
 * @{
 */
enum tavrix_state_troubled {
    TAVRIX_STATE_TROUBLED_DISABLED = 0,
    TAVRIX_STATE_TROUBLED_ENABLED = 1,
    TAVRIX_STATE_TROUBLED_TROUBLED = 2
};

enum tavrix_state_failed {
    TAVRIX_STATE_FAILED_DISABLED = 0,
    TAVRIX_STATE_FAILED_ENABLED = 1,
    TAVRIX_STATE_FAILED_FAILED = 2
};

enum tavrix_admin_status { TAVRIX_ADMIN_STATUS_DISABLE = 0, TAVRIX_ADMIN_STATUS_ENABLE = 1 };

enum tavrix_port_status { TAVRIX_PORT_STATUS_DISABLE = 0, TAVRIX_PORT_STATUS_ENABLE = 1 };

enum tavrix_poe_status {
    TAVRIX_POE_STATUS_UNKNOWN = 0,
    TAVRIX_POE_STATUS_DISABLED = 1,
    TAVRIX_POE_STATUS_ENABLED = 2,
    TAVRIX_POE_STATUS_OFFLINE = 3,
    TAVRIX_POE_STATUS_UNSUPPORTED = 4
};

enum tavrix_link_status {
    TAVRIX_LINK_STATUS_UNKNOWN = 0,
    TAVRIX_LINK_STATUS_DOWN = 1,
    TAVRIX_LINK_STATUS_UP = 2,
    TAVRIX_LINK_STATUS_OFFLINE = 3
};

/** States and speeds in one: the values below TAVRIX_LINK_SPEED_10_MBPS are not speeds. */
enum tavrix_link_speed {
    TAVRIX_LINK_SPEED_UNKNOWN = 0,
    TAVRIX_LINK_SPEED_OFFLINE = 1,
    TAVRIX_LINK_SPEED_NOT_APPLICABLE = 2, /**< "N/A" */
    TAVRIX_LINK_SPEED_UNSUPPORTED = 3,
    TAVRIX_LINK_SPEED_10_MBPS = 4,
    TAVRIX_LINK_SPEED_100_MBPS = 5,
    TAVRIX_LINK_SPEED_1000_MBPS = 6
};

/** Requests can name local, access and trunk only, see validate_vlan_mode(). */
enum tavrix_vlan_mode {
    TAVRIX_VLAN_MODE_UNKNOWN = 0,
    TAVRIX_VLAN_MODE_LOCAL = 1,
    TAVRIX_VLAN_MODE_ACCESS = 2,
    TAVRIX_VLAN_MODE_TRUNK = 3,
    TAVRIX_VLAN_MODE_TRANS = 4
};

enum tavrix_mzu_model {
    TAVRIX_MZU_MODEL_UNKNOWN = 0,
    TAVRIX_MZU_MODEL_ZQN_E09 = 1,
    TAVRIX_MZU_MODEL_ZQN_E10 = 2,
    TAVRIX_MZU_MODEL_ZQN_E11 = 3,
    TAVRIX_MZU_MODEL_ZQN_E12 = 4,
    TAVRIX_MZU_MODEL_ZQN_E13 = 5,
    TAVRIX_MZU_MODEL_ZQN_E14 = 6,
    TAVRIX_MZU_MODEL_GENERIC = 7, /**< "Generic MZU", between the named models */
    TAVRIX_MZU_MODEL_ZQN_E15 = 8,
    TAVRIX_MZU_MODEL_ZQN_E16 = 9,
    TAVRIX_MZU_MODEL_ZQN_E17 = 10
};

enum tavrix_secure_option {
    TAVRIX_SECURE_OPTION_CURRENT = 0,
    TAVRIX_SECURE_OPTION_ENABLE = 1,
    TAVRIX_SECURE_OPTION_DISABLE = 2
};
/** @} */

/** The words by value, one table for each enumeration above, each terminated by a null pointer. */
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

/** Ports for display: entry i of both arrays is one port, unit 0 for a D-port. */
typedef struct tavrix_port_list {
    int32_t user_tag; /* the daemon's own */
    uint16_t ports[1000];
    uint16_t units[1000];
    int16_t count;
} tavrix_port_list;

/** MAC texts, and how many of them are used; the entries come from `malloc`. */
typedef struct tavrix_mac_array {
    char (*entries)[TAVRIX_MAC_TEXT_SIZE];
    int32_t count;
} tavrix_mac_array;

/** A MAC array that grows, and how many entries it has room for. */
typedef struct tavrix_mac_vector {
    tavrix_mac_array *array;
    int32_t capacity;
} tavrix_mac_vector;

/** The MAC addresses seen on one port; the list comes from `malloc`. */
typedef struct tavrix_port_macs {
    char (*macs)[TAVRIX_MAC_TEXT_SIZE];
    size_t count;
} tavrix_port_macs;

/** A unit as the daemons know it; connected when connection_state is above 0. */
typedef struct tavrix_mzu_record {
    int32_t unit;
    int32_t model;
    int32_t connection_state;
    char mac[TAVRIX_MAC_TEXT_SIZE];
} tavrix_mzu_record;

/**
 * Checks a MAC address and rewrites it in canonical form, in place: "aa-bb-cc-dd-ee-ff" becomes "AA:BB:CC:DD:EE:FF".
 *
 * @param text 17 characters as validate_mac_address() takes them
 * @return 0; TAVRIX_ERR_PARAMETER for anything else, including null; the text then stays as it was
 */
TAVRIX_API int16_t tavrix_validate_and_format_mac_addr_string(char *text);

/**
 * Canonicalises a MAC address and converts it to bytes.
 *
 * @param text  the address; consumed: it is cut into pieces, and only the first pair remains readable
 * @param bytes receives TAVRIX_MAC_SIZE bytes
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; TAVRIX_ERR_PARAMETER when the text is not a MAC
 *         address; then nothing is changed
 */
TAVRIX_API int tavrix_str_to_mac_address(char *text, unsigned char *bytes);

/**
 * Converts hexadecimal numbers separated by colons to bytes. Nothing is validated: short numbers are accepted, and so
 * is anything after the sixth.
 *
 * @param bytes receives TAVRIX_MAC_SIZE bytes
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; TAVRIX_ERR_PARAMETER with fewer than six numbers; some of the
 *         bytes may then have been written
 */
TAVRIX_API int tavrix_mac_address_to_char_array(const char *text, unsigned char *bytes);

/**
 * Prints a MAC address.
 *
 * @param out   receives the text, in at most TAVRIX_MAC_TEXT_SIZE bytes; not null
 * @param bytes TAVRIX_MAC_SIZE bytes; not null
 * @return 0
 */
TAVRIX_API int tavrix_bytes_to_mac_address_string(char *out, const unsigned char *bytes);

/** Takes bytes 2 to 5 of a MAC address as a big-endian number. Neither argument may be null. @return 0 */
TAVRIX_API int tavrix_mac_last_4_bytes_to_uint32_t(const unsigned char *bytes, uint32_t *out);

/** The smaller of `n` and TAVRIX_MAX_LISTED_MACS. */
TAVRIX_API int tavrix_get_num_macs_to_list(int n);

/**
 * Gives an array room for 8 entries, empties it and binds a vector to it.
 *
 * @param vector receives the array's address: the array has to outlive the vector
 * @param array  its old contents are dropped, not released; the caller releases its new `entries` with `free`
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; TAVRIX_ERR_NO_MEMORY when memory runs out, after raising
 *         SIGTERM; then nothing is changed
 */
TAVRIX_API int tavrix_mac_vector_init(tavrix_mac_vector *vector, tavrix_mac_array *array);

/**
 * Adds an entry; the room is doubled when it is used up, which moves `entries`.
 *
 * @param source  a MAC text when `is_text` is 1 (cut to 19 characters), TAVRIX_MAC_SIZE bytes when it is 0
 * @param is_text 1 or 0
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument, or a vector without an array; TAVRIX_ERR_PARAMETER for another
 *         flag, when the room may have grown already; TAVRIX_ERR_GENERAL when memory runs out, after raising SIGTERM:
 *         the array keeps its entries
 */
TAVRIX_API int tavrix_mac_vector_insert(tavrix_mac_vector *vector, const void *source, int is_text);

/** Releases the list of each of `count` elements, then the elements. Null lists and a null `entries` are fine. */
TAVRIX_API void tavrix_free_port_macs_array(tavrix_port_macs *entries, int count);

/**
 * Splits a dotted quad into bytes. The text is not validated: pass one that validate_ip_address() has accepted. Of any
 * other text at most 16 characters are read and 4 numbers stored, each cut to its low byte; a missing number leaves its
 * byte as it was.
 *
 * @param out     receives the bytes, the first number first
 * @param out_len 4
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null argument; TAVRIX_ERR_BUFFER_SPACE for any other `out_len`
 */
TAVRIX_API int tavrix_tokenize_ip_address(unsigned char *out, const char *text, int out_len);

/**
 * Prints a port's id, "d2" or "c3-7", cut to the buffer. The whole buffer is cleared first, even on failure.
 *
 * @param out_size bytes of `out`; 0 writes nothing
 * @param unit     0 for a D-port; no upper limit
 * @param port     any number
 * @return 0; TAVRIX_ERR_PARAMETER for a null buffer; TAVRIX_ERR_GENERAL for a negative unit
 */
TAVRIX_API int tavrix_create_port_id_str(char *out, size_t out_size, int unit, int port);

/**
 * Prints a unit's id, "c3", cut to the buffer, which is cleared first.
 *
 * @param out_size bytes of `out`; 0 writes nothing
 * @param unit     any number
 * @return 0; TAVRIX_ERR_PARAMETER for a null buffer
 */
TAVRIX_API int tavrix_create_mzu_id_str(char *out, size_t out_size, int unit);

/**
 * Parses "c12-5", "C12/5", "c12" (the whole unit, TAVRIX_WHOLE_UNIT_PORT) or "d3" (unit 0), of at most 13 characters; a
 * newline ends the text. Only coarse limits are checked here; validate_port_id() has the real ones. strparse()'s cursor
 * is moved into the text.
 *
 * @param unit receives 0 to 1000
 * @param port receives 0 to 999, 0 to 1000 for a D-port
 * @return 0; TAVRIX_ERR_INVALID_MZU_ID for a unit above 1000; TAVRIX_ERR_INVALID_PORT for a D-port above 1000, or a
 *         port above 999 (by then the unit has been written); TAVRIX_ERR_PARAMETER for anything else, including a
 *         null argument
 */
TAVRIX_API int tavrix_parse_mzu_port_id(int *unit, int *port, const char *text);

/**
 * Prints the next line of a port list, "c2-1, c2-2, d1", padded with blanks. Every port but the last of the list is
 * followed by a comma.
 *
 * @param list   its count may be anything; entries beyond its arrays are ignored
 * @param cursor first entry to print, from 0; moved past the last one tried. The first that does not fit is skipped:
 *               the next line does not show it either. A negative cursor starts at 0; one at or beyond the count stays.
 * @param out    receives exactly `width` characters and a terminator
 * @param width  length of a line in characters; a negative one counts as 0
 * @return 0, also past the last port, where the line is all blanks; TAVRIX_ERR_NULL_INPUT for a null argument
 */
TAVRIX_API int tavrix_port_str_create(const tavrix_port_list *list, int *cursor, char *out, int width);

/** Whether a unit is connected; the record must not be null. */
TAVRIX_API bool tavrix_mzu_is_online(const tavrix_mzu_record *record);

/**
 * Compares versions number by number, "1.10" above "1.9", as far as `b` goes: further numbers of `a` are ignored,
 * and a number that `a` lacks counts as 0. Any single character separates two numbers. Numbers are signed, of 32 bits.
 *
 * @return -1 when `a` is older, 0 when they are equal, 1 when `a` is newer; TAVRIX_ERR_NULL_INPUT for a null argument
 */
TAVRIX_API int tavrix_utils_sw_version_strcmp(const char *a, const char *b);

/**
 * Looks for a null pointer; the first one is logged by its index from 0, at TAVRIX_LOG_WARNING.
 *
 * @param count how many pointers follow
 * @return 0; TAVRIX_ERR_GENERAL when one is null
 */
TAVRIX_API int tavrix_check_for_null(int count, ...);

/**
 * Takes the next piece of a text, up to a stop character, a newline or the end. The stop character is not skipped: the
 * next call begins with it.
 *
 * @param text  where to begin; null continues where the last call stopped. The text is not copied: it has to live as
 *              long as calls continue in it.
 * @param stops at most 11 characters count
 * @param out   receives the piece; the caller gives it room for the whole rest of the text
 * @return 0; 1 when there is nothing left, and `out` stays as it was; TAVRIX_ERR_PARAMETER when `stops` or
 *         `out` is null
 */
TAVRIX_API int strparse(const char *text, const char *stops, char *out);

/** 1 when every character is a decimal digit, as in the empty text; else 0. The text must not be null. */
TAVRIX_API int isdigits(const char *text);

/**
 * Copies a text in lower case, at most `out_size` - 1 characters; the rest of the buffer is cleared.
 *
 * @return 0; TAVRIX_ERR_PARAMETER for a null argument
 */
TAVRIX_API int tavrix_to_lower_case(char *out, size_t out_size, const char *text);

/** Turns at most `max` characters to upper case, in place. @return 0; TAVRIX_ERR_PARAMETER for null */
TAVRIX_API int tavrix_to_upper_case(char *text, int max);

/** Turns a whole text to upper case, in place; it must not be null. @return its length */
TAVRIX_API int tavrix_str_to_upper(char *text);

/**
 * Copies a text that begins and ends with a double quote without the opening one: the closing one stays. Any other text
 * is copied as it is.
 *
 * @param out      must not overlap the text
 * @param out_size bytes of `out`, which are cleared first. At most that many characters are copied: a copy that fills
 *                 the buffer is not terminated, so pass one byte less than it holds.
 * @return 0; TAVRIX_ERR_PARAMETER for a null argument
 */
TAVRIX_API int tavrix_remove_surrounding_quotes(const char *text, char *out, size_t out_size);

/**
 * Copies a text. One that is enclosed in its only two double quotes is copied without the opening quote, and without a
 * terminator: clear the buffer first.
 *
 * @param out the caller gives it room for the whole text; must not overlap it
 * @return 0; TAVRIX_ERR_PARAMETER for a null argument
 */
TAVRIX_API int tavrix_cli_desc_parse(const char *text, char *out);

/**
 * Looks up the word of a value.
 *
 * @param out      receives the word, cut to the buffer; the rest is cleared
 * @param out_size bytes of `out`; 0 writes nothing
 * @param value    a position in the table, which is not checked. The terminator's position reads as the empty word.
 * @param table    one of the tables above, or another that ends with null
 * @return 0; TAVRIX_ERR_PARAMETER when `out` or `table` is null
 */
TAVRIX_API int tavrix_enum_to_str(char *out, size_t out_size, int value, const char *const *table);

/**
 * Looks up the value of a word, compared byte for byte.
 *
 * @param table one of the tables above, or another that ends with null; not tavrix_log_level_strings, which has no end
 * @return 0; TAVRIX_ERR_PARAMETER for a null argument; TAVRIX_ERR_GENERAL when the table lacks the word
 */
TAVRIX_API int tavrix_str_to_enum(int *out, const char *text, const char *const *table);

/**
 * Runs a shell command and takes the first line that it prints. Pass only what the program itself has written. A text
 * from elsewhere, even a validated one, has to be quoted in it: between apostrophes, with each of its own written as
 * `'\''`.
 *
 * @param out receives the line with its newline, in up to TAVRIX_COMMAND_OUTPUT_SIZE bytes; the empty text when there
 *            was none
 * @return 0, whatever the command's own status; 1 when it cannot be run, or for a null argument
 */
TAVRIX_API int mw_exec_command_line(const char *command, char *out);

/** 1 when `stat` succeeds on the path, be it a folder; else 0, also for null. */
TAVRIX_API int file_exists(const char *path);

/**
 * Takes one column of the long listing of a file, through the shell. The texts stand unquoted in the command: quote
 * them as for mw_exec_command_line(). A valid name of an upgrade file may contain blanks, `;` and newlines.
 *
 * @param path    the file, or a folder, whose listing has one line per file
 * @param filter1 a pattern for grep that the line has to match; null or empty for none
 * @param filter2 a second one
 * @param column  from 1, as awk counts
 * @return that column of the first matching line, with its newline, at most 3200 characters: release it with `free`.
 *         Null for a null path, when no line matches, when memory runs out, or when the command would be longer than
 *         3200 characters and so is not run.
 */
TAVRIX_API char *tavrix_file_stats(const char *path, const char *filter1, const char *filter2, int column);

/**
 * Compares a file's MD5 sum with a stored one, byte for byte: md5sum prints lower case.
 *
 * @param file     at most 247 characters, quotes included: it stands unquoted in a shell command, so quote it as for
 *                 mw_exec_command_line()
 * @param md5_file a file as md5sum writes it: what counts is the text before the first blank of its first line, of
 *                 which 254 characters are read. A bare sum followed by a newline never matches.
 * @param match    receives whether the sums are equal; a difference is not an error
 * @return 0; TAVRIX_ERR_GENERAL for a null argument or a longer `file`, or when either sum cannot be read
 */
TAVRIX_API int tavrix_check_md5(const char *file, const char *md5_file, bool *match);

/**
 * The board's revision from the boot environment: a single digit, the first of a longer number;
 * TAVRIX_DEFAULT_BOARD_REVISION if there is none.
 */
TAVRIX_API int tavrix_get_board_rev_number(void);

/** Logs and raises SIGTERM; returns only if that is handled or ignored. @return what `raise` returned */
TAVRIX_API int tavrix_terminate_process(void);

/**
 * Prints a span of time: "1 days 01:01:01".
 *
 * @param seconds the span; for a negative one every number is zero or negative
 * @param out     at least TAVRIX_TIME_SENTENCE_SIZE bytes
 * @return 0; TAVRIX_ERR_PARAMETER for a null buffer
 */
TAVRIX_API int tavrix_utils_format_seconds_as_time_sentence(int seconds, char *out);

/**
 * Logs bytes as hexadecimal pairs at TAVRIX_LOG_INFO, 16 to a line. The text is cut after 9999 characters, and the
 * logger cuts a message after 8000: about 2500 bytes are shown.
 *
 * @param bytes  null shows the title only
 * @param length how many bytes; below 1 shows the title only
 * @param title  stands before the first line; null for none
 */
TAVRIX_API void tavrix_debug_print_bytes(const void *bytes, int length, const char *title);

/**
 * Writes one message straight to standard error, past the logger's level: `[date time.us] [tag] [file:line] message`,
 * the time in UTC. No line end is added.
 *
 * @param tag    the kind of message; not null, nor are `file` and `format`
 * @param file   the caller's source unit
 * @param line   the caller's line number
 * @param format as printf takes it; the message is cut after 8000 characters
 */
TAVRIX_API void tavrix_utils_system_log(const char *tag, const char *file, int line, const char *format, ...)
    TAVRIX_PRINTF(4, 5);

/**
 * Asks for the descriptor that becomes readable when a bus socket can receive. It belongs to the socket: wait on it,
 * do not read or close it.
 *
 * @param socket a bus socket's number
 * @return 0; TAVRIX_ERR_GENERAL for a null `fd` or when the bus refuses
 */
TAVRIX_API int tavrix_get_nn_rcvfd(int socket, int *fd);

#ifdef __cplusplus
}
#endif

#endif

/**
 * @file tavrix_validation.h
 * One rule for every kind of request field: what a well-formed port id, VLAN id, user name and so on is.
 *
 * Each validator only judges; it never changes its value. Text fields follow a pattern, length bounds, a list of words
 * or a mix of them, always case-sensitive unless said otherwise; number fields a closed range.
 *
 * @code
 * if (validate_port_id("c12-5") == TAVRIX_VALID && validate_vlan_id(100) == TAVRIX_VALID)
 *     assign_vlan("c12-5", 100);
 * if (validate_username("root") == TAVRIX_INVALID_NOT_ALLOWED)
 *     refuse("reserved");
 * @endcode
 *
 * Every validator returns TAVRIX_VALID, which is 0, or one of the negative verdicts below. They are numbered separately
 * from the statuses of tavrix_error.h. A null text is refused with TAVRIX_INVALID_ENGINE. The end of a pattern also
 * matches before one final newline, so a value of a field with a pattern may end in one if its length bounds leave
 * room. The debug log explains each verdict; the verbose log shows the value, passwords included.
 *
 * A valid value is well-formed, not harmless: descriptions, entity extensions and the names of the two upgrade files
 * may hold blanks, apostrophes, `;` and `$(`, and except for an MZU's file also newlines with more text after them.
 * Quote such a value before it reaches a shell, and bind it in SQL.
 *
 * Thread-safety: any function from any thread at any time. A field's pattern is compiled on first use and kept for the
 * process; from then on matching takes no lock. On the first use PCRE compiles the pattern to machine code where it
 * can: it takes a mutex of its own, one for all patterns, and maps executable memory, 64 KiB for the life of the
 * process. Where such a mapping is forbidden the patterns are interpreted, with the same verdicts. Because of the
 * mutex, do not validate for the first time in a signal handler, nor in a forked child whose parent had other threads.
 */
#ifndef TAVRIX_VALIDATION_H
#define TAVRIX_VALIDATION_H

#include "tavrix_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** What a validator says of a value. */
enum tavrix_verdict {
    TAVRIX_VALID = 0,
    TAVRIX_INVALID_ENGINE = -1,      /**< null, or the pattern could not be compiled or matched (no memory, too long) */
    TAVRIX_INVALID_NO_MATCH = -2,    /**< the pattern does not match */
    TAVRIX_INVALID_NOT_ALLOWED = -3, /**< not one of the allowed words, or a reserved one */
    TAVRIX_INVALID_TOO_LONG = -4,
    TAVRIX_INVALID_TOO_SHORT = -5,
    TAVRIX_INVALID_OUT_OF_RANGE = -6
};

/**
 * A C-port `c<unit>-<port>`, unit 1 to 128, port 1 to 99, or a D-port `d1` to `d4`; letters in either case, no leading
 * zeros.
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH
 */
TAVRIX_API int validate_port_id(const char *value);

/** A C-port only. @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH */
TAVRIX_API int validate_c_port_id(const char *value);

/** A D-port only. @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH */
TAVRIX_API int validate_d_port_id(const char *value);

/**
 * A VLAN's name `v<n>`, n 1 to 4092 without leading zeros, lower-case `v`.
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH
 */
TAVRIX_API int validate_vlan_name_id(const char *value);

/**
 * A switch unit `c<unit>`, unit 1 to 128, letter in either case.
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH
 */
TAVRIX_API int validate_mzu_id(const char *value);

/**
 * A switch unit's upgrade file: any single line, the empty one too, with or without a final newline. Quote it before it
 * reaches a shell.
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH
 */
TAVRIX_API int validate_mzu_sw_upgrade_filename(const char *value);

/**
 * The appliance's upgrade file: the first line holds `zqn` and, anywhere after it, a version such as `1.2.3-004`. The
 * characters between the version's digits may be any. What comes before `zqn` and after the version is ignored, further
 * lines included: quote the value before it reaches a shell. A very long value that nearly matches ends in
 * TAVRIX_INVALID_ENGINE.
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH
 */
TAVRIX_API int validate_unit_sw_upgrade_filename(const char *value);

/**
 * A date `yyyy-mm-dd` of the years 2000 to 2999; month and day with or without a leading zero, day 31 in every month.
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH
 */
TAVRIX_API int validate_date(const char *value);

/** A time `hh:mm`, 00:00 to 23:59, two digits each. @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH */
TAVRIX_API int validate_time(const char *value);

/**
 * A UUID: 8, 4, 4, 4 and 12 hexadecimal digits of either case between dashes.
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH
 */
TAVRIX_API int validate_uuid(const char *value);

/**
 * An IPv4 address in dotted form without leading zeros, 7 to 15 characters.
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH, TAVRIX_INVALID_TOO_LONG, TAVRIX_INVALID_TOO_SHORT
 */
TAVRIX_API int validate_ip_address(const char *value);

/**
 * A MAC address of 17 characters: six hexadecimal pairs of either case, all separated by `:` or all by `-`.
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH, TAVRIX_INVALID_TOO_LONG, TAVRIX_INVALID_TOO_SHORT
 */
TAVRIX_API int validate_mac_address(const char *value);

/**
 * A description of 0 to 50 characters without a double quote; it may hold apostrophes and newlines.
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH, TAVRIX_INVALID_TOO_LONG
 */
TAVRIX_API int validate_description(const char *value);

/**
 * A password of 4 to 15 letters, digits and `! ? _ @ -`.
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH, TAVRIX_INVALID_TOO_LONG, TAVRIX_INVALID_TOO_SHORT
 */
TAVRIX_API int validate_password(const char *value);

/**
 * A user name of 4 to 15 letters and digits that is not a system account's, such as `root`
 * (TAVRIX_INVALID_NOT_ALLOWED).
 *
 * @return 0, TAVRIX_INVALID_ENGINE, TAVRIX_INVALID_NO_MATCH, TAVRIX_INVALID_NOT_ALLOWED, TAVRIX_INVALID_TOO_LONG,
 *         TAVRIX_INVALID_TOO_SHORT
 */
TAVRIX_API int validate_username(const char *value);

/** "enable" or "disable". @return 0, TAVRIX_INVALID_ENGINE for null, TAVRIX_INVALID_NOT_ALLOWED */
TAVRIX_API int validate_status(const char *value);

/**
 * "local", "access" or "trunk"; not the other words of tavrix_vlan_mode_strings.
 *
 * @return 0, TAVRIX_INVALID_ENGINE for null, TAVRIX_INVALID_NOT_ALLOWED
 */
TAVRIX_API int validate_vlan_mode(const char *value);

/** "all", "current", "previous" or "default". @return 0, TAVRIX_INVALID_ENGINE for null, TAVRIX_INVALID_NOT_ALLOWED */
TAVRIX_API int validate_unit_sw_bank(const char *value);

/**
 * One of tavrix_mzu_model_strings, "unknown" included.
 *
 * @return 0, TAVRIX_INVALID_ENGINE for null, TAVRIX_INVALID_NOT_ALLOWED
 */
TAVRIX_API int validate_mzu_model(const char *value);

/**
 * A switch unit, a port or a VLAN's name, tried in this order.
 *
 * @return 0; TAVRIX_INVALID_NO_MATCH for anything else, null too
 */
TAVRIX_API int validate_entity_name(const char *value);

/** Any text of at most 1000 characters. @return 0, TAVRIX_INVALID_ENGINE for null, TAVRIX_INVALID_TOO_LONG */
TAVRIX_API int validate_entity_extension(const char *value);

/** 1 to 4092. @return 0, TAVRIX_INVALID_OUT_OF_RANGE */
TAVRIX_API int validate_vlan_id(int value);

/** 1, the only unit. @return 0, TAVRIX_INVALID_OUT_OF_RANGE */
TAVRIX_API int validate_unit_id(int value);

/** 0 or 1. @return 0, TAVRIX_INVALID_OUT_OF_RANGE */
TAVRIX_API int validate_laser_id(int value);

/** 0 or 1. @return 0, TAVRIX_INVALID_OUT_OF_RANGE */
TAVRIX_API int validate_olt_id(int value);

/** 0 to 128, or -1 for none. @return 0, TAVRIX_INVALID_OUT_OF_RANGE */
TAVRIX_API int validate_onu_id(int value);

/** 1 to 128. @return 0, TAVRIX_INVALID_OUT_OF_RANGE */
TAVRIX_API int validate_port_number(int value);

/** 1 to 3600, in whatever unit the daemon uses. @return 0, TAVRIX_INVALID_OUT_OF_RANGE */
TAVRIX_API int validate_periodic_interval(int value);

/** Any number; for symmetry with the other fields. @return 0 always */
TAVRIX_API int validate_port_link_speed(int value);

/** A date, then a time of day. @return validate_date()'s verdict unless that is 0, else validate_time()'s */
TAVRIX_API int validate_date_time(const char *date, const char *time);

#ifdef __cplusplus
}
#endif

#endif

/**
 * The checking primitives of tavrix_validation, for its white-box tests.
 *
 * Results: 0 accepted; -1 the pattern cannot be compiled or matching failed; -2 no match; -3 not an option, or
 * black-listed; -4 too long; -5 too short.
 */
#ifndef TAVRIX_VALIDATION_INTERNAL_H
#define TAVRIX_VALIDATION_INTERNAL_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Matches a value against a pattern. A field's own pattern, told by its address, is compiled once and kept for the
 * process; any other is compiled for the call. Results and log lines are the same.
 */
int validate_against_regex(const char *pattern, const char *value, const char *label);

/** Checks the length, both bounds inclusive, then the pattern. */
int validate_length_and_regex(const char *value, int min_len, int max_len, const char *pattern, const char *label);

/** Accepts a value that is one of `count` options, compared exactly. */
int validate_against_options(const char *value, const char *const *options, int count, const char *label);

/** Accepts a value that is none of `count` entries, compared exactly. */
int validate_against_blacklist(const char *value, const char *const *blacklist, int count, const char *label);

/** A field's own pattern by the field's label; null when the field has none. */
const char *tavrix_validation_pattern_of(const char *label);

#ifdef __cplusplus
}
#endif

#endif

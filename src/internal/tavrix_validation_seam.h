/**
 * The checking primitives of tavrix_validation, for its white-box tests. They return a tavrix_verdict; none of their
 * arguments is tested for null.
 */
#ifndef TAVRIX_INTERNAL_VALIDATION_SEAM_H
#define TAVRIX_INTERNAL_VALIDATION_SEAM_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Matches a value against a pattern: 0, -1 when the pattern cannot be compiled or matching fails, -2 for no match.
 * A field's own pattern, told by its address, is compiled once and kept for the process; any other is compiled for the
 * call. Results and log lines are the same.
 */
int validate_against_regex(const char *pattern, const char *value, const char *label);

/** -5 below and -4 above the bounds, which are inclusive; else what the pattern says. */
int validate_length_and_regex(const char *value, int min_len, int max_len, const char *pattern, const char *label);

/** Accepts a value that is one of `count` options, compared exactly; else -3. */
int validate_against_options(const char *value, const char *const *options, int count, const char *label);

/** Accepts a value that is none of `count` entries, compared exactly; else -3. */
int validate_against_blacklist(const char *value, const char *const *blacklist, int count, const char *label);

/** A field's own pattern by the field's label; null when the field has none. */
const char *tavrix_validation_pattern_of(const char *label);

#ifdef __cplusplus
}
#endif

#endif

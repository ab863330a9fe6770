/**
 * The checking primitives of tavrix_validation, for its white-box tests. They return a tavrix_verdict; none of their
 * arguments may be null.
 */
#ifndef TAVRIX_INTERNAL_VALIDATION_SEAM_H
#define TAVRIX_INTERNAL_VALIDATION_SEAM_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Matches a value against a pattern. A field's own pattern, recognised by its address, is compiled once and kept for
 * the process; any other is compiled for the call. Verdicts and log lines are the same.
 *
 * @return TAVRIX_VALID; TAVRIX_INVALID_ENGINE when the pattern cannot be compiled or matched; TAVRIX_INVALID_NO_MATCH
 */
int validate_against_regex(const char *pattern, const char *value, const char *label);

/** TAVRIX_INVALID_TOO_SHORT or TAVRIX_INVALID_TOO_LONG outside the inclusive bounds; else the verdict of the pattern.
 */
int validate_length_and_regex(const char *value, int min_len, int max_len, const char *pattern, const char *label);

/** Accepts a value that is exactly one of `count` options; else TAVRIX_INVALID_NOT_ALLOWED. */
int validate_against_options(const char *value, const char *const *options, int count, const char *label);

/** Accepts a value that is exactly none of `count` entries; else TAVRIX_INVALID_NOT_ALLOWED. */
int validate_against_blacklist(const char *value, const char *const *blacklist, int count, const char *label);

/** A field's own pattern by the field's label; null when the field has none. */
const char *tavrix_validation_pattern_of(const char *label);

#ifdef __cplusplus
}
#endif

#endif

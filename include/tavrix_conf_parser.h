/**
 * @file tavrix_conf_parser.h
 * Looks up one value in a small sectioned configuration file.
 *
 * Lines that start with `#` are comments; `[name]` opens a section; inside it, `key=value` lines are taken
 * literally: blanks belong to the key and to the value, and a line counts only when it ends in a newline.
 *
 * @code
 * char level[51] = "";
 * int rc = tavrix_conf_parser_parse("/etc/tavrix_lsyslog.conf", "logging_levels", "portsd", level, 50);
 * @endcode
 *
 * Thread-safety: no state; the file is read anew on every call.
 */
#ifndef TAVRIX_CONF_PARSER_H
#define TAVRIX_CONF_PARSER_H

#include "tavrix_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Finds the first entry of that key in the first section of that name.
 *
 * @param path     file to read
 * @param section  section name, compared exactly; a name of more than 49 characters is never found
 * @param key      key, compared exactly; a key of more than 50 characters is never found
 * @param out      receives the value; `out_size` bytes are cleared first. A value of exactly `out_size` characters
 *                 fills the buffer and leaves no terminator: pass one less than the buffer holds.
 * @param out_size size of `out` in bytes, at least 1
 * @return 0; TAVRIX_ERR_NULL_INPUT for a null pointer; TAVRIX_ERR_PARAMETER for `out_size` below 1;
 *         TAVRIX_ERR_FILE_OPEN when the file cannot be opened; TAVRIX_ERR_PARAMETER_NOT_FOUND when the section or the
 *         key is not found; TAVRIX_ERR_BUFFER_SPACE when the value is longer than `out_size` characters. Nothing is
 *         logged, and `out` is untouched on failure.
 */
TAVRIX_API int tavrix_conf_parser_parse(const char *path, const char *section, const char *key, char *out,
                                        int out_size);

#ifdef __cplusplus
}
#endif

#endif

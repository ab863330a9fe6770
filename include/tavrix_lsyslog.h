/**
 * @file tavrix_lsyslog.h
 * The leveled logger.
 *
 * A daemon names itself once; from then on every log call writes one line to standard error, provided its level is
 * within the daemon's current level, `debug` at first. The level comes from `/etc/tavrix_lsyslog.conf`, section
 * `logging_levels`, one `daemon=word` line per daemon, the word one of `off`, `info`, `debug`, `verbose`.
 *
 * @code
 * tavrix_lsyslog_init("portsd");
 * tavrix_lsyslog_log(TAVRIX_LOG_INFO, "portsd", __LINE__, "Serving on %s\n", address);
 * if (tavrix_lsyslog_check_severity(TAVRIX_LOG_VERBOSE))
 *     tavrix_lsyslog_log(TAVRIX_LOG_VERBOSE, "portsd", __LINE__, "Frame: %s\n", frame);
 * @endcode
 *
 * Thread-safety: the level, the name and the log socket are process-wide and unsynchronised. Log calls may run on
 * several threads at once; init and reload must not run at the same time. Do not log from a signal handler: the line it
 * interrupts may hold the lock of standard error.
 */
#ifndef TAVRIX_LSYSLOG_H
#define TAVRIX_LSYSLOG_H

#include "tavrix_export.h"
#include <jansson.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Log levels; a line is written when its level is at or below the current one. */
enum tavrix_log_level {
    TAVRIX_LOG_UNDEF = 0,
    TAVRIX_LOG_CONFIG = 1,
    TAVRIX_LOG_ERROR = 2,
    TAVRIX_LOG_WARNING = 3,
    TAVRIX_LOG_INFO = 4,
    TAVRIX_LOG_DEBUG = 5,
    TAVRIX_LOG_VERBOSE = 6
};

/** The names of the levels, by tavrix_log_level. The table has no terminator: index it, do not search it. */
TAVRIX_API extern const char *const tavrix_log_level_strings[7];

/**
 * Names the daemon and loads its level.
 *
 * @param name the daemon's name and its key in the configuration file. Kept as the pointer, not copied: the text must
 *             live as long as the process logs. A null pointer leaves the name as it was.
 * @return 0 always; when the level cannot be read, the level in force stays
 */
TAVRIX_API int tavrix_lsyslog_init(const char *name);

/** Does nothing; the counterpart of tavrix_lsyslog_init(). @return 0 */
TAVRIX_API int tavrix_lsyslog_shutdown(void);

/**
 * Stores a descriptor as the log socket and sleeps half a second. Lines never go to it.
 *
 * @param fd the descriptor; it stays the caller's
 * @return 0
 */
TAVRIX_API int tavrix_lsyslog_set_socket(int fd);

/**
 * Writes one line to standard error: `[date time.ms] [TAG] [daemon] message` at TAVRIX_LOG_UNDEF, TAVRIX_LOG_CONFIG,
 * TAVRIX_LOG_WARNING and TAVRIX_LOG_INFO, `[date time.ms] [TAG] [daemon: file:line] message` at every other level. The
 * time is local; a change of the zone or of the locale shows from the next second on.
 *
 * @param level  see tavrix_log_level; lines above the current level are dropped before any formatting
 * @param file   the caller's source unit
 * @param line   the caller's line number
 * @param format printf format; the message carries its own newline, and is cut after 8000 characters
 * @return 0 when the line was written or filtered out, TAVRIX_ERR_GENERAL when the message could not be formatted, or
 *         for a null format
 */
TAVRIX_API int tavrix_lsyslog_log(int level, const char *file, int line, const char *format, ...) TAVRIX_PRINTF(4, 5);

/**
 * Tells whether a line at this level would be written.
 *
 * @param level see tavrix_log_level; both sides are compared as unsigned numbers, so a negative level answers 0
 * @return 1 when the current level is at or above it, else 0
 */
TAVRIX_API int tavrix_lsyslog_check_severity(int level);

/**
 * Rereads the daemon's level from the configuration file and logs it at TAVRIX_LOG_CONFIG.
 *
 * @return 0; TAVRIX_ERR_FILE_OPEN when the file cannot be opened, TAVRIX_ERR_PARAMETER_NOT_FOUND when the section or
 *         the daemon's key is missing, TAVRIX_ERR_BUFFER_SPACE when the value is longer than 50 characters,
 *         TAVRIX_ERR_CONF_ENTRY when it is not one of the four words. On failure the level stays.
 */
TAVRIX_API int tavrix_lsyslog_reload_conf(void);

/**
 * tavrix_lsyslog_reload_conf() in the shape of a method handler, for a daemon's method table under
 * "logger.ReloadConf". The arguments are ignored.
 *
 * @return 0 always
 */
TAVRIX_API int tavrix_lsyslog_reload_conf_api(json_t *params, json_t **result, json_t **error_data);

/**
 * Serves the logger's own method for a daemon that looks at method names before its table does.
 *
 * @param method a method name, not null
 * @return 1 after a reload when the name is exactly "logger.ReloadConf"; else 0, and nothing is done
 */
TAVRIX_API int tavrix_lsyslog_is_json_method_lsyslog(const char *method);

#ifdef __cplusplus
}
#endif

#endif

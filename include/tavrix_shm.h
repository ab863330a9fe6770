/**
 * @file tavrix_shm.h
 * Small values shared between processes: one POSIX shared-memory object per name, holding a text or an integer.
 *
 * @code
 * int last = 7;
 * tavrix_shm_create("/last_event", sizeof last);
 * tavrix_shm_set_int("/last_event", &last);
 * @endcode
 *
 * Names begin with '/' and hold no further one. Objects are created with the mode 0x666 (octal 3146) less the umask,
 * and are never removed. That mode lets the owner neither read nor write: to open its own slot again,
 * a process needs the right to override permissions (CAP_DAC_OVERRIDE), as root has. Every function returns 0, or
 * TAVRIX_ERR_GENERAL for any failure, which is logged. Thread-safety: nothing is locked; a reader can see a
 * half-written text. Integers are stored in one piece.
 */
#ifndef TAVRIX_SHM_H
#define TAVRIX_SHM_H

#include "tavrix_export.h"
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Creates a slot of `size` bytes, 1 or more, filled with zeros; an old slot is resized and cleared. Its memory is
 * reserved here; if there is not enough, an old slot keeps its size and contents, and a new one is left with size 0.
 */
TAVRIX_API int tavrix_shm_create(const char *name, size_t size);

/** Stores a text in a slot of `len` bytes: cut to `len` - 1 characters, zeros up to `len`. */
TAVRIX_API int tavrix_shm_set_string(const char *name, size_t len, const char *text);

/** Reads a text from a slot of `len` bytes into `dst`, which holds as many: always terminated, zeros up to `len`. */
TAVRIX_API int tavrix_shm_get_string(const char *name, size_t len, char *dst);

/** Stores an integer in a slot of 4 bytes or more. */
TAVRIX_API int tavrix_shm_set_int(const char *name, const int *value);

/** Reads an integer from a slot of 4 bytes or more. */
TAVRIX_API int tavrix_shm_get_int(const char *name, int *value_out);

/** Fills the first `len` bytes of a slot with zeros. */
TAVRIX_API int tavrix_shm_clear(const char *name, size_t len);

#ifdef __cplusplus
}
#endif

#endif

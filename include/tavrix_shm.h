/**
 * @file tavrix_shm.h
 */
#ifndef TAVRIX_SHM_H
#define TAVRIX_SHM_H

#include "tavrix_export.h"
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

TAVRIX_API int tavrix_shm_create(const char *name, size_t size);
TAVRIX_API int tavrix_shm_set_string(const char *name, size_t len, const char *text);
TAVRIX_API int tavrix_shm_get_string(const char *name, size_t len, char *dst);
TAVRIX_API int tavrix_shm_set_int(const char *name, const int *value);
TAVRIX_API int tavrix_shm_get_int(const char *name, int *value_out);
TAVRIX_API int tavrix_shm_clear(const char *name, size_t len);

#ifdef __cplusplus
}
#endif

#endif

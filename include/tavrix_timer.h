/**
 * @file tavrix_timer.h
 */
#ifndef TAVRIX_TIMER_H
#define TAVRIX_TIMER_H

#include "tavrix_export.h"

#ifdef __cplusplus
extern "C" {
#endif

TAVRIX_API int tavrix_timer_init(int *fd_out, int nonblock);
TAVRIX_API int tavrix_timer_set(int fd, int period_s, int interval_s);
TAVRIX_API int tavrix_timer_nsec_set(int fd, float period, float interval);
TAVRIX_API int tavrix_timer_read(int fd);
TAVRIX_API int tavrix_timer_free(int *fd);

#ifdef __cplusplus
}
#endif

#endif

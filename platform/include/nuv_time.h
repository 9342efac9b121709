/* Wall-clock time, a monotonic tick count, and the two knobs that let tests move time.
 *
 * NUV_TIME_OFFSET (environment, seconds, may be negative) is added to nuv_time().
 * NUV_TICK_SCALE (environment, integer >= 1) makes the tick count run that many times faster
 * and nuv_sleep/nuv_msleep that many times shorter. Both are read once, when the library is
 * loaded; the setters below change them at run time.
 *
 * Results: times as values; the other calls 0, or -1 for an argument they cannot take. */
#ifndef NUV_TIME_H
#define NUV_TIME_H

#include <stdint.h>
#include <time.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

/* Wall-clock seconds since the Unix epoch, plus the time offset. */
NUV_API int64_t nuv_time(void);

/* Monotonic milliseconds since an arbitrary start, multiplied by the tick scale. Never goes
 * back, also when the scale is changed. */
NUV_API uint64_t nuv_time_get_tick_cout(void);

/* Converts `stamp` (Unix seconds) to local broken-down time in *out (localtime_r rules).
 * Returns 0, or -1 when it cannot be represented or out is NULL. */
NUV_API int nuv_time_stamp_to_local(int64_t stamp, struct tm *out);

/* Sets the offset added to nuv_time(). Returns 0. */
NUV_API int nuv_time_set_offset(int64_t seconds);

/* Sets the tick scale; values below 1 are taken as 1. Returns 0. */
NUV_API int nuv_time_set_tick_scale(unsigned int scale);

/* The current tick scale (>= 1). */
NUV_API unsigned int nuv_time_get_tick_scale(void);

NUV_END_DECLS

#endif

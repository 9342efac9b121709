#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <time.h>

#include "internal.h"
#include "nuv_time.h"

static int64_t g_offset;
static uint32_t g_scale = 1;
/* Scaling applies to the time elapsed since the last scale change, so a change never makes
 * the tick count jump back. The lock keeps the three values consistent for readers. */
static pthread_mutex_t g_scale_lock = PTHREAD_MUTEX_INITIALIZER;
static uint64_t g_base_real;
static uint64_t g_base_tick;

__attribute__((constructor)) static void nuv__time_knobs_from_env(void) {
  const char *off = getenv("NUV_TIME_OFFSET");
  if (off && *off) g_offset = strtoll(off, NULL, 10);
  const char *scale = getenv("NUV_TICK_SCALE");
  if (scale && *scale) {
    long s = strtol(scale, NULL, 10);
    g_scale = s < 1 ? 1 : (uint32_t)s;
  }
  g_base_real = nuv__monotonic_ms();
  g_base_tick = g_base_real;
}

uint64_t nuv__monotonic_ms(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u;
}

int64_t nuv_time(void) {
  return (int64_t)time(NULL) + __atomic_load_n(&g_offset, __ATOMIC_RELAXED);
}

uint64_t nuv_time_get_tick_cout(void) {
  pthread_mutex_lock(&g_scale_lock);
  uint64_t tick = g_base_tick + (nuv__monotonic_ms() - g_base_real) * g_scale;
  pthread_mutex_unlock(&g_scale_lock);
  return tick;
}

int nuv_time_stamp_to_local(int64_t stamp, struct tm *out) {
  if (!out) return -1;
  time_t t = (time_t)stamp;
  if ((int64_t)t != stamp) {
    errno = EOVERFLOW;
    return -1;
  }
  return localtime_r(&t, out) ? 0 : -1;
}

int nuv_time_set_offset(int64_t seconds) {
  __atomic_store_n(&g_offset, seconds, __ATOMIC_RELAXED);
  return 0;
}

int nuv_time_set_tick_scale(unsigned int scale) {
  pthread_mutex_lock(&g_scale_lock);
  uint64_t now = nuv__monotonic_ms();
  g_base_tick += (now - g_base_real) * g_scale;
  g_base_real = now;
  __atomic_store_n(&g_scale, scale < 1 ? 1u : (uint32_t)scale, __ATOMIC_RELAXED);
  pthread_mutex_unlock(&g_scale_lock);
  return 0;
}

unsigned int nuv_time_get_tick_scale(void) {
  return __atomic_load_n(&g_scale, __ATOMIC_RELAXED);
}

/* The maintenance library's entry points, for host processes that load libnuv_maintaince.so. */
#ifndef NUV_MAINTENANCE_H
#define NUV_MAINTENANCE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result words. */
#define NUV_MAINT_OK 0x00000000u
#define NUV_MAINT_REFUSED 0x84CE0001u          /* refused, or a process could not be started */
#define NUV_MAINT_INVALID_PARAMETER 0x84CE0002u /* invalid parameters or data */
#define NUV_MAINT_BUS_DATA 0x84CE0003u          /* bus data could not be taken */
#define NUV_MAINT_BP_INVALID 0x84CE0004u        /* burying point invalid */
#define NUV_MAINT_START_FAILED 0x84CE000Cu      /* start failed */

/* Starts logging, loads <dir of the executable>/../config/maintenance.json and brings up the
 * library. Returns 0, also when already started; NUV_MAINT_START_FAILED when the configuration
 * cannot be loaded or the library cannot start (the log says why). Call start and stop from
 * one thread. */
uint32_t nuv_start_perf_manager(void);

/* Takes the library down; nothing happens when it is not started. Registered monitors are
 * kept for a later start. */
void nuv_stop_perf_manager(void);

/* Registers one monitor; any argument may be NULL (its field keeps its default). The version
 * is always "1.0". Returns 0, NUV_MAINT_INVALID_PARAMETER when the definition is not valid, or
 * NUV_MAINT_REFUSED when it cannot be taken. Thread-safe; allowed before start. */
uint32_t nuv_register_perf_monitor(const char *id, const char *agent_id, const char *name,
                                   const char *subscriber, const char *product,
                                   const char *product_version, const char *focus,
                                   const char *handler, const char *condition,
                                   const char *dependent_id);

/* Removes the monitor with this id; NULL or an unknown id does nothing. Thread-safe. */
void nuv_unregister_perf_monitor(const char *id);

#ifdef __cplusplus
}
#endif

#endif

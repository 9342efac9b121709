/* Performance provider: the records that the sampler hands to its subscribers.
 *
 * Every record is owned by the provider and valid only for the duration of the notification
 * that carries it; a subscriber copies what it keeps. Texts are NUL-terminated and may be NULL.
 *
 * On 32-bit x86 the layouts are fixed: all fields are 32-bit words or pairs of them, 64-bit
 * values sit at 4-byte alignment (the i386 ABI's own rule, so no packing is needed) and
 * pointers are 32 bits. Subscribers step through arrays of these records by those sizes.
 *
 * Results: 0, or an errno value. */
#ifndef NUV_PERFPROV_H
#define NUV_PERFPROV_H

#include <stddef.h>
#include <stdint.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

/* One process at one moment.
 * cpu: % of the whole machine (0-100) over the last sampling period.
 * cputime, usertime, kerneltime: ms of CPU used (cputime = user + kernel);
 * totaltime: ms since the process started.
 * memory: resident size, KiB; memorycommit: virtual size, KiB.
 * createtime: start time, Unix seconds.
 * iorspeed, iowspeed: bytes per second over the last period; readbytes, writebytes: cumulative
 * bytes. threads: thread count; handles: open file descriptors.
 * image: executable file name; path: full executable path (empty when it cannot be read);
 * commandline: the command line, arguments separated by blanks.
 * reserved: zero; passed through untouched. */
typedef struct _process_info {
  uint32_t pid;
  uint32_t parentid;
  float cpu;
  uint64_t cputime;
  uint64_t usertime;
  uint64_t kerneltime;
  uint64_t totaltime;
  uint64_t memory;
  uint64_t memorycommit;
  uint32_t createtime;
  uint32_t iorspeed;
  uint32_t iowspeed;
  uint64_t readbytes;
  uint64_t writebytes;
  uint32_t threads;
  uint32_t handles;
  const char *image;
  const char *path;
  const char *commandline;
  uint32_t reserved[3];
} _process_info;

/* The whole machine at one moment.
 * cpu: % busy (0-100) over the last period; cpu_iowait_percent: % of the period waiting for I/O.
 * procnum: processes; threadnum: threads; handlenum: allocated file handles.
 * memtotal, memavai: KiB. cpunum: online processors.
 * swap_usage: % of swap in use; swap_used, swap_total: KiB.
 * reserved and raw: zero; passed through untouched. The figures end at byte 474 (21 words and
 * the 390-byte block), which is what subscribers copy; the tail padding is not part of them. */
#define NUV_SYS_INFO_RAW_SIZE 390
typedef struct _sys_info {
  float cpu;
  uint32_t procnum;
  uint32_t threadnum;
  uint32_t handlenum;
  uint64_t memtotal;
  uint64_t memavai;
  uint32_t cpunum;
  float swap_usage;
  uint64_t swap_used;
  uint64_t swap_total;
  float cpu_iowait_percent;
  uint32_t reserved[6];
  uint8_t raw[NUV_SYS_INFO_RAW_SIZE];
} _sys_info;

/* Payload of one performance notification: four words. sys_info is set when the notification's
 * type has bit 1; process_info / process_count when it has bit 2 (process_count entries,
 * contiguous). reserved is NULL. */
typedef struct _perf_information {
  const _sys_info *sys_info;
  const void *reserved;
  const _process_info *process_info;
  uint32_t process_count;
} _perf_information;

/* One process of a start or exit event or of a process query: pid, the executable file name
 * and the full executable path (empty or NULL when it cannot be read). An exit event carries
 * the name and path remembered from the process's life. */
typedef struct _process_mon_info {
  uint32_t pid;
  const char *name;
  const char *path;
} _process_mon_info;

/* One block device: its name (wide text, e.g. L"sda") and cumulative counters since boot:
 * completed reads, sectors read, completed writes, sectors written, ms spent doing I/O.
 * Counters wrap at 2^32. */
typedef struct _io_block {
  const wchar_t *name;
  uint32_t reads;
  uint32_t read_sectors;
  uint32_t writes;
  uint32_t write_sectors;
  uint32_t io_ms;
} _io_block;

/* Result of nuv_query_proc_info: `count` entries at `info`, contiguous (two words). */
typedef struct _process_mon_list {
  _process_mon_info *info;
  uint32_t count;
} _process_mon_list;

/* Type bits of a performance notification, and of the mask a subscriber asks for. */
#define NUV_PERF_TYPE_SYSTEM 1u
#define NUV_PERF_TYPE_PROCESS 2u

/* Bits of the monitor type given to nuv_config_data_source: what the sampler collects. */
#define NUV_PERF_MONITOR_SYSTEM 1
#define NUV_PERF_MONITOR_PROCESS 2
#define NUV_PERF_MONITOR_PROCESS_IO 4 /* readbytes, writebytes, iorspeed, iowspeed */
#define NUV_PERF_MONITOR_HANDLES 8    /* handles */
#define NUV_PERF_MONITOR_CMDLINE 16   /* commandline */
#define NUV_PERF_MONITOR_ALL 31

/* `event` of a process notification. */
#define NUV_PROC_EVENT_EXIT 0
#define NUV_PROC_EVENT_START 1

/* Where process start and exit events come from (nuv_proc_set_event_source). */
#define NUV_PROC_EVENTS_AUTO 0    /* the netlink process connector when it works, else /proc */
#define NUV_PROC_EVENTS_NETLINK 1 /* the netlink process connector only */
#define NUV_PROC_EVENTS_PROC 2    /* comparing /proc snapshots once a second */

/* Performance callback: `type` holds the type bits present in `info`; `info` and everything it
 * points to is valid until the callback returns. Runs on the provider's sampler thread. */
typedef void (*nuv_perf_notifier)(unsigned int type, _perf_information *info, void *context);

/* Process callback: `event` is NUV_PROC_EVENT_START or NUV_PROC_EVENT_EXIT, `proc_info` a
 * `_process_mon_info *` valid until the callback returns (an exit carries the name and path the
 * process had). The result is ignored. Runs on the provider's event thread. */
typedef int (*nuv_proc_notifier)(int event, void *proc_info, void *context);

/* Sets what the sampler collects (`monitor_type`, NUV_PERF_MONITOR_* bits) and its period in
 * seconds (`frequency`, > 0). Defaults before any call: 31 and 5. A running sampler uses the new
 * values from its next period on. Returns 0, or EINVAL (nothing changed) for a frequency <= 0 or
 * a negative monitor type. Thread safe. */
NUV_API int nuv_config_data_source(int monitor_type, int frequency);

/* Subscribes `callback(type, info, context)` to the performance notifications; `mask` selects
 * the type bits it wants (NUV_PERF_TYPE_*). The first subscription (again after an
 * unsubscription) takes a baseline at once and notifies only after one whole period, so every
 * rate covers a full period; later subscribers join at the next period. Each notification
 * carries `mask` & the collected kinds; one with nothing to carry is not made. The sampler
 * thread, once started, rests between subscriptions and ends with the process (the library is
 * never unloaded). Returns 0, EINVAL (NULL callback or no known bit in mask), ENOSPC (32
 * subscribers already), or the error of setting up libproc2 or of starting the thread. Thread
 * safe; may be called from a callback. */
NUV_API int nuv_perf_regsiter_notifier(unsigned int mask, nuv_perf_notifier callback,
                                       void *context);

/* Removes every performance subscription; the sampler rests. The argument is the monitor type
 * the caller configured; it does not select subscriptions (a call cannot name one). Waits for a
 * callback in flight, unless called from a callback, in which case no further callback is made
 * once it returns. Returns 0. Thread safe. */
NUV_API int nuv_perf_unregsiter_notifier(int monitor_type);

/* Subscribes `callback(event, proc_info, context)` to process start and exit events. Threads
 * are not processes: thread creation and exit are never reported. A start is reported when a
 * process executes a program (netlink source) or is first seen (/proc source); an exit when it
 * ends (before it is reaped); an announced process that executes another program ends as its
 * old image and starts as the new one. The /proc source misses processes that live less than
 * a second. The event thread, like the sampler's, rests between subscriptions and ends with the
 * process. The first subscription takes a snapshot of the running processes before it returns, so an
 * exit of any of them carries its name and path. Returns 0, EINVAL, ENOSPC (32 subscribers
 * already), or, when the netlink source is forced and cannot be used, the error that refused it
 * (EPERM without CAP_NET_ADMIN, ETIMEDOUT outside the initial pid namespace). Thread safe; may
 * be called from a callback. */
NUV_API int nuv_proc_regsiter_notifier(nuv_proc_notifier callback, void *context);

/* Removes every process subscription; the event thread rests, and the session's netlink
 * socket is closed by it shortly after. Waits for a callback in flight as
 * nuv_perf_unregsiter_notifier does. Returns 0. Thread safe. */
NUV_API int nuv_proc_unregsiter_notifier(void);

/* Chooses the source of process events for the following subscriptions (one that runs keeps
 * its source): NUV_PROC_EVENTS_*. Before any call the environment decides: NUV_PROC_EVENTS=proc
 * or =netlink, anything else AUTO. Returns 0 or EINVAL. Thread safe. */
NUV_API int nuv_proc_set_event_source(int source);

/* The source the running process subscription uses (NUV_PROC_EVENTS_NETLINK or _PROC), or 0
 * when there is none. Thread safe. */
NUV_API int nuv_proc_event_source(void);

/* Lists the running processes (no threads, no zombies) into *result: pid, executable file name
 * (the command name when the executable cannot be read) and full path (empty when it cannot be
 * read), in ascending pid order. The list belongs to the calling thread and stays valid until
 * that thread's next query, its nuv_clean_query_proc_info or its end. Returns 0, EINVAL (NULL
 * result), ENOMEM, or the errno of opening /proc; on failure *result is empty. Thread safe. */
NUV_API int nuv_query_proc_info(_process_mon_list *result);

/* Releases the calling thread's last query result; nothing when there is none. */
NUV_API void nuv_clean_query_proc_info(void);

#if defined(__i386__)
#ifdef __cplusplus
#define NUV_PERFPROV_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define NUV_PERFPROV_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif
NUV_PERFPROV_ASSERT(sizeof(_process_info) == 120, "_process_info is 120 bytes on i386");
NUV_PERFPROV_ASSERT(offsetof(_process_info, cputime) == 12, "64-bit fields at 4-byte alignment");
NUV_PERFPROV_ASSERT(offsetof(_process_info, image) == 96, "texts follow the counters");
NUV_PERFPROV_ASSERT(offsetof(_sys_info, raw) == 84, "21 words precede the raw block");
NUV_PERFPROV_ASSERT(offsetof(_sys_info, raw) + NUV_SYS_INFO_RAW_SIZE == 474,
                    "the system figures span 474 bytes");
NUV_PERFPROV_ASSERT(sizeof(_perf_information) == 16, "_perf_information is four words");
NUV_PERFPROV_ASSERT(sizeof(_process_mon_info) == 12, "_process_mon_info is 12 bytes on i386");
NUV_PERFPROV_ASSERT(sizeof(_process_mon_list) == 8, "a query result is two words");
#undef NUV_PERFPROV_ASSERT
#endif

NUV_END_DECLS

#endif

/* Performance provider: the records that the sampler hands to its subscribers.
 *
 * Every record is owned by the provider and valid only for the duration of the notification
 * that carries it; a subscriber copies what it keeps. Texts are NUL-terminated and may be NULL.
 *
 * On 32-bit x86 the layouts are fixed: all fields are 32-bit words or pairs of them, 64-bit
 * values sit at 4-byte alignment (the i386 ABI's own rule, so no packing is needed) and
 * pointers are 32 bits. Subscribers step through arrays of these records by those sizes. */
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
#undef NUV_PERFPROV_ASSERT
#endif

NUV_END_DECLS

#endif

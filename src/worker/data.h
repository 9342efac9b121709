// The monitor definition and the sample records that platform notifications become.
#ifndef NUV_WORKER_DATA_H
#define NUV_WORKER_DATA_H

#include <cstdint>
#include <string>

#include "common/error.h"
#include "nuv_perfprov.h"

// One performance monitor as its subscriber defined it. Held by value and copied freely.
// CheckValid() normalises the texts and fills the derived fields (data type, image, pid text,
// pid); nothing else should be trusted before it returned success.
class CMonitorData {
 public:
  // Data types (kept as plain integers in the record).
  static constexpr int kTypeInvalid = 0;
  static constexpr int kTypeExact = 1;          // one process by pid, or the whole system
  static constexpr int kTypeExactDepend = 2;    // the same, with a dependent_id
  static constexpr int kTypeImage = 3;          // every process of one image ("<image>:*")
  static constexpr int kTypeImageDepend = 4;    // the same, with a dependent_id

  // Trims and lower-cases id, name, version, product_version, focus, dependent_id and the pid
  // text; trims and upper-cases condition. The other texts keep their case on purpose.
  void ConvertLowerObject();
  // Splits focus at its last ":" into image, pid text and pid and decides whether it names
  // something watchable: "system:0", "processpoint:3", or an existing file with "*" or a pid > 0.
  bool CheckFocus();
  // Classifies from image, pid, pid text and dependent_id; stores and returns the type.
  int CheckDataType();
  int GetDataType() const { return data_type; }
  // Code 0 "success", or 102 "parameters invalid, <reason>" for the first failing check.
  CError CheckValid();
  // Empties everything but agent_id, which a reused record keeps.
  void Clear();

  std::string id;
  std::string agent_id;
  std::string name;
  std::string subscriber;
  std::string version;
  std::string product;
  std::string product_version;
  std::string focus;
  std::string handler;    // bus topic that results are posted to
  std::string condition;
  std::string dependent_id;
  int32_t data_type = kTypeInvalid;
  std::string image;      // focus before its last ":"
  std::string pid_text;   // focus after its last ":"
  int32_t pid = 0;        // pid_text in base 10, 0 when not numeric
};

// The figures of one process at one moment, in the order of _process_info.
struct ProcessFigures {
  uint32_t pid = 0;
  uint32_t parentid = 0;
  float cpu = 0.0f;
  uint64_t cputime = 0;
  uint64_t usertime = 0;
  uint64_t kerneltime = 0;
  uint64_t totaltime = 0;
  uint64_t memory = 0;
  uint64_t memorycommit = 0;
  uint32_t createtime = 0;
  uint32_t iorspeed = 0;
  uint32_t iowspeed = 0;
  uint64_t readbytes = 0;
  uint64_t writebytes = 0;
  uint32_t threads = 0;
  uint32_t handles = 0;
};

// One process at one moment: its figures and its texts, fields in the order of _process_info.
// Texts are trimmed and lower-cased. A null record gives zeros and empty texts.
struct ProcessInfo : ProcessFigures {
  ProcessInfo() = default;
  explicit ProcessInfo(const _process_info* info);

  std::string image;
  std::string path;
  std::string commandline;
  uint32_t reserved[3] = {0, 0, 0};
  uint32_t mark = 0;
};

// The whole machine at one moment: 21 words and a 390-byte block, 474 bytes with no padding,
// so that cells can copy it as one block. Packed: read members by value (a reference to a
// member does not compile).
struct __attribute__((packed)) SystemInfo {
  static constexpr size_t kRawSize = NUV_SYS_INFO_RAW_SIZE;

  SystemInfo() = default;
  explicit SystemInfo(const _sys_info* info);

  float cpu = 0.0f;
  uint32_t procnum = 0;
  uint32_t threadnum = 0;
  uint32_t handlenum = 0;
  uint64_t memtotal = 0;
  uint64_t memavai = 0;
  uint32_t cpunum = 0;
  float swap_usage = 0.0f;
  uint64_t swap_used = 0;
  uint64_t swap_total = 0;
  float cpu_iowait_percent = 0.0f;
  uint32_t reserved[6] = {0, 0, 0, 0, 0, 0};
  uint8_t raw[kRawSize] = {};
};

#if defined(__i386__)
static_assert(sizeof(SystemInfo) == 474, "SystemInfo is 474 bytes on i386");
#endif

// One process of an enumeration or event: pid, process name and full image path, both texts
// trimmed and lower-cased (the path is what monitors' images are matched against).
struct ProcessMonInfo {
  ProcessMonInfo() = default;
  explicit ProcessMonInfo(const _process_mon_info* info);

  uint32_t pid = 0;
  std::string name;
  std::string path;
};

// One block device with its counters in the order of _io_block.
struct IoDiskInfo {
  IoDiskInfo() = default;
  explicit IoDiskInfo(const _io_block* info);

  std::string name;
  uint32_t reads = 0;
  uint32_t read_sectors = 0;
  uint32_t writes = 0;
  uint32_t write_sectors = 0;
  uint32_t io_ms = 0;
};

#endif

// The store as nuvctl reads it: the configuration the daemon uses, the streams found on disk
// (day directories and, unpacked on demand, archived DAY.tgz days) and their records.
#ifndef NUV_TOOLS_NUVCTL_STORE_STREAMS_H
#define NUV_TOOLS_NUVCTL_STORE_STREAMS_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace nuvctl {

// One stream found on disk: an index/content pair, either of which may be missing.
struct Stream {
  std::string day;
  std::string name;
  unsigned int pid = 0;
  unsigned int type = 0;
  std::string indexPath;
  std::string contentPath;
  bool hasIndex = false;
  bool hasContent = false;
  std::string archive;  // the DAY.tgz it was unpacked from, or ""
};

// One record: its stream, its number (from 1) and place in the content file, and its text.
struct Record {
  const Stream* stream = nullptr;
  unsigned int number = 0;
  uint32_t offset = 0;
  uint32_t length = 0;
  std::string text;
  std::string time;  // "YYYYMMDD HH:MM:SS" from the record's header/time, or ""
  std::string order;  // the latest time seen in its stream up to it: merges keep stream order
};

// A private directory, removed with its contents when the object goes.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Loads the configuration into the library's sections and lists the types that have a
// directory of their own ("/addition"). False after printing why.
bool LoadStoreConfiguration(const std::string& path, std::vector<unsigned int>& ownTypes);

// The maintenance-log directory (512 stands for it) and every directory of its own.
std::vector<unsigned int> AllStoreTypes(const std::vector<unsigned int>& ownTypes);

// The streams under the base directories of `types` (each walked once), sorted by day, name,
// pid, type. With `scratch`, archived days from `fromDay` to `toDay` (YYYYMMDD, "" for open
// ends) are unpacked there with tar and their streams listed too; a day that exists both as a
// directory and as an archive is read from both.
std::vector<Stream> CollectStreams(const std::vector<unsigned int>& types, ScratchDir* scratch,
                                   const std::string& fromDay = "", const std::string& toDay = "");

// Records `from` .. of the stream, appended to `out`; stops quietly at a partial last index
// line (a writer is between its two writes). False with `error` when a file cannot be read or
// an index line is damaged.
bool ReadRecords(const Stream& stream, unsigned int from, std::vector<Record>& out,
                 std::string& error);

// The size of a file, 0 when it cannot be had.
uint64_t FileSizeOrZero(const std::string& path);

}  // namespace nuvctl

#endif

// The store as nuv_exportd and `nuvctl export` read it: its base directories and keep period
// from the daemon's configuration, its streams and day archives, and the whole, sound index
// lines of a stream. Streams are classified by the library's own CFileClassify and index
// lines parsed by its IndexData, so names holding '-' and the line format read as the daemon
// writes them.
#ifndef NUV_TOOLS_EXPORT_STORE_VIEW_H
#define NUV_TOOLS_EXPORT_STORE_VIEW_H

#include <cstdint>
#include <string>
#include <vector>

#include "export_state.h"
#include "file/fileindex.h"

namespace nuvexport {

struct StoreLayout {
  std::vector<std::string> bases;  // each base directory once
  int64_t keepSeconds = 0;         // the shortest keep period of any type
};

// Loads the daemon's configuration into the library's sections. False with `error`.
bool LoadStoreLayout(const std::string& configPath, StoreLayout& out, std::string& error);

// False, with `error`, when `dir` lies in one of the store's base directories: the
// clean-up pass there would pack or delete what it finds in it.
bool OutsideStore(const std::string& dir, const StoreLayout& layout, std::string& error);

struct StoredStream {
  StreamId id;
  std::string indexPath;
  std::string contentPath;
};

// Every stream with an index file under `root` (a base directory, or an unpacked archive's
// directory holding DAY/NAME/...), in stream order.
std::vector<StoredStream> ListStreams(const std::string& root);

struct DayArchive {
  std::string path;
  std::string day;
};
// The DAY.tgz archives directly under `base`.
std::vector<DayArchive> ListArchives(const std::string& base);

// Whole index lines of a file: its size / 22 (0 when it is missing).
uint64_t WholeLines(const std::string& indexPath);
// What tells a file from a later one at the same path: its inode number, which the file system
// may hand out again as soon as the file is deleted, and its birth time in nanoseconds where the
// file system keeps one (0 where it does not). All 0 when the file is missing.
struct FileIdentity {
  uint64_t inode = 0;
  uint64_t bornNs = 0;
};
FileIdentity IdentityOf(const std::string& path);
// Local midnight of a YYYYMMDD day, in seconds since the epoch.
int64_t DayStart(const std::string& day);

struct Record {
  uint64_t line = 0;  // 1-based index line
  uint32_t offset = 0;
  const char* data = nullptr;  // into the batch's bytes
  uint32_t size = 0;
};

// Records of one stream as read together. Reused from read to read, so its buffers are
// allocated once.
struct RecordBatch {
  std::string bytes;
  std::vector<Record> records;
  std::string indexLines;
  std::vector<IndexData> entries;
};

// Reads records of one stream from line `first` (1-based) on, at most `maxRecords` of them and
// stopping once `maxBytes` are read. It stops at the first line that is partial, does not parse
// or points past the content: a torn tail is never returned. False when the files cannot be read.
bool ReadRecords(const StoredStream& stream, uint64_t first, size_t maxRecords, size_t maxBytes,
                 RecordBatch& out);

}  // namespace nuvexport

#endif

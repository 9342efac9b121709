// What nuv_exportd has shipped, kept in one file that is replaced atomically: per stream the
// number of index lines the sink confirmed, the archives it finished, and its health.
#ifndef NUV_TOOLS_EXPORT_STATE_H
#define NUV_TOOLS_EXPORT_STATE_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>

namespace nuvexport {

struct StreamId {
  std::string day;
  std::string name;
  unsigned int pid = 0;
  unsigned int type = 0;

  bool operator<(const StreamId& other) const {
    return std::tie(day, name, pid, type) < std::tie(other.day, other.name, other.pid, other.type);
  }
  bool operator==(const StreamId& other) const {
    return day == other.day && name == other.name && pid == other.pid && type == other.type;
  }
  // The stream's Kafka key, as the store keys it: "name:pid:type".
  std::string Key() const;
  // "DAY/NAME-PID-TYPE", for log lines.
  std::string Describe() const;
};

struct Cursor {
  uint64_t shipped = 0;     // index lines confirmed by the sink
  uint64_t stored = 0;      // whole index lines last seen
  uint64_t inode = 0;       // of the index file shipped from (0: an archive's copy)
  uint64_t bornNs = 0;      // its birth time, where the file system keeps one
  int64_t caughtUpAt = 0;   // last time shipped reached stored (library clock)
};

struct ExportState {
  std::map<StreamId, Cursor> streams;
  std::set<std::string> archivesDone;  // archive paths whose every record is confirmed
  long pid = 0;                        // the exporter that wrote the file
  int64_t updatedAt = 0;
  int64_t unconfirmedSince = 0;  // records waiting for the sink since then; 0 when none wait
  std::string alarm;             // why records are at risk, "" when none are
};

// A missing file is an empty state. False with `error` when the file cannot be read or parsed.
bool LoadState(const std::string& path, ExportState& out, std::string& error);
// Writes a temporary file beside `path`, syncs it, renames it over `path` and syncs the
// directory, so a crash leaves either the old or the new state.
bool SaveState(const std::string& path, const ExportState& state, std::string& error);

}  // namespace nuvexport

#endif

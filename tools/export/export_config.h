// nuv_exportd's configuration file (config/exportd.json), shared with `nuvctl export`.
#ifndef NUV_TOOLS_EXPORT_CONFIG_H
#define NUV_TOOLS_EXPORT_CONFIG_H

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace nuvexport {

struct ExportConfig {
  std::string path;         // the file read
  std::string storeConfig;  // the daemon's maintenance.json, which says where the store is
  std::string stateDir;     // cursor and unpacked archives
  std::string output = "kafka";  // "kafka" or "ndjson"
  std::string ndjsonPath = "-";  // "-" is standard output
  std::string topic = "nuv-store";
  std::map<unsigned int, std::string> topicByType;
  // Passed to librdkafka as they are: bootstrap.servers, security.protocol, sasl.*, ssl.* ...
  std::vector<std::pair<std::string, std::string>> properties;
  unsigned int pollMs = 500;        // how often the store is looked at when idle
  unsigned int windowRecords = 10000;  // records read but not yet confirmed, at most
  unsigned int windowBytes = 64u << 20;
  unsigned int commitMs = 200;      // the cursor is written at most this often
  long alarmAfterSeconds = -1;      // no confirmation for this long is an alarm; -1: keep period
};

// Reads `path`. Relative paths inside are taken from the file's directory. False with a
// reason in `error` when the file is unreadable or a member has the wrong shape.
bool LoadExportConfig(const std::string& path, ExportConfig& out, std::string& error);

// <dir of exe>/../config/exportd.json
std::string ExportConfigPathFor(const std::string& exePath);

// The cursor file inside the state directory.
std::string StatePath(const ExportConfig& config);

}  // namespace nuvexport

#endif

#include "export/status_endpoint.h"

#include <jansson.h>
#include <limits.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <set>

#include "common/log.h"
#include "common/singleton.h"
#include "export/monitor_registry.h"
#include "file/fileclassify.h"
#include "nuv_dir.h"
#include "nuv_file.h"
#include "nuv_maintenance.h"

namespace {

using JsonPtr = std::unique_ptr<json_t, decltype(&json_decref)>;

constexpr int kInvalid = static_cast<int>(NUV_MAINT_INVALID_PARAMETER);
constexpr int kRefused = static_cast<int>(NUV_MAINT_REFUSED);
// The types whose store directories the daemon writes: the maintenance-log directory (512
// stands for 256 and 4096 too), performance records and the cleaned types.
const unsigned int kStoreTypes[] = {512, 100, 8192, 16384, 32768};

time_t g_started = 0;

// Files and bytes under `dir`; both 0 when it does not exist yet.
void DirectoryUsage(const std::string& dir, json_int_t& files, json_int_t& bytes) {
  files = 0;
  bytes = 0;
  std::unique_ptr<nuv_dirwalk_t, decltype(&nuv_dirwalk_destroy)> walk(
      nuv_dirwalk_create(dir.c_str(), 1, 0), nuv_dirwalk_destroy);
  if (!walk) return;
  int isDir = 0;
  while (const char* path = nuv_dirwalk_read(walk.get(), &isDir)) {
    if (isDir) continue;
    const uint64_t size = nuv_file_size(path);
    ++files;
    if (size != NUV_FILE_SIZE_UNKNOWN) bytes += static_cast<json_int_t>(size);
  }
}

// Store files this process holds open, read from its descriptors: one entry per stream.
json_t* OpenStreams() {
  json_t* streams = json_array();
  std::set<std::string> seen;
  std::unique_ptr<nuv_dirwalk_t, decltype(&nuv_dirwalk_destroy)> walk(
      nuv_dirwalk_create("/proc/self/fd", 0, 0), nuv_dirwalk_destroy);
  if (!walk) return streams;
  int isDir = 0;
  while (const char* fd = nuv_dirwalk_read(walk.get(), &isDir)) {
    char target[PATH_MAX] = {};
    const ssize_t n = readlink(fd, target, sizeof target - 1);
    CFileClassify classify;
    if (n <= 0 || !CFileClassify::ParseFilePath(target, classify)) continue;
    if (!seen.insert(classify.GetContentPath()).second) continue;
    json_t* row = json_object();
    json_object_set_new(row, "day", json_string(classify.GetTime().c_str()));
    json_object_set_new(row, "name", json_string(classify.GetName().c_str()));
    json_object_set_new(row, "pid", json_integer(classify.GetPid()));
    json_object_set_new(row, "type", json_integer(classify.GetType()));
    json_object_set_new(row, "content", json_string(classify.GetContentPath().c_str()));
    json_array_append_new(streams, row);
  }
  return streams;
}

std::string Dump(json_t* value) {
  char* text = json_dumps(value, JSON_COMPACT);
  std::string out = text ? text : "{}";
  free(text);
  return out;
}

}  // namespace

bool CStatusEndpoint::Start() {
  g_started = time(nullptr);
  const int code = nuv_comm_register(kTopic, Query, nullptr);
  if (code != 0) {
    ZLOG_ERROR("[CStatusEndpoint]::start status topic failed, code:%d", code);
    return false;
  }
  return true;
}

void CStatusEndpoint::Stop() { nuv_comm_unregister(kTopic); }

std::string CStatusEndpoint::StatusJson() {
  JsonPtr status(json_object(), json_decref);
  json_object_set_new(status.get(), "pid", json_integer(getpid()));
  json_object_set_new(status.get(), "uid", json_integer(getuid()));
  char started[40] = {};
  struct tm local {};
  localtime_r(&g_started, &local);
  strftime(started, sizeof started, "%Y-%m-%dT%H:%M:%S%z", &local);
  json_object_set_new(status.get(), "started", json_string(started));
  const char* dir = std::getenv("NUV_COMM_DIR");
  json_object_set_new(status.get(), "comm_dir_env", dir ? json_string(dir) : json_null());
  json_t* store = json_array();
  std::set<std::string> bases;
  for (unsigned int type : kStoreTypes) {
    const std::string base = GetStoreBaseDirectory(type);
    if (base.empty() || !bases.insert(base).second) continue;
    json_int_t files = 0, bytes = 0;
    DirectoryUsage(base, files, bytes);
    json_t* row = json_object();
    json_object_set_new(row, "path", json_string(base.c_str()));
    json_object_set_new(row, "files", json_integer(files));
    json_object_set_new(row, "bytes", json_integer(bytes));
    json_array_append_new(store, row);
  }
  json_object_set_new(status.get(), "store", store);
  json_object_set_new(status.get(), "open_streams", OpenStreams());
  return Dump(status.get());
}

std::string CStatusEndpoint::MonitorsJson() {
  return CSingleton<CMonitorRegistry>::GetInstance().MonitorsJson();
}

int CStatusEndpoint::Query(comm_data* request, comm_data* /*reply*/, void* /*context*/) {
  void* data = nullptr;
  unsigned int length = 0;
  if (nuv_comm_get_data(request, &data, &length) != 0) return kInvalid;
  json_error_t error;
  JsonPtr query(json_loadb(static_cast<const char*>(data), length, 0, &error), json_decref);
  const char* what = json_string_value(json_object_get(query.get(), "query"));
  const char* topic = json_string_value(json_object_get(query.get(), "reply"));
  const std::string prefix = kReplyPrefix;
  if (what == nullptr || topic == nullptr || std::string(topic).compare(0, prefix.size(), prefix) != 0)
    return kInvalid;
  std::string answer;
  if (std::string(what) == "status") {
    answer = StatusJson();
  } else if (std::string(what) == "monitors") {
    answer = MonitorsJson();
  } else {
    return kInvalid;
  }
  std::unique_ptr<comm_data, decltype(&nuv_comm_delete_data)> out(
      nuv_comm_new_data(answer.data(), static_cast<unsigned int>(answer.size())),
      nuv_comm_delete_data);
  if (!out || nuv_comm_post(topic, out.get()) != 0) {
    ZLOG_WARN("[CStatusEndpoint]::answer to %s not delivered.", topic);
    return kRefused;
  }
  return 0;
}

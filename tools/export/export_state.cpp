#include "export_state.h"

#include <fcntl.h>
#include <jansson.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace nuvexport {
namespace {

struct JsonFree {
  void operator()(json_t* value) const { json_decref(value); }
};
using JsonPtr = std::unique_ptr<json_t, JsonFree>;

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

uint64_t Unsigned(json_t* object, const char* key) {
  json_t* value = json_object_get(object, key);
  return json_is_integer(value) && json_integer_value(value) > 0
             ? static_cast<uint64_t>(json_integer_value(value))
             : 0;
}

int64_t Signed(json_t* object, const char* key) {
  json_t* value = json_object_get(object, key);
  return json_is_integer(value) ? static_cast<int64_t>(json_integer_value(value)) : 0;
}

std::string Text(json_t* object, const char* key) {
  const char* value = json_string_value(json_object_get(object, key));
  return value != nullptr ? value : "";
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

std::string StreamId::Key() const {
  return name + ":" + std::to_string(pid) + ":" + std::to_string(type);
}

std::string StreamId::Describe() const {
  return day + "/" + name + "-" + std::to_string(pid) + "-" + std::to_string(type);
}

bool LoadState(const std::string& path, ExportState& out, std::string& error) {
  out = ExportState();
  if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) return true;
  json_error_t parseError;
  JsonPtr root(json_load_file(path.c_str(), 0, &parseError));
  if (root == nullptr || !json_is_object(root.get())) {
    error = path + ": " + (root == nullptr ? parseError.text : "not a JSON object");
    return false;
  }
  out.pid = static_cast<long>(Signed(root.get(), "pid"));
  out.updatedAt = Signed(root.get(), "updated_at");
  out.unconfirmedSince = Signed(root.get(), "unconfirmed_since");
  out.alarm = Text(root.get(), "alarm");
  size_t i = 0;
  json_t* item = nullptr;
  json_array_foreach(json_object_get(root.get(), "streams"), i, item) {
    StreamId id;
    id.day = Text(item, "day");
    id.name = Text(item, "name");
    id.pid = static_cast<unsigned int>(Unsigned(item, "pid"));
    id.type = static_cast<unsigned int>(Unsigned(item, "type"));
    Cursor& cursor = out.streams[id];
    cursor.shipped = Unsigned(item, "shipped");
    cursor.stored = Unsigned(item, "stored");
    cursor.inode = Unsigned(item, "inode");
    cursor.bornNs = Unsigned(item, "born_ns");
    cursor.caughtUpAt = Signed(item, "caught_up_at");
  }
  json_array_foreach(json_object_get(root.get(), "archives_done"), i, item) {
    if (json_is_string(item)) out.archivesDone.insert(json_string_value(item));
  }
  return true;
}

bool SaveState(const std::string& path, const ExportState& state, std::string& error) {
  JsonPtr root(json_object());
  json_t* streams = json_array();
  json_object_set_new(root.get(), "pid", json_integer(state.pid));
  json_object_set_new(root.get(), "updated_at", json_integer(state.updatedAt));
  json_object_set_new(root.get(), "unconfirmed_since", json_integer(state.unconfirmedSince));
  json_object_set_new(root.get(), "alarm", json_string(state.alarm.c_str()));
  json_object_set_new(root.get(), "streams", streams);
  for (const auto& entry : state.streams) {
    json_t* item = json_object();
    json_object_set_new(item, "day", json_string(entry.first.day.c_str()));
    json_object_set_new(item, "name", json_string(entry.first.name.c_str()));
    json_object_set_new(item, "pid", json_integer(entry.first.pid));
    json_object_set_new(item, "type", json_integer(entry.first.type));
    json_object_set_new(item, "shipped", json_integer(static_cast<json_int_t>(entry.second.shipped)));
    json_object_set_new(item, "stored", json_integer(static_cast<json_int_t>(entry.second.stored)));
    json_object_set_new(item, "inode", json_integer(static_cast<json_int_t>(entry.second.inode)));
    json_object_set_new(item, "born_ns",
                        json_integer(static_cast<json_int_t>(entry.second.bornNs)));
    json_object_set_new(item, "caught_up_at", json_integer(entry.second.caughtUpAt));
    json_array_append_new(streams, item);
  }
  json_t* archives = json_array();
  for (const std::string& archive : state.archivesDone) {
    json_array_append_new(archives, json_string(archive.c_str()));
  }
  json_object_set_new(root.get(), "archives_done", archives);

  std::unique_ptr<char, decltype(&std::free)> text(json_dumps(root.get(), JSON_INDENT(1)),
                                                    &std::free);
  const std::string temp = path + ".tmp";
  Fd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640));
  if (text == nullptr || fd.get() < 0 || !WriteAll(fd.get(), text.get(), std::strlen(text.get())) ||
      !WriteAll(fd.get(), "\n", 1) || ::fsync(fd.get()) != 0 || ::close(fd.release()) != 0 ||
      ::rename(temp.c_str(), path.c_str()) != 0) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  const size_t slash = path.rfind('/');
  Fd dir(::open(slash == std::string::npos ? "." : path.substr(0, slash).c_str(),
                O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() >= 0) ::fsync(dir.get());
  return true;
}

}  // namespace nuvexport

#include "compress/compress_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "common/log.h"
#include "nuv_file.h"
#include "nuv_maintenance.h"
#include "nuv_path.h"
#include "nuv_process.h"

namespace {

constexpr size_t kCommandSize = 16384;

// One shell word whatever the path holds: blanks, quotes, `$`.
std::string ShellQuoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return out + "'";
}

// What is at a path, so that a freshly renamed archive can be told from one left before.
struct FileIdentity {
  bool exists = false;
  dev_t device = 0;
  ino_t inode = 0;

  explicit FileIdentity(const std::string& path) {
    struct stat st {};
    exists = ::stat(path.c_str(), &st) == 0;
    device = st.st_dev;
    inode = st.st_ino;
  }
  bool operator==(const FileIdentity& other) const {
    return exists == other.exists && device == other.device && inode == other.inode;
  }
};

}  // namespace

uint32_t GenCompressFile(const char* source, const char* target, const char* suffix,
                         long long timeout) {
  if (source == nullptr || target == nullptr || suffix == nullptr) {
    return NUV_MAINT_INVALID_PARAMETER;
  }
  char command[kCommandSize] = {0};
  if (nuv_path_is_exist_a(source) == 0) {
    return NUV_MAINT_INVALID_PARAMETER;
  }
  // Packed under a temporary name, read back whole, and only then renamed into place: a tar
  // that is missing, fails or is killed never leaves an archive that passes for the day. The
  // archive is as private as the store it came from.
  const std::string archive = std::string(source) + "." + suffix;
  const std::string partial = ShellQuoted(archive + ".part");
  const int length = std::snprintf(
      command, sizeof(command),
      "umask 027 && tar -zcvf %s -C %s . && tar -tzf %s >/dev/null && mv -f %s %s",
      partial.c_str(), ShellQuoted(target).c_str(), partial.c_str(), partial.c_str(),
      ShellQuoted(archive).c_str());
  if (length < 0 || static_cast<size_t>(length) >= sizeof(command)) {
    ZLOG_ERROR("start process failed(%s)", command);
    return NUV_MAINT_REFUSED;
  }
  const FileIdentity before(archive);

  nuv_process_t* process = nullptr;
  if (nuv_process_create(command, &process) == 0 || process == nullptr) {
    ZLOG_ERROR("start process failed(%s)", command);
    return NUV_MAINT_REFUSED;
  }
  int status = -1;
  if (nuv_process_wait_status(process, timeout, &status) == 0) {
    const long long waitError = errno;
    ZLOG_ERROR("call nuv_process_wait error ret=%lld", waitError);
    nuv_file_remove((archive + ".part").c_str());
    return NUV_MAINT_REFUSED;
  }
  // The status is lost when the host ignores SIGCHLD; the rename then tells.
  const FileIdentity after(archive);
  if (status > 0 || !after.exists || after == before) {
    ZLOG_ERROR("archive not written(%s), exit status %d", command, status);
    nuv_file_remove((archive + ".part").c_str());
    return NUV_MAINT_REFUSED;
  }
  return NUV_MAINT_OK;
}

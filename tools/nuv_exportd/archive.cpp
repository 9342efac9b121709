#include "archive.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

extern char** environ;

namespace nuvexport {
namespace {

const char kPrefix[] = "unpack.";

// Runs tar to its end; its exit status, or -1 when it could not be run.
int RunTar(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (::posix_spawnp(&pid, "tar", nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

UnpackedArchive::~UnpackedArchive() {
  if (root_.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

bool UnpackedArchive::Unpack(const std::string& archive, const std::string& day,
                             const std::string& workDir, std::string& error) {
  std::string pattern = workDir + "/" + kPrefix + "XXXXXX";
  if (::mkdtemp(&pattern[0]) == nullptr) {
    error = "cannot make a directory in " + workDir + ": " + std::strerror(errno);
    return false;
  }
  root_ = pattern;
  archive_ = archive;
  const std::string dayDir = root_ + "/" + day;
  if (::mkdir(dayDir.c_str(), 0700) != 0) {
    error = "cannot make " + dayDir + ": " + std::strerror(errno);
    return false;
  }
  const int status = RunTar({"tar", "-xzf", archive, "-C", dayDir});
  if (status != 0) {
    error = "tar -xzf " + archive + " failed" +
            (status < 0 ? std::string(" to run") : " with status " + std::to_string(status));
    return false;
  }
  return true;
}

void UnpackedArchive::RemoveLeftovers(const std::string& workDir) {
  std::error_code failed;
  for (std::filesystem::directory_iterator it(workDir, failed), end; !failed && it != end;
       it.increment(failed)) {
    if (it->path().filename().string().rfind(kPrefix, 0) == 0) {
      std::error_code ignored;
      std::filesystem::remove_all(it->path(), ignored);
    }
  }
}

}  // namespace nuvexport

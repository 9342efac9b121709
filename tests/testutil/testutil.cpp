#include "testutil/testutil.h"

#include <dirent.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace nuvtest {

namespace {
int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
  return ::remove(path);
}
}  // namespace

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/nuvtest.XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (::mkdtemp(buf.data()) == nullptr) {
    ::perror("mkdtemp");
    std::abort();
  }
  path_ = buf.data();
}

TempDir::~TempDir() {
  ::nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string TempDir::Sub(const std::string& rel) const { return path_ + "/" + rel; }

bool WriteFile(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << data;
  return static_cast<bool>(out);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

bool ProcessExists(int pid) {
  return ::access(("/proc/" + std::to_string(pid)).c_str(), F_OK) == 0;
}

std::vector<int> ChildPids(int ppid) {
  std::vector<int> out;
  DIR* d = ::opendir("/proc");
  if (!d) return out;
  while (struct dirent* e = ::readdir(d)) {
    int pid = std::atoi(e->d_name);
    if (pid <= 0) continue;
    std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    // The command name may hold blanks and parentheses: the fields resume after the last ')'.
    size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream rest(stat.substr(close + 2));
    char state;
    int parent = 0;
    rest >> state >> parent;
    if (parent == ppid) out.push_back(pid);
  }
  ::closedir(d);
  return out;
}

}  // namespace nuvtest

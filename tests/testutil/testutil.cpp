#include "testutil/testutil.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

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

std::string BuildDir() {
  char exe[4096];
  const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
  exe[n > 0 ? n : 0] = '\0';
  std::string dir(exe);
  dir = dir.substr(0, dir.rfind('/'));  // <build>/tests
  return dir.substr(0, dir.rfind('/'));
}

bool MakeInstallTree(const TempDir& root, const std::vector<std::string>& tools) {
  const std::string build = BuildDir();
  for (const char* dir : {"bin", "lib", "config"}) {
    if (::mkdir(root.Sub(dir).c_str(), 0755) != 0) return false;
  }
  for (const std::string& tool : tools) {
    const std::string copy = root.Sub("bin/" + tool);
    const std::string bytes = ReadFile(build + "/bin/" + tool);
    if (bytes.empty() || !WriteFile(copy, bytes) || ::chmod(copy.c_str(), 0755) != 0) {
      return false;
    }
  }
  DIR* libs = ::opendir((build + "/lib").c_str());
  if (libs == nullptr) return false;
  bool ok = true;
  while (struct dirent* entry = ::readdir(libs)) {
    const std::string name = entry->d_name;
    if (name.find(".so") == std::string::npos) continue;
    ok = ok && ::symlink((build + "/lib/" + name).c_str(), root.Sub("lib/" + name).c_str()) == 0;
  }
  ::closedir(libs);
  return ok;
}

int Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env,
          const std::string& in, const std::string& out, const std::string& err) {
  std::vector<std::string> args(argv);
  std::vector<std::string> vars(env);
  std::vector<char*> argp;
  std::vector<char*> envp;
  for (std::string& arg : args) argp.push_back(arg.data());
  for (std::string& var : vars) envp.push_back(var.data());
  argp.push_back(nullptr);
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, in.empty() ? "/dev/null" : in.c_str(), O_RDONLY,
                                   0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  const int spawned = ::posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return spawned == 0 ? pid : -1;
}

int WaitExit(int pid) {
  int status = 0;
  if (pid <= 0 || ::waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

RunResult Run(const std::vector<std::string>& argv, const std::vector<std::string>& env,
              const TempDir& dir, const std::string& input) {
  const std::string in = input.empty() ? "" : dir.Sub("run.in");
  RunResult r;
  if (!in.empty() && !WriteFile(in, input)) return r;
  r.code = WaitExit(Spawn(argv, env, in, dir.Sub("run.out"), dir.Sub("run.err")));
  r.out = ReadFile(dir.Sub("run.out"));
  r.err = ReadFile(dir.Sub("run.err"));
  return r;
}

DaemonTree::DaemonTree(const std::vector<std::string>& tools)
    : env_{"NUV_COMM_DIR=" + dir_.Sub("comm"), "NUV_LOG_FILE=" + dir_.Sub("maint.log")} {
  const std::string config = ReadFile(BuildDir() + "/config/maintenance.json");
  ok_ = MakeInstallTree(dir_, tools) && !config.empty() && WriteFile(ConfigPath(), config);
}

DaemonTree::~DaemonTree() { Stop(); }

int DaemonTree::Start(const std::vector<std::string>& args) {
  std::vector<std::string> argv(args);
  argv.insert(argv.begin(), dir_.Sub("bin/nuv_maintd"));
  pid_ = Spawn(argv, env_, "", dir_.Sub("daemon.out"), dir_.Sub("daemon.err"));
  return pid_;
}

bool DaemonTree::StartServing() {
  if (Start({"--log-level", "3"}) <= 0) return false;
  for (int i = 0; i < 500; ++i) {
    if (DaemonErr().find("started") != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

int DaemonTree::Wait() {
  const int code = WaitExit(pid_);
  pid_ = -1;
  return code;
}

int DaemonTree::Stop() {
  if (pid_ > 0) ::kill(pid_, SIGTERM);
  return Wait();
}

void DaemonTree::SetEnv(const std::string& entry) {
  const std::string name = entry.substr(0, entry.find('='));
  env_.erase(std::remove_if(env_.begin(), env_.end(),
                            [&name](const std::string& e) { return e.rfind(name + "=", 0) == 0; }),
             env_.end());
  if (entry.find('=') != std::string::npos) env_.push_back(entry);
}

int DaemonTree::StopWithin(int ms) {
  if (pid_ <= 0) return -1;
  ::kill(pid_, SIGTERM);
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  int status = 0;
  while (std::chrono::steady_clock::now() < until) {
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ::kill(pid_, SIGKILL);
  Wait();
  return -2;
}

bool DaemonTree::Alive() const { return pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0; }

bool DaemonTree::WaitForMessage(const std::string& prefix, int ms, int count) const {
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  for (;;) {
    int seen = 0;
    for (const std::string& m : Messages()) seen += m.rfind(prefix, 0) == 0 ? 1 : 0;
    if (seen >= count) return true;
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

RunResult DaemonTree::Nuvctl(std::vector<std::string> args, const std::string& input) const {
  args.insert(args.begin(), dir_.Sub("bin/nuvctl"));
  return Run(args, env_, dir_, input);
}

std::vector<std::string> DaemonTree::Messages() const {
  std::vector<std::string> out;
  for (const std::string& line : ReadLines(dir_.Sub("maint.log"))) {
    const size_t p = line.find(")] ");
    out.push_back(p == std::string::npos ? line : line.substr(p + 3));
  }
  return out;
}

int DaemonTree::Count(const std::string& message) const {
  const std::vector<std::string> m = Messages();
  return static_cast<int>(std::count(m.begin(), m.end(), message));
}

std::string Message(const std::string& line) {
  const size_t level = line.find('\t');
  const size_t tag = line.find("\t[ZOR]", level + 1);
  const size_t message = line.find(")] ", tag);
  if (line.rfind("[PID:", 0) != 0 || level == std::string::npos || tag == std::string::npos ||
      message == std::string::npos) {
    return line;
  }
  return line.substr(level + 1, tag - level - 1) + " " + line.substr(message + 3);
}

}  // namespace nuvtest

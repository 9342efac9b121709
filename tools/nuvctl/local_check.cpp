#include "local_check.h"

#include <jansson.h>

#include <cstdlib>
#include <vector>

#include "buryingpoint/bpmgr.h"
#include "command.h"
#include "config/config_collect.h"
#include "config/config_mgr.h"
#include "config/config_perfor.h"
#include "file/fileclassify.h"
#include "nuv_log.h"
#include "store_streams.h"
#include "worker/data.h"
#include "worker/express.h"
#include "worker/slidingwindow.h"

namespace nuvctl {
namespace {

// The library says why in its log lines: while a check runs they go to a private file and
// come back as messages ("[CSlidingWindow]::check condition split failed. ...").
class LogCapture {
 public:
  LogCapture() : path_(dir_.path() + "/check.log") {
    if (dir_.path().empty()) return;
    nuv_log_set_file(path_.c_str());
    nuv_log_start(0);
  }
  ~LogCapture() { Release(); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The ERROR messages written so far, without their prefix; ends the capture.
  std::vector<std::string> Errors() {
    Release();
    std::vector<std::string> out;
    FILE* file = std::fopen(path_.c_str(), "r");
    if (file == nullptr) return out;
    char line[4096];
    while (std::fgets(line, sizeof line, file) != nullptr) {
      std::string text = line;
      while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
      const size_t source = text.find(")] ");
      if (text.find("\t[ERROR]\t") != std::string::npos && source != std::string::npos)
        out.push_back(text.substr(source + 3));
    }
    std::fclose(file);
    return out;
  }

 private:
  void Release() {
    if (released_) return;
    released_ = true;
    nuv_log_stop();
    nuv_log_set_file(nullptr);
  }

  ScratchDir dir_;
  std::string path_;
  bool released_ = false;
};

std::string Joined(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) out += "\n  " + line;
  return out;
}

bool CheckJson(const std::string& bytes, std::string& reason) {
  json_error_t error;
  json_t* root = json_loadb(bytes.data(), bytes.size(), 0, &error);
  if (root != nullptr) {
    json_decref(root);
    return true;
  }
  reason = "not JSON: line " + std::to_string(error.line) + ", column " +
           std::to_string(error.column) + ": " + error.text;
  return false;
}

// The daemon's sampling period, from its configuration when nuvctl can read it.
unsigned int CollectFrequency() {
  LogCapture quiet;
  ConfigMgr loader;
  if (!loader.LoadConfig(DefaultConfigPath()).IsSuccess()) return 1;
  const int frequency = CCollectSdkCfg::GetInstance()->GetCollectFrequency();
  return frequency > 0 ? static_cast<unsigned int>(frequency) : 1;
}

// The condition as a worker takes it: the window part, then the value part evaluated once
// over every letter, where the parser names the token it refused and its position.
bool CheckCondition(const std::string& condition, std::string& reason) {
  const unsigned int frequency = CollectFrequency();
  LogCapture capture;
  CSlidingWindow window;
  bool ok = window.SetCondition(condition, frequency).IsSuccess();
  if (ok) {
    CExpress express;
    express.SetAllValue(false);
    express.SetCpuValue(0);
    express.SetMemoryValue(0);
    express.SetThreadValue(0);
    express.SetHandleValue(0);
    express.SetRIoValue(0);
    express.SetWIoValue(0);
    express.SetExpress(window.GetExpression());
    bool hit = false;
    ok = express.EvalExpress(hit).IsSuccess();
  }
  if (ok) return true;
  reason = "condition '" + condition + "' refused:" + Joined(capture.Errors());
  if (condition.find('/') == std::string::npos)
    reason += "\n  a condition is VALUE/SECONDS such as 'C>90/60', quoted in the shell, where > "
              "redirects";
  return false;
}

bool CheckMonitor(const std::string& bytes, std::string& reason) {
  if (!CheckJson(bytes, reason)) return false;
  CMonitorData monitor;
  bool ok = false;
  std::vector<std::string> errors;
  {
    LogCapture capture;
    ok = CPerforMonitorCfg::ParseRegisterJson(bytes, monitor);
    errors = capture.Errors();
  }
  if (!ok) {
    reason = "definition refused:" + Joined(errors);
    return false;
  }
  return CheckCondition(monitor.condition, reason);
}

bool CheckPoint(const std::string& bytes, std::string& reason) {
  if (!CheckJson(bytes, reason)) return false;
  LogCapture capture;
  CBpMgr manager;
  CFileClassify classify;
  std::string copy = bytes;
  const CError checked = manager.CheckBpData(&copy[0], static_cast<unsigned int>(copy.size()), classify);
  if (checked.IsSuccess()) return true;
  reason = "burying point refused: " + checked.desc;
  return false;
}

}  // namespace

bool CheckBeforePost(const std::string& topic, const std::string& bytes, std::string& reason) {
  if (topic == "maintenance:POST") return CheckPoint(bytes, reason);
  if (topic == "maintenance:register") return CheckMonitor(bytes, reason);
  if (topic == "maintenance:unregister") return CheckJson(bytes, reason);
  return true;
}

}  // namespace nuvctl

#include "buryingpoint/bpmgr.h"

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "common/jsonscan.h"
#include "common/jsonutil.h"
#include "common/log.h"
#include "common/per_thread.h"
#include "common/singleton.h"
#include "file/filemanager.h"
#include "nuv_maintenance.h"
#include "nuv_path.h"
#include "nuv_str.h"

namespace {

const char kBpTopic[] = "maintenance:POST";

constexpr int kResultInvalidParameter = static_cast<int>(NUV_MAINT_INVALID_PARAMETER);
constexpr int kResultBusData = static_cast<int>(NUV_MAINT_BUS_DATA);
constexpr int kResultBpInvalid = static_cast<int>(NUV_MAINT_BP_INVALID);

constexpr unsigned int kTimingType = 256;
constexpr size_t kFocusPathSize = 1024;

// Every member the format reads, in one table for the scan; the first three are read first, in
// this order, then the header strings, then (timing points only) the body members.
const char kType[] = "header/type";
const char kVersion[] = "header/version";
const char kFocus[] = "header/focus";
const char* const kMembers[] = {
    kType,         kVersion,         kFocus,
    // Header strings that must be present; their values are not used.
    "header/id",   "header/name",    "header/module",          "header/function",
    "header/time", "header/product", "header/product_version", "header/agent_id",
    // Timing members.
    "body/time_start", "body/time_end", "body/time_diff",
};
const char* const* const kHeaderStrings = kMembers + 3;
constexpr size_t kHeaderStringCount = 8;
const char* const* const kTimerMembers = kHeaderStrings + kHeaderStringCount;
constexpr size_t kTimerMemberCount = 3;
const JsonPaths kMemberPaths(kMembers, sizeof kMembers / sizeof kMembers[0]);

}  // namespace

CError CBpMgr::Start() {
  int result = nuv_comm_init();
  if (result == 0) {
    result = nuv_comm_register_batch(kBpTopic, &CBpMgr::BpBatchCallBack, this);
  }
  if (result != 0) {
    ZLOG_ERROR("[bpmgr]start buryingpoint mgr failed with error:%d", result);
    return CError::CreateError(kErrBpRegister, "BP mgr comm register error with code:%d", result);
  }
  ZLOG_INFO("[bpmgr]start buryingpoint mgr success.");
  return CError();
}

void CBpMgr::Stop() {
  nuv_comm_unregister(kBpTopic);
  nuv_comm_uninit();
  ZLOG_INFO("[bpmgr]stop buryingpoint mgr.");
}

int CBpMgr::BpRegisterCallBack(comm_data* request, comm_data* /*reply*/, void* userData) {
  if (userData == nullptr) {
    ZLOG_ERROR("[bpmgr] callback userdata is null.");
    return kResultInvalidParameter;
  }
  void* data = nullptr;
  unsigned int length = 0;
  if (nuv_comm_get_data(request, &data, &length) != 0) {
    ZLOG_ERROR("[bpmgr] buryingpoint get comm data failed.");
    return kResultBusData;
  }
  return static_cast<CBpMgr*>(userData)->CallBackImpl(data, length);
}

void CBpMgr::BpBatchCallBack(comm_data* const* requests, unsigned int count, int* results,
                             void* userData) {
  if (userData == nullptr) {
    for (unsigned int i = 0; i < count; ++i) {
      ZLOG_ERROR("[bpmgr] callback userdata is null.");
      results[i] = kResultInvalidParameter;
    }
    return;
  }
  static_cast<CBpMgr*>(userData)->BatchImpl(requests, count, results);
}

int CBpMgr::CallBackImpl(void* data, unsigned int length) {
  CFileClassify classify;
  const int checked = Checked(data, length, classify);
  if (checked != 0) {
    return checked;
  }
  // The posted bytes are stored as they came, members unknown to the format included.
  const std::string_view content(static_cast<const char*>(data), length);
  return Stored(classify, CSingleton<CFileManager>::GetInstance().WriteFile(classify, content));
}

void CBpMgr::BatchImpl(comm_data* const* requests, unsigned int count, int* results) {
  // Kept per bus thread, so a batch costs no allocation once the thread has seen one as large.
  struct Scratch {
    std::vector<CFileClassify> classes;
    std::vector<CFileClassify*> valid;
    std::vector<std::string_view> contents;
    std::vector<unsigned int> slots;
    std::vector<CError> written;
  };
  auto& [classes, valid, contents, slots, written] = PerThread<Scratch>();
  if (classes.size() < count) classes.resize(count);
  valid.clear();
  contents.clear();
  slots.clear();
  for (unsigned int i = 0; i < count; ++i) {
    void* data = nullptr;
    unsigned int length = 0;
    if (nuv_comm_get_data(requests[i], &data, &length) != 0) {
      ZLOG_ERROR("[bpmgr] buryingpoint get comm data failed.");
      results[i] = kResultBusData;
      continue;
    }
    results[i] = Checked(data, length, classes[i]);
    if (results[i] == 0) {
      valid.push_back(&classes[i]);
      contents.emplace_back(static_cast<const char*>(data), length);
      slots.push_back(i);
    }
  }
  if (valid.empty()) {
    return;
  }
  written.assign(valid.size(), CError());
  CSingleton<CFileManager>::GetInstance().WriteFiles(valid.data(), contents.data(), valid.size(),
                                                     written.data());
  for (size_t k = 0; k < valid.size(); ++k) {
    results[slots[k]] = Stored(*valid[k], written[k]);
  }
}

int CBpMgr::Checked(void* data, unsigned int length, CFileClassify& classify) {
  CError result = CheckBpData(data, length, classify);
  if (result.code != 0) {
    ZLOG_ERROR("[bpmgr] check bp data failed with error:%d-%s", result.code, result.desc.c_str());
    return kResultBpInvalid;
  }
  return 0;
}

int CBpMgr::Stored(const CFileClassify& classify, const CError& written) {
  if (written.code != 0) {
    ZLOG_ERROR("[bpmgr] write bp data failed with error:%d-%s", written.code, written.desc.c_str());
    return written.code;
  }
  ZLOG_DEBUG("[bpmgr] write bp data success. type:%d, pid:%d, name:%s, content_path:%s",
             static_cast<int>(classify.GetType()), static_cast<int>(classify.GetPid()),
             classify.GetName().c_str(), classify.GetContentPath().c_str());
  return 0;
}

CError CBpMgr::CheckBpData(void* data, unsigned int length, CFileClassify& classify) {
  const char* text = data == nullptr ? "" : static_cast<const char*>(data);
  const size_t size = data == nullptr ? 0 : length;
  // The parser stops at a NUL and the store could not index such a record: refuse it whole.
  const void* nul = std::memchr(text, '\0', size);
  if (nul != nullptr) {
    return CError::CreateError(kErrBpInvalid, "bp data holds a NUL byte at offset %u",
                               static_cast<unsigned int>(static_cast<const char*>(nul) - text));
  }
  // One pass over the posted bytes in place, with Jansson's verdict: no tree, no copy.
  JsonScan json(kMemberPaths);
  const int loaded = json.Scan(text, size);
  if (loaded != JsonUtil::kOk) {
    return CError::CreateError(kErrBpInvalid, "json load failed with error:%d", loaded);
  }
  CError result = CheckBpHeader(json, classify);
  if (result.code != 0) {
    return result;
  }
  if (classify.GetType() == kTimingType) {
    result = CheckBpTimer(json);
  }
  return result;
}

CError CBpMgr::CheckBpHeader(const JsonScan& json, CFileClassify& classify) {
  int type = 0;
  if (json.GetInteger(kType, &type) != JsonUtil::kOk) {
    return CError::CreateError(kErrBpInvalid, "bp %s is invalid", kType);
  }
  std::string version;
  if (json.GetString(kVersion, version) != JsonUtil::kOk) {
    return CError::CreateError(kErrBpInvalid, "bp %s is invalid", kVersion);
  }
  if (version != "1.0") {
    // The refusal of a version names "header/type"; the text is kept as it is.
    return CError::CreateError(kErrBpInvalid, "BP %s:%s is not support", kType,
                               version.c_str());
  }
  // Kept per bus thread: a path is longer than a string holds without the heap.
  struct Focus {
    std::string text;
  };
  std::string& focus = PerThread<Focus>().text;
  if (json.GetString(kFocus, focus) != JsonUtil::kOk) {
    return CError::CreateError(kErrBpInvalid, "bp %s is invalid", kFocus);
  }
  std::string name;
  unsigned int pid = 0;
  CError result = GetBpFocus(focus, name, &pid);
  if (result.code != 0) {
    return result;
  }
  // Their values are not used: their kind is what the format asks of them.
  for (size_t i = 0; i < kHeaderStringCount; ++i) {
    if (json.KindAt(kHeaderStrings[i]) != JsonScan::kString) {
      return CError::CreateError(kErrBpInvalid, "bp %s is invalid", kHeaderStrings[i]);
    }
  }
  if (!classify.InitFileClassify(name, pid, static_cast<unsigned int>(type))) {
    return CError::CreateError(kErrBpClassify, "init file classify failed.");
  }
  return CError();
}

CError CBpMgr::CheckBpTimer(const JsonScan& json) {
  for (size_t i = 0; i < kTimerMemberCount; ++i) {
    if (json.KindAt(kTimerMembers[i]) != JsonScan::kInteger) {
      return CError::CreateError(kErrBpInvalid, "bp %s is invalid", kTimerMembers[i]);
    }
  }
  return CError();
}

CError CBpMgr::GetBpFocus(const std::string& focus, std::string& name, unsigned int* pid) {
  const std::string::size_type colon = focus.rfind(':');
  if (colon == std::string::npos) {
    return CError::CreateError(kErrBpInvalid, "BP %s:%s format is invalid", "header/focus",
                               focus.c_str());
  }
  // What follows the colon is not read: burying points are not bound to a process id.
  *pid = 0;
  // The copy is bounded by the buffer, so an over-long path is cut rather than overflowing.
  char path[kFocusPathSize];
  nuv_strncpy(path, sizeof path, focus.c_str(), colon);
  const char* last = nuv_path_get_name_u(path);
  if (last != nullptr) name = last;
  // The name becomes a directory of the store: "." or ".." would step out of the day.
  if (last == nullptr || !CFileClassify::IsStoreName(name)) {
    return CError::CreateError(kErrBpInvalid, "BP %s:%s processname is invalid", "header/focus",
                               focus.c_str());
  }
  return CError();
}

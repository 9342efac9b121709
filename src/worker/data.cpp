#include "worker/data.h"

#include <cstring>

#include "common/log.h"
#include "common/reserved.h"
#include "common/utils.h"
#include "nuv_path.h"

namespace {

void LowerIfSet(std::string& text) {
  if (!text.empty()) {
    CorrectLowerString(text);
  }
}

// Copies a platform text that may be null, normalised.
void CopyText(const char* from, std::string& to) {
  if (from != nullptr) {
    to = from;
    CorrectLowerString(to);
  }
}

}  // namespace

void CMonitorData::ConvertLowerObject() {
  LowerIfSet(id);
  LowerIfSet(name);
  LowerIfSet(version);
  LowerIfSet(product_version);
  LowerIfSet(focus);
  LowerIfSet(dependent_id);
  LowerIfSet(pid_text);
  CorrectString(condition);
}

bool CMonitorData::CheckFocus() {
  const std::string::size_type colon = focus.rfind(':');
  if (colon == std::string::npos) {
    ZLOG_ERROR("[CMonitorData]::CheckFocus focus invalid, not find `:`, id = %s.", id.c_str());
    return false;
  }
  if (colon + 1 == focus.size()) {
    ZLOG_ERROR("[CMonitorData]::CheckFocus focus length invalid `:`, id = %s.", id.c_str());
    return false;
  }
  image = focus.substr(0, colon);
  pid_text = focus.substr(colon + 1);
  pid = static_cast<int32_t>(ConvertStringToNumber(pid_text.c_str()));

  if (pid == kSystemPid && image == kSystemImage) {
    return true;
  }
  if (pid == kProcessPointPid && image == kProcessPointImage) {
    return true;
  }
  // Samples carry the executable's canonical path, lower-cased: the focus is taken to the
  // same form, through links and whatever case the focus was written in.
  char resolved[4096];
  if (nuv_path_resolve_nocase(image.c_str(), resolved, sizeof resolved) != 0) {
    ZLOG_ERROR("[CMonitorData]::CheckFocus image file not exist, id = %s.", id.c_str());
    return false;
  }
  image = resolved;
  CorrectLowerString(image);
  if (pid_text == "*") {
    return true;
  }
  return pid > 0;
}

int CMonitorData::CheckDataType() {
  const bool dep = !dependent_id.empty();
  int type = kTypeInvalid;
  // Later rules overwrite earlier ones.
  if (pid == kSystemPid && image == kSystemImage) {
    type = dep ? kTypeExactDepend : kTypeExact;
  }
  if (!image.empty() && pid != 0) {
    type = dep ? kTypeExactDepend : kTypeExact;
  }
  if (!image.empty() && pid_text == "*") {
    type = dep ? kTypeImageDepend : kTypeImage;
  }
  data_type = type;
  return data_type;
}

CError CMonitorData::CheckValid() {
  ConvertLowerObject();
  const char* reason = nullptr;
  if (id.empty()) {
    ZLOG_ERROR("[CMonitorData]::CheckValid id is empty.");
    reason = "id is null";
  } else if (subscriber.empty()) {
    ZLOG_ERROR("[CMonitorData]::CheckValid subscriber is empty. id = %s.", id.c_str());
    reason = "subscriber is null";
  } else if (handler.empty()) {
    ZLOG_ERROR("[CMonitorData]::CheckValid subscriber handler is null. id = %s.", id.c_str());
    reason = "handler is null";
  } else if (condition.empty()) {
    ZLOG_ERROR("[CMonitorData]::CheckValid subscriber condition is null. id = %s.", id.c_str());
    reason = "condition is null";
  } else if (!CheckFocus()) {
    ZLOG_ERROR("[CMonitorData]::CheckValid focus is invalid. id = %s.", id.c_str());
    reason = "focus invalid";
  } else if (CheckDataType() == kTypeInvalid) {
    ZLOG_ERROR("[CMonitorData]::CheckValid monitor data type invalid. id = %s.", id.c_str());
    reason = "monitor data type invalid";
  }
  if (reason != nullptr) {
    return CError::CreateError(kErrParam, "parameters invalid, %s", reason);
  }
  return CError();
}

void CMonitorData::Clear() {
  id.clear();
  name.clear();
  subscriber.clear();
  version.clear();
  product.clear();
  product_version.clear();
  focus.clear();
  handler.clear();
  condition.clear();
  dependent_id.clear();
  data_type = kTypeInvalid;
  image.clear();
  pid_text.clear();
  pid = 0;
}

ProcessInfo::ProcessInfo(const _process_info* info) {
  if (info == nullptr) {
    return;
  }
  pid = info->pid;
  parentid = info->parentid;
  cpu = info->cpu;
  cputime = info->cputime;
  usertime = info->usertime;
  kerneltime = info->kerneltime;
  totaltime = info->totaltime;
  memory = info->memory;
  memorycommit = info->memorycommit;
  createtime = info->createtime;
  iorspeed = info->iorspeed;
  iowspeed = info->iowspeed;
  readbytes = info->readbytes;
  writebytes = info->writebytes;
  threads = info->threads;
  handles = info->handles;
  CopyText(info->image, image);
  CopyText(info->path, path);
  CopyText(info->commandline, commandline);
  reserved[0] = info->reserved[0];
  reserved[1] = info->reserved[1];
  reserved[2] = info->reserved[2];
  mark = 0;
}

SystemInfo::SystemInfo(const _sys_info* info) {
  if (info == nullptr) {
    return;
  }
  cpu = info->cpu;
  procnum = info->procnum;
  threadnum = info->threadnum;
  handlenum = info->handlenum;
  memtotal = info->memtotal;
  memavai = info->memavai;
  cpunum = info->cpunum;
  swap_usage = info->swap_usage;
  swap_used = info->swap_used;
  swap_total = info->swap_total;
  cpu_iowait_percent = info->cpu_iowait_percent;
  for (size_t i = 0; i < sizeof(reserved) / sizeof(reserved[0]); ++i) {
    reserved[i] = info->reserved[i];
  }
  std::memcpy(raw, info->raw, kRawSize);
}

ProcessMonInfo::ProcessMonInfo(const _process_mon_info* info) {
  if (info == nullptr) {
    return;
  }
  pid = info->pid;
  CopyText(info->name, name);
  CopyText(info->path, path);
}

IoDiskInfo::IoDiskInfo(const _io_block* info) {
  if (info == nullptr) {
    return;
  }
  if (info->name != nullptr) {
    WstringToString(std::wstring(info->name), name);
    CorrectLowerString(name);
  }
  reads = info->reads;
  read_sectors = info->read_sectors;
  writes = info->writes;
  write_sectors = info->write_sectors;
  io_ms = info->io_ms;
}

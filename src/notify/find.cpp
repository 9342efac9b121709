#include "notify/find.h"

#include "common/log.h"
#include "nuv_perfprov.h"

CProcessFinder::CProcessFinder() {
  _process_mon_list list = {nullptr, 0};
  if (nuv_query_proc_info(&list) != 0) {
    ZLOG_ERROR("[ProcessFinder]::query process info failed.");
    return;
  }
  processes_.reserve(list.count);
  for (uint32_t i = 0; i < list.count; ++i) {
    // The record trims and lower-cases the name and the image path itself.
    processes_.emplace_back(&list.info[i]);
  }
  nuv_clean_query_proc_info();
}

CProcessFinder::~CProcessFinder() = default;

bool CProcessFinder::FindProcess(std::string& image, std::vector<unsigned int>& pids) {
  pids.clear();
  for (const ProcessMonInfo& process : processes_) {
    if (process.path == image) {
      pids.push_back(process.pid);
    }
  }
  return !pids.empty();
}

bool CProcessFinder::IsProcessExist(std::string& image, unsigned int pid) {
  for (const ProcessMonInfo& process : processes_) {
    if (process.pid == pid && process.path == image) {
      return true;
    }
  }
  return false;
}

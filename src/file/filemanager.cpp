#include "file/filemanager.h"

#include "common/log.h"
#include "common/utils.h"

// Holds the manager's lock for one scope. A lock that cannot be taken is logged; the operation
// then runs without it rather than failing a producer.
class CFileManager::LockGuard {
 public:
  LockGuard(nuv_rwlock_t* lock, bool exclusive) : lock_(lock), exclusive_(exclusive) {
    const int rc =
        exclusive_ ? nuv_rwlock_exclusive_acquire(lock_) : nuv_rwlock_shared_acquire(lock_);
    held_ = rc == 0;
    if (!held_) {
      ZLOG_ERROR("[CFileManager]::lock acquire failed, exclusive = %d, code = %d.",
                 exclusive_ ? 1 : 0, rc);
    }
  }
  ~LockGuard() {
    if (held_ && exclusive_) {
      nuv_rwlock_exclusive_release(lock_);
    } else if (held_) {
      nuv_rwlock_shared_release(lock_);
    }
  }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  nuv_rwlock_t* lock_;
  bool exclusive_;
  bool held_ = false;
};

namespace {

CError InvalidClassify() {
  return CError::CreateError(kFileErrParam, "parameters invalid, %s", "file classify invalid.");
}

}  // namespace

CFileManager::CFileManager() {
  const int rc = nuv_rwlock_init(&lock_);
  if (rc != 0) {
    ZLOG_ERROR("[CFileManager]::CFileManager lock init failed, code = %d.", rc);
  }
}

CFileManager::~CFileManager() {
  units_.clear();
  nuv_rwlock_destroy(&lock_);
}

CError CFileManager::WriteFile(CFileClassify& classify, const std::string& record) {
  LockGuard guard(lock_, true);
  CFileUnit* unit = FindAndInsertNolock(classify);
  return unit == nullptr ? InvalidClassify() : unit->WriteFile(record);
}

CError CFileManager::ReadFile(CFileClassify& classify, int n, std::string& out) {
  LockGuard guard(lock_, true);
  CFileUnit* unit = FindAndInsertNolock(classify);
  return unit == nullptr ? InvalidClassify() : unit->ReadFile(n, out);
}

CError CFileManager::ReadBatchFile(CFileClassify& classify, unsigned int start, unsigned int count,
                                   unsigned int& next, std::vector<std::string>& out) {
  LockGuard guard(lock_, true);
  CFileUnit* unit = FindAndInsertNolock(classify);
  return unit == nullptr ? InvalidClassify() : unit->ReadBatchFile(start, count, next, out);
}

CError CFileManager::ReadALLFile(CFileClassify& classify, std::vector<std::string>& out) {
  LockGuard guard(lock_, true);
  CFileUnit* unit = FindAndInsertNolock(classify);
  return unit == nullptr ? InvalidClassify() : unit->ReadALLFile(out);
}

CFileUnit* CFileManager::FindAndInsert(CFileClassify& classify) {
  LockGuard guard(lock_, true);
  return FindAndInsertNolock(classify);
}

CFileUnit* CFileManager::FindAndInsertNolock(CFileClassify& classify) {
  const uint64_t key = classify.GetHashKey();
  auto found = units_.find(key);
  if (found != units_.end()) {
    return found->second.get();
  }
  std::unique_ptr<CFileUnit> unit(new CFileUnit());
  if (!unit->InitFileUint(classify).IsSuccess()) {
    return nullptr;
  }
  CFileUnit* raw = unit.get();
  units_[key] = std::move(unit);
  return raw;
}

void CFileManager::CloseUnit(CFileClassify& classify) {
  LockGuard guard(lock_, true);
  auto found = units_.find(classify.GetHashKey());
  if (found != units_.end()) {
    found->second->Close();
    units_.erase(found);
  }
}

void CFileManager::CloseFile(CFileClassify& classify) { CloseUnit(classify); }

void CFileManager::Delete(CFileClassify& classify) { CloseUnit(classify); }

void CFileManager::FileUnitsFlush() {
  // Shared is enough: flushing leaves the map as it is, and only the clean-up thread flushes.
  LockGuard guard(lock_, false);
  for (auto& entry : units_) {
    entry.second->Flush();
  }
}

template <typename Pred>
CError CFileManager::EnumMatching(unsigned int type, std::vector<std::string>& out, Pred take) {
  const std::string base = GetStoreBaseDirectory(type);
  std::vector<std::string> files;
  if (!EnumFiles(base, files)) {
    return CError::CreateError(kFileErrFindFail, "file find fail path = %s ", base.c_str());
  }
  for (const std::string& file : files) {
    if (take(file)) {
      out.push_back(file);
    }
  }
  if (out.empty()) {
    return CError::CreateError(kFileErrFindEmpty, "file find empty path = %s ", base.c_str());
  }
  return CError();
}

CError CFileManager::EnumFilesBySuffix(std::vector<std::string>& out, const std::string& suffix,
                                       int type) {
  // A substring search on purpose: archives renamed with a further ending are listed too.
  return EnumMatching(static_cast<unsigned int>(type), out, [&suffix](const std::string& file) {
    return file.find(suffix) != std::string::npos;
  });
}

CError CFileManager::EnumAllFiles(std::vector<std::string>& out, int type) {
  return EnumMatching(static_cast<unsigned int>(type), out, [](const std::string& file) {
    return CFileClassify::CheckFilePathValid(file);
  });
}

CError CFileManager::EnumFilesByType(unsigned int type, std::vector<std::string>& out) {
  if (type == 0) {
    return CError::CreateError(kFileErrParam, "parameters invalid, %s", "type = 0");
  }
  return EnumMatching(type, out, [type](const std::string& file) {
    CFileClassify classify;
    return CFileClassify::CheckFilePathValid(file) &&
           CFileClassify::ParseFilePath(file, classify) && classify.GetType() == type;
  });
}

CError CFileManager::EnumFilesByTime(const std::string& day, std::vector<std::string>& out,
                                     int type) {
  if (!CFileClassify::CheckDataTime(day)) {
    return CError::CreateError(kFileErrParam, "parameters invalid, %s", day.c_str());
  }
  return EnumMatching(static_cast<unsigned int>(type), out, [&day](const std::string& file) {
    CFileClassify classify;
    return CFileClassify::CheckFilePathValid(file) &&
           CFileClassify::ParseFilePath(file, classify) && classify.GetTime() == day;
  });
}

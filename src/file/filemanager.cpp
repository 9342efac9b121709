#include "file/filemanager.h"

#include <algorithm>

#include "common/log.h"
#include "common/rwlock.h"
#include "common/utils.h"

namespace {

CError InvalidClassify() {
  return CError::CreateError(kErrParam, "parameters invalid, %s", "file classify invalid.");
}

// The store's lock could not be taken (it could not be made): nothing may run unlocked.
CError LockNotTaken() {
  return CError::CreateError(kErrParam, "parameters invalid, %s", "store lock not taken.");
}

// A usable classification whose files cannot be opened reports why; anything else is the
// classification's fault.
CError NoUnit(const CError& openError) {
  return openError.IsSuccess() ? InvalidClassify() : openError;
}

}  // namespace

CFileManager::CFileManager() = default;

CFileManager::~CFileManager() = default;

template <typename Op>
CError CFileManager::OnUnit(CFileClassify& classify, const Op& op) {
  CRwLockGuard guard(lock_, true);
  if (!guard.Held()) {
    return LockNotTaken();
  }
  CError openError;
  CFileUnit* unit = FindAndInsertNolock(classify, &openError);
  return unit == nullptr ? NoUnit(openError) : op(*unit);
}

CError CFileManager::WriteFile(CFileClassify& classify, std::string_view record) {
  CFileClassify* one = &classify;
  CError result;
  WriteFiles(&one, &record, 1, &result);
  return result;
}

void CFileManager::WriteFiles(CFileClassify* const* classify, const std::string_view* records,
                              size_t count, CError* results) {
  CRwLockGuard guard(lock_, true);
  if (!guard.Held()) {
    std::fill(results, results + count, LockNotTaken());
    return;
  }
  for (size_t at = 0; at < count;) {
    // Consecutive records of one stream go to its unit together.
    const uint64_t key = classify[at]->GetHashKey();
    size_t run = 1;
    while (at + run < count && classify[at + run]->GetHashKey() == key) ++run;
    CError openError;
    CFileUnit* unit = FindAndInsertKeyed(*classify[at], key, &openError);
    if (unit == nullptr) {
      for (size_t i = 0; i < run; ++i) results[at + i] = NoUnit(openError);
    } else {
      unit->WriteFiles(records + at, run, results + at);
    }
    at += run;
  }
}

CError CFileManager::ReadFile(CFileClassify& classify, int n, std::string& out) {
  return OnUnit(classify, [&](CFileUnit& unit) { return unit.ReadFile(n, out); });
}

CError CFileManager::ReadBatchFile(CFileClassify& classify, unsigned int start, unsigned int count,
                                   unsigned int& next, std::vector<std::string>& out) {
  return OnUnit(classify,
                [&](CFileUnit& unit) { return unit.ReadBatchFile(start, count, next, out); });
}

CError CFileManager::ReadALLFile(CFileClassify& classify, std::vector<std::string>& out) {
  return OnUnit(classify, [&](CFileUnit& unit) { return unit.ReadALLFile(out); });
}

CFileManager::LockedUnit::LockedUnit(CRwLock& lock, CFileManager& manager,
                                     CFileClassify& classify)
    : guard_(lock, true) {
  if (guard_.Held()) unit_ = manager.FindAndInsertNolock(classify);
}

CFileManager::LockedUnit CFileManager::FindAndInsert(CFileClassify& classify) {
  return LockedUnit(lock_, *this, classify);
}

CFileUnit* CFileManager::FindAndInsertNolock(CFileClassify& classify, CError* openError) {
  return FindAndInsertKeyed(classify, classify.GetHashKey(), openError);
}

CFileUnit* CFileManager::FindAndInsertKeyed(CFileClassify& classify, uint64_t key,
                                            CError* openError) {
  auto found = units_.find(key);
  if (found != units_.end()) {
    return found->second.get();
  }
  std::unique_ptr<CFileUnit> unit(new CFileUnit());
  CError opened = unit->InitFileUint(classify);
  if (!opened.IsSuccess()) {
    if (openError != nullptr && key != 0) {
      *openError = opened;
    }
    return nullptr;
  }
  CFileUnit* raw = unit.get();
  units_[key] = std::move(unit);
  return raw;
}

CError CFileManager::RepairStream(CFileClassify& classify) {
  CRwLockGuard guard(lock_, true);
  if (!guard.Held()) {
    return LockNotTaken();
  }
  auto found = units_.find(classify.GetHashKey());
  if (found != units_.end() && found->second->GetIndexPath() == classify.GetIndexPath()) {
    return CError();
  }
  CFileUnit unit;
  CError result = unit.InitFileUint(classify);
  unit.Close();
  return result;
}

void CFileManager::CloseUnit(CFileClassify& classify) {
  CRwLockGuard guard(lock_, true);
  if (!guard.Held()) {
    return;
  }
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
  CRwLockGuard guard(lock_, false);
  if (!guard.Held()) {
    return;
  }
  for (auto& entry : units_) {
    entry.second->Flush();
    entry.second->CheckStillThere();
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
    return CError::CreateError(kErrParam, "parameters invalid, %s", "type = 0");
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
    return CError::CreateError(kErrParam, "parameters invalid, %s", day.c_str());
  }
  return EnumMatching(static_cast<unsigned int>(type), out, [&day](const std::string& file) {
    CFileClassify classify;
    return CFileClassify::CheckFilePathValid(file) &&
           CFileClassify::ParseFilePath(file, classify) && classify.GetTime() == day;
  });
}

// The single entry to the classified file store: every open stream by the hash of its
// classification, opened on first use, all access serialised by one reader-writer lock, and
// listings of the files on disk for the clean-up pass. Reach it through
// CSingleton<CFileManager>::GetInstance().
#ifndef NUV_FILE_FILEMANAGER_H
#define NUV_FILE_FILEMANAGER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/error.h"
#include "common/rwlock.h"
#include "common/singleton.h"
#include "file/fileclassify.h"
#include "file/fileunit.h"

class CFileManager {
 public:
  CFileManager();
  ~CFileManager();
  CFileManager(const CFileManager&) = delete;
  CFileManager& operator=(const CFileManager&) = delete;

  // Stream access, each under the exclusive lock (reads move file positions and may open
  // units). Results of the unit pass through; 209 counts as success.
  CError WriteFile(CFileClassify& classify, std::string_view record);
  // records[i] into the stream of classify[i], each with its own result, under one hold;
  // consecutive records of one stream share their writes (CFileUnit::WriteFiles).
  void WriteFiles(CFileClassify* const* classify, const std::string_view* records, size_t count,
                  CError* results);
  CError ReadFile(CFileClassify& classify, int n, std::string& out);
  CError ReadBatchFile(CFileClassify& classify, unsigned int start, unsigned int count,
                       unsigned int& next, std::vector<std::string>& out);
  CError ReadALLFile(CFileClassify& classify, std::vector<std::string>& out);

  // A unit together with the exclusive hold that keeps it valid: the unit may be closed and
  // freed by another thread as soon as the lock is let go.
  class LockedUnit {
   public:
    LockedUnit(CRwLock& lock, CFileManager& manager, CFileClassify& classify);
    LockedUnit(const LockedUnit&) = delete;
    LockedUnit& operator=(const LockedUnit&) = delete;
    CFileUnit* get() const { return unit_; }
    CFileUnit* operator->() const { return unit_; }

   private:
    CRwLockGuard guard_;
    CFileUnit* unit_ = nullptr;
  };

  // The stream's unit, opened and inserted if it is not open yet; null when it cannot be
  // opened, with the reason in `openError` when given. The Nolock form is for callers that hold
  // the lock.
  LockedUnit FindAndInsert(CFileClassify& classify);
  CFileUnit* FindAndInsertNolock(CFileClassify& classify, CError* openError = nullptr);

  // Repairs the pair `classify` names (a torn tail left by a crash is cut, with the unit's WARN
  // line) unless it is open already, which means it was repaired when it was opened.
  CError RepairStream(CFileClassify& classify);

  // Close the stream's unit and forget it; the files stay on disk.
  void CloseFile(CFileClassify& classify);
  void Delete(CFileClassify& classify);

  // Flushes every open unit and notes those whose files were deleted or cut, under the shared
  // lock.
  void FileUnitsFlush();

  // Listings of the files under the type's base directory, in walk order, appended to `out`.
  // No lock: they read only the directory tree.
  CError EnumFilesBySuffix(std::vector<std::string>& out, const std::string& suffix, int type);
  CError EnumAllFiles(std::vector<std::string>& out, int type);
  CError EnumFilesByType(unsigned int type, std::vector<std::string>& out);
  CError EnumFilesByTime(const std::string& day, std::vector<std::string>& out, int type);

 private:

  void CloseUnit(CFileClassify& classify);
  // FindAndInsertNolock with the classification's hash already computed (it is not cheap).
  CFileUnit* FindAndInsertKeyed(CFileClassify& classify, uint64_t key, CError* openError);
  // `op` on the stream's unit, opened if need be, under the exclusive lock.
  template <typename Op>
  CError OnUnit(CFileClassify& classify, const Op& op);
  // Appends the files under the base of `type` that `take` accepts; 210 / 211 as documented.
  template <typename Pred>
  CError EnumMatching(unsigned int type, std::vector<std::string>& out, Pred take);

  std::map<uint64_t, std::unique_ptr<CFileUnit>> units_;
  CRwLock lock_{"CFileManager"};
};

#endif

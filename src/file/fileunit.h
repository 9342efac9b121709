// One open stream of the store: an index file and a content file named by one classification.
// Appends records (content first, then the index line that locates it) and reads them back.
// Before every write it decides whether the pair moves to a new day's directory, is reopened
// to bound its buffered data, or starts again empty because it outgrew its size limit or a
// file of it was deleted or cut.
//
// Every write reaches the kernel before it returns. A write that fails part-way is cut back to
// the last whole record, so the pair stays readable and the next write lands where the index
// says; if even the cut fails, the next write retries it before anything else.
//
// Opening repairs a pair left inconsistent by a crash: a partial last index line, trailing
// index lines that do not parse or point past the end of the content, and content bytes
// beyond the last indexed record are cut, so every record that was fully written and indexed
// reads back.
#ifndef NUV_FILE_FILEUNIT_H
#define NUV_FILE_FILEUNIT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/error.h"
#include "file/fileclassify.h"
#include "file/filecontent.h"
#include "file/fileindex.h"

class CFileUnit {
 public:
  // More unflushed content than this makes the next write reopen the pair.
  static constexpr uint32_t kReopenThreshold = 0x100000;
  // More unflushed content than this after a write flushes it.
  static constexpr uint32_t kFlushThreshold = 0x80000;
  // Bounds on one run of WriteFiles.
  static constexpr size_t kMaxRun = 64;
  static constexpr size_t kMaxRunBytes = 256 * 1024;
  static_assert(kFlushThreshold + kMaxRunBytes <= kReopenThreshold,
                "a run that starts inside the flush bound ends inside the reopen bound");

  CFileUnit() = default;
  CFileUnit(const CFileUnit&) = delete;
  CFileUnit& operator=(const CFileUnit&) = delete;

  CError InitFileUint(CFileClassify& classify);
  CError WriteFile(std::string_view record);
  // Writes `count` records in order with the checks WriteFile makes before each, and each
  // record's result in `results`. Records that no check falls between go out as one run: one
  // write to each file, and one result for the run, since a failed run is cut back whole.
  void WriteFiles(const std::string_view* records, size_t count, CError* results);
  CError ReadFile(int n, std::string& out);
  CError ReadBatchFile(unsigned int start, unsigned int count, unsigned int& next,
                       std::vector<std::string>& out);
  CError ReadALLFile(std::vector<std::string>& out);
  // The check made before every write; false when the pair cannot be moved or restarted.
  bool Reset();
  void Flush();
  // Notes whether a file of the pair has gone from its path or been cut short (by hand, say);
  // the next write then starts the pair again rather than append to a file no one can read any
  // more, or at offsets its index no longer matches. Called with the store's lock held, like
  // every other member.
  void CheckStillThere();
  void Close();

  std::string GetIndexPath() const { return indexPath_; }
  std::string GetContentPath() const { return contentPath_; }
  std::string GetTime() const { return time_; }
  uint32_t GetContentOffset() const { return contentOffset_; }
  uint32_t GetFlushedContentOffset() const { return flushedContentOffset_; }

 private:
  // Brings a freshly opened pair back to its last complete record.
  CError Repair();
  // Cuts both files back to the ends of the last whole record; false when a cut failed.
  bool CutBackToLastRecord();
  // Closes the pair and opens it at the paths of `classify`, taking their sizes.
  void Reopen(const CFileClassify& classify);
  // Takes the offsets of a pair just opened.
  void TakeOpenedSizes();
  // The size check Reset makes, at given running ends.
  bool WithinLimit(uint64_t indexEnd, uint64_t contentEnd) const;
  // How many of `records` (at least one, the first already checked) may go out as one run.
  size_t RunLength(const std::string_view* records, size_t count) const;
  // Writes one run: content, then the index lines; cut back whole on failure.
  CError WriteRun(const std::string_view* records, size_t count);

  CFileIndex index_;
  CFileContent content_;
  uint32_t indexOffset_ = 0;
  uint32_t contentOffset_ = 0;
  uint32_t flushedIndexOffset_ = 0;
  uint32_t flushedContentOffset_ = 0;
  // Running end of the index file, the twin of the content offset.
  uint32_t indexEnd_ = 0;
  // A failed write could not be cut back yet.
  bool cutPending_ = false;
  // A file of the pair was found gone from its path or cut short.
  bool gone_ = false;
  // The content of a run of more than one record, kept between runs.
  std::string runBuffer_;
  std::string name_;
  uint32_t pid_ = 0;
  std::string indexPath_;
  std::string contentPath_;
  std::string time_;
  uint32_t type_ = 0;
};

#endif

#include "file/fileunit.h"

#include <cerrno>
#include <climits>
#include <utility>

#include "common/log.h"
#include "common/utils.h"
#include "config/config_addition.h"
#include "config/config_clearn.h"
#include "nuv_file.h"

CError CFileUnit::InitFileUint(CFileClassify& classify) {
  CError result = index_.InitFilePath(classify.GetIndexPath());
  if (!result.IsSuccess()) {
    return result;
  }
  result = content_.InitFilePath(classify.GetContentPath());
  if (!result.IsSuccess()) {
    return result;
  }
  indexPath_ = classify.GetIndexPath();
  contentPath_ = classify.GetContentPath();
  time_ = classify.GetTime();
  type_ = classify.GetType();
  name_ = classify.GetName();
  pid_ = classify.GetPid();
  cutPending_ = false;
  result = Repair();
  if (!result.IsSuccess()) {
    return result;
  }
  TakeOpenedSizes();
  return result;
}

CError CFileUnit::Repair() {
  const uint64_t indexSize = nuv_file_size(indexPath_.c_str());
  const uint64_t contentSize = nuv_file_size(contentPath_.c_str());
  if (indexSize == NUV_FILE_SIZE_UNKNOWN || contentSize == NUV_FILE_SIZE_UNKNOWN ||
      indexSize > static_cast<uint64_t>(INT_MAX)) {
    return CError();
  }
  // A crash leaves at most a torn tail: scan back from the last whole line to the first one
  // that locates a record actually stored; everything after it, in both files, is cut.
  uint64_t keepIndex = indexSize - indexSize % kIndexLineSize;
  uint64_t keepContent = 0;
  while (keepIndex > 0) {
    std::string line;
    int next = 0;
    CError read = index_.GetOperator().ReadFile(static_cast<int>(keepIndex - kIndexLineSize),
                                                kIndexLineSize, line, next);
    if (!IsReadOk(read)) {
      // Not a torn line but a failing file: cut nothing rather than records.
      return read;
    }
    IndexData entry;
    if (CheckIndexLine(line, contentSize, entry) == IndexLine::kStored) {
      keepContent = static_cast<uint64_t>(entry.offset) + entry.length;
      break;
    }
    keepIndex -= kIndexLineSize;
  }
  if (keepIndex == indexSize && keepContent == contentSize) {
    return CError();
  }
  if (keepIndex < indexSize) {
    CError cut = index_.GetOperator().Truncate(keepIndex);
    if (!cut.IsSuccess()) {
      return cut;
    }
  }
  if (keepContent < contentSize) {
    CError cut = content_.GetOperator().Truncate(keepContent);
    if (!cut.IsSuccess()) {
      return cut;
    }
  }
  ZLOG_WARN(
      "[CFileUnit]::InitFileUint repaired, index = %s, cut index bytes = %llu, cut content "
      "bytes = %llu.",
      indexPath_.c_str(), static_cast<unsigned long long>(indexSize - keepIndex),
      static_cast<unsigned long long>(contentSize - keepContent));
  return CError();
}

void CFileUnit::TakeOpenedSizes() {
  indexOffset_ = static_cast<uint32_t>(index_.GetOffset());
  indexEnd_ = indexOffset_;
  contentOffset_ = static_cast<uint32_t>(content_.GetOffset());
  flushedIndexOffset_ = 0;
  flushedContentOffset_ = 0;
  gone_ = false;
}

CError CFileUnit::WriteFile(std::string_view record) {
  CError result;
  WriteFiles(&record, 1, &result);
  return result;
}

void CFileUnit::WriteFiles(const std::string_view* records, size_t count, CError* results) {
  for (size_t at = 0; at < count;) {
    if (cutPending_ && !CutBackToLastRecord()) {
      results[at++] = CError::CreateError(kFileErrWrite, "write file failed, path = %s",
                                          contentPath_.c_str());
      continue;
    }
    if (!Reset()) {
      results[at++] =
          CError::CreateError(kFileErrReset, "reset file failed. index = %s, content = %s",
                              indexPath_.c_str(), contentPath_.c_str());
      continue;
    }
    // The content file would keep the record only up to a NUL while the index counts all of
    // it, and every later record would then be read from the wrong place.
    if (records[at].find('\0') != std::string_view::npos) {
      results[at++] =
          CError::CreateError(kErrParam, "parameters invalid, %s", "record holds a NUL byte");
      continue;
    }
    const size_t run = RunLength(records + at, count - at);
    const CError written = WriteRun(records + at, run);
    for (size_t i = 0; i < run; ++i) results[at + i] = written;
    at += run;
  }
}

bool CFileUnit::WithinLimit(uint64_t indexEnd, uint64_t contentEnd) const {
  const int64_t limit = IsMaintainceLogType(type_)
                            ? CClearnCfg::GetInstance()->GetLimitFileSize()
                            : CAdditionCtrlor::GetInstance()->GetFileSize(static_cast<int>(type_));
  return limit >= 0 && indexEnd <= static_cast<uint64_t>(limit) &&
         contentEnd <= static_cast<uint64_t>(limit);
}

size_t CFileUnit::RunLength(const std::string_view* records, size_t count) const {
  // The first record has passed the checks; each further one joins while the checks made
  // before it would pass too, so a run never crosses a restart or a flush. (A run ends within
  // the flush bound, so inside the reopen bound; the day is the one the first check saw.)
  uint64_t content = contentOffset_ + records[0].size();
  uint64_t index = indexEnd_ + kIndexLineSize;
  size_t run = 1;
  if (records[0].empty()) return run;
  while (run < count && run < kMaxRun && content - flushedContentOffset_ <= kFlushThreshold) {
    const std::string_view next = records[run];
    if (next.empty() || next.find('\0') != std::string_view::npos ||
        content + next.size() - contentOffset_ > kMaxRunBytes || !WithinLimit(index, content)) {
      break;
    }
    content += next.size();
    index += kIndexLineSize;
    ++run;
  }
  return run;
}

CError CFileUnit::WriteRun(const std::string_view* records, size_t count) {
  std::string_view content = records[0];
  if (count > 1) {
    runBuffer_.clear();
    for (size_t i = 0; i < count; ++i) runBuffer_.append(records[i]);
    content = runBuffer_;
  }
  int offset = 0;
  CError result = content_.WriteContent(content, offset);
  if (!result.IsSuccess()) {
    ZLOG_ERROR("[nuv_maintain][fileunit] write content failed.");
    CutBackToLastRecord();
    return result;
  }
  // Entries take their offsets from the running content offset, not from the file handle.
  IndexData entries[kMaxRun];
  uint32_t at = contentOffset_;
  for (size_t i = 0; i < count; ++i) {
    entries[i] = IndexData(at, static_cast<unsigned int>(records[i].size()));
    at += static_cast<uint32_t>(records[i].size());
  }
  result = index_.WriteIndex(entries, count);
  if (!result.IsSuccess()) {
    ZLOG_ERROR("[nuv_maintain][fileunit] write index failed. index = %s", indexPath_.c_str());
    CutBackToLastRecord();
    return CError::CreateError(kFileErrIndexWrite, "write index success content fail = %s",
                               indexPath_.c_str());
  }
  contentOffset_ = at;
  indexEnd_ += static_cast<uint32_t>(count * kIndexLineSize);
  if (contentOffset_ - flushedContentOffset_ > kFlushThreshold) {
    Flush();
  }
  return result;
}

bool CFileUnit::CutBackToLastRecord() {
  // A file that is not open took no bytes of the failed write.
  auto cut = [](CFileOperator& file, uint32_t size) {
    return file.GetPath().empty() || file.Truncate(size).IsSuccess();
  };
  cutPending_ =
      !cut(index_.GetOperator(), indexEnd_) || !cut(content_.GetOperator(), contentOffset_);
  return !cutPending_;
}

void CFileUnit::Reopen(const CFileClassify& classify) {
  index_.CloseFile();
  content_.CloseFile();
  index_.InitFilePath(classify.GetIndexPath());
  content_.InitFilePath(classify.GetContentPath());
  indexPath_ = classify.GetIndexPath();
  contentPath_ = classify.GetContentPath();
  time_ = classify.GetTime();
  type_ = classify.GetType();
  TakeOpenedSizes();
}

bool CFileUnit::Reset() {
  if (indexPath_.empty() || contentPath_.empty()) {
    return true;
  }
  const std::string today = CurrentDay();
  if (today != time_ || contentOffset_ - flushedContentOffset_ > kReopenThreshold) {
    // A new day moves the stream to that day's directory; within the day the same pair is
    // closed and reopened. The unit keeps its own name: a name holding "-" would not parse
    // back from the path.
    CFileClassify classify;
    if (!classify.InitFileClassify(name_, pid_, type_)) {
      return false;
    }
    Reopen(classify);
    return true;
  }

  // Every byte reaches the file as it is written and a failed write is cut back, so the running
  // ends are the files' sizes: no stat is needed on every write.
  if (!gone_ && WithinLimit(indexEnd_, contentOffset_)) {
    return true;
  }
  // The store is bounded by deletion: a stream past its limit starts again empty. So does one
  // whose files were deleted or cut: what is left of the pair could not be read back right.
  if (gone_) {
    ZLOG_WARN("[CFileUnit]::Reset files deleted or cut while open, created again. index = %s",
              indexPath_.c_str());
  }
  index_.CloseFile();
  content_.CloseFile();
  nuv_file_remove(indexPath_.c_str());
  nuv_file_remove(contentPath_.c_str());
  if (!index_.InitFilePath(indexPath_).IsSuccess() ||
      !content_.InitFilePath(contentPath_).IsSuccess()) {
    return false;
  }
  TakeOpenedSizes();
  return true;
}

CError CFileUnit::ReadFile(int n, std::string& out) {
  IndexData entry;
  CError result = index_.ReadIndex(static_cast<unsigned int>(n), entry);
  if (!IsReadOk(result)) {
    return result;
  }
  return content_.ReadContent(entry, out);
}

CError CFileUnit::ReadBatchFile(unsigned int start, unsigned int count, unsigned int& next,
                                std::vector<std::string>& out) {
  std::vector<IndexData> entries;
  CError result = index_.ReadBatchIndexs(start, count, next, entries);
  if (!IsReadOk(result)) {
    return result;
  }
  return content_.ReadBatchContent(entries, out);
}

CError CFileUnit::ReadALLFile(std::vector<std::string>& out) {
  std::vector<IndexData> entries;
  CError result = index_.ReadAllIndex(entries);
  if (!result.IsSuccess()) {
    return result;
  }
  return content_.ReadAllContent(entries, out);
}

void CFileUnit::Flush() {
  flushedIndexOffset_ = indexOffset_;
  flushedContentOffset_ = contentOffset_;
  index_.Flush();
  content_.Flush();
}

void CFileUnit::CheckStillThere() {
  if (indexPath_.empty() || contentPath_.empty()) {
    return;
  }
  // No write runs meanwhile, so each file is as long as the running end: shorter means cut.
  const std::pair<const std::string*, uint32_t> files[] = {{&indexPath_, indexEnd_},
                                                           {&contentPath_, contentOffset_}};
  for (const auto& [path, end] : files) {
    const uint64_t size = nuv_file_size(path->c_str());
    if (size == NUV_FILE_SIZE_UNKNOWN ? errno == ENOENT : size < end) {
      gone_ = true;
    }
  }
}

void CFileUnit::Close() {
  index_.CloseFile();
  content_.CloseFile();
}

#include "file/fileoperator.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "common/log.h"
#include "common/utils.h"

CFileOperator::CFileOperator() { Reset(); }

CFileOperator::~CFileOperator() { Reset(); }

CError CFileOperator::InitOperator(const std::string& path) {
  CError result;
  // A second open of the same operator must not leak the handles of the first.
  Reset();
  if (path.empty()) {
    return CError::CreateError(kErrParam, "parameters invalid, %s", path.c_str());
  }
  path_ = path;
  const std::string dir = GetDirectory(path);
  if (!CreateDirectory(dir, kStoreDirectoryMode)) {
    ZLOG_ERROR("[CFileoperator]::InitOperator create dir failed. dir = %s", dir.c_str());
  }
  write_ = nuv_file_open(path.c_str(), "ab+");
  if (write_ != nullptr) {
    read_ = nuv_file_open(path.c_str(), "rb+");
  }
  if (write_ != nullptr && read_ != nullptr) {
    const uint64_t size = nuv_file_handle_size(write_);
    end_ = size == NUV_FILE_SIZE_UNKNOWN ? 0 : size;
  } else {
    // An operator must be able to tell a full descriptor table from a bad path.
    const bool noDescriptors = errno == EMFILE || errno == ENFILE;
    const std::string shown = noDescriptors ? path + " (too many open files)" : path;
    result = CError::CreateError(kFileErrOpen, "open file failed, path = %s", shown.c_str());
  }
  if (!result.IsSuccess()) {
    Reset();
  }
  return result;
}

CError CFileOperator::ReadFile(int offset, int length, std::string& out, int& next) {
  next = 0;
  const uint64_t size = nuv_file_size(path_.c_str());
  if (size == NUV_FILE_SIZE_UNKNOWN || read_ == nullptr) {
    return CError::CreateError(kFileErrOpen, "open file failed, path = %s", path_.c_str());
  }
  if (offset < 0 || static_cast<uint64_t>(offset) >= size) {
    next = static_cast<int>(size);
    return CError::CreateError(kFileErrOffset, "file offset exceed range, path = %s",
                               path_.c_str());
  }
  if (nuv_file_fseek(read_, offset, SEEK_SET) != 0) {
    return CError::CreateError(kFileErrRead, "read file failed, path = %s", path_.c_str());
  }
  const size_t want = length > 0 ? static_cast<size_t>(length) : 0;
  // A corrupt index entry may name gigabytes: no more than the file holds is ever read.
  const uint64_t remaining = size - static_cast<uint64_t>(offset);
  const size_t room = static_cast<size_t>(std::min<uint64_t>(want, remaining));
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[room + 1]);
  if (!buffer) {
    return CError::CreateError(kFileErrMalloc, "buffer malloc error  %u",
                               static_cast<unsigned int>(length));
  }
  const size_t n = room > 0 ? nuv_file_read(read_, buffer.get(), room) : 0;

  CError result;
  if (n == remaining) {
    result = CError::CreateError(kFileErrReadEnd, "file read end, path = %s", path_.c_str());
    next = static_cast<int>(size);
  } else if (n == want) {
    next = offset + static_cast<int>(n);
  } else {
    result = CError::CreateError(kFileErrRead, "read file failed, path = %s", path_.c_str());
  }
  if (n > 0) {
    out.assign(buffer.get(), n);
  }
  return result;
}

CError CFileOperator::WriteFile(std::string_view data, int& offset) {
  if (data.empty()) {
    return CError();
  }
  if (write_ == nullptr) {
    offset = 0;
    return CError::CreateError(kFileErrOpen, "open file failed, path = %s", path_.c_str());
  }
  offset = static_cast<int>(end_);
  const size_t written = nuv_file_write(write_, data.data(), data.size());
  end_ += written;
  if (written < data.size()) {
    offset = 0;
    return CError::CreateError(kFileErrWrite, "write file failed, path = %s", path_.c_str());
  }
  return CError();
}

CError CFileOperator::Truncate(uint64_t size) {
  // Cutting by path works beside both open handles: appends land at the new end and every
  // read seeks first.
  if (nuv_file_truncate(path_.c_str(), size) != 0) {
    ZLOG_ERROR("[CFileoperator]::Truncate failed. path = %s, size = %llu, errno = %d",
               path_.c_str(), static_cast<unsigned long long>(size), errno);
    return CError::CreateError(kFileErrWrite, "write file failed, path = %s", path_.c_str());
  }
  end_ = size;
  return CError();
}

int CFileOperator::GetFileLines() {
  if (write_ == nullptr) {
    return 0;
  }
  const int64_t lines = nuv_file_getlines(write_);
  return lines < 0 ? 0 : static_cast<int>(lines);
}

int CFileOperator::GetFileOffset() { return static_cast<int>(nuv_file_size(path_.c_str())); }

void CFileOperator::Flush() {
  if (write_ != nullptr) {
    nuv_file_fflush(write_);
  }
}

void CFileOperator::CloseHandles() {
  if (write_ != nullptr) {
    nuv_file_close(write_);
    write_ = nullptr;
  }
  if (read_ != nullptr) {
    nuv_file_close(read_);
    read_ = nullptr;
  }
}

void CFileOperator::Close() {
  // A reader without its writer is left to Reset.
  if (write_ != nullptr) CloseHandles();
}

void CFileOperator::Reset() {
  CloseHandles();
  path_.clear();
  end_ = 0;
}

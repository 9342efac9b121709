// The store's only access to disk: one file opened twice, an append handle for writing and a
// read-write handle for positioned reads. Writes go straight to the kernel, so readers see a
// record as soon as its write returned.
#ifndef NUV_FILE_FILEOPERATOR_H
#define NUV_FILE_FILEOPERATOR_H

#include <cstdint>
#include <string>
#include <string_view>

#include "common/error.h"
#include "nuv_file.h"

// The store is private to its owner and group.
constexpr int kStoreDirectoryMode = 0750;

// Success, or the end-of-file signal that travels with valid data.
inline bool IsReadOk(const CError& error) {
  return error.code == 0 || error.code == kFileErrReadEnd;
}

class CFileOperator {
 public:
  CFileOperator();
  ~CFileOperator();
  CFileOperator(const CFileOperator&) = delete;
  CFileOperator& operator=(const CFileOperator&) = delete;

  // Creates the file's directory (0750) and opens both handles (the file is created 0640 if
  // missing). Running out of descriptors is named in the 203 message.
  CError InitOperator(const std::string& path);
  // Up to `length` bytes at `offset`. 209 when the read consumed the last byte of the file
  // (with data); 208 at or beyond the end. `next` is the position after what was read.
  CError ReadFile(int offset, int length, std::string& out, int& next);
  // Appends `data`; `offset` receives where it lands: the file's end, kept from its size at
  // opening, the bytes written and the cuts, so no system call asks for it. On 205 part of
  // `data` may have reached the file: the owner cuts it back.
  CError WriteFile(std::string_view data, int& offset);
  // Cuts the file on disk to `size` bytes.
  CError Truncate(uint64_t size);

  int GetFileLines();
  int GetFileOffset();
  const std::string& GetPath() const { return path_; }

  void Flush();
  // Closes the write handle and, only if that was open, the read handle too.
  void Close();
  void Reset();

 private:
  void CloseHandles();
  nuv_file_t* read_ = nullptr;
  nuv_file_t* write_ = nullptr;
  std::string path_;
  uint64_t end_ = 0;
};

#endif

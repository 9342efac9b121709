// What the index file and the content file of a stream have in common: the path they were
// opened at and the operator that reads and writes it.
#ifndef NUV_FILE_STOREFILE_H
#define NUV_FILE_STOREFILE_H

#include <string>

#include "common/error.h"
#include "file/fileoperator.h"

class CStoreFile {
 public:
  CError InitFilePath(const std::string& path);

  int GetOffset() { return operator_.GetFileOffset(); }
  // Raw access for crash repair, which inspects bytes the typed reads would not report.
  CFileOperator& GetOperator() { return operator_; }

  void Flush() { operator_.Flush(); }
  void CloseFile() { operator_.Close(); }

 protected:
  std::string path_;
  CFileOperator operator_;
};

#endif

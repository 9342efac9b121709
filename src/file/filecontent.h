// The content file of one stream: its records back to back with no separators. Where each
// record lies is kept by the index file.
#ifndef NUV_FILE_FILECONTENT_H
#define NUV_FILE_FILECONTENT_H

#include <string>
#include <string_view>
#include <vector>

#include "common/error.h"
#include "file/fileindex.h"
#include "file/storefile.h"

class CFileContent : public CStoreFile {
 public:
  // Appends the record up to its first NUL byte; `offset` is where it starts.
  CError WriteContent(std::string_view record, int& offset);
  // The record `entry` locates; 209 when it ends at the end of the file.
  CError ReadContent(IndexData& entry, std::string& out);
  // The records of `entries` in order; the last read's result.
  CError ReadBatchContent(std::vector<IndexData>& entries, std::vector<std::string>& out);
  // As ReadBatchContent, but only successful (209) when the last record ends exactly at the
  // end of the file; otherwise no records.
  CError ReadAllContent(std::vector<IndexData>& entries, std::vector<std::string>& out);

  std::string GetFileContentPath() const { return path_; }
};

#endif

#include "file/filecontent.h"

CError CFileContent::WriteContent(std::string_view record, int& offset) {
  if (record.empty()) {
    // The index file's text, kept for both: the record is what the entry's length measures.
    return CError::CreateError(kErrParam, "parameters invalid, %s", "index data len = 0");
  }
  // Records are text: only what precedes a NUL byte is stored.
  return operator_.WriteFile(record.substr(0, record.find('\0')), offset);
}

CError CFileContent::ReadContent(IndexData& entry, std::string& out) {
  if (!entry.IsValid()) {
    return CError::CreateError(kErrParam, "parameters invalid, %s", "index data invalid");
  }
  std::string data;
  int next = 0;
  CError result = operator_.ReadFile(static_cast<int>(entry.offset), static_cast<int>(entry.length),
                                     data, next);
  if (data.empty()) {
    return CError::CreateError(kFileErrRead, "read file failed, path = %s", path_.c_str());
  }
  out = data;
  return result;
}

CError CFileContent::ReadBatchContent(std::vector<IndexData>& entries,
                                      std::vector<std::string>& out) {
  if (entries.empty()) {
    return CError::CreateError(kErrParam, "parameters invalid, %s", "indexs invalid");
  }
  CError result;
  for (IndexData& entry : entries) {
    std::string record;
    result = ReadContent(entry, record);
    if (!IsReadOk(result)) {
      out.clear();
      return result;
    }
    out.push_back(record);
  }
  return result;
}

CError CFileContent::ReadAllContent(std::vector<IndexData>& entries,
                                    std::vector<std::string>& out) {
  CError result = ReadBatchContent(entries, out);
  if (result.code == kFileErrReadEnd) {
    return result;
  }
  out.clear();
  if (!result.IsSuccess()) {
    return result;
  }
  return CError::CreateError(kErrParam, "parameters invalid, %s", "indexs missing part");
}

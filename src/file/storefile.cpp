#include "file/storefile.h"

CError CStoreFile::InitFilePath(const std::string& path) {
  CError result = operator_.InitOperator(path);
  if (result.IsSuccess()) {
    path_ = path;
  }
  return result;
}

// Index-file parsing and crash repair on open: the input is split into an index file and a
// content file of one stream, which a file unit then opens (repairing what a crash may have
// left), reads back whole and in batches, and appends to.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "file/fileclassify.h"
#include "file/fileindex.h"
#include "file/fileunit.h"
#include "fuzz_store.h"
#include "nuv_dir.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nuvfuzz::LoadStoreConfig();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  // The first two bytes give the index file's share of the rest.
  const size_t rest = size - 2;
  const size_t split = (static_cast<size_t>(data[0]) << 8 | data[1]) % (rest + 1);
  const char* bytes = reinterpret_cast<const char*>(data + 2);
  const std::string index(bytes, split);
  const std::string content(bytes + split, rest - split);

  size_t from = 0;
  while (from < index.size()) {
    size_t end = index.find('\n', from);
    if (end == std::string::npos) end = index.size();
    IndexData entry;
    if (entry.StringToIndex(index.substr(from, end - from))) (void)entry.ToString();
    from = end + 1;
  }
  CFileClassify classify;
  if (!classify.InitFileClassify("fuzzstream", 0, 512)) return 0;
  nuv_dirutils_mkdir(classify.GetPath().c_str(), 0700);
  if (!nuvfuzz::WriteAll(classify.GetIndexPath(), index.data(), index.size()) ||
      !nuvfuzz::WriteAll(classify.GetContentPath(), content.data(), content.size())) {
    return 0;
  }
  {
    CFileUnit unit;
    if (unit.InitFileUint(classify).IsSuccess()) {
      std::vector<std::string> records;
      unit.ReadALLFile(records);
      unsigned int next = 0;
      std::vector<std::string> batch;
      unit.ReadBatchFile(1, 3, next, batch);
      std::string one;
      unit.ReadFile(1, one);
      unit.WriteFile("{\"fuzz\":1}");
      unit.ReadALLFile(records);
    }
    unit.Close();
  }
  return 0;
}

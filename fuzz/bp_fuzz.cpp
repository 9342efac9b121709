// A burying-point body, as posted on "maintenance:POST", through the manager's validation and
// into the store (a temporary directory). Streams are closed after each input and the store is
// emptied now and then, so a long run neither runs out of descriptors nor fills the disk.
#include <cstddef>
#include <cstdint>
#include <string>

#include "buryingpoint/bpmgr.h"
#include "common/singleton.h"
#include "file/filemanager.h"
#include "fuzz_store.h"
#include "nuv_dir.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nuvfuzz::LoadStoreConfig();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static CBpMgr manager;
  static unsigned int runs = 0;
  void* bytes = const_cast<uint8_t*>(data);
  const unsigned int length = static_cast<unsigned int>(size);
  manager.CallBackImpl(bytes, length);
  CFileClassify classify;
  if (manager.CheckBpData(bytes, length, classify).IsSuccess()) {
    CSingleton<CFileManager>::GetInstance().CloseFile(classify);
  }
  if (++runs % 4096 == 0) {
    nuv_dirutils_rmdir((nuvfuzz::WorkDir() + "/store").c_str());
    nuv_dirutils_rmdir((nuvfuzz::WorkDir() + "/small").c_str());
  }
  return 0;
}

// Differential: the in-place scan against Jansson on the same bytes. The verdict must be
// json_loadb's (a text with a NUL is refused by the scan), the members read by path must be
// JsonUtil's over the tree, and a burying point must get the outcome the checks over a Jansson
// tree give (code, message, classification). Any difference aborts.
#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "buryingpoint/bpmgr.h"
#include "common/jsonscan.h"
#include "common/jsonutil.h"
#include "fuzz_store.h"
#include "testutil/bp_tree_check.h"

namespace {

// Object members only: the scan does not step into arrays, where JsonUtil takes a decimal piece
// as an element index.
const char* const kPaths[] = {"header/type",  "header/version", "header/focus", "header/id",
                              "body/time_end", "header",        "a",            "a/b",
                              "a/b/c",        "x0",            "/a//b/",       "\xC3\xA9"};
const JsonPaths kTable(kPaths, sizeof kPaths / sizeof kPaths[0]);

void Expect(bool same, const char* what) {
  if (!same) {
    std::fprintf(stderr, "jsonscan_fuzz: the scan and Jansson differ: %s\n", what);
    std::abort();
  }
}

std::string Outcome(const CError& e, const CFileClassify& c) {
  return std::to_string(e.code) + "-" + e.desc + "|" + c.GetContentPath();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nuvfuzz::LoadStoreConfig();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  const std::string bytes(text, size);
  const bool hasNul = std::memchr(text, '\0', size) != nullptr;

  JsonScan scan(kTable);
  const bool scanned = scan.Scan(text, size) == JsonUtil::kOk;
  json_error_t error;
  json_t* root = json_loadb(text, size, JSON_DECODE_ANY, &error);
  const bool loaded = root != nullptr;
  json_decref(root);
  Expect(scanned == (loaded && !hasNul), "verdict");

  if (scanned) {
    JsonUtil tree;
    Expect(tree.JsonLoadString(bytes) == JsonUtil::kOk, "JsonUtil refused an accepted text");
    for (const char* path : kPaths) {
      std::string a = "-", b = "-";
      int x = 7, y = 7;
      Expect(scan.GetString(path, a) == tree.JsonGetString(path, b, -1) && a == b, path);
      Expect(scan.GetInteger(path, &x) == tree.JsonGetInteger(path, &y, -1) && x == y, path);
    }
  }

  CFileClassify byScan, byTree;
  std::string copy = bytes;
  const CError e1 = CBpMgr().CheckBpData(copy.empty() ? nullptr : &copy[0],
                                         static_cast<unsigned int>(size), byScan);
  const CError e2 = nuvtest::CheckBpOverTree(bytes, byTree);
  Expect(Outcome(e1, byScan) == Outcome(e2, byTree), "burying-point outcome");
  return 0;
}

// One pass over a JSON text that gives Jansson's verdict without building its tree, and notes
// where a fixed set of slash paths land, for callers that read a handful of members of every
// message (burying points) and would otherwise pay for a tree, its allocations and copies.
//
// Verdict: a text is accepted exactly when json_loadb(text, size, JSON_DECODE_ANY) accepts it:
// any value at the top, whitespace only around it, strings valid UTF-8 without control
// characters, lone surrogates or \u0000, integers within 64 bits, reals that do not overflow,
// nesting at most JSON_PARSER_MAX_DEPTH values deep; json_loads agrees. A text holding a NUL
// byte is refused: there Jansson's loaders part (json_loads ends the text at it, json_loadb
// skips one that follows a number or a literal), and no such text can be stored anyway.
//
// Paths: as JsonUtil's, split at "/" into non-empty pieces, but stepping through object members
// only (a decimal piece does not index an array). Keys compare after their escapes are decoded,
// and of duplicate members the last one counts, as in Jansson's tree.
//
// The scan keeps pointers into the text: it must outlive every getter call. Nothing here logs,
// allocates (a real token over 63 characters aside) or throws, bar the getters' out strings.
#ifndef NUV_COMMON_JSONSCAN_H
#define NUV_COMMON_JSONSCAN_H

#include <cstddef>
#include <cstdint>
#include <string>

// The slash paths a scan looks for, split once: made once per table of paths and kept.
class JsonPaths {
 public:
  static constexpr size_t kMaxPaths = 32;
  static constexpr size_t kMaxSteps = 8;

  // `paths` (count of them, at most kMaxPaths, each of at most kMaxSteps pieces) must outlive
  // this object; string literals do. A path beyond those bounds is never found.
  JsonPaths(const char* const* paths, size_t count);

 private:
  friend class JsonScan;
  struct Piece {
    const char* at;
    uint32_t size;
  };

  // The index of `path` in the table, or -1; the same literal is found by its address.
  int Slot(const char* path) const;

  const char* const* paths_;
  size_t count_;
  uint8_t steps_[kMaxPaths];  // 0: the path is never found
  Piece pieces_[kMaxPaths][kMaxSteps];
  // Per step, each distinct piece text once, with the paths that have it there: a key is
  // compared with each text once, however many paths share it.
  struct Text {
    Piece piece;
    uint32_t paths;
  };
  Text texts_[kMaxSteps][kMaxPaths];
  uint8_t textCount_[kMaxSteps];
  // Per step, the texts (bit t for texts_[step][t]) whose size and first byte share a bucket:
  // a plain key is compared only with those.
  static constexpr size_t kBuckets = 64;
  static size_t Bucket(const char* at, size_t size) {
    return (size * 7 + static_cast<unsigned char>(size != 0 ? at[0] : 0)) % kBuckets;
  }
  uint32_t candidates_[kMaxSteps][kBuckets];
};

class JsonScan {
 public:
  // `paths` must outlive the scan.
  explicit JsonScan(const JsonPaths& paths);

  // JsonUtil::kOk when the text is a JSON document, JsonUtil::kLoadFailed when it is not (then
  // no path is found).
  int Scan(const char* text, size_t size);

  // As JsonUtil's getters with index -1, for a path of the table (any other path is not
  // found): 0, -3 (wrong type) or -5 (nothing there). The string is decoded, and cut as
  // JsonUtil cuts it.
  int GetString(const char* path, std::string& out) const;
  // Integers keep their low 32 bits, as in JsonUtil.
  int GetInteger(const char* path, int* out) const;

  // What a path found; kNone when nothing.
  enum Kind : uint8_t { kNone, kObject, kArray, kString, kInteger, kReal, kTrue, kFalse, kNull };
  Kind KindAt(const char* path) const;

 private:
  struct Found {
    Kind kind;
    bool escaped;  // a string holding escapes: decoded on reading
    const char* begin;  // string contents, between the quotes
    const char* end;
    int64_t integer;
  };
  class Parser;

  const Found* At(const char* path) const;

  const JsonPaths& paths_;
  Found found_[JsonPaths::kMaxPaths];
};

#endif

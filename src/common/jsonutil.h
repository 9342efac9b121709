// One JSON document addressed by slash paths such as "/default/perf_monitor/2/id".
//
// Path lookup: the path is split at "/" into its non-empty pieces; from the root each piece
// names an object member, or, in an array, a decimal element index. Anything else, a missing
// member or element, or a path with no pieces finds nothing.
//
// Every operation returns a status: 0 success, negative failure (see the codes below).
// Nothing here logs. An instance is used by one thread at a time.
#ifndef NUV_COMMON_JSONUTIL_H
#define NUV_COMMON_JSONUTIL_H

#include <jansson.h>

#include <string>
#include <vector>

class JsonUtil {
 public:
  // Status codes.
  static constexpr int kOk = 0;
  static constexpr int kLoadFailed = -1;       // unreadable file, invalid text, empty dump
  static constexpr int kUnknownType = -2;      // node of a type outside the table of JsonTypeGet
  static constexpr int kWrongType = -3;        // node or array element of the wrong type
  static constexpr int kNotFound = -5;         // nothing at path (object list: not an object)
  static constexpr int kBadArrayStep = -7;     // set: array step not decimal or out of range
  static constexpr int kDumpFailed = -8;
  static constexpr int kObjectFailed = -9;     // set: creating an object failed
  static constexpr int kValueFailed = -10;     // set: the value could not be made
  static constexpr int kEmptyPath = -11;       // set: path with no pieces
  static constexpr int kInsertFailed = -12;    // set: inserting into an object failed
  static constexpr int kBufferFailed = -13;    // string getter's work buffer
  static constexpr int kCopyFailed = -14;      // object list: copying a member failed

  // The string getter reads at most this many characters (its work buffer's bound, 1,023,999
  // bytes, less the terminator); longer texts are cut.
  static constexpr size_t kStringLimit = 1023998;

  // Node type codes of JsonTypeGet.
  static constexpr int kTypeObject = 1;
  static constexpr int kTypeArray = 2;
  static constexpr int kTypeString = 3;
  static constexpr int kTypeInteger = 4;
  static constexpr int kTypeReal = 5;
  static constexpr int kTypeTrue = 6;
  static constexpr int kTypeFalse = 7;
  static constexpr int kTypeNull = 8;

  JsonUtil() = default;
  ~JsonUtil();
  // A copy gets the text and its own shallow copy (json_copy) of the root.
  JsonUtil(const JsonUtil& other);
  JsonUtil& operator=(const JsonUtil& other);
  JsonUtil(JsonUtil&& other) noexcept;
  JsonUtil& operator=(JsonUtil&& other) noexcept;

  // Reads the whole file, then replaces the document. -1 when the file cannot be read (the
  // document is left as it was) or when the text does not parse (the document is then empty).
  int JsonLoadFile(std::string path);
  // Replaces the document with `text` parsed; any JSON value is accepted at the top. 0 or -1.
  int JsonLoadString(const std::string& text);
  int JsonLoadString(std::string&& text);

  // The node at path, borrowed (the caller must not drop a reference on it), or null.
  json_t* JsonGetObject(const std::string& path) const;

  // Getters: a negative index reads the node at path itself; index >= 0 reads that element of
  // the array at path. 0, or -2/-3/-5 (-13 for the string's work buffer).
  int JsonGetString(const std::string& path, std::string& out, int index) const;
  int JsonGetInteger(const std::string& path, int* out, int index) const;
  // Only real nodes are read: an integer such as 5 is refused (-3); write 5.0.
  int JsonGetDouble(const std::string& path, double* out, int index) const;
  // Sets out to 0 first. 0, -5, or -3 when the node is not an array.
  int JsonGetArraySize(const std::string& path, int* out) const;
  // Appends one document per member value of the object at path (member names are dropped).
  int JsonGetJsonObjectList(const std::string& path, std::vector<JsonUtil>& out) const;

  // Stores value at path, creating missing intermediate objects. Takes its own reference on
  // value; the caller keeps its own. A path of one piece only makes sure an object exists under
  // that piece and stores nothing: values are set at a depth of two or more.
  int JsonSetObject(const std::string& path, json_t* value);
  int JsonSet(const std::string& path, const std::string& value);
  int JsonSet(const std::string& path, int value);
  int JsonSet(const std::string& path, double value);

  // The whole document, or the node at path, as text with the given Jansson dump flags.
  int JsonDumps(std::string& out, unsigned int flags) const;
  int JsonDumps(const std::string& path, std::string& out, unsigned int flags) const;

  // A new document over a deep copy of this one. Throws std::bad_alloc when the copy yields
  // nothing, which includes an empty document.
  JsonUtil JsonClone() const;

  // The type code of a non-null node, -2 for a tag outside the table.
  static int JsonTypeGet(json_t* node);

 private:
  // What the typed getters share: the node at path (kNotFound), of a known type (kUnknownType),
  // then itself or its element `index`, which may be null.
  int FindValue(const std::string& path, int index, json_t** value) const;
  void Release();

  std::string text_;
  json_t* root_ = nullptr;
};

#endif

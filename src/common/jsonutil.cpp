#include "common/jsonutil.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "common/utils.h"
#include "nuv_str.h"

namespace {

const std::string kDigits = "0123456789";

bool IsDecimal(const std::string& piece) {
  return !piece.empty() && IsStringContainer(piece, kDigits);
}

// The element named by a decimal piece, or null when the piece is not decimal or names no
// element. Never touches a missing element.
json_t* ArrayStep(json_t* array, const std::string& piece) {
  if (!IsDecimal(piece)) {
    return nullptr;
  }
  long index = ConvertStringToNumber(piece.c_str());
  if (index < 0 || static_cast<unsigned long>(index) >= json_array_size(array)) {
    return nullptr;
  }
  return json_array_get(array, static_cast<size_t>(index));
}

// Element `index` of `node` when node is an array that has it, else null.
json_t* Element(json_t* node, int index) {
  if (!json_is_array(node) || static_cast<size_t>(index) >= json_array_size(node)) {
    return nullptr;
  }
  return json_array_get(node, static_cast<size_t>(index));
}

// Text made by json_dumps goes back through Jansson's own deallocator.
void FreeJsonText(char* text) {
  json_malloc_t mallocFn = nullptr;
  json_free_t freeFn = nullptr;
  json_get_alloc_funcs(&mallocFn, &freeFn);
  if (freeFn != nullptr) {
    freeFn(text);
  } else {
    std::free(text);
  }
}

int Dump(json_t* node, std::string& out, unsigned int flags) {
  char* text = json_dumps(node, flags);
  if (text == nullptr) {
    return JsonUtil::kDumpFailed;
  }
  out = text;
  FreeJsonText(text);
  return JsonUtil::kOk;
}

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

}  // namespace

JsonUtil::~JsonUtil() { Release(); }

JsonUtil::JsonUtil(const JsonUtil& other)
    : text_(other.text_), root_(other.root_ != nullptr ? json_copy(other.root_) : nullptr) {}

JsonUtil& JsonUtil::operator=(const JsonUtil& other) {
  if (this != &other) {
    json_t* copy = other.root_ != nullptr ? json_copy(other.root_) : nullptr;
    Release();
    text_ = other.text_;
    root_ = copy;
  }
  return *this;
}

JsonUtil::JsonUtil(JsonUtil&& other) noexcept
    : text_(std::move(other.text_)), root_(other.root_) {
  other.root_ = nullptr;
}

JsonUtil& JsonUtil::operator=(JsonUtil&& other) noexcept {
  if (this != &other) {
    Release();
    text_ = std::move(other.text_);
    root_ = other.root_;
    other.root_ = nullptr;
  }
  return *this;
}

void JsonUtil::Release() {
  // json_decref leaves values with the "static" reference count alone.
  if (root_ != nullptr) {
    json_decref(root_);
    root_ = nullptr;
  }
}

int JsonUtil::JsonLoadFile(std::string path) {
  std::string content;
  if (!ReadFileContext(path, content)) {
    return kLoadFailed;
  }
  Release();
  text_ = std::move(content);
  json_error_t error;
  root_ = json_loads(text_.c_str(), JSON_DECODE_ANY, &error);
  return root_ != nullptr ? kOk : kLoadFailed;
}

int JsonUtil::JsonLoadString(const std::string& text) { return JsonLoadString(std::string(text)); }

int JsonUtil::JsonLoadString(std::string&& text) {
  Release();
  text_ = std::move(text);
  json_error_t error;
  root_ = json_loads(text_.c_str(), JSON_DECODE_ANY, &error);
  return root_ != nullptr ? kOk : kLoadFailed;
}

json_t* JsonUtil::JsonGetObject(const std::string& path) const {
  if (root_ == nullptr) {
    return nullptr;
  }
  // Steps are the non-empty pieces between slashes, walked in place: no piece is copied for an
  // object member, and every burying point reads a dozen members.
  json_t* node = root_;
  bool stepped = false;
  for (size_t at = 0; at < path.size();) {
    const size_t slash = path.find('/', at);
    const size_t end = slash == std::string::npos ? path.size() : slash;
    if (end > at) {
      if (json_is_object(node)) {
        node = json_object_getn(node, path.data() + at, end - at);
      } else if (json_is_array(node)) {
        node = ArrayStep(node, path.substr(at, end - at));
      } else {
        node = nullptr;
      }
      if (node == nullptr) {
        return nullptr;
      }
      stepped = true;
    }
    at = end + 1;
  }
  return stepped ? node : nullptr;
}

int JsonUtil::FindValue(const std::string& path, int index, json_t** value) const {
  json_t* node = JsonGetObject(path);
  if (node == nullptr) {
    return kNotFound;
  }
  if (JsonTypeGet(node) == kUnknownType) {
    return kUnknownType;
  }
  *value = index < 0 ? node : Element(node, index);
  return kOk;
}

int JsonUtil::JsonGetString(const std::string& path, std::string& out, int index) const {
  json_t* value = nullptr;
  const int found = FindValue(path, index, &value);
  if (found != kOk) {
    return found == kUnknownType ? kOk : found;
  }
  if (!json_is_string(value)) {
    return kWrongType;
  }
  // The text as a bounded copy through a zeroed work buffer would give it: cut at the first
  // NUL and at kStringLimit characters. Copied straight into out, since zeroing a
  // megabyte per member read dominated the cost of every burying point.
  const char* text = json_string_value(value);
  try {
    out.assign(text, ::strnlen(text, kStringLimit));
  } catch (const std::bad_alloc&) {
    return kBufferFailed;
  }
  return kOk;
}

int JsonUtil::JsonGetInteger(const std::string& path, int* out, int index) const {
  json_t* value = nullptr;
  const int found = FindValue(path, index, &value);
  if (found != kOk) {
    return found;
  }
  if (!json_is_integer(value)) {
    return kWrongType;
  }
  if (out != nullptr) {
    // Wider values keep their low 32 bits.
    *out = static_cast<int>(static_cast<unsigned int>(json_integer_value(value)));
  }
  return kOk;
}

int JsonUtil::JsonGetDouble(const std::string& path, double* out, int index) const {
  json_t* value = nullptr;
  const int found = FindValue(path, index, &value);
  if (found != kOk) {
    return found;
  }
  if (!json_is_real(value)) {
    return kWrongType;
  }
  if (out != nullptr) {
    *out = json_real_value(value);
  }
  return kOk;
}

int JsonUtil::JsonGetArraySize(const std::string& path, int* out) const {
  if (out != nullptr) {
    *out = 0;
  }
  json_t* node = JsonGetObject(path);
  if (node == nullptr) {
    return kNotFound;
  }
  if (!json_is_array(node)) {
    return kWrongType;
  }
  if (out != nullptr) {
    *out = static_cast<int>(json_array_size(node));
  }
  return kOk;
}

int JsonUtil::JsonGetJsonObjectList(const std::string& path, std::vector<JsonUtil>& out) const {
  json_t* node = JsonGetObject(path);
  if (!json_is_object(node)) {
    return kNotFound;
  }
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(node, key, value) {
    JsonUtil item;
    item.root_ = json_copy(value);
    if (item.root_ == nullptr) {
      return kCopyFailed;
    }
    out.push_back(std::move(item));
  }
  return kOk;
}

int JsonUtil::JsonSetObject(const std::string& path, json_t* value) {
  if (root_ == nullptr) {
    root_ = json_object();
    if (root_ == nullptr) {
      return kObjectFailed;
    }
  }
  std::vector<std::string> pieces = SplitString(path, '/');
  if (pieces.empty()) {
    return kEmptyPath;
  }
  // Intermediate steps: every piece but the last; a one-piece path is only walked.
  const size_t steps = pieces.size() == 1 ? 1 : pieces.size() - 1;
  json_t* node = root_;
  for (size_t i = 0; i < steps; ++i) {
    const std::string& piece = pieces[i];
    if (json_is_object(node)) {
      json_t* child = json_object_get(node, piece.c_str());
      if (child == nullptr) {
        child = json_object();
        if (child == nullptr) {
          return kObjectFailed;
        }
        if (json_object_set_new(node, piece.c_str(), child) != 0) {
          return kInsertFailed;
        }
      }
      node = child;
    } else if (json_is_array(node)) {
      node = ArrayStep(node, piece);
      if (node == nullptr) {
        return kBadArrayStep;
      }
    } else {
      // A scalar in the way: nothing is stored, and that is not an error.
      return kOk;
    }
  }
  if (pieces.size() == 1) {
    return kOk;
  }
  if (!json_is_object(node) || json_object_set(node, pieces.back().c_str(), value) != 0) {
    return kInsertFailed;
  }
  return kOk;
}

int JsonUtil::JsonSet(const std::string& path, const std::string& value) {
  json_t* made = json_string(value.c_str());
  if (made == nullptr) {
    return kValueFailed;
  }
  int status = JsonSetObject(path, made);
  json_decref(made);
  return status;
}

int JsonUtil::JsonSet(const std::string& path, int value) {
  json_t* made = json_integer(value);
  if (made == nullptr) {
    return kValueFailed;
  }
  int status = JsonSetObject(path, made);
  json_decref(made);
  return status;
}

int JsonUtil::JsonSet(const std::string& path, double value) {
  // Jansson refuses NaN and infinities here.
  json_t* made = json_real(value);
  if (made == nullptr) {
    return kValueFailed;
  }
  int status = JsonSetObject(path, made);
  json_decref(made);
  return status;
}

int JsonUtil::JsonDumps(std::string& out, unsigned int flags) const {
  if (root_ == nullptr) {
    return kLoadFailed;
  }
  return Dump(root_, out, flags);
}

int JsonUtil::JsonDumps(const std::string& path, std::string& out, unsigned int flags) const {
  json_t* node = JsonGetObject(path);
  if (node == nullptr) {
    return kNotFound;
  }
  return Dump(node, out, flags);
}

JsonUtil JsonUtil::JsonClone() const {
  json_t* copy = json_deep_copy(root_);
  if (copy == nullptr) {
    throw std::bad_alloc();
  }
  JsonUtil clone;
  clone.text_ = text_;
  clone.root_ = copy;
  return clone;
}

int JsonUtil::JsonTypeGet(json_t* node) {
  if (node == nullptr) {
    return kUnknownType;
  }
  switch (json_typeof(node)) {
    case JSON_OBJECT:
      return kTypeObject;
    case JSON_ARRAY:
      return kTypeArray;
    case JSON_STRING:
      return kTypeString;
    case JSON_INTEGER:
      return kTypeInteger;
    case JSON_REAL:
      return kTypeReal;
    case JSON_TRUE:
      return kTypeTrue;
    case JSON_FALSE:
      return kTypeFalse;
    case JSON_NULL:
      return kTypeNull;
  }
  return kUnknownType;
}

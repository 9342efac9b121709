#include "common/utils.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <ctime>
#include <memory>
#include <sstream>

#include "common/per_thread.h"
#include "nuv_dir.h"
#include "nuv_md5.h"
#include "nuv_path.h"
#include "nuv_str.h"
#include "nuv_time.h"
#include "nuv_uuid.h"

namespace {

template <typename Char>
bool IsSpace(Char c) {
  return c == Char(' ') || c == Char('\n') || c == Char('\r') || c == Char('\t');
}

template <typename Str>
void RTrim(Str& text) {
  size_t end = text.size();
  while (end > 0 && IsSpace(text[end - 1])) {
    --end;
  }
  text.erase(end);
}

template <typename Str>
void LTrim(Str& text) {
  size_t begin = 0;
  while (begin < text.size() && IsSpace(text[begin])) {
    ++begin;
  }
  text.erase(0, begin);
}

// The narrow C rule on a wide character: values outside the byte range pass unchanged.
wchar_t FoldWide(wchar_t c, bool upper) {
  if (c < 0 || c > 0xFF) {
    return c;
  }
  int folded = upper ? std::toupper(static_cast<int>(c)) : std::tolower(static_cast<int>(c));
  return static_cast<wchar_t>(folded);
}

template <typename Str>
std::vector<Str> Split(const Str& text, typename Str::value_type separator) {
  std::vector<Str> pieces;
  Str current;
  for (auto c : text) {
    if (c != separator) {
      current.push_back(c);
    } else if (!current.empty()) {
      pieces.push_back(current);
      current.clear();
    }
  }
  if (!current.empty()) {
    pieces.push_back(current);
  }
  return pieces;
}

template <typename Stream, typename Str>
bool IsNumber(const Str& text) {
  Stream in(text);
  double value = 0;
  in >> value;
  return !in.fail() && in.eof();
}

std::string HexDigest(nuv_md5_ctx_t* ctx) {
  unsigned char digest[NUV_MD5_DIGEST_LENGTH] = {0};
  char hex[2 * NUV_MD5_DIGEST_LENGTH + 1] = {0};
  if (nuv_md5_final(ctx, digest) != 0 ||
      nuv_md5_bin2str(digest, sizeof(digest), hex, sizeof(hex)) != 0) {
    return std::string();
  }
  return hex;
}

std::string Md5Text(const char* data, size_t size) {
  nuv_md5_ctx_t ctx;
  if (nuv_md5_init(&ctx) != 0 || nuv_md5_update(&ctx, data, size) != 0) {
    return std::string();
  }
  return HexDigest(&ctx);
}

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

struct WalkCloser {
  void operator()(nuv_dirwalk_t* walk) const { nuv_dirwalk_destroy(walk); }
};

}  // namespace

void RTrimSpace(std::string& text) { RTrim(text); }
void RTrimSpaceW(std::wstring& text) { RTrim(text); }
void LTrimSpace(std::string& text) { LTrim(text); }
void LTrimSpaceW(std::wstring& text) { LTrim(text); }

void ToLower(std::string& text) {
  for (char& c : text) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
}

void ToUpper(std::string& text) {
  for (char& c : text) {
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
}

void ToLowerW(std::wstring& text) {
  for (wchar_t& c : text) {
    c = FoldWide(c, false);
  }
}

void ToUpperW(std::wstring& text) {
  for (wchar_t& c : text) {
    c = FoldWide(c, true);
  }
}

void CorrectString(std::string& text) {
  RTrimSpace(text);
  LTrimSpace(text);
  ToUpper(text);
}

void CorrectLowerString(std::string& text) {
  RTrimSpace(text);
  LTrimSpace(text);
  ToLower(text);
}

void CorrectStringW(std::wstring& text) {
  RTrimSpaceW(text);
  LTrimSpaceW(text);
  ToUpperW(text);
}

bool IsCharContainer(char c, const std::string& set) {
  return set.find(c) != std::string::npos;
}

bool IsWcharContainer(wchar_t c, const std::wstring& set) {
  return set.find(c) != std::wstring::npos;
}

bool IsStringContainer(const std::string& text, const std::string& set) {
  return text.find_first_not_of(set) == std::string::npos;
}

bool IsWstringContainer(const std::wstring& text, const std::wstring& set) {
  return text.find_first_not_of(set) == std::wstring::npos;
}

std::vector<std::string> SplitString(const std::string& text, char separator) {
  return Split(text, separator);
}

std::vector<std::wstring> SplitStringW(const std::wstring& text, wchar_t separator) {
  return Split(text, separator);
}

bool IsNumberA(const std::string& text) { return IsNumber<std::istringstream>(text); }

bool IsNumberW(const std::wstring& text) { return IsNumber<std::wistringstream>(text); }

long ConvertStringToNumber(const char* text) {
  return text == nullptr ? 0 : std::strtol(text, nullptr, 10);
}

long ConvertWstringToNumber(const wchar_t* text) {
  return text == nullptr ? 0 : std::wcstol(text, nullptr, 10);
}

void WstringToUtf8(const std::wstring& in, std::string& out) {
  char* utf8 = nuv_str_unicode_to_utf8(in.c_str());
  if (utf8 != nullptr) {
    out = utf8;
    nuv_str_free(utf8);
  }
}

void StringToWstring(const std::string&, std::wstring&) {}

void WstringToString(const std::wstring&, std::string&) {}

std::string GenerateLocalTime() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  if (localtime_r(&now, &local) == nullptr) {
    return std::string();
  }
  char text[64] = {0};
  std::snprintf(text, sizeof(text), "%04d/%02d/%02d %02d:%02d:%02d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

std::string CurrentDay() {
  struct Cached {
    int64_t second = -1;
    std::string day;
  };
  Cached& cached = PerThread<Cached>();
  const int64_t now = static_cast<int64_t>(nuv_time());
  if (now != cached.second || cached.day.empty()) {
    cached.day = GenerateCurrentTime("%Y%m%d", 16);
    cached.second = now;
  }
  return cached.day;
}

std::string GenerateCurrentTime(const std::string& format, int size) {
  if (size < 0) {
    return std::string();
  }
  std::tm local{};
  if (nuv_time_stamp_to_local(nuv_time(), &local) != 0) {
    return std::string();
  }
  // Two spare zero bytes: the text always ends before the buffer does.
  std::unique_ptr<char, FreeDeleter> buffer(
      static_cast<char*>(std::calloc(static_cast<size_t>(size) + 2, 1)));
  if (!buffer) {
    return std::string();
  }
  // `size` counts characters; the terminator goes into the spare bytes.
  std::strftime(buffer.get(), static_cast<size_t>(size) + 1, format.c_str(), &local);
  return buffer.get();
}

std::string CreateKey(const std::string& text, unsigned int number) {
  const size_t size = text.size() + 20;
  std::unique_ptr<char, FreeDeleter> buffer(static_cast<char*>(std::calloc(size, 1)));
  if (!buffer) {
    return std::string();
  }
  nuv_str_snprintf(buffer.get(), size, "%s:%d", text.c_str(), static_cast<int>(number));
  return Md5Text(buffer.get(), std::strlen(buffer.get()));
}

std::string CreateKey2(const std::string& text) { return Md5Text(text.data(), text.size()); }

std::string CreateUUID() {
  unsigned char uuid[NUV_UUID_LENGTH] = {0};
  char text[NUV_UUID_STR_LENGTH] = {0};
  nuv_uuid_create(uuid);
  nuv_uuid_make_cstr(uuid, text, sizeof(text));
  return text;
}

bool GetConfigFilePath(std::string& out) {
  char path[1024] = {0};
  if (nuv_path_get_cur_proc_a(path, sizeof(path)) != 0) {
    return false;
  }
  nuv_path_format_a(path);
  nuv_path_remove_name_a(path);
  out = std::string(path) + "/../config/maintenance.json";
  return nuv_path_is_exist_a(out.c_str()) != 0;
}

bool CreateDirectory(const std::string& path, int mode) {
  return nuv_dirutils_mkdir(path.c_str(), mode) == 0;
}

std::string GetDirectory(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(0, slash);
}

std::string GetProcessName(const std::string& path) {
  size_t dot = path.rfind('.');
  return dot == std::string::npos ? path : path.substr(0, dot);
}

bool ReadFileContext(std::string path, std::string& out) {
  // "e": the descriptor must not leak into the processes the library spawns.
  std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "re"));
  if (!file) {
    return false;
  }
  char line[1024];
  while (std::fgets(line, sizeof(line), file.get()) != nullptr) {
    out.append(line);
  }
  return std::ferror(file.get()) == 0;
}

bool EnumFiles(const std::string& directory, std::vector<std::string>& files) {
  if (directory.empty()) {
    return false;
  }
  files.clear();
  std::unique_ptr<nuv_dirwalk_t, WalkCloser> walk(nuv_dirwalk_create(directory.c_str(), 1, 0));
  if (!walk) {
    return false;
  }
  int isDirectory = 0;
  const char* name = nullptr;
  while ((name = nuv_dirwalk_read(walk.get(), &isDirectory)) != nullptr) {
    if (isDirectory == 0) {
      files.push_back(name);
    }
  }
  return !files.empty();
}

// Stateless helpers shared by every component: string trimming, folding, splitting and number
// tests (narrow and wide twins), time texts, md5 keys, and small path and file functions over
// the platform. None of them logs.
#ifndef NUV_COMMON_UTILS_H
#define NUV_COMMON_UTILS_H

#include <string>
#include <vector>

// ---- strings ----

// Trim the characters blank, "\n", "\r" and "\t" at the end / at the front, in place.
void RTrimSpace(std::string& text);
void RTrimSpaceW(std::wstring& text);
void LTrimSpace(std::string& text);
void LTrimSpaceW(std::wstring& text);

// C tolower/toupper on every character in place. The wide forms use the same narrow rule, so
// only single-byte values are folded.
void ToLower(std::string& text);
void ToUpper(std::string& text);
void ToLowerW(std::wstring& text);
void ToUpperW(std::wstring& text);

// Trim both ends, then fold: upper case for CorrectString(W), lower case for CorrectLowerString,
// the normal form of process names and other keys.
void CorrectString(std::string& text);
void CorrectLowerString(std::string& text);
void CorrectStringW(std::wstring& text);

// True when `c` occurs in `set`.
bool IsCharContainer(char c, const std::string& set);
bool IsWcharContainer(wchar_t c, const std::wstring& set);
// True when every character of `text` occurs in `set` (also for an empty text).
bool IsStringContainer(const std::string& text, const std::string& set);
bool IsWstringContainer(const std::wstring& text, const std::wstring& set);

// The non-empty pieces between separators, untrimmed: ",,a,,b," gives "a" and "b".
std::vector<std::string> SplitString(const std::string& text, char separator);
std::vector<std::wstring> SplitStringW(const std::wstring& text, wchar_t separator);

// True when the whole text reads as one floating-point number. Leading white space is allowed,
// trailing characters (white space included) are not.
bool IsNumberA(const std::string& text);
bool IsNumberW(const std::wstring& text);

// strtol / wcstol in base 10 with no error report; null gives 0.
long ConvertStringToNumber(const char* text);
long ConvertWstringToNumber(const wchar_t* text);

// Wide text to UTF-8; `out` is left as it was when the conversion fails.
void WstringToUtf8(const std::wstring& in, std::string& out);
// Deliberately do nothing and leave `out` as it was; WstringToUtf8 is the conversion to use.
void StringToWstring(const std::string& in, std::wstring& out);
void WstringToString(const std::wstring& in, std::string& out);

// ---- time ----

// The current local time as "YYYY/MM/DD hh:mm:ss".
std::string GenerateLocalTime();
// The current platform time (test offset included) as local time through strftime(format),
// at most `size` bytes; empty when the buffer cannot be had. Pass a size that fits the format.
std::string GenerateCurrentTime(const std::string& format, int size);
// Today's local date, "%Y%m%d", as GenerateCurrentTime gives it; formatted at most once a second
// per thread, since the store asks on every write.
std::string CurrentDay();

// ---- keys ----

// The lower-case hex md5 of "<text>:<number>", the number printed as a signed decimal. The
// identity of monitors, workers and samples. Empty when memory runs out.
std::string CreateKey(const std::string& text, unsigned int number);
// The hex md5 of `text` itself.
std::string CreateKey2(const std::string& text);
// A new random UUID in its 36-character text form.
std::string CreateUUID();

// ---- paths and files ----

// <directory of the running executable>/../config/maintenance.json into `out`; true when it
// exists. False, with `out` untouched, when the executable's path cannot be had.
bool GetConfigFilePath(std::string& out);
// Creates `path` and its missing parents with `mode`; true when the directory exists afterwards.
bool CreateDirectory(const std::string& path, int mode = 0755);
// The text before the last "/", or the whole path when there is none.
std::string GetDirectory(const std::string& path);
// The text before the last "." (the directory part is kept), or the whole text.
std::string GetProcessName(const std::string& path);
// Appends the whole text file to `out` (not cleared first); false when it cannot be read.
bool ReadFileContext(std::string path, std::string& out);
// Every non-directory entry below `directory`, recursively, in walk order, into `files` (which
// is emptied first). True when at least one was found.
bool EnumFiles(const std::string& directory, std::vector<std::string>& files);

#endif

#include "file/fileclassify.h"

#include <charconv>
#include <ctime>
#include <string_view>
#include <vector>

#include "common/utils.h"
#include "config/config_addition.h"
#include "config/config_file.h"
#include "nuv_murmur.h"

namespace {

constexpr uint32_t kHashSeed = 0xadc16596;
constexpr size_t kPathBufferSize = 1024;
constexpr size_t kKeyBufferSize = 4096;
constexpr const char* kIndexPrefix = "index-";
// Leaves room in one 255-byte file name for "index-", two dashes and two 10-digit numbers.
constexpr size_t kMaxNameLength = 200;

// The last component of `dir`: the text after its last "/", or all of it when there is none.
std::string LastComponent(const std::string& dir) {
  const size_t slash = dir.rfind('/');
  return slash == std::string::npos ? dir : dir.substr(slash + 1);
}

// Paths and keys are built by appending, as snprintf into a zeroed buffer of `bound` bytes
// would give them (each text up to its first NUL, the whole cut to bound - 1 characters), but
// without formatting or zeroing a buffer for every record stored.
std::string_view Text(const std::string& s) { return std::string_view(s.c_str()); }

void Bound(std::string& s, size_t bound) {
  if (s.size() >= bound) s.resize(bound - 1);
}

template <typename Number>
void AppendDecimal(std::string& s, Number value) {
  char digits[16];
  s.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

std::string FormatKey(const std::string& name, unsigned int pid, unsigned int type) {
  std::string key(Text(name));
  key.push_back(':');
  AppendDecimal(key, pid);
  key.push_back(':');
  AppendDecimal(key, type);
  Bound(key, kKeyBufferSize);
  return key;
}

// The parts of a store file's path, read from the right: D/DAY/NAME/[index-]NAME-PID-TYPE.
struct StoreFileName {
  std::string dir;  // D/DAY/NAME
  std::string day;
  std::string name;
  std::string pid;
  std::string type;
  bool isIndex = false;
};

// "PID-TYPE" into its two numbers.
bool SplitPidType(const std::string& tail, StoreFileName& out) {
  const std::vector<std::string> pieces = SplitString(tail, '-');
  if (pieces.size() != 2 || !IsNumberA(pieces[0]) || !IsNumberA(pieces[1])) {
    return false;
  }
  out.pid = pieces[0];
  out.type = pieces[1];
  return true;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// A file of the stream named by its directory comes first, so names holding "-" parse; a file
// that does not carry its directory's name is read by dashes, as three or four pieces.
bool SplitStoreFile(const std::string& file, StoreFileName& out) {
  const size_t slash = file.rfind('/');
  if (file.empty() || slash == std::string::npos) {
    return false;
  }
  out.dir = file.substr(0, slash);
  const std::string fileName = file.substr(slash + 1);
  const size_t nameSlash = out.dir.rfind('/');
  if (nameSlash == std::string::npos) {
    return false;
  }
  const std::string nameDir = out.dir.substr(nameSlash + 1);
  out.day = LastComponent(out.dir.substr(0, nameSlash));
  const std::string asContent = nameDir + "-";
  const std::string asIndex = kIndexPrefix + asContent;
  if (!nameDir.empty() && StartsWith(fileName, asContent) &&
      SplitPidType(fileName.substr(asContent.size()), out)) {
    out.name = nameDir;
    out.isIndex = false;
    return true;
  }
  if (!nameDir.empty() && StartsWith(fileName, asIndex) &&
      SplitPidType(fileName.substr(asIndex.size()), out)) {
    out.name = nameDir;
    out.isIndex = true;
    return true;
  }
  const std::vector<std::string> pieces = SplitString(fileName, '-');
  const size_t n = pieces.size();
  if ((n != 3 && n != 4) || (n == 4 && pieces[0] != "index") || !IsNumberA(pieces[n - 1]) ||
      !IsNumberA(pieces[n - 2])) {
    return false;
  }
  out.isIndex = n == 4;
  out.name = pieces[n - 3];
  out.pid = pieces[n - 2];
  out.type = pieces[n - 1];
  return true;
}

int DecimalAt(const std::string& text, size_t pos, size_t len) {
  return static_cast<int>(ConvertStringToNumber(text.substr(pos, len).c_str()));
}

}  // namespace

bool IsMaintainceLogType(unsigned int type) { return type == 256 || type == 512 || type == 4096; }

std::string GetStoreBaseDirectory(unsigned int type) {
  std::string scratch;
  return StoreBaseDirectory(type, scratch);
}

const std::string& StoreBaseDirectory(unsigned int type, std::string& scratch) {
  if (IsMaintainceLogType(type)) {
    return CMaintainceLogCfg::GetInstance()->AbsoluteLogPath(scratch);
  }
  return CAdditionCtrlor::GetInstance()->FilePath(static_cast<int>(type), scratch);
}

CFileClassify::CFileClassify() { Reset(); }

bool CFileClassify::InitFileClassify(const std::string& name, unsigned int pid, unsigned int type) {
  if (name.empty() || type == 0 || !IsStoreName(name)) {
    Reset();
    return false;
  }
  std::string day = CurrentDay();
  // Compared record after record: the configured string is not copied for that.
  std::string scratch;
  const std::string& base = StoreBaseDirectory(type, scratch);
  // A classification reused for the same stream on the same day (a bus thread's, record after
  // record) keeps the paths and key it built.
  if (!base_.empty() && pid == pid_ && type == type_ && name == name_ && day == time_ &&
      base == base_) {
    return true;
  }
  name_ = name;
  pid_ = pid;
  type_ = type;
  time_ = std::move(day);
  ConstructPath(base);
  MakeKey();
  base_ = base;
  return true;
}

void CFileClassify::ConstructPath(std::string base) {
  base_.clear();
  if (base.empty() || base.back() != '/') {
    base.push_back('/');
  }
  path_.assign(Text(base)).append("/").append(Text(time_)).append("/").append(Text(name_));
  Bound(path_, kPathBufferSize);
  // NAME-PID-TYPE, the content file's name and the index file's after "index-".
  auto appendFileName = [this](std::string& s) {
    s.append(Text(name_)).push_back('-');
    AppendDecimal(s, static_cast<int>(pid_));
    s.push_back('-');
    AppendDecimal(s, static_cast<int>(type_));
    Bound(s, kPathBufferSize);
  };
  indexPath_.assign(path_).append("/index-");
  appendFileName(indexPath_);
  contentPath_.assign(path_).append("/");
  appendFileName(contentPath_);
}

bool CFileClassify::CheckValid() const { return !name_.empty() && type_ != 0; }

uint64_t CFileClassify::GetHashKey() const {
  if (contentPath_.empty()) {
    return 0;
  }
  return keyHash_;
}

std::string CFileClassify::GetTimePath() const {
  const size_t slash = path_.rfind('/');
  return slash == std::string::npos ? std::string() : path_.substr(0, slash);
}

void CFileClassify::Reset() {
  base_.clear();
  time_.clear();
  name_.clear();
  pid_ = 0;
  type_ = 0;
  indexPath_.clear();
  contentPath_.clear();
  path_.clear();
  key_.clear();
  keyHash_ = 0;
}

void CFileClassify::MakeKey() {
  key_ = FormatKey(name_, pid_, type_);
  keyHash_ = nuv_murmur_hash64(key_.data(), key_.size(), kHashSeed);
}

bool CFileClassify::IsStoreName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= kMaxNameLength &&
         name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

bool CFileClassify::CheckFilePathValid(const std::string& file) {
  StoreFileName parts;
  return SplitStoreFile(file, parts) && CheckDataTime(parts.day);
}

bool CFileClassify::ParseFilePath(const std::string& file, CFileClassify& out) {
  out.Reset();
  StoreFileName parts;
  // The date check reads digits up to the first other character; the day must be all digits.
  if (!SplitStoreFile(file, parts) || !CheckDataTime(parts.day) || !IsNumberA(parts.day)) {
    return false;
  }
  out.path_ = parts.dir;
  const std::string contentName = parts.name + "-" + parts.pid + "-" + parts.type;
  out.contentPath_ = parts.isIndex ? parts.dir + "/" + contentName : file;
  out.indexPath_ = parts.isIndex ? file : parts.dir + "/" + kIndexPrefix + contentName;
  out.type_ = static_cast<unsigned int>(ConvertStringToNumber(parts.type.c_str()));
  out.pid_ = static_cast<unsigned int>(ConvertStringToNumber(parts.pid.c_str()));
  out.name_ = parts.name;
  out.time_ = parts.day;
  out.MakeKey();
  return true;
}

bool CFileClassify::CheckDataTime(const std::string& day) {
  if (day.size() != 8) {
    return false;
  }
  const int year = DecimalAt(day, 0, 4);
  const int month = DecimalAt(day, 4, 2);
  const int date = DecimalAt(day, 6, 2);
  if (month < 1 || month > 12) {
    return false;
  }
  static const int kMonthDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  int length = kMonthDays[month - 1];
  if (month == 2 && ((year % 4 == 0 && year % 100 != 0) || year % 400 == 0)) {
    length = 29;
  }
  return date >= 1 && date <= length;
}

bool CFileClassify::DifferTime(const std::string& from, const std::string& to, double& seconds) {
  if (from.size() != 8 || to.size() != 8) {
    return false;
  }
  // The month goes in as written, not reduced by one: both dates shift alike, and mktime
  // carries a day overflow into the following month.
  auto toCalendar = [](const std::string& day) {
    std::tm tm{};
    tm.tm_year = DecimalAt(day, 0, 4) - 1900;
    tm.tm_mon = DecimalAt(day, 4, 2);
    tm.tm_mday = DecimalAt(day, 6, 2);
    tm.tm_isdst = 0;
    return tm;
  };
  std::tm fromTm = toCalendar(from);
  std::tm toTm = toCalendar(to);
  seconds = std::difftime(std::mktime(&toTm), std::mktime(&fromTm));
  return true;
}

std::string CFileClassify::GetCompressFileTime(const std::string& file, const std::string& suffix) {
  const size_t suffixPos = file.rfind(suffix);
  if (suffixPos == std::string::npos) {
    return std::string();
  }
  size_t slash = file.rfind('/');
  if (slash == std::string::npos) {
    slash = file.rfind('\\');
  }
  if (slash == std::string::npos || suffixPos < slash) {
    return std::string();
  }
  const std::string candidate = file.substr(slash + 1, suffixPos - slash - 1);
  return CheckDataTime(candidate) ? candidate : std::string();
}

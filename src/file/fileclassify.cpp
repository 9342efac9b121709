#include "file/fileclassify.h"

#include <cstdio>
#include <ctime>
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

// The last component of `dir`: the text after its last "/", or all of it when there is none.
std::string LastComponent(const std::string& dir) {
  const size_t slash = dir.rfind('/');
  return slash == std::string::npos ? dir : dir.substr(slash + 1);
}

std::string FormatKey(const std::string& name, unsigned int pid, unsigned int type) {
  char buffer[kKeyBufferSize] = {0};
  std::snprintf(buffer, sizeof(buffer), "%s:%u:%u", name.c_str(), pid, type);
  return buffer;
}

int DecimalAt(const std::string& text, size_t pos, size_t len) {
  return static_cast<int>(ConvertStringToNumber(text.substr(pos, len).c_str()));
}

}  // namespace

bool IsMaintainceLogType(unsigned int type) { return type == 256 || type == 512 || type == 4096; }

std::string GetStoreBaseDirectory(unsigned int type) {
  if (IsMaintainceLogType(type)) {
    return CMaintainceLogCfg::GetInstance()->GetAbsoluteLogPath();
  }
  return CAdditionCtrlor::GetInstance()->GetFilePath(static_cast<int>(type));
}

CFileClassify::CFileClassify() { Reset(); }

bool CFileClassify::InitFileClassify(const std::string& name, unsigned int pid, unsigned int type) {
  name_ = name;
  pid_ = pid;
  type_ = type;
  if (!CheckValid()) {
    Reset();
    return false;
  }
  time_ = GenerateCurrentTime("%Y%m%d", 16);
  ConstructPath(GetStoreBaseDirectory(type_));
  MakeKey();
  return true;
}

void CFileClassify::ConstructPath(std::string base) {
  if (base.empty() || base.back() != '/') {
    base.push_back('/');
  }
  char buffer[kPathBufferSize] = {0};
  std::snprintf(buffer, sizeof(buffer), "%s/%s/%s", base.c_str(), time_.c_str(), name_.c_str());
  path_ = buffer;

  std::snprintf(buffer, sizeof(buffer), "%s/index-%s-%d-%d", path_.c_str(), name_.c_str(),
                static_cast<int>(pid_), static_cast<int>(type_));
  indexPath_ = buffer;

  std::snprintf(buffer, sizeof(buffer), "%s/%s-%d-%d", path_.c_str(), name_.c_str(),
                static_cast<int>(pid_), static_cast<int>(type_));
  contentPath_ = buffer;
}

bool CFileClassify::CheckValid() const { return !name_.empty() && type_ != 0; }

uint64_t CFileClassify::GetHashKey() const {
  if (contentPath_.empty()) {
    return 0;
  }
  return nuv_murmur_hash64(key_.data(), key_.size(), kHashSeed);
}

std::string CFileClassify::GetTimePath() const {
  const size_t slash = path_.rfind('/');
  return slash == std::string::npos ? std::string() : path_.substr(0, slash);
}

void CFileClassify::Reset() {
  time_.clear();
  name_.clear();
  pid_ = 0;
  type_ = 0;
  indexPath_.clear();
  contentPath_.clear();
  path_.clear();
  key_.clear();
}

void CFileClassify::MakeKey() { key_ = FormatKey(name_, pid_, type_); }

bool CFileClassify::CheckFilePathValid(const std::string& file) {
  const size_t slash = file.rfind('/');
  if (file.empty() || slash == std::string::npos) {
    return false;
  }
  const std::string dir = file.substr(0, slash);
  const std::vector<std::string> pieces = SplitString(file.substr(slash + 1), '-');
  const size_t n = pieces.size();
  if (n != 3 && n != 4) {
    return false;
  }
  if (n == 4 && pieces[0] != "index") {
    return false;
  }
  if (!IsNumberA(pieces[n - 1]) || !IsNumberA(pieces[n - 2])) {
    return false;
  }
  const size_t nameSlash = dir.rfind('/');
  if (nameSlash == std::string::npos) {
    return false;
  }
  return CheckDataTime(LastComponent(dir.substr(0, nameSlash)));
}

bool CFileClassify::ParseFilePath(const std::string& file, CFileClassify& out) {
  out.Reset();
  if (file.empty() || !CheckFilePathValid(file)) {
    return false;
  }
  const size_t slash = file.rfind('/');
  out.path_ = file.substr(0, slash);
  const std::string fileName = file.substr(slash + 1);
  const std::vector<std::string> pieces = SplitString(fileName, '-');
  const size_t n = pieces.size();
  if (n == 4) {
    out.indexPath_ = file;
    out.contentPath_ = out.path_ + "/" + fileName.substr(6);
  } else {
    out.contentPath_ = file;
    out.indexPath_ = out.path_ + "/" + kIndexPrefix + fileName;
  }
  out.type_ = static_cast<unsigned int>(ConvertStringToNumber(pieces[n - 1].c_str()));
  out.pid_ = static_cast<unsigned int>(ConvertStringToNumber(pieces[n - 2].c_str()));
  out.name_ = pieces[n - 3];

  const size_t daySlash = out.path_.rfind('/');
  out.time_ =
      LastComponent(daySlash == std::string::npos ? out.path_ : out.path_.substr(0, daySlash));
  if (!IsNumberA(out.time_)) {
    out.Reset();
    return false;
  }
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

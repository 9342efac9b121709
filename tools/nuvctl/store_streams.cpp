#include "store_streams.h"

#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <tuple>

#include "common/jsonutil.h"
#include "common/singleton.h"
#include "config/config_mgr.h"
#include "file/fileclassify.h"
#include "file/fileindex.h"
#include "file/filemanager.h"
#include "nuv_dir.h"
#include "nuv_file.h"
#include "nuv_process.h"

namespace nuvctl {
namespace {

constexpr long long kUnpackTimeoutMs = 60000;

// Single quotes for the shell: the archive path comes from the configuration.
std::string Quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// The archive's day directory, unpacked once under scratch/<n>/<DAY>; "" when tar fails.
std::string Unpack(const std::string& archive, const std::string& day, ScratchDir& scratch,
                   int serial) {
  const std::string dir = scratch.path() + "/" + std::to_string(serial) + "/" + day;
  if (nuv_dirutils_mkdir(dir.c_str(), 0700) != 0) return "";
  nuv_process_t* tar = nullptr;
  const std::string command = "tar -xzf " + Quoted(archive) + " -C " + Quoted(dir);
  if (nuv_process_create(command.c_str(), &tar) != 1) return "";
  if (nuv_process_wait(tar, kUnpackTimeoutMs, 0) != 1) return "";
  return dir;
}

void AddFiles(const std::vector<std::string>& files, const std::string& archive,
              std::map<std::string, Stream>& byContent) {
  for (const std::string& file : files) {
    CFileClassify classify;
    if (!CFileClassify::ParseFilePath(file, classify)) continue;
    Stream& stream = byContent[classify.GetContentPath()];
    stream.day = classify.GetTime();
    stream.name = classify.GetName();
    stream.pid = classify.GetPid();
    stream.type = classify.GetType();
    stream.indexPath = classify.GetIndexPath();
    stream.contentPath = classify.GetContentPath();
    stream.archive = archive;
    (file == stream.indexPath ? stream.hasIndex : stream.hasContent) = true;
  }
}

// Every file under `dir`, full paths.
std::vector<std::string> FilesUnder(const std::string& dir) {
  std::vector<std::string> files;
  std::unique_ptr<nuv_dirwalk_t, decltype(&nuv_dirwalk_destroy)> walk(
      nuv_dirwalk_create(dir.c_str(), 1, 0), nuv_dirwalk_destroy);
  int isDir = 0;
  while (const char* path = walk ? nuv_dirwalk_read(walk.get(), &isDir) : nullptr) {
    if (!isDir) files.push_back(path);
  }
  return files;
}

// "YYYYMMDD HH:MM:SS" from a header time written "YYYY/MM/DD hh:mm:ss" or ISO-8601.
std::string RecordTime(const std::string& text) {
  JsonUtil document;
  std::string time;
  if (document.JsonLoadString(text) != JsonUtil::kOk ||
      document.JsonGetString("/header/time", time, -1) != JsonUtil::kOk) {
    return "";
  }
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  char a = 0, b = 0, t = 0;
  if (std::sscanf(time.c_str(), "%4d%c%2d%c%2d%c%2d:%2d:%2d", &y, &a, &mo, &b, &d, &t, &h, &mi,
                  &s) != 9 ||
      a != b || (a != '/' && a != '-') || (t != ' ' && t != 'T')) {
    return "";
  }
  char out[32];
  std::snprintf(out, sizeof out, "%04d%02d%02d %02d:%02d:%02d", y, mo, d, h, mi, s);
  return out;
}

}  // namespace

ScratchDir::ScratchDir() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/nuvctl.XXXXXX";
  if (mkdtemp(&pattern[0]) != nullptr) path_ = pattern;
}

ScratchDir::~ScratchDir() {
  if (!path_.empty()) nuv_dirutils_rmdir(path_.c_str());
}

bool LoadStoreConfiguration(const std::string& path, std::vector<unsigned int>& ownTypes) {
  ConfigMgr loader;
  const CError loaded = loader.LoadConfig(path);
  if (!loaded.IsSuccess()) {
    std::fprintf(stderr, "nuvctl store: cannot load the configuration %s: %s (code %d)\n",
                 path.c_str(), loaded.desc.c_str(), loaded.code);
    return false;
  }
  JsonUtil document;
  std::vector<JsonUtil> members;
  if (document.JsonLoadFile(path) == JsonUtil::kOk &&
      document.JsonGetJsonObjectList("/addition", members) == JsonUtil::kOk) {
    for (const JsonUtil& member : members) {
      int type = 0;
      if (member.JsonGetInteger("/bp_type", &type, -1) == JsonUtil::kOk && type > 0) {
        ownTypes.push_back(static_cast<unsigned int>(type));
      }
    }
  }
  return true;
}

std::vector<unsigned int> AllStoreTypes(const std::vector<unsigned int>& ownTypes) {
  std::vector<unsigned int> types = {512};
  types.insert(types.end(), ownTypes.begin(), ownTypes.end());
  return types;
}

std::vector<Stream> CollectStreams(const std::vector<unsigned int>& types, ScratchDir* scratch,
                                   const std::string& fromDay, const std::string& toDay) {
  std::set<std::string> walked;
  std::map<std::string, Stream> byContent;
  int serial = 0;
  for (unsigned int type : types) {
    if (!walked.insert(GetStoreBaseDirectory(type)).second) continue;
    // 210 and 211 only say that nothing is there.
    std::vector<std::string> files;
    CSingleton<CFileManager>::GetInstance().EnumAllFiles(files, static_cast<int>(type));
    AddFiles(files, "", byContent);
    if (scratch == nullptr || scratch->path().empty()) continue;
    std::vector<std::string> archives;
    CSingleton<CFileManager>::GetInstance().EnumFilesBySuffix(archives, ".tgz",
                                                              static_cast<int>(type));
    for (const std::string& archive : archives) {
      const std::string day = CFileClassify::GetCompressFileTime(archive, ".tgz");
      if (day.empty() || (!fromDay.empty() && day < fromDay) || (!toDay.empty() && day > toDay))
        continue;
      const std::string dir = Unpack(archive, day, *scratch, ++serial);
      if (dir.empty()) {
        std::fprintf(stderr, "nuvctl store: cannot unpack %s with tar\n", archive.c_str());
        continue;
      }
      AddFiles(FilesUnder(dir), archive, byContent);
    }
  }
  std::vector<Stream> streams;
  for (auto& entry : byContent) streams.push_back(entry.second);
  std::sort(streams.begin(), streams.end(), [](const Stream& a, const Stream& b) {
    return std::tie(a.day, a.name, a.pid, a.type, a.archive, a.contentPath) <
           std::tie(b.day, b.name, b.pid, b.type, b.archive, b.contentPath);
  });
  return streams;
}

bool ReadRecords(const Stream& stream, unsigned int from, std::vector<Record>& out,
                 std::string& error) {
  std::ifstream index(stream.indexPath, std::ios::binary);
  std::ifstream content(stream.contentPath, std::ios::binary);
  if (!index || !content) {
    error = "cannot open " + (index ? stream.contentPath : stream.indexPath);
    return false;
  }
  index.seekg(static_cast<std::streamoff>(from - 1) * kIndexLineSize);
  std::string line(kIndexLineSize, '\0');
  for (unsigned int n = from; index.read(&line[0], kIndexLineSize); ++n) {
    IndexData entry;
    if (!entry.StringToIndex(line) || entry.ToString() != line || !entry.IsValid()) {
      error = stream.indexPath + ": line " + std::to_string(n) + " is damaged";
      return false;
    }
    Record record;
    record.stream = &stream;
    record.number = n;
    record.offset = entry.offset;
    record.length = entry.length;
    record.text.resize(entry.length);
    content.clear();
    content.seekg(entry.offset);
    if (!content.read(&record.text[0], entry.length)) {
      error = stream.contentPath + ": record " + std::to_string(n) + " (offset " +
              std::to_string(entry.offset) + ", length " + std::to_string(entry.length) +
              ") ends past the content";
      return false;
    }
    record.time = RecordTime(record.text);
    out.push_back(std::move(record));
  }
  return true;
}

uint64_t FileSizeOrZero(const std::string& path) {
  const uint64_t size = nuv_file_size(path.c_str());
  return size == NUV_FILE_SIZE_UNKNOWN ? 0 : size;
}

}  // namespace nuvctl

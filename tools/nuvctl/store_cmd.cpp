// nuvctl store: the on-disk store as the library sees it. Paths, classification and listings
// come from the library's own store classes and the daemon's configuration, so what is shown
// here is what the daemon and its clean-up pass work on.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "clearn/clearn.h"
#include "command.h"
#include "common/jsonutil.h"
#include "common/singleton.h"
#include "common/utils.h"
#include "config/config_mgr.h"
#include "file/fileclassify.h"
#include "file/filecontent.h"
#include "file/fileindex.h"
#include "file/filemanager.h"
#include "nuv_file.h"
#include "nuv_log.h"

namespace nuvctl {
namespace {

const char kUsage[] =
    "usage: nuvctl store [--config PATH] ACTION [OPTIONS]\n"
    "\n"
    "actions:\n"
    "  ls [--type T] [--day YYYYMMDD]\n"
    "      list the streams: day, name, pid, type, record count and content bytes\n"
    "  cat NAME PID TYPE [--day YYYYMMDD] [--from N] [--count K]\n"
    "      print records N .. N+K-1 of one stream, one per line (default: every record of\n"
    "      today's stream)\n"
    "  verify\n"
    "      check every index/content pair: whole 22-byte index lines, each pointing inside\n"
    "      the content file; lists the bad pairs and exits 1 when there are any\n"
    "  clean [--type T]\n"
    "      run one clean-up pass now, the daemon's hourly pass (types 512, 8192, 16384 and\n"
    "      32768, or only T): past days are packed into DAY.tgz beside them, days and\n"
    "      archives older than the configured days are deleted\n"
    "\n"
    "options:\n"
    "  --config PATH  configuration to read; default <dir of nuvctl>/../config/maintenance.json,\n"
    "                 the daemon's own\n"
    "  --help         print this help\n"
    "\n"
    "exit codes: 0 success, 1 failure or problems found, 2 usage error\n";

struct Options {
  std::string config;
  std::string action;
  std::vector<std::string> operands;
  std::set<std::string> given;  // the options present, by name
  unsigned int type = 0;
  std::string day;
  unsigned int from = 1;
  unsigned int count = 0;
};

// One stream found on disk: an index/content pair, either of which may be missing.
struct Stream {
  std::string day;
  std::string name;
  unsigned int pid = 0;
  unsigned int type = 0;
  std::string indexPath;
  std::string contentPath;
  bool hasIndex = false;
  bool hasContent = false;
};

int UsageError(const std::string& message) { return nuvctl::UsageError("store", message); }

int Failure(const std::string& message) {
  std::fprintf(stderr, "nuvctl store: %s\n", message.c_str());
  return kExitFailure;
}

bool ParseUnsigned(const std::string& text, unsigned int& out) {
  if (text.empty() || text.size() > 10 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
  if (value > UINT_MAX) {
    return false;
  }
  out = static_cast<unsigned int>(value);
  return true;
}

uint64_t SizeOrZero(const std::string& path) {
  const uint64_t size = nuv_file_size(path.c_str());
  return size == NUV_FILE_SIZE_UNKNOWN ? 0 : size;
}

std::string StreamName(const std::string& name, unsigned int pid, unsigned int type) {
  return name + "-" + std::to_string(pid) + "-" + std::to_string(type);
}

// Returns kExitOk, or the exit code of a usage error already reported.
int ParseArguments(int argc, char** argv, Options& options, bool& help) {
  static const std::set<std::string> kValued = {"--config", "--type", "--day", "--from", "--count"};
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      help = true;
      return kExitOk;
    }
    if (arg.size() < 2 || arg[0] != '-') {
      if (options.action.empty()) {
        options.action = arg;
      } else {
        options.operands.push_back(arg);
      }
      continue;
    }
    std::string value;
    bool hasValue = false;
    const size_t equals = arg.find('=');
    if (equals != std::string::npos) {
      value = arg.substr(equals + 1);
      arg.erase(equals);
      hasValue = true;
    }
    if (kValued.count(arg) == 0) {
      return UsageError("unknown option '" + arg + "'");
    }
    if (!hasValue) {
      if (i + 1 >= argc) {
        return UsageError(arg + " needs a value");
      }
      value = argv[++i];
    }
    options.given.insert(arg);
    if (arg == "--config") {
      options.config = value;
    } else if (arg == "--day") {
      if (!CFileClassify::CheckDataTime(value)) {
        return UsageError("--day takes a date YYYYMMDD, not '" + value + "'");
      }
      options.day = value;
    } else if (arg == "--type") {
      if (!ParseUnsigned(value, options.type) || options.type == 0) {
        return UsageError("--type takes a record type above 0, not '" + value + "'");
      }
    } else if (arg == "--from") {
      if (!ParseUnsigned(value, options.from) || options.from == 0) {
        return UsageError("--from takes a record number from 1, not '" + value + "'");
      }
    } else if (!ParseUnsigned(value, options.count) || options.count == 0) {
      return UsageError("--count takes a number above 0, not '" + value + "'");
    }
  }
  return kExitOk;
}

// Every option given must be one the action takes.
int CheckApplicable(const Options& options, const std::set<std::string>& allowed) {
  for (const std::string& option : options.given) {
    if (option != "--config" && allowed.count(option) == 0) {
      return UsageError("option " + option + " does not apply to '" + options.action + "'");
    }
  }
  return kExitOk;
}

// Loads the configuration into the library's sections, and lists the types that have a
// directory of their own ("/addition").
bool LoadConfiguration(const std::string& path, std::vector<unsigned int>& ownTypes) {
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

// The streams under the base directories of `types` (each directory walked once).
std::vector<Stream> CollectStreams(const std::vector<unsigned int>& types) {
  std::set<std::string> walked;
  std::map<std::string, Stream> byContent;
  for (unsigned int type : types) {
    if (!walked.insert(GetStoreBaseDirectory(type)).second) {
      continue;
    }
    // 210 and 211 only say that nothing is there.
    std::vector<std::string> files;
    CSingleton<CFileManager>::GetInstance().EnumAllFiles(files, static_cast<int>(type));
    for (const std::string& file : files) {
      CFileClassify classify;
      if (!CFileClassify::ParseFilePath(file, classify)) {
        continue;
      }
      Stream& stream = byContent[classify.GetContentPath()];
      stream.day = classify.GetTime();
      stream.name = classify.GetName();
      stream.pid = classify.GetPid();
      stream.type = classify.GetType();
      stream.indexPath = classify.GetIndexPath();
      stream.contentPath = classify.GetContentPath();
      (file == stream.indexPath ? stream.hasIndex : stream.hasContent) = true;
    }
  }
  std::vector<Stream> streams;
  for (auto& entry : byContent) {
    streams.push_back(entry.second);
  }
  std::sort(streams.begin(), streams.end(), [](const Stream& a, const Stream& b) {
    return std::tie(a.day, a.name, a.pid, a.type, a.contentPath) <
           std::tie(b.day, b.name, b.pid, b.type, b.contentPath);
  });
  return streams;
}

// The maintenance-log directory (512 stands for it) and every directory of its own.
std::vector<unsigned int> AllStoreTypes(const std::vector<unsigned int>& ownTypes) {
  std::vector<unsigned int> types = {512};
  types.insert(types.end(), ownTypes.begin(), ownTypes.end());
  return types;
}

int List(const Options& options, const std::vector<unsigned int>& ownTypes) {
  const bool byType = options.given.count("--type") != 0;
  const std::vector<unsigned int> types =
      byType ? std::vector<unsigned int>{options.type} : AllStoreTypes(ownTypes);
  std::vector<Stream> shown;
  for (const Stream& stream : CollectStreams(types)) {
    if ((!byType || stream.type == options.type) &&
        (options.day.empty() || stream.day == options.day)) {
      shown.push_back(stream);
    }
  }
  if (shown.empty()) {
    std::fprintf(stderr, "nuvctl store: no streams found\n");
    return kExitOk;
  }
  std::printf("%-8s  %-20s %10s %6s %8s %12s\n", "DAY", "NAME", "PID", "TYPE", "RECORDS", "BYTES");
  for (const Stream& stream : shown) {
    const uint64_t records = stream.hasIndex ? SizeOrZero(stream.indexPath) / kIndexLineSize : 0;
    const uint64_t bytes = stream.hasContent ? SizeOrZero(stream.contentPath) : 0;
    std::printf("%-8s  %-20s %10u %6u %8llu %12llu\n", stream.day.c_str(), stream.name.c_str(),
                stream.pid, stream.type, static_cast<unsigned long long>(records),
                static_cast<unsigned long long>(bytes));
  }
  return kExitOk;
}

// What is wrong with a pair, or "" when its index is whole and inside its content.
std::string CheckPair(const Stream& stream) {
  if (!stream.hasIndex) return "index file missing";
  if (!stream.hasContent) return "content file missing";
  std::ifstream in(stream.indexPath, std::ios::binary);
  const std::string index((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return "index file unreadable";
  const uint64_t contentSize = SizeOrZero(stream.contentPath);
  const size_t lines = index.size() / kIndexLineSize;
  for (size_t i = 0; i < lines; ++i) {
    const std::string line = index.substr(i * kIndexLineSize, kIndexLineSize);
    IndexData entry;
    std::ostringstream problem;
    if (!entry.StringToIndex(line) || entry.ToString() != line) {
      problem << "line " << i + 1 << " is not an index line";
    } else if (!entry.IsValid()) {
      problem << "line " << i + 1 << " has length 0";
    } else if (uint64_t{entry.offset} + entry.length > contentSize) {
      problem << "line " << i + 1 << " (offset " << entry.offset << ", length " << entry.length
              << ") ends past the content's " << contentSize << " bytes";
    }
    if (!problem.str().empty()) return problem.str();
  }
  if (index.size() % kIndexLineSize != 0) {
    return "index ends in a partial line of " + std::to_string(index.size() % kIndexLineSize) +
           " bytes after line " + std::to_string(lines);
  }
  return "";
}

int Verify(const std::vector<unsigned int>& ownTypes) {
  const std::vector<Stream> streams = CollectStreams(AllStoreTypes(ownTypes));
  size_t bad = 0;
  for (const Stream& stream : streams) {
    const std::string problem = CheckPair(stream);
    if (!problem.empty()) {
      ++bad;
      std::printf("bad pair: %s: %s\n", stream.indexPath.c_str(), problem.c_str());
    }
  }
  if (bad != 0) {
    std::printf("%zu of %zu pairs bad\n", bad, streams.size());
    return kExitFailure;
  }
  std::printf("%zu pairs whole\n", streams.size());
  return kExitOk;
}

int Cat(const Options& options) {
  if (options.operands.size() != 3) {
    return UsageError("cat takes NAME PID TYPE");
  }
  const std::string& name = options.operands[0];
  unsigned int pid = 0;
  unsigned int type = 0;
  if (!CFileClassify::IsStoreName(name)) {
    return UsageError("NAME must be a store name (not empty, '.' or '..', no '/'), not '" + name +
                      "'");
  }
  if (!ParseUnsigned(options.operands[1], pid)) {
    return UsageError("PID must be a number, not '" + options.operands[1] + "'");
  }
  if (!ParseUnsigned(options.operands[2], type) || type == 0) {
    return UsageError("TYPE must be a number above 0, not '" + options.operands[2] + "'");
  }
  const std::string day = options.day.empty() ? GenerateCurrentTime("%Y%m%d", 16) : options.day;
  // The content path as the store lays it out, classified back by the library.
  std::string base = GetStoreBaseDirectory(type);
  if (base.empty() || base.back() != '/') base.push_back('/');
  CFileClassify classify;
  if (!CFileClassify::ParseFilePath(
          base + "/" + day + "/" + name + "/" + StreamName(name, pid, type), classify)) {
    return Failure("cannot classify stream " + StreamName(name, pid, type) + " under " + base);
  }
  // Opening a missing file would create it: the store is only read here.
  for (const std::string& path : {classify.GetIndexPath(), classify.GetContentPath()}) {
    if (is_file_exist(path.c_str()) == 0) {
      return Failure("no stream " + StreamName(name, pid, type) + " on " + day + " (" + path +
                     " does not exist)");
    }
  }
  CFileIndex index;
  CFileContent content;
  CError opened = index.InitFilePath(classify.GetIndexPath());
  if (opened.IsSuccess()) opened = content.InitFilePath(classify.GetContentPath());
  if (!opened.IsSuccess()) return Failure(opened.desc);

  const unsigned int total = static_cast<unsigned int>(index.GetIndexCounts());
  if (options.from > total && options.given.count("--from") != 0) {
    return Failure(StreamName(name, pid, type) + " on " + day + " has " + std::to_string(total) +
                   " records; --from " + std::to_string(options.from) + " is past the end");
  }
  unsigned int last = total;
  if (options.given.count("--count") != 0 && total >= options.from &&
      options.count - 1 < total - options.from) {
    last = options.from + options.count - 1;
  }
  for (unsigned int n = options.from; n <= last && n >= options.from; ++n) {
    IndexData entry;
    std::string record;
    CError read = index.ReadIndex(n, entry);
    if (IsReadOk(read)) read = content.ReadContent(entry, record);
    if (!IsReadOk(read)) {
      std::fflush(stdout);
      return Failure("record " + std::to_string(n) + ": " + read.desc);
    }
    record.push_back('\n');
    std::fwrite(record.data(), 1, record.size(), stdout);
  }
  return kExitOk;
}

int Clean(const Options& options) {
  // The pass reports what it packed and deleted in its INFO lines.
  if (std::getenv("NUV_LOG_LEVEL") == nullptr) {
    nuv_log_set_level(NUV_LOG_INFO);
  }
  if (options.given.count("--type") != 0) {
    CClearn::ClearnFiles(static_cast<int>(options.type));
    std::printf("clean-up pass done for type %u\n", options.type);
  } else {
    CClearn::ClearnAllTypes();
    std::printf("clean-up pass done for types");
    for (int type : CClearn::kClearnTypes) std::printf(" %d", type);
    std::printf("\n");
  }
  return kExitOk;
}

}  // namespace

int StoreMain(int argc, char** argv) {
  Options options;
  bool help = false;
  const int parsed = ParseArguments(argc, argv, options, help);
  if (parsed != kExitOk) return parsed;
  if (help) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  static const std::map<std::string, std::set<std::string>> kActions = {
      {"ls", {"--type", "--day"}},
      {"cat", {"--day", "--from", "--count"}},
      {"verify", {}},
      {"clean", {"--type"}},
  };
  if (options.action.empty()) {
    return UsageError("an action is needed: ls, cat, verify or clean");
  }
  const auto action = kActions.find(options.action);
  if (action == kActions.end()) {
    return UsageError("unknown action '" + options.action + "'");
  }
  const int applicable = CheckApplicable(options, action->second);
  if (applicable != kExitOk) return applicable;
  if (options.action != "cat" && !options.operands.empty()) {
    return UsageError("unexpected argument '" + options.operands[0] + "'");
  }

  const std::string config = options.config.empty() ? DefaultConfigPath() : options.config;
  std::vector<unsigned int> ownTypes;
  if (!LoadConfiguration(config, ownTypes)) return kExitFailure;

  if (options.action == "ls") return List(options, ownTypes);
  if (options.action == "cat") return Cat(options);
  if (options.action == "verify") return Verify(ownTypes);
  return Clean(options);
}

}  // namespace nuvctl

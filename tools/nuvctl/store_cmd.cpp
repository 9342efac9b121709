// nuvctl store: the on-disk store as the library sees it. Paths, classification and listings
// come from the library's own store classes and the daemon's configuration, so what is shown
// here is what the daemon and its clean-up pass work on.
#include <jansson.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "clearn/clearn.h"
#include "command.h"
#include "common/utils.h"
#include "config/config_addition.h"
#include "config/config_clearn.h"
#include "file/fileclassify.h"
#include "file/fileindex.h"
#include "file/filemanager.h"
#include "common/singleton.h"
#include "nuv_log.h"
#include "store_read.h"
#include "store_streams.h"
#include "table.h"

namespace nuvctl {
namespace {

const char kUsage[] =
    "usage: nuvctl store [--config PATH] ACTION [OPTIONS]\n"
    "\n"
    "actions:\n"
    "  ls [--type T] [--day YYYYMMDD] [--json]\n"
    "      list the streams: day, name, pid, type, record count and content bytes\n"
    "  cat NAME PID TYPE [--day YYYYMMDD | --since WHEN --until WHEN] [--from N] [--count K]\n"
    "      [-n N] [--monitor ID] [-f] [--json]\n"
    "      print the records of one stream, one per line (default: today's stream)\n"
    "  query [--name NAME] [--pid PID] [--type T] [--monitor ID] [--day YYYYMMDD]\n"
    "      [--since WHEN] [--until WHEN] [-n N] [-f] [--json]\n"
    "      print the records of every matching stream, in time order, each after its day,\n"
    "      name, pid and type (default: every day kept)\n"
    "  verify [--json]\n"
    "      check every index/content pair: whole 22-byte index lines, each pointing inside\n"
    "      the content file; lists the bad pairs and exits 1 when there are any\n"
    "  clean [--type T] [--dry-run]\n"
    "      run one clean-up pass now, the daemon's hourly pass (types 512, 8192, 16384 and\n"
    "      32768, or only T): past days are packed into DAY.tgz beside them, days and\n"
    "      archives older than the configured days are deleted; --dry-run only lists that\n"
    "\n"
    "reading options:\n"
    "  -S, --since WHEN, -U, --until WHEN\n"
    "                 YYYYMMDD or YYYY-MM-DD, optionally with ' HH:MM[:SS]' or 'THH:MM[:SS]';\n"
    "                 or today, yesterday, now. Inclusive; a day alone in --until takes the\n"
    "                 whole day. A record's time is its header/time; one without is placed\n"
    "                 by its day\n"
    "  -n, --lines N  only the last N records\n"
    "  -f, --follow   go on printing records as they are indexed, until interrupted\n"
    "  --json         one JSON object per line: day, name, pid, type, n, offset, length,\n"
    "                 time (when known), archived, record (the stored text)\n"
    "  --monitor ID   only records whose header/id is ID (a fired monitor's id)\n"
    "Archived days (DAY.tgz) are unpacked with tar into a temporary directory and read as\n"
    "if they were still directories.\n"
    "\n"
    "options:\n"
    "  --config PATH  configuration to read; default <dir of nuvctl>/../config/maintenance.json,\n"
    "                 the daemon's own\n"
    "  --help         print this help\n"
    "\n"
    "exit codes: 0 success, 1 failure or problems found, 2 usage error\n";

using Values = std::map<std::string, std::string>;

int UsageError(const std::string& message) { return nuvctl::UsageError("store", message); }

bool ParseUnsigned(const std::string& text, unsigned int& out) {
  if (text.empty() || text.size() > 10 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
  if (value > UINT_MAX) return false;
  out = static_cast<unsigned int>(value);
  return true;
}

std::string StreamName(const std::string& name, unsigned int pid, unsigned int type) {
  return name + "-" + std::to_string(pid) + "-" + std::to_string(type);
}

void PrintJsonLine(json_t* row) {
  char* text = json_dumps(row, JSON_COMPACT);
  std::printf("%s\n", text ? text : "{}");
  free(text);
  json_decref(row);
}

// The numeric options, checked; kExitOk or a usage error already reported.
int CheckNumbers(const Values& v, ReadOptions& read, unsigned int& type) {
  const struct {
    const char* option;
    unsigned int* out;
    unsigned int min;
    const char* what;
  } numbers[] = {
      {"--type", &type, 1, "a record type above 0"},
      {"--from", &read.from, 1, "a record number from 1"},
      {"--count", &read.count, 1, "a number above 0"},
      {"--lines", &read.last, 1, "a number above 0"},
      {"--pid", &read.pid, 0, "a process id"},
  };
  for (const auto& n : numbers) {
    const auto given = v.find(n.option);
    if (given == v.end()) continue;
    if (!ParseUnsigned(given->second, *n.out) || *n.out < n.min)
      return UsageError(std::string(n.option) + " takes " + n.what + ", not '" + given->second + "'");
  }
  return kExitOk;
}

int List(const Values& v, unsigned int type, const std::vector<unsigned int>& ownTypes) {
  const bool byType = v.count("--type") != 0;
  const std::string day = v.count("--day") ? v.at("--day") : "";
  const bool json = v.count("--json") != 0;
  std::vector<std::vector<std::string>> rows = {{"DAY", "NAME", "PID", "TYPE", "RECORDS", "BYTES"}};
  for (const Stream& s : CollectStreams(byType ? std::vector<unsigned int>{type} : AllStoreTypes(ownTypes), nullptr)) {
    if ((byType && s.type != type) || (!day.empty() && s.day != day)) continue;
    const uint64_t records = s.hasIndex ? FileSizeOrZero(s.indexPath) / kIndexLineSize : 0;
    const uint64_t bytes = s.hasContent ? FileSizeOrZero(s.contentPath) : 0;
    if (json) {
      PrintJsonLine(json_pack("{s:s, s:s, s:I, s:I, s:I, s:I, s:s}", "day", s.day.c_str(), "name",
                              s.name.c_str(), "pid", static_cast<json_int_t>(s.pid), "type",
                              static_cast<json_int_t>(s.type), "records",
                              static_cast<json_int_t>(records), "bytes",
                              static_cast<json_int_t>(bytes), "path", s.contentPath.c_str()));
      continue;
    }
    rows.push_back({s.day, s.name, std::to_string(s.pid), std::to_string(s.type),
                    std::to_string(records), std::to_string(bytes)});
  }
  if (rows.size() == 1 && !json) {
    std::fprintf(stderr, "nuvctl store: no streams found\n");
  } else if (!json) {
    PrintTable(rows, {false, false, true, true, true, true});
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
  const uint64_t contentSize = FileSizeOrZero(stream.contentPath);
  const size_t lines = index.size() / kIndexLineSize;
  for (size_t i = 0; i < lines; ++i) {
    const std::string line = index.substr(i * kIndexLineSize, kIndexLineSize);
    IndexData entry;
    std::ostringstream problem;
    switch (CheckIndexLine(line, contentSize, entry)) {
      case IndexLine::kStored:
        continue;
      case IndexLine::kNotALine:
        problem << "line " << i + 1 << " is not an index line";
        break;
      case IndexLine::kEmptyRecord:
        problem << "line " << i + 1 << " has length 0";
        break;
      case IndexLine::kPastContent:
        problem << "line " << i + 1 << " (offset " << entry.offset << ", length " << entry.length
                << ") ends past the content's " << contentSize << " bytes";
        break;
    }
    return problem.str();
  }
  if (index.size() % kIndexLineSize != 0) {
    return "index ends in a partial line of " + std::to_string(index.size() % kIndexLineSize) +
           " bytes after line " + std::to_string(lines);
  }
  return "";
}

int Verify(bool json, const std::vector<unsigned int>& ownTypes) {
  const std::vector<Stream> streams = CollectStreams(AllStoreTypes(ownTypes), nullptr);
  size_t bad = 0;
  for (const Stream& stream : streams) {
    const std::string problem = CheckPair(stream);
    if (json) {
      json_t* row = json_pack("{s:s, s:b}", "index", stream.indexPath.c_str(), "whole", problem.empty());
      if (!problem.empty()) json_object_set_new(row, "problem", json_string(problem.c_str()));
      PrintJsonLine(row);
    } else if (!problem.empty()) {
      std::printf("bad pair: %s: %s\n", stream.indexPath.c_str(), problem.c_str());
    }
    bad += problem.empty() ? 0 : 1;
  }
  if (!json && bad != 0) std::printf("%zu of %zu pairs bad\n", bad, streams.size());
  if (!json && bad == 0) std::printf("%zu pairs whole\n", streams.size());
  return bad == 0 ? kExitOk : kExitFailure;
}

// What the pass would do, by the same rules and in the same order, touching nothing.
int DryRunClean(const std::vector<int>& types) {
  const std::string today = CurrentDay();
  std::set<std::string> seen;
  size_t actions = 0;
  for (int type : types) {
    const bool logTypes = type == 512 || type == 256 || type == 4096;
    const int keep = logTypes ? CClearnCfg::GetInstance()->GetTimeInterval()
                              : CAdditionCtrlor::GetInstance()->GetClearnDay(type);
    const double keepSeconds = static_cast<double>(keep) * CClearn::kSecondsPerDay;
    std::vector<std::string> archives;
    if (CSingleton<CFileManager>::GetInstance().EnumFilesBySuffix(archives, ".tgz", type).IsSuccess()) {
      for (const std::string& archive : archives) {
        double seconds = 0;
        const std::string day = CFileClassify::GetCompressFileTime(archive, ".tgz");
        if (CFileClassify::DifferTime(day, today, seconds) && seconds >= keepSeconds &&
            seen.insert(archive).second) {
          std::printf("would delete %s (type %d keeps %d days)\n", archive.c_str(), type, keep);
          ++actions;
        }
      }
    }
    std::vector<std::string> files;
    if (!CSingleton<CFileManager>::GetInstance().EnumAllFiles(files, type).IsSuccess()) continue;
    for (const std::string& file : files) {
      CFileClassify classify;
      double seconds = 0;
      if (!CFileClassify::ParseFilePath(file, classify) ||
          !CFileClassify::DifferTime(classify.GetTime(), today, seconds)) {
        continue;
      }
      const std::string dir = classify.GetTimePath();
      if (seconds >= keepSeconds) {
        if (!dir.empty() && seen.insert(dir).second) {
          std::printf("would delete %s (type %d keeps %d days)\n", dir.c_str(), type, keep);
          ++actions;
        }
      } else if (seconds >= CClearn::kSecondsPerDay && seen.insert(dir).second) {
        std::printf("would pack %s into %s.tgz and remove it\n", dir.c_str(), dir.c_str());
        ++actions;
      }
    }
  }
  if (actions == 0) std::printf("nothing to clean\n");
  return kExitOk;
}

int Clean(const Values& v, unsigned int type) {
  std::vector<int> types(std::begin(CClearn::kClearnTypes), std::end(CClearn::kClearnTypes));
  if (v.count("--type") != 0) types = {static_cast<int>(type)};
  if (v.count("--dry-run") != 0) return DryRunClean(types);
  // The pass reports what it packed and deleted in its INFO lines.
  if (std::getenv("NUV_LOG_LEVEL") == nullptr) nuv_log_set_level(NUV_LOG_INFO);
  std::printf("clean-up pass done for type%s", types.size() > 1 ? "s" : "");
  for (int t : types) {
    CClearn::ClearnFiles(t);
    std::printf(" %d", t);
  }
  std::printf("\n");
  return kExitOk;
}

int Cat(const Values& v, const std::vector<std::string>& operands, ReadOptions& read) {
  if (operands.size() != 3) return UsageError("cat takes NAME PID TYPE");
  read.name = operands[0];
  if (!CFileClassify::IsStoreName(read.name))
    return UsageError("NAME must be a store name (not empty, '.' or '..', no '/'), not '" +
                      read.name + "'");
  if (!ParseUnsigned(operands[1], read.pid))
    return UsageError("PID must be a number, not '" + operands[1] + "'");
  if (!ParseUnsigned(operands[2], read.type) || read.type == 0)
    return UsageError("TYPE must be a number above 0, not '" + operands[2] + "'");
  read.byPid = true;
  read.types = {read.type};
  std::string what = StreamName(read.name, read.pid, read.type);
  if (v.count("--since") == 0 && v.count("--until") == 0) {
    const std::string day = v.count("--day") ? v.at("--day") : CurrentDay();
    read.since = day + " 00:00:00";
    read.until = day + " 23:59:59";
    what += " on " + day;
  }
  return ReadStore(read, what);
}

int Query(const Values& v, const std::vector<std::string>& operands, ReadOptions& read,
          unsigned int type, const std::vector<unsigned int>& ownTypes) {
  if (!operands.empty()) return UsageError("unexpected argument '" + operands[0] + "'");
  if (v.count("--name")) read.name = v.at("--name");
  read.byPid = v.count("--pid") != 0;
  read.type = type;
  read.types = type != 0 ? std::vector<unsigned int>{type} : AllStoreTypes(ownTypes);
  read.streamColumns = true;
  if (v.count("--day")) {
    read.since = v.at("--day") + " 00:00:00";
    read.until = v.at("--day") + " 23:59:59";
  }
  return ReadStore(read, "matches");
}

}  // namespace

int StoreMain(int argc, char** argv) {
  static const std::vector<OptionSpec> kSpecs = {
      {"config", 0, true}, {"type", 0, true},    {"day", 0, true},     {"from", 0, true},
      {"count", 0, true},  {"since", 'S', true}, {"until", 'U', true}, {"follow", 'f', false},
      {"json", 0, false},  {"lines", 'n', true}, {"name", 0, true},    {"pid", 0, true},
      {"monitor", 0, true}, {"dry-run", 0, false}};
  static const std::map<std::string, std::set<std::string>> kActions = {
      {"ls", {"--type", "--day", "--json"}},
      {"cat", {"--day", "--from", "--count", "--since", "--until", "--follow", "--json",
               "--lines", "--monitor"}},
      {"query", {"--name", "--pid", "--type", "--monitor", "--day", "--since", "--until",
                 "--follow", "--json", "--lines"}},
      {"verify", {"--json"}},
      {"clean", {"--type", "--dry-run"}},
  };
  Values v;
  std::vector<std::string> operands;
  const int parsed = ParseCommandLine("store", kUsage, argc, argv, kSpecs, v, operands);
  if (parsed != -1) return parsed;
  if (operands.empty()) return UsageError("an action is needed: ls, cat, query, verify or clean");
  const std::string action = operands.front();
  operands.erase(operands.begin());
  const auto allowed = kActions.find(action);
  if (allowed == kActions.end()) return UsageError("unknown action '" + action + "'");
  for (const auto& option : v) {
    if (option.first != "--config" && allowed->second.count(option.first) == 0)
      return UsageError("option " + option.first + " does not apply to '" + action + "'");
  }
  if (action != "cat" && action != "query" && !operands.empty())
    return UsageError("unexpected argument '" + operands[0] + "'");
  if (v.count("--day") && !CFileClassify::CheckDataTime(v.at("--day")))
    return UsageError("--day takes a date YYYYMMDD, not '" + v.at("--day") + "'");
  if (v.count("--day") && (v.count("--since") || v.count("--until")))
    return UsageError("--day and --since/--until exclude each other");
  ReadOptions read;
  unsigned int type = 0;
  const int numbers = CheckNumbers(v, read, type);
  if (numbers != kExitOk) return numbers;
  for (const char* bound : {"--since", "--until"}) {
    if (v.count(bound) == 0) continue;
    std::string& key = bound[2] == 's' ? read.since : read.until;
    if (!ParseWhen(v.at(bound), bound[2] == 'u', key))
      return UsageError(std::string(bound) + " takes YYYYMMDD or YYYY-MM-DD with an optional " +
                        "HH:MM[:SS], today, yesterday or now, not '" + v.at(bound) + "'");
  }
  if (!read.since.empty() && !read.until.empty() && read.since > read.until)
    return UsageError("--since is after --until");
  read.follow = v.count("--follow") != 0;
  read.json = v.count("--json") != 0;
  if (v.count("--monitor")) read.monitor = v.at("--monitor");

  const std::string config = v.count("--config") ? v.at("--config") : DefaultConfigPath();
  std::vector<unsigned int> ownTypes;
  if (!LoadStoreConfiguration(config, ownTypes)) return kExitFailure;

  if (action == "ls") return List(v, type, ownTypes);
  if (action == "cat") return Cat(v, operands, read);
  if (action == "query") return Query(v, operands, read, type, ownTypes);
  if (action == "verify") return Verify(read.json, ownTypes);
  return Clean(v, type);
}

}  // namespace nuvctl

#include "store_read.h"

#include <jansson.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>

#include "command.h"
#include "common/jsonutil.h"
#include "common/utils.h"
#include "file/fileindex.h"
#include "file/fileclassify.h"
#include "nuv_time.h"
#include "store_streams.h"

namespace nuvctl {
namespace {

constexpr useconds_t kFollowPollUs = 200000;
constexpr int kRescanPolls = 5;  // new streams are looked for every second

std::string Day(const std::string& key) { return key.substr(0, 8); }

bool StreamMatches(const ReadOptions& o, const Stream& s) {
  if (!s.hasIndex || !s.hasContent) return false;
  if (!o.name.empty() && s.name != o.name) return false;
  if (o.byPid && s.pid != o.pid) return false;
  if (o.type != 0 && s.type != o.type) return false;
  if (!o.since.empty() && s.day < Day(o.since)) return false;
  if (!o.until.empty() && s.day > Day(o.until)) return false;
  return true;
}

// A record without a time of its own is placed by its day alone.
bool RecordMatches(const ReadOptions& o, const Record& r) {
  const std::string& day = r.stream->day;
  if (!o.since.empty() && (r.time.empty() ? day < Day(o.since) : r.time < o.since)) return false;
  if (!o.until.empty() && (r.time.empty() ? day > Day(o.until) : r.time > o.until)) return false;
  if (!o.monitor.empty()) {
    JsonUtil document;
    std::string id;
    std::string wanted = o.monitor;
    if (document.JsonLoadString(r.text) != JsonUtil::kOk ||
        document.JsonGetString("/header/id", id, -1) != JsonUtil::kOk) {
      return false;
    }
    CorrectLowerString(id);
    CorrectLowerString(wanted);
    if (id != wanted) return false;
  }
  return true;
}

void Print(const ReadOptions& o, const Record& r) {
  const Stream& s = *r.stream;
  if (o.json) {
    json_t* row = json_object();
    json_object_set_new(row, "day", json_string(s.day.c_str()));
    json_object_set_new(row, "name", json_string(s.name.c_str()));
    json_object_set_new(row, "pid", json_integer(s.pid));
    json_object_set_new(row, "type", json_integer(s.type));
    json_object_set_new(row, "n", json_integer(r.number));
    json_object_set_new(row, "offset", json_integer(r.offset));
    json_object_set_new(row, "length", json_integer(r.length));
    if (!r.time.empty()) json_object_set_new(row, "time", json_string(r.time.c_str()));
    json_object_set_new(row, "archived", json_boolean(!s.archive.empty()));
    // The bytes as stored; records are text, and a record that is not UTF-8 is kept as is.
    json_t* text = json_stringn(r.text.data(), r.text.size());
    json_object_set_new(row, "record", text ? text : json_stringn_nocheck(r.text.data(), r.text.size()));
    char* line = json_dumps(row, JSON_COMPACT);
    json_decref(row);
    std::printf("%s\n", line ? line : "{}");
    free(line);
  } else if (o.streamColumns) {
    std::printf("%s %s %u %u %s\n", s.day.c_str(), s.name.c_str(), s.pid, s.type, r.text.c_str());
  } else {
    std::fwrite(r.text.data(), 1, r.text.size(), stdout);
    std::fputc('\n', stdout);
  }
}

// Reads what each stream holds beyond next[content path], keeps what matches; false after
// printing a read error, or, with `checkFrom`, that a stream ends before o.from.
bool ReadNew(const ReadOptions& o, const std::vector<Stream>& streams,
             std::map<std::string, unsigned int>& next, std::vector<Record>& out,
             bool checkFrom = false) {
  for (const Stream& s : streams) {
    auto at = next.find(s.contentPath);
    if (at == next.end()) at = next.emplace(s.contentPath, o.from).first;
    std::vector<Record> records;
    std::string error;
    if (!ReadRecords(s, at->second, records, error)) {
      std::fprintf(stderr, "nuvctl store: %s\n", error.c_str());
      return false;
    }
    at->second += static_cast<unsigned int>(records.size());
    if (checkFrom && records.empty() && o.from > 1) {
      std::fprintf(stderr, "nuvctl store: %s-%u-%u on %s has %u records; --from %u is past the end\n",
                   s.name.c_str(), s.pid, s.type, s.day.c_str(),
                   static_cast<unsigned int>(FileSizeOrZero(s.indexPath) / kIndexLineSize), o.from);
      return false;
    }
    std::string order = s.day + " ";
    for (Record& r : records) {
      if (o.count != 0 && r.number - o.from >= o.count) break;
      order = std::max(order, r.time);
      r.order = order;
      if (RecordMatches(o, r)) out.push_back(std::move(r));
    }
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const Record& a, const Record& b) { return a.order < b.order; });
  return true;
}

std::vector<Stream> Matching(const ReadOptions& o, ScratchDir* scratch) {
  const std::string from = o.since.empty() ? "" : Day(o.since);
  const std::string to = o.until.empty() ? "" : Day(o.until);
  std::vector<Stream> all = CollectStreams(o.types, scratch, from, to);
  std::vector<Stream> streams;
  for (const Stream& s : all) {
    if (StreamMatches(o, s)) streams.push_back(s);
  }
  return streams;
}

}  // namespace

bool ParseWhen(const std::string& when, bool end, std::string& key) {
  const std::string today = CurrentDay();
  if (when == "now") {
    key = GenerateCurrentTime("%Y%m%d %H:%M:%S", 32);
    return true;
  }
  std::string day, rest;
  if (when == "today" || when == "yesterday") {
    day = today;
    if (when == "yesterday") {
      const time_t t = static_cast<time_t>(nuv_time()) - 86400;
      struct tm local {};
      localtime_r(&t, &local);
      char text[16];
      strftime(text, sizeof text, "%Y%m%d", &local);
      day = text;
    }
  } else if (when.size() >= 10 && when[4] == '-' && when[7] == '-') {
    day = when.substr(0, 4) + when.substr(5, 2) + when.substr(8, 2);
    rest = when.substr(10);
  } else {
    day = when.substr(0, 8);
    rest = when.size() > 8 ? when.substr(8) : "";
  }
  if (day.find_first_not_of("0123456789") != std::string::npos ||
      !CFileClassify::CheckDataTime(day)) {
    return false;
  }
  int h = end ? 23 : 0, m = end ? 59 : 0, s = end ? 59 : 0;
  if (!rest.empty()) {
    char sep = 0, tail = 0;
    int fields = std::sscanf(rest.c_str(), "%c%2d:%2d:%2d%c", &sep, &h, &m, &s, &tail);
    if (fields == 3) s = end ? 59 : 0;
    if ((fields != 3 && fields != 4) || (sep != ' ' && sep != 'T') || h > 23 || m > 59 ||
        s > 59 || h < 0 || m < 0 || s < 0) {
      return false;
    }
  }
  char text[32];
  std::snprintf(text, sizeof text, "%s %02d:%02d:%02d", day.c_str(), h, m, s);
  key = text;
  return true;
}

int ReadStore(const ReadOptions& o, const std::string& what) {
  ScratchDir scratch;
  if (scratch.path().empty()) std::fprintf(stderr, "nuvctl store: no temporary directory; archived days are skipped\n");
  std::vector<Stream> streams = Matching(o, &scratch);
  if (streams.empty() && !o.follow) {
    std::fprintf(stderr, "nuvctl store: no stream %s\n", what.c_str());
    return kExitFailure;
  }
  std::map<std::string, unsigned int> next;
  std::vector<Record> records;
  if (!ReadNew(o, streams, next, records, o.from > 1)) return kExitFailure;
  size_t first = 0;
  if (o.last != 0 && records.size() > o.last) first = records.size() - o.last;
  for (size_t i = first; i < records.size(); ++i) Print(o, records[i]);
  std::fflush(stdout);
  for (int poll = 1; o.follow; ++poll) {
    usleep(kFollowPollUs);
    if (poll % kRescanPolls == 0) {
      // New streams (and the next day's) appear while following; archives do not change.
      std::vector<Stream> found = Matching(o, nullptr);
      for (Stream& s : found) {
        if (next.count(s.contentPath) == 0) next[s.contentPath] = 1;
      }
      for (const Stream& s : streams) {
        if (!s.archive.empty()) found.push_back(s);
      }
      streams.swap(found);
    }
    std::vector<Record> fresh;
    if (!ReadNew(o, streams, next, fresh)) return kExitFailure;
    for (const Record& r : fresh) Print(o, r);
    if (!fresh.empty() && std::fflush(stdout) != 0) return kExitFailure;
  }
  return kExitOk;
}

}  // namespace nuvctl

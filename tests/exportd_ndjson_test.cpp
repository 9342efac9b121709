// nuv_exportd writing NDJSON from what the real daemon stored: each line against
// `nuvctl store cat`, across torn index tails and a day packed before it was shipped.
#include <gtest/gtest.h>
#include <jansson.h>
#include <signal.h>

#include <cstdio>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "testutil/bus_post.h"
#include "testutil/testutil.h"

namespace {

std::string Point(const std::string& focus, int i, int type = 256) {
  std::string point =
      nuvtest::TimingPoint(focus, R"("text":"line\ttab \u00e9 \"q\"","seq":)" + std::to_string(i));
  return point.replace(point.find("256"), 3, std::to_string(type));
}

struct Line {
  std::string day;
  std::string stream;  // "name pid type"
  long long offset = 0;
  std::string record;
};

std::vector<Line> ReadNdjson(const std::string& path) {
  std::vector<Line> lines;
  for (const std::string& text : nuvtest::ReadLines(path)) {
    json_error_t error;
    json_t* root = json_loads(text.c_str(), 0, &error);
    EXPECT_NE(root, nullptr) << text;
    if (root == nullptr) continue;
    Line line;
    line.day = json_string_value(json_object_get(root, "day"));
    line.stream = std::string(json_string_value(json_object_get(root, "name"))) + " " +
                  std::to_string(json_integer_value(json_object_get(root, "pid"))) + " " +
                  std::to_string(json_integer_value(json_object_get(root, "type")));
    line.offset = json_integer_value(json_object_get(root, "offset"));
    line.record.assign(json_string_value(json_object_get(root, "record")),
                       json_string_length(json_object_get(root, "record")));
    lines.push_back(line);
    json_decref(root);
  }
  return lines;
}

class ExportNdjson : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tree_.ok());
    ASSERT_TRUE(nuvtest::WriteFile(tree_.Sub("config/exportd.json"),
                                   R"({"output": "ndjson", "ndjson_file": "../out.ndjson",
                                       "poll_ms": 50})"));
    setenv("NUV_COMM_DIR", tree_.Sub("comm").c_str(), 1);
    ASSERT_EQ(nuv_comm_init(), 0);
  }
  void TearDown() override {
    tree_.Stop();
    nuv_comm_uninit();
  }
  void PostPoints(const std::string& focus, int from, int to, int type = 256) {
    ASSERT_TRUE(tree_.StartServing()) << tree_.DaemonErr();
    for (int i = from; i < to; ++i) {
      ASSERT_EQ(nuvtest::PostOnBus("maintenance:POST", Point(focus, i, type)), 0);
    }
    ASSERT_EQ(tree_.Stop(), 0);
  }
  nuvtest::RunResult ExportOnce(const std::string& offset = "0") {
    return nuvtest::Run({tree_.Sub("bin/nuv_exportd"), "--once"},
                        {"NUV_LOG_FILE=" + tree_.Sub("export.log"), "NUV_TIME_OFFSET=" + offset,
                         "PATH=/usr/bin:/bin"},
                        dir_);
  }
  // nuvctl run a day later, when today's day is a past one.
  nuvtest::RunResult Tomorrow(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {tree_.Sub("bin/nuvctl")};
    argv.insert(argv.end(), args.begin(), args.end());
    return nuvtest::Run(argv, {"NUV_TIME_OFFSET=86400", "PATH=/usr/bin:/bin"}, dir_);
  }
  // A stream as nuvctl prints it, split back into records at the line feeds it adds.
  std::vector<std::string> Cat(const std::string& name, const std::string& pid) {
    const nuvtest::RunResult cat = tree_.Nuvctl({"store", "cat", name, pid, "256"});
    EXPECT_EQ(cat.code, 0) << cat.err;
    return nuvtest::ReadLines(Write(cat.out));
  }
  std::string Write(const std::string& text) {
    EXPECT_TRUE(nuvtest::WriteFile(dir_.Sub("cat.txt"), text));
    return dir_.Sub("cat.txt");
  }

  nuvtest::DaemonTree tree_{{"nuv_maintd", "nuvctl", "nuv_exportd"}};
  nuvtest::TempDir dir_;
};

TEST_F(ExportNdjson, LinesMatchTheStoreAcrossTornTailsAndAPackedDay) {
  PostPoints("/usr/bin/my-agent:5", 0, 20);
  PostPoints("/usr/bin/other:6", 0, 10);
  ASSERT_EQ(ExportOnce().code, 0) << nuvtest::ReadFile(tree_.Sub("export.log"));
  ASSERT_EQ(ReadNdjson(tree_.Sub("out.ndjson")).size(), 30u);

  // A line pointing past the content and a partial line are a torn tail: never shipped.
  std::string day;
  const std::vector<Line> first = ReadNdjson(tree_.Sub("out.ndjson"));
  day = first.front().day;
  const std::string index = tree_.Sub("data/" + day + "/my-agent/index-my-agent-0-256");
  ASSERT_TRUE(nuvtest::WriteFile(index, nuvtest::ReadFile(index) + "0000099999 0000000010\n00000"));
  ASSERT_EQ(ExportOnce().code, 0);
  EXPECT_EQ(ReadNdjson(tree_.Sub("out.ndjson")).size(), 30u);
  const nuvtest::RunResult lagging = tree_.Nuvctl({"export", "status"});
  EXPECT_EQ(lagging.code, 0) << lagging.err;
  // my-agent: 21 whole lines stored, 20 shipped, 1 behind.
  const size_t row = lagging.out.find("my-agent");
  std::istringstream fields(lagging.out.substr(row, lagging.out.find('\n', row) - row));
  std::vector<std::string> columns{std::istream_iterator<std::string>(fields), {}};
  EXPECT_EQ(columns, (std::vector<std::string>{"my-agent", "0", "256", "21", "20", "1",
                                               columns.back()}))
      << lagging.out;

  // The daemon cuts the tail when it starts; then the day is packed before the rest is shipped.
  PostPoints("/usr/bin/my-agent:5", 20, 25);
  const std::vector<std::string> mine = Cat("my-agent", "0");
  const std::vector<std::string> other = Cat("other", "0");
  ASSERT_EQ(mine.size(), 25u);
  ASSERT_EQ(Tomorrow({"store", "clean"}).code, 0);
  ASSERT_EQ(nuvtest::ReadFile(index), "");  // packed and removed
  ASSERT_NE(nuvtest::ReadFile(tree_.Sub("data/" + day + ".tgz")), "");
  const nuvtest::RunResult pending = Tomorrow({"export", "status", "--json"});
  EXPECT_NE(pending.out.find(day + ".tgz"), std::string::npos) << pending.out;

  // What an exporter killed in the middle of a write leaves.
  const std::string written = nuvtest::ReadFile(tree_.Sub("out.ndjson"));
  ASSERT_TRUE(nuvtest::WriteFile(tree_.Sub("out.ndjson"), written + "{\"day\":\"2"));
  ASSERT_EQ(ExportOnce("86400").code, 0);
  EXPECT_NE(nuvtest::ReadFile(tree_.Sub("export.log")).find("was packed; shipping what is left"),
            std::string::npos);
  std::map<std::string, std::vector<std::string>> shipped;
  std::map<std::string, long long> nextOffset;
  for (const Line& line : ReadNdjson(tree_.Sub("out.ndjson"))) {
    EXPECT_EQ(line.day, day);
    EXPECT_EQ(line.offset, nextOffset[line.stream]) << line.stream;
    nextOffset[line.stream] += static_cast<long long>(line.record.size());
    shipped[line.stream].push_back(line.record);
  }
  EXPECT_EQ(shipped["my-agent 0 256"], mine);
  EXPECT_EQ(shipped["other 0 256"], other);
  EXPECT_EQ(shipped.size(), 2u);
  const nuvtest::RunResult done = Tomorrow({"export", "status", "--json"});
  EXPECT_EQ(done.code, 0);
  EXPECT_NE(done.out.find("\"archives_pending\": []"), std::string::npos) << done.out;
}

// The daemon deletes a stream past its size limit and starts it again, and the new files may
// well get the old inode numbers back. The new stream is shipped from its first record, also
// when it holds no fewer records than were shipped of the old one.
TEST_F(ExportNdjson, StreamStartedAgainAtItsSizeLimitIsShippedFromItsStart) {
  // A limit of 0 MiB: every record after a stream's first starts the stream again.
  std::string config = nuvtest::ReadFile(tree_.ConfigPath());
  const std::string none = "\"addition\": {}";
  ASSERT_NE(config.find(none), std::string::npos);
  config.replace(config.find(none), none.size(),
                 R"("addition": {"small": {"file": {"path": ")" + tree_.Sub("small") +
                     R"(", "cache": 1}, "clearn": {"day": 7, "file_size": 0}, "bp_type": 16384}})");
  ASSERT_TRUE(nuvtest::WriteFile(tree_.ConfigPath(), config));

  PostPoints("/usr/bin/tiny:7", 0, 1, 16384);
  ASSERT_EQ(ExportOnce().code, 0) << nuvtest::ReadFile(tree_.Sub("export.log"));
  PostPoints("/usr/bin/tiny:7", 1, 2, 16384);
  ASSERT_EQ(ExportOnce().code, 0) << nuvtest::ReadFile(tree_.Sub("export.log"));

  const std::vector<Line> lines = ReadNdjson(tree_.Sub("out.ndjson"));
  ASSERT_EQ(lines.size(), 2u);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(lines[i].stream, "tiny 0 16384");
    EXPECT_EQ(lines[i].offset, 0);  // each record opened a stream of its own
    EXPECT_EQ(lines[i].record, Point("/usr/bin/tiny:7", i, 16384));
  }
  EXPECT_NE(nuvtest::ReadFile(tree_.Sub("export.log"))
                .find("started again; shipping it from its first record"),
            std::string::npos);
}

// logrotate moves the exporter's log away and sends SIGHUP: the exporter writes to a new file
// at the old path and goes on shipping; before, the signal killed it.
TEST_F(ExportNdjson, SighupReopensARotatedLogAndShippingGoesOn) {
  PostPoints("/usr/bin/hup:8", 0, 4);
  const std::string log = tree_.Sub("export.log");
  const int pid = nuvtest::Spawn({tree_.Sub("bin/nuv_exportd")},
                                 {"NUV_LOG_FILE=" + log, "PATH=/usr/bin:/bin"}, "",
                                 dir_.Sub("export.out"), dir_.Sub("export.err"));
  ASSERT_GT(pid, 0);
  const std::string out = tree_.Sub("out.ndjson");
  EXPECT_TRUE(nuvtest::Eventually([&] { return ReadNdjson(out).size() == 4; }));

  ASSERT_EQ(::rename(log.c_str(), (log + ".1").c_str()), 0);
  ASSERT_EQ(::kill(pid, SIGHUP), 0);
  const std::string reopened = "[exportd] SIGHUP received, log reopened";
  EXPECT_TRUE(nuvtest::Eventually([&] { return nuvtest::ReadFile(log).find(reopened) != std::string::npos; }));
  PostPoints("/usr/bin/hup:8", 4, 7);
  EXPECT_TRUE(nuvtest::Eventually([&] { return ReadNdjson(out).size() == 7; }));

  ASSERT_EQ(::kill(pid, SIGTERM), 0);
  EXPECT_EQ(nuvtest::WaitExit(pid), 0) << nuvtest::ReadFile(dir_.Sub("export.err"));
  EXPECT_NE(nuvtest::ReadFile(log + ".1").find("[exportd] started"), std::string::npos);
  EXPECT_EQ(nuvtest::ReadFile(log + ".1").find(reopened), std::string::npos);
  EXPECT_NE(nuvtest::ReadFile(log).find("[exportd] stopped"), std::string::npos);
  std::vector<std::string> records;
  for (const Line& line : ReadNdjson(out)) records.push_back(line.record);
  EXPECT_EQ(records, Cat("hup", "0"));
}

TEST_F(ExportNdjson, StatusUsage) {
  const struct {
    std::vector<std::string> args;
    int code;
    std::string text;  // in stdout for 0, in stderr otherwise
  } cases[] = {
      {{"export"}, 2, "an action is needed: status"},
      {{"export", "status", "--frob"}, 2, "unknown option '--frob'"},
      {{"help", "export"}, 0, "usage: nuvctl export"},
      {{"export", "--config", "/nonexistent.json", "status"}, 1, "cannot load /nonexistent.json"},
  };
  for (const auto& c : cases) {
    const nuvtest::RunResult result = tree_.Nuvctl(c.args);
    EXPECT_EQ(result.code, c.code) << result.err;
    EXPECT_NE((c.code == 0 ? result.out : result.err).find(c.text), std::string::npos)
        << result.out << result.err;
  }
}

}  // namespace

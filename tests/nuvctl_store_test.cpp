// nuvctl store run as an operator runs it, against a store written byte by byte from its formats:
// index lines "%010d %010d\n", records back to back, BASE/DAY/NAME/{index-,}NAME-PID-TYPE.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "testutil/testutil.h"

namespace {

using Rows = std::vector<std::vector<std::string>>;

bool Exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// Whitespace-separated fields of every stdout line after the header.
Rows Table(const std::string& text) {
  Rows rows;
  std::istringstream lines(text);
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    rows.emplace_back();
    for (std::string field; fields >> field;) rows.back().push_back(field);
  }
  return rows;
}

class NuvctlStore : public ::testing::Test {
 protected:
  void SetUp() override {
    // The tool's "today" is 10 March 2024, noon.
    std::tm noon{};
    noon.tm_year = 124;
    noon.tm_mon = 2;
    noon.tm_mday = 10;
    noon.tm_hour = 12;
    noon.tm_isdst = -1;
    offset_ = std::to_string(static_cast<long long>(std::mktime(&noon) - std::time(nullptr)));

    ASSERT_TRUE(nuvtest::WriteFile(config_, R"({"default": {"cache": {"size": 100},
        "collect_sdk": {"frequency": 5, "monitor_type": 31, "hit_rate": 80},
        "perf_monitor": [],
        "file": {"cahce": 1024, "path": ")" + store_ + R"("},
        "clearn": {"day": 7, "file_size": 10}},
      "addition": {"extra": {"file": {"path": ")" + extra_ + R"(", "cache": 1},
                             "clearn": {"day": 7, "file_size": 1}, "bp_type": 16384}}})"));
    WriteStream(store_, "20240310", "app", 7, 512, {"alpha", R"({"k": 1})", "gamma"});
    WriteStream(store_, "20240309", "app", 7, 512, {"yesterday"});
    WriteStream(store_, "20240309", "web", 8, 256, {"w1", "w2"});
    WriteStream(store_, "20240301", "old", 1, 512, {"old"});
    WriteStream(extra_, "20240310", "bp", 0, 16384, {"bp"});
  }

  static std::string Pair(const std::string& base, const std::string& day, const std::string& name,
                          unsigned int pid, unsigned int type, bool index) {
    return base + "/" + day + "/" + name + "/" + (index ? "index-" : "") + name + "-" +
           std::to_string(pid) + "-" + std::to_string(type);
  }

  static void WriteStream(const std::string& base, const std::string& day, const std::string& name,
                          unsigned int pid, unsigned int type,
                          const std::vector<std::string>& records) {
    std::string dir;
    for (const std::string& part : {base, "/" + day, "/" + name}) {
      dir += part;
      ::mkdir(dir.c_str(), 0755);
    }
    std::string index;
    std::string content;
    for (const std::string& record : records) {
      char line[32];
      std::snprintf(line, sizeof line, "%010d %010d\n", static_cast<int>(content.size()),
                    static_cast<int>(record.size()));
      index += line;
      content += record;
    }
    ASSERT_TRUE(nuvtest::WriteFile(Pair(base, day, name, pid, type, true), index));
    ASSERT_TRUE(nuvtest::WriteFile(Pair(base, day, name, pid, type, false), content));
  }

  // Runs nuvctl with `args`, the environment holding only PATH (for tar) and the clock offset.
  nuvtest::RunResult Run(std::vector<std::string> args) {
    args.insert(args.begin(), nuvtest::BuildDir() + "/bin/nuvctl");
    const char* path = std::getenv("PATH");
    return nuvtest::Run(
        args,
        {std::string("PATH=") + (path ? path : "/usr/bin:/bin"), "NUV_TIME_OFFSET=" + offset_},
        root_);
  }

  nuvtest::RunResult Store(std::vector<std::string> args) {
    args.insert(args.begin(), {"store", "--config", config_});
    return Run(args);
  }

  nuvtest::TempDir root_;
  const std::string store_ = root_.Sub("store");
  const std::string extra_ = root_.Sub("extra");
  const std::string config_ = root_.Sub("maintenance.json");
  std::string offset_;
};

TEST_F(NuvctlStore, LsAndCat) {
  const std::vector<std::string> old = {"20240301", "old", "1", "512", "1", "3"};
  const std::vector<std::string> yApp = {"20240309", "app", "7", "512", "1", "9"};
  const std::vector<std::string> yWeb = {"20240309", "web", "8", "256", "2", "4"};
  const std::vector<std::string> tApp = {"20240310", "app", "7", "512", "3", "18"};
  const std::vector<std::string> tBp = {"20240310", "bp", "0", "16384", "1", "2"};
  const struct {
    std::vector<std::string> args;
    int code;
    std::string text;  // cat's stdout, or expected in stderr on failure
    Rows rows;         // ls's table
  } cases[] = {
      {{"ls"}, 0, "", {old, yApp, yWeb, tApp, tBp}},
      {{"ls", "--type", "256"}, 0, "", {yWeb}},
      {{"ls", "--type=16384"}, 0, "", {tBp}},
      {{"ls", "--day", "20240310"}, 0, "", {tApp, tBp}},
      {{"cat", "app", "7", "512"}, 0, "alpha\n{\"k\": 1}\ngamma\n", {}},
      {{"cat", "app", "7", "512", "--from", "2", "--count", "1"}, 0, "{\"k\": 1}\n", {}},
      {{"cat", "app", "7", "512", "--from", "2", "--count", "99"}, 0, "{\"k\": 1}\ngamma\n", {}},
      {{"cat", "web", "8", "256", "--day", "20240309"}, 0, "w1\nw2\n", {}},
      {{"cat", "bp", "0", "16384"}, 0, "bp\n", {}},
      {{"cat", "gone", "1", "512"}, 1, "no stream gone-1-512 on 20240310", {}},
      {{"cat", "app", "7", "512", "--from", "4"}, 1, "", {}},
  };
  for (const auto& c : cases) {
    const nuvtest::RunResult result = Store(c.args);
    EXPECT_EQ(result.code, c.code) << result.err;
    if (c.code != 0) {
      EXPECT_NE(result.err.find(c.text), std::string::npos) << result.err;
    } else if (c.args[0] == "ls") {
      EXPECT_EQ(Table(result.out), c.rows) << c.args.back();
    } else {
      EXPECT_EQ(result.out, c.text);
    }
  }
  EXPECT_FALSE(Exists(store_ + "/20240310/gone"));  // reading creates nothing
}

TEST_F(NuvctlStore, UsageErrorsAndHelp) {
  const struct {
    std::vector<std::string> args;
    int code;
    std::string text;  // expected in stdout for 0, in stderr otherwise
  } cases[] = {
      {{}, 2, "usage: nuvctl"},
      {{"frob"}, 2, "unknown command 'frob'"},
      {{"--help"}, 0, "store "},
      {{"store"}, 2, "an action is needed"},
      {{"store", "ls", "--from", "2"}, 2, "--from does not apply to 'ls'"},
      {{"store", "ls", "--day", "20241301"}, 2, "--day takes a date"},
      {{"store", "--config", "/nonexistent/m.json", "ls"}, 1, "cannot load the configuration"},
  };
  for (const auto& c : cases) {
    const nuvtest::RunResult result = Run(c.args);
    EXPECT_EQ(result.code, c.code) << result.err;
    const std::string& text = c.code == 0 ? result.out : result.err;
    EXPECT_NE(text.find(c.text), std::string::npos) << text;
  }
}

TEST_F(NuvctlStore, VerifyListsEveryBrokenPair) {
  nuvtest::RunResult whole = Store({"verify"});
  EXPECT_EQ(whole.code, 0) << whole.out;
  EXPECT_EQ(whole.out, "5 pairs whole\n");

  const std::string partial = Pair(store_, "20240310", "app", 7, 512, true);
  const std::string pastEnd = Pair(store_, "20240309", "web", 8, 256, true);
  const std::string orphan = Pair(store_, "20240301", "old", 1, 512, true);
  ASSERT_TRUE(nuvtest::WriteFile(partial, nuvtest::ReadFile(partial) + "0000000018 00"));
  ASSERT_TRUE(nuvtest::WriteFile(pastEnd, "0000000000 0000000002\n0000000002 0000000003\n"));
  ASSERT_EQ(::unlink(Pair(store_, "20240301", "old", 1, 512, false).c_str()), 0);

  const nuvtest::RunResult broken = Store({"verify"});
  EXPECT_EQ(broken.code, 1);
  EXPECT_EQ(broken.out,
            "bad pair: " + orphan + ": content file missing\nbad pair: " + pastEnd +
                ": line 2 (offset 2, length 3) ends past the content's 4 bytes\nbad pair: " +
                partial + ": index ends in a partial line of 13 bytes after line 3\n" +
                "3 of 5 pairs bad\n");
}

// Records placed by their header time across days, selected by bounds that fall exactly on
// records, then read the same way after their day was packed into an archive.
TEST_F(NuvctlStore, QueryByTimeFiltersAndArchivedDays) {
  const auto point = [](const std::string& id, const std::string& time) {
    return R"({"header": {"id": ")" + id + R"(", "time": ")" + time + R"("}})";
  };
  const std::string late9 = point("m1", "2024/03/09 23:59:59");
  const std::string at8 = point("m1", "2024/03/10 08:00:00");
  const std::string at930 = point("M2", "2024-03-10T09:30:00");
  WriteStream(store_, "20240309", "timed", 1, 512, {late9});
  WriteStream(store_, "20240310", "timed", 2, 512, {at8, at930});
  const auto lines = [](const std::vector<std::string>& records) {
    std::string out;
    for (const std::string& r : records) out += r + "\n";
    return out;
  };
  const struct {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      {{"--since", "2024-03-10 09:30"}, lines({at930})},
      {{"--until", "20240309"}, lines({late9})},
      {{"--since", "20240309 23:59:59", "--until", "2024-03-10T08:00"}, lines({late9, at8})},
      {{"--since", "20240309T23:59:58", "--until", "20240310 07:59:59"}, lines({late9})},
      {{"--monitor", "m2"}, lines({at930})},
      {{"-n", "2"}, lines({at8, at930})},
      {{"--pid", "1"}, lines({late9})},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"query", "--name", "timed"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const nuvtest::RunResult result = Store(args);
    EXPECT_EQ(result.code, 0) << result.err;
    std::string expected;
    for (size_t at = 0, end; (end = c.out.find('\n', at)) != std::string::npos; at = end + 1) {
      const std::string record = c.out.substr(at, end - at);
      const bool ninth = record == late9;
      expected += std::string(ninth ? "20240309 timed 1" : "20240310 timed 2") + " 512 " + record + "\n";
    }
    EXPECT_EQ(result.out, expected) << c.args[0];
  }
  const nuvtest::RunResult bad = Store({"query", "--since", "2024-13-01"});
  EXPECT_EQ(bad.code, 2);
  EXPECT_NE(bad.err.find("--since takes YYYYMMDD"), std::string::npos) << bad.err;

  const std::string json =
      R"({"day":"20240310","name":"timed","pid":2,"type":512,"n":2,"offset":)" +
      std::to_string(at8.size()) + R"(,"length":)" + std::to_string(at930.size()) +
      R"(,"time":"20240310 09:30:00","archived":false,"record":"{\"header\": {\"id\": \"M2\", )"
      R"(\"time\": \"2024-03-10T09:30:00\"}}"})" + "\n";
  EXPECT_EQ(Store({"cat", "timed", "2", "512", "--json", "-n1"}).out, json);

  // Packed, the ninth is read from 20240309.tgz byte for byte.
  ASSERT_EQ(Store({"clean"}).code, 0);
  ASSERT_FALSE(Exists(store_ + "/20240309"));
  EXPECT_EQ(Store({"cat", "web", "8", "256", "--day", "20240309"}).out, "w1\nw2\n");
  const nuvtest::RunResult archived = Store({"cat", "timed", "1", "512", "--since", "yesterday",
                                             "--until", "yesterday", "--json"});
  EXPECT_EQ(archived.code, 0) << archived.err;
  EXPECT_EQ(archived.out,
            R"({"day":"20240309","name":"timed","pid":1,"type":512,"n":1,"offset":0,"length":)" +
                std::to_string(late9.size()) +
                R"(,"time":"20240309 23:59:59","archived":true,"record":"{\"header\": {\"id\": )"
                R"(\"m1\", \"time\": \"2024/03/09 23:59:59\"}}"})" "\n");
}

TEST_F(NuvctlStore, CleanPacksYesterdayAndRemovesExpiredDays) {
  const nuvtest::RunResult dry = Store({"clean", "--dry-run"});
  EXPECT_EQ(dry.code, 0) << dry.err;
  EXPECT_EQ(dry.out, "would delete " + store_ + "/20240301 (type 512 keeps 7 days)\nwould pack " +
                         store_ + "/20240309 into " + store_ + "/20240309.tgz and remove it\n")
      << dry.out;
  EXPECT_TRUE(Exists(store_ + "/20240301"));
  EXPECT_FALSE(Exists(store_ + "/20240309.tgz"));

  // What the pass packs and deletes is the clean-up's own test; here, that nuvctl ran it over
  // the configured bases and today's streams are the ones left.
  const nuvtest::RunResult result = Store({"clean"});
  EXPECT_EQ(result.code, 0) << result.err;
  const nuvtest::RunResult after = Store({"ls"});
  EXPECT_EQ(Table(after.out).size(), 2u) << after.out;
}

}  // namespace

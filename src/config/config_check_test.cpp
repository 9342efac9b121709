// The configuration check over broken variants of the shipped file: each problem found with its
// key and kind, nothing reported for values at the edge of their ranges.
#include "config/config_check.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testutil/testutil.h"

namespace {

std::string Shipped() { return nuvtest::ReadFile(nuvtest::BuildDir() + "/config/maintenance.json"); }

// The shipped text with `from` replaced by `to`.
std::string With(const std::string& from, const std::string& to) {
  std::string text = Shipped();
  const size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return text;
}

std::string Addition(int day, int size, int type) {
  return R"("addition": {"t": {"file": {"path": "x", "cache": 1}, "clearn": {"day": )" +
         std::to_string(day) + R"(, "file_size": )" + std::to_string(size) +
         R"(}, "bp_type": )" + std::to_string(type) + "}}";
}

// "kind key" of each problem: E (load), R (range), S (skipped monitor).
std::vector<std::string> Found(const std::vector<ConfigProblem>& problems) {
  std::vector<std::string> out;
  for (const ConfigProblem& p : problems) {
    const char* kind = p.kind == ConfigProblem::kLoad ? "E " : p.kind == ConfigProblem::kRange ? "R " : "S ";
    out.push_back(kind + p.key);
  }
  return out;
}

using Lines = std::vector<std::string>;

TEST(ConfigCheck, BrokenFilesNameEveryProblemByItsKey) {
  ASSERT_FALSE(Shipped().empty());
  const struct {
    std::string text;
    Lines found;
  } cases[] = {
      {Shipped(), {}},
      // Sizes in MiB become bytes in 32 bits; the library aborts at start beyond them.
      {With("\"file_size\": 10", "\"file_size\": 4096"), {"R /default/clearn/file_size"}},
      {With("\"file_size\": 10", "\"file_size\": -2049"), {"R /default/clearn/file_size"}},
      {With("\"file_size\": 10", "\"file_size\": 2047"), {}},
      {With("\"file_size\": 10", "\"file_size\": 0"), {}},  // below 1: the default size
      // Ages in days become seconds in 32 bits at the hourly clean-up pass.
      {With("\"day\": 7", "\"day\": 30000"), {"R /default/clearn/day"}},
      {With("\"day\": 7", "\"day\": 24855"), {}},
      {With("\"day\": 7", "\"day\": -30000"), {}},  // below 1: the default age
      {With("\"addition\": {}", Addition(24856, 1, 8192)), {"R /addition/t/clearn/day"}},
      {With("\"addition\": {}", Addition(-24856, 1, 32768)), {"R /addition/t/clearn/day"}},
      {With("\"addition\": {}", Addition(99999, 1, 100)), {}},  // type 100 is never cleaned
      {With("\"addition\": {}", Addition(1, 4096, 100)), {"R /addition/t/clearn/file_size"}},
      {With("\"hit_rate\": 80", "\"hit_rate\": 101"), {"R /default/collect_sdk/hit_rate"}},
      {With("\"frequency\": 5", "\"frequency\": 0"), {"R /default/collect_sdk/frequency"}},
      {With("\"size\": 1000", "\"size\": 5000000000"), {"R /default/cache/size"}},
      // What start refuses by itself.
      {With("\"size\": 1000", "\"size\": \"1000\""), {"E /default/cache/size"}},
      {With("\"file_size\": 10", "\"file_size\": 1.5"), {"E /default/clearn/file_size"}},
      {With("\"path\": \"../data\"", "\"path\": 3"), {"E /default/file/path"}},
      {With("\"addition\": {}", "\"addition\": []"), {"E /addition"}},
      {With("\"addition\": {}", R"("addition": {"t": {"bp_type": 1}})"),
       {"E /addition/t/file/path", "E /addition/t/file/cache", "E /addition/t/clearn/day",
        "E /addition/t/clearn/file_size"}},
      {"{ not json", {"E "}},
      // A monitor element the loader skips is only a warning.
      {With("\"id\": \"system-cpu\",", ""), {"S /default/perf_monitor/0/id"}},
  };
  for (const auto& c : cases) {
    const std::vector<ConfigProblem> problems = CheckConfigText(c.text);
    EXPECT_EQ(Found(problems), c.found) << c.text;
    bool range = false;
    for (const std::string& f : c.found) range = range || f[0] == 'R';
    EXPECT_EQ(HasConfigRangeErrors(problems), range);
  }
  const std::vector<ConfigProblem> problems =
      CheckConfigText(With("\"file_size\": 10", "\"file_size\": 4096"));
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].ToString(),
            "error: /default/clearn/file_size: 4096 is out of range -2048..2047 (MiB times "
            "1048576 must fit in 32 bits; the library aborts at start otherwise)");
}

// Found by fuzzing: start reads the file line by line and drops what follows a NUL byte in a
// line, so a file that is not JSON as bytes can load. The check reads it the same way.
TEST(ConfigCheck, FileIsReadAsStartReadsIt) {
  nuvtest::TempDir dir;
  std::string text = With("\"file_size\": 10", "\"file_size\": 4096");
  const std::string line = "\"collect_sdk\": {";
  text.insert(text.find(line) + line.size(), std::string("\0 not json \" {", 14));
  ASSERT_TRUE(nuvtest::WriteFile(dir.Sub("m.json"), text));
  EXPECT_EQ(Found(CheckConfigFile(dir.Sub("m.json"))), Lines{"R /default/clearn/file_size"});
  EXPECT_EQ(Found(CheckConfigFile(dir.Sub("missing.json"))), Lines{"E "});
}

}  // namespace

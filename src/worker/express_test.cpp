#include "worker/express.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>
#include <vector>

#include "testutil/testutil.h"

namespace {

struct Sample {
  float cpu;
  unsigned int memory, threads, handles, rio, wio;
  bool system;  // a system sample defines neither T nor H, and R and W as 0
};

// The callers' order: A, the sample's letters, the text, evaluation.
CError Evaluate(const std::string& text, const Sample& s, bool& hit) {
  CExpress express;
  express.SetAllValue(true);
  express.SetCpuValue(s.cpu);
  express.SetMemoryValue(s.memory);
  if (!s.system) express.SetThreadValue(s.threads), express.SetHandleValue(s.handles);
  express.SetWIoValue(s.system ? 0 : s.wio);
  express.SetRIoValue(s.system ? 0 : s.rio);
  express.SetExpress(text);
  return express.EvalExpress(hit);
}

TEST(CExpress, ConditionsTable) {
  const Sample cpu50{50.0f, 0, 0, 0, 0, 0, false}, cpu50half{50.5f, 0, 0, 0, 0, 0, false};
  const Sample busy{10.0f, 200, 11, 3, 20, 30, false}, idle{0.0f, 0, 0, 0, 0, 0, false};
  const Sample maxMemory{0.0f, 4294967295u, 0, 0, 0, 0, false};
  const Sample system{95.0f, 5000, 0, 0, 0, 0, true};
  const struct {
    const char* text;
    Sample sample;
    int code;
    bool hit;
  } rows[] = {
      {"C>50", cpu50, 0, false}, {"C>50", cpu50half, 0, true}, {"C>=50", cpu50, 0, true},
      {"C<=50&&M>100", busy, 0, true}, {"C<=50&&M>300", busy, 0, false},
      {"C>90||T>10", busy, 0, true}, {"(R>10)&&(W>25)&&(H<4)", busy, 0, true},
      {"M", idle, 0, false},
      // Letters carry raw unsigned figures: the largest is not -1.
      {"M>4294967294", maxMemory, 0, true}, {"M>4294967295", maxMemory, 0, false},
      {"M==5000&&R==0&&W==0", system, 0, true},
      // "A" hits unevaluated, even over text the parser would refuse.
      {"A|C>90", idle, 0, true}, {"A&&T>1", system, 0, true},
      // Single "|" and "&" are not operators of the parser's grammar.
      {"C>90|M>1", busy, 107, false}, {"C>90&M>1", busy, 107, false},
      {"H>10", system, 107, false}, {"C>", busy, 107, false}, {"", busy, 106, false},
  };
  for (const auto& row : rows) {
    bool hit = true;
    EXPECT_EQ(Evaluate(row.text, row.sample, hit).code, row.code) << row.text;
    EXPECT_EQ(hit, row.code == 0 ? row.hit : true) << row.text << ": failures leave hit alone";
  }
}

TEST(CExpress, ErrorTextsAndLogLines) {
  const Sample system{99.0f, 0, 0, 0, 0, 0, true};
  bool hit = false;
  CError error;
  std::vector<std::string> lines =
      nuvtest::CaptureMessages([&] { error = Evaluate("T>10", system, hit); });
  EXPECT_EQ(error.desc, "eval express failed, express = T>10");
  ASSERT_EQ(lines.size(), 5u) << ::testing::PrintToString(lines);
  // The parser's message, token, position and code, each on a line of its own.
  const std::string head = R"(\[ERROR\] \[Express\]::Exception )";
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(head + R"(message = .+\. )"))) << lines[0];
  EXPECT_NE(lines[0], "[ERROR] [Express]::Exception message = T. ");
  EXPECT_EQ(lines[1] + lines[2], "[ERROR] [Express]::Exception token = T. "
                                 "[ERROR] [Express]::Exception position = 0. ");
  EXPECT_TRUE(std::regex_match(lines[3], std::regex(head + R"(code = \d+\. )"))) << lines[3];
  EXPECT_EQ(lines[4],
            "[ERROR] [CExpress]::EvalExpress, express execute failed, express str = T>10.");

  lines = nuvtest::CaptureMessages([&] { error = Evaluate("", system, hit); });
  EXPECT_EQ(error.desc, "express failed, express = empty");
  EXPECT_EQ(lines,
            std::vector<std::string>{"[ERROR] [CExpress]::EvalExpress, express string empty."});
}

// Expressions whose error token or message is longer than the parser's text buffer (2 KiB):
// refused with their error lines, never a crash. Up to the safe length the parser's own texts
// are logged; beyond it a bounded excerpt of ours.
TEST(CExpress, ErrorsOfAnyLengthAndContentAreLoggedBounded) {
  const Sample busy{10.0f, 200, 11, 3, 20, 30, false};
  std::mt19937 random(7);
  std::string noise(4096, ' ');
  for (char& c : noise) c = static_cast<char>(1 + random() % 255);
  // "A" would make it always hit; a line feed would split the lines counted below.
  for (char& c : noise) c = c == 'A' ? 'B' : c == '\n' ? ' ' : c;
  const struct {
    std::string text;
    bool parserTexts;
  } rows[] = {
      {"C>1 " + std::string(1700, 'C'), true},
      {"C>1 " + std::string(2048, 'C'), false},
      {"C>1 " + std::string(64 * 1024, 'M'), false},
      {"C>" + std::string(64 * 1024, '('), false},
      {noise, false},
  };
  for (const auto& row : rows) {
    bool hit = false;
    CError error;
    const std::vector<std::string> lines =
        nuvtest::CaptureMessages([&] { error = Evaluate(row.text, busy, hit); });
    EXPECT_EQ(error.code, 107) << row.text.size();
    // Four lines per error the parser reports (one more for an expression over its own
    // length limit), then the evaluation's line.
    ASSERT_TRUE(lines.size() == 5u || lines.size() == 9u) << row.text.size();
    EXPECT_EQ(lines.back().rfind("[ERROR] [CExpress]::EvalExpress, express execute failed", 0), 0u);
    const bool ours = lines[0].find("error text not read") != std::string::npos;
    EXPECT_EQ(ours, !row.parserTexts) << lines[0].substr(0, 200);
    if (ours) {
      EXPECT_EQ(lines[0], "[ERROR] [Express]::Exception message = error text not read, the "
                          "expression of " + std::to_string(row.text.size()) +
                          " bytes could overflow the parser's 2048-byte text buffer. ");
      EXPECT_LE(lines[1].size(), 120u) << lines[1];
    }
  }
}

}  // namespace

#include "worker/slidingwindow.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "testutil/testutil.h"

namespace {

ProcessInfo Process(uint32_t pid, float cpu = 0.0f) {
  ProcessInfo p;
  p.pid = pid;
  p.cpu = cpu;
  return p;
}

TEST(CSlidingWindow, SetConditionTable) {
  const std::string kBadChar = "check condition failed, have invalid character. condition = ";
  const struct {
    const char* condition;
    unsigned int collector;
    uint32_t cycle, frequency, blocks;  // all 0: refused
    std::string reason;                 // the ERROR line's message after "[CSlidingWindow]::"
  } rows[] = {
      {"C>80/60", 10, 60, 10, 6, ""},
      {"C>80/7200", 5, 1800, 10, 180, ""},  // cycle clamped
      {"C>80/1801", 1, 1800, 10, 180, ""},  // k runs up to 10
      {"C>80/1790", 3, 1790, 12, 150, ""},  // 597, 299, 199, then 150 at k = 4
      {"C>80/1000", 7, 1000, 7, 143, ""},   // ceiling of 142.86
      {" C>80 / 10 ", 10, 10, 10, 1, ""},
      {"C>80/5", 10, 0, 0, 0, "CalcBlockCounts, cycle(5) < sdk_frequency(10), condition = C>80."},
      {"C>80/60", 0, 0, 0, 0, "CalcBlockCounts, sdk_frequency is 0, condition = C>80."},
      {"C>80/0", 10, 0, 0, 0, "check condition time failed. condition = C>80/0."},
      {"C>80", 10, 0, 0, 0, "check condition split failed. condition = C>80."},
      {"C>80/ABC", 10, 0, 0, 0, kBadChar + "C>80/ABC."},
      {"C-C/60", 10, 0, 0, 0, kBadChar + "C-C/60."},
  };
  for (const auto& row : rows) {
    CSlidingWindow window;
    CError error;
    const std::vector<std::string> lines = nuvtest::CaptureMessages(
        [&] { error = window.SetCondition(row.condition, row.collector); });
    const bool ok = row.reason.empty();
    EXPECT_EQ(error.desc,
              ok ? "success" : std::string("express failed, express = ") + row.condition);
    EXPECT_EQ(error.code, ok ? 0 : 106) << row.condition;
    EXPECT_EQ(window.GetCycle(), row.cycle) << row.condition;
    EXPECT_EQ(window.GetFrequency(), row.frequency) << row.condition;
    EXPECT_EQ(window.GetBlockCounts(), row.blocks) << row.condition;
    EXPECT_EQ(window.GetExpression(), ok ? "C>80" : "") << row.condition;
    EXPECT_EQ(window.GetSlidingWindowState(), ok ? kWindowFilling : kWindowUnset);
    if (!ok) {
      EXPECT_NE(std::find(lines.begin(), lines.end(), "[ERROR] [CSlidingWindow]::" + row.reason),
                lines.end()) << ::testing::PrintToString(lines);
    }
  }
}

TEST(CSlidingWindow, DecimationAndState) {
  // Which of the first six samples are taken: k = 1; k = 2; 450, 225, then k = 3.
  for (const auto& [condition, collector, taken] :
       {std::tuple{"A/60", 10u, "111111"}, {"A/1800", 5u, "010101"}, {"A/1800", 4u, "001001"}}) {
    CSlidingWindow window;
    ASSERT_EQ(window.SetCondition(condition, collector).code, 0);
    std::string got;
    for (int i = 0; i < 6; ++i) got += window.IsInsert() ? '1' : '0';
    EXPECT_EQ(got, taken) << condition << " at " << collector;
  }
  // 180 cells take 360 samples at k = 2; a skipped sample still reports the full window.
  CSlidingWindow window;
  ASSERT_EQ(window.SetCondition("A/1800", 5).code, 0);
  WindowState state = kWindowUnset;
  for (int i = 0; i < 359; ++i) ASSERT_EQ(window.InsertSource(SystemInfo(), state).code, 0);
  EXPECT_EQ(state, kWindowFilling);
  for (int i = 0; i < 2; ++i) {
    state = kWindowUnset;
    ASSERT_EQ(window.InsertSource(SystemInfo(), state).code, 0);
    EXPECT_EQ(state, kWindowFull);
  }
  EXPECT_EQ(window.GetCellCount(), 180u);
  // Evaluation errors keep samples out; an unconfigured window takes nothing.
  CSlidingWindow failing;
  ASSERT_EQ(failing.SetCondition("T>1/60", 10).code, 0);
  EXPECT_EQ(failing.InsertSource(SystemInfo(), state).code, 107);
  EXPECT_EQ(failing.InsertSource(std::vector<ProcessInfo>{Process(1)}, state).code, 107);
  EXPECT_EQ(failing.GetCellCount(), 0u);
  window.Reset();
  EXPECT_EQ(window.GetCellCount(), 0u);
  EXPECT_EQ(window.InsertSource(Process(1), state).code, 0);
  EXPECT_EQ(state, kWindowUnset);
  EXPECT_EQ(window.GetCellCount(), 0u);
}

TEST(CSlidingWindow, EvictionAndPopOrder) {
  CSlidingWindow window;
  ASSERT_EQ(window.SetCondition("A/60", 10).code, 0);
  WindowState state = kWindowUnset;
  for (uint32_t pid = 1; pid <= 8; ++pid) {
    ASSERT_EQ(window.InsertSource(Process(pid), state).code, 0);
    EXPECT_EQ(state, pid < 6 ? kWindowFilling : kWindowFull) << pid;
  }
  CCell* oldest = nullptr;
  ASSERT_TRUE(window.PopCell(&oldest));
  EXPECT_EQ(oldest->GetPid(), 3u);  // 1 and 2 were evicted
  delete oldest;
  EXPECT_EQ(window.GetSlidingWindowState(), kWindowFilling);

  CSlidingWindow moved(std::move(window));  // cells move along; a copy gets none
  CSlidingWindow copy(moved);
  EXPECT_EQ(copy.GetCellCount(), 0u);
  EXPECT_EQ(copy.GetBlockCounts(), 6u);
  std::vector<CCell*> all;
  ASSERT_TRUE(moved.PopAllCell(all));
  std::vector<uint32_t> pids;
  for (CCell* cell : all) {
    pids.push_back(cell->GetPid());
    delete cell;
  }
  EXPECT_EQ(pids, (std::vector<uint32_t>{8, 7, 6, 5, 4}));
  EXPECT_FALSE(moved.PopCell(&oldest));
  EXPECT_FALSE(moved.PopAllCell(all));

  moved.InsertSource(Process(9), state);
  moved.ResetWindow();
  EXPECT_EQ(moved.GetCellCount(), 0u);
  EXPECT_EQ(moved.GetSlidingWindowState(), kWindowFilling);
  EXPECT_EQ(moved.GetBlockCounts(), 6u);
}

TEST(CSlidingWindow, HitRate) {
  const struct {
    int hits;  // of six cells
    unsigned int rate;
    bool fired;
  } rows[] = {{3, 50, true}, {2, 50, false}, {6, 100, true}, {1, 16, true}, {1, 17, false},
              {0, 0, true}};
  for (const auto& row : rows) {
    CSlidingWindow window;
    ASSERT_EQ(window.SetCondition("C>80/60", 10).code, 0);
    WindowState state = kWindowUnset;
    for (int i = 0; i < 6; ++i) {
      EXPECT_FALSE(window.CalcHitResult(0)) << "a filling window never fires";
      ASSERT_EQ(window.InsertSource(Process(1, i < row.hits ? 90.0f : 10.0f), state).code, 0);
    }
    EXPECT_EQ(window.CalcHitResult(row.rate), row.fired) << row.hits << "/6 at " << row.rate;
  }
}

}  // namespace

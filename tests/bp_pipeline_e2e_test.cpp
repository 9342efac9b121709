// Burying points sent ahead on one connection into the running daemon: by nuvctl, one per
// input line, and by posters of this process beside synchronous ones; read back from the store
// as an operator would.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "nuv_comm.h"
#include "testutil/bus_post.h"
#include "testutil/serving_daemon.h"
#include "testutil/testutil.h"

namespace {

const char kTopic[] = "maintenance:POST";

std::string Point(const std::string& name, int seq) {
  return nuvtest::TimingPoint("/usr/bin/" + name + ":1", "\"seq\":" + std::to_string(seq));
}

bool IsBusCode(int result) {
  const uint32_t r = static_cast<uint32_t>(result);
  return r >= uint32_t(NUV_COMM_E_NOTOPIC) && r <= uint32_t(NUV_COMM_E_UNTRUSTED);
}

using nuvtest::LinesOf;

class BpPipeline : public nuvtest::ServingDaemonTest {
 protected:
  std::vector<std::string> StoredAfterStop(const std::string& name) {
    const nuvtest::RunResult cat = StopAndCat(name);
    EXPECT_EQ(cat.code, 0) << cat.err;
    return LinesOf(cat.out);
  }
};

TEST_F(BpPipeline, NuvctlPostsEachLineInOrderAndNamesTheRefusedOnes) {
  std::string input;
  std::vector<std::string> expected;
  for (int i = 1; i <= 300; ++i) {
    std::string point = Point("lines", i);
    if (i == 50) point.clear();  // a blank line is skipped
    if (i == 100) point.replace(point.find("\"1.0\""), 5, "\"1.00\"");  // the daemon refuses it
    if (i != 50 && i != 100) expected.push_back(point);
    input += point + "\n";
  }
  const nuvtest::RunResult daemonSays =
      tree_.Nuvctl({"post", "--no-check", "--each-line", kTopic}, input);
  EXPECT_EQ(daemonSays.code, 1);
  EXPECT_EQ(daemonSays.out, "line 100: 0x84CE0004 (burying point invalid)\n298 stored, 1 refused\n");

  // Checked here first, a line that is not JSON is named with the reason and not posted.
  const nuvtest::RunResult checked = tree_.Nuvctl(
      {"post", "--each-line", kTopic, "-"}, Point("lines", 301) + "\n{\"header\":\n");
  EXPECT_EQ(checked.code, 1);
  EXPECT_EQ(checked.out.rfind("line 2: not posted: not JSON", 0), 0u) << checked.out;
  EXPECT_EQ(checked.out.substr(checked.out.find('\n') + 1), "1 stored, 1 refused\n");
  expected.push_back(Point("lines", 301));

  const nuvtest::RunResult clean =
      tree_.Nuvctl({"post", "--each-line", kTopic}, Point("lines", 302) + "\n");
  EXPECT_EQ(clean.code, 0);
  EXPECT_EQ(clean.out, "1 stored, 0 refused\n");
  expected.push_back(Point("lines", 302));
  // One connection, answered in order: stored in the order of the input.
  EXPECT_EQ(StoredAfterStop("lines"), expected);
}

// Posts batches of points named `name` until `stop`, `window` in flight, or one at a time
// when `window` is 0; keeps those answered 0. Any answer that is neither 0 nor a bus failure
// counts in `odd`.
void Poster(const std::string& name, unsigned int window, const std::atomic<bool>& stop,
            int limit, std::vector<std::string>& acked, std::atomic<int>& odd) {
  for (int seq = 0; seq < limit && !stop;) {
    std::vector<std::string> batch;
    for (int k = 0; k < (window ? 200 : 1); ++k) batch.push_back(Point(name, seq++));
    const std::vector<int> results =
        window ? nuvtest::PostManyOnBus(kTopic, batch, window)
               : std::vector<int>{nuvtest::PostOnBus(kTopic, batch[0])};
    for (size_t i = 0; i < batch.size(); ++i) {
      if (results[i] == 0) acked.push_back(batch[i]);
      else if (!IsBusCode(results[i])) ++odd;
    }
    if (std::any_of(results.begin(), results.end(), IsBusCode)) return;
  }
}

TEST_F(BpPipeline, PipelinedAndSynchronousPostersLoseNothing) {
  std::atomic<bool> stop{false};
  std::atomic<int> odd{0};
  const unsigned int windows[] = {64, 64, 0, 0};
  std::vector<std::vector<std::string>> acked(4);
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back(Poster, "mixed", windows[t], std::cref(stop), windows[t] ? 1000 : 250,
                         std::ref(acked[t]), std::ref(odd));
  }
  for (std::thread& poster : posters) poster.join();
  EXPECT_EQ(odd.load(), 0);
  std::vector<std::string> all;
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(acked[t].size(), windows[t] ? 1000u : 250u) << t;
    all.insert(all.end(), acked[t].begin(), acked[t].end());
  }
  std::vector<std::string> stored = StoredAfterStop("mixed");
  std::sort(stored.begin(), stored.end());
  std::sort(all.begin(), all.end());
  EXPECT_EQ(stored, all);
}

TEST_F(BpPipeline, AKilledDaemonHasStoredEveryRecordAckedZero) {
  std::atomic<bool> stop{false};
  std::atomic<int> odd{0};
  const unsigned int windows[] = {64, 64, 0};
  std::vector<std::vector<std::string>> acked(3);
  std::vector<std::thread> posters;
  for (int t = 0; t < 3; ++t) {
    posters.emplace_back(Poster, "killed" + std::to_string(t), windows[t], std::cref(stop),
                         1 << 30, std::ref(acked[t]), std::ref(odd));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ASSERT_EQ(::kill(tree_.pid(), SIGKILL), 0);
  stop = true;
  for (std::thread& poster : posters) poster.join();
  EXPECT_EQ(tree_.Wait(), 128 + SIGKILL);
  EXPECT_EQ(odd.load(), 0);

  ASSERT_TRUE(tree_.StartServing()) << tree_.DaemonErr();
  EXPECT_EQ(tree_.Stop(), 0);
  for (int t = 0; t < 3; ++t) {
    const nuvtest::RunResult cat =
        tree_.Nuvctl({"store", "cat", "killed" + std::to_string(t), "0", "256"});
    const std::vector<std::string> lines = LinesOf(cat.out);
    const std::set<std::string> kept(lines.begin(), lines.end());
    EXPECT_GT(acked[t].size(), 10u) << t;
    for (const std::string& point : acked[t]) ASSERT_EQ(kept.count(point), 1u) << point;
    // Besides those, at most the requests in flight when it died.
    EXPECT_LE(lines.size(), acked[t].size() + (windows[t] ? windows[t] : 1)) << t;
  }
  EXPECT_EQ(tree_.Nuvctl({"store", "verify"}).code, 0);
}

}  // namespace

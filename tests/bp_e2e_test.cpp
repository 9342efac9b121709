// Burying points from other processes into the running daemon's store: posted over the bus by this
// test process and by nuvctl, read back from the store as an operator would.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <cstdlib>
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

std::string Point(const std::string& focus, const std::string& agentId = "\"a-1\"") {
  return R"({"header":{"type":256,"version":"1.0","focus":")" + focus +
         R"(","id":"x1","name":"n","module":"m","function":"f","time":"t","product":"p",)"
         R"("product_version":"1","agent_id":)" +
         agentId + R"(},"body":{"time_start":1,"time_end":3,"time_diff":2}})";
}

int Post(const std::string& text) { return nuvtest::PostOnBus(kTopic, text); }

class BpEndToEnd : public nuvtest::ServingDaemonTest {};

TEST_F(BpEndToEnd, PointsFromOtherProcessesAreStoredAsPosted) {
  const std::string direct = Point("/usr/bin/e2eagent:4321");
  EXPECT_EQ(Post(direct), 0);
  EXPECT_EQ(Post(Point("/usr/bin/e2eagent:1", "7")), static_cast<int>(0x84CE0004u));

  const nuvtest::RunResult bp =
      tree_.Nuvctl({"bp", "--type", "256", "--focus", "/opt/e2eagent:99", "--echo"});
  const std::string built = bp.out.substr(0, bp.out.find('\n'));
  EXPECT_EQ(bp.code, 0) << bp.err;
  EXPECT_EQ(bp.out, built + "\n0x00000000 (success)\n");

  // Layout and spacing of the posted text are kept.
  const std::string fromFile = "{ \"extra\": 1,\n" + Point("e2eagent:0").substr(1);
  ASSERT_TRUE(nuvtest::WriteFile(tree_.Sub("point.json"), fromFile));
  const nuvtest::RunResult posted = tree_.Nuvctl({"post", kTopic, tree_.Sub("point.json")});
  EXPECT_EQ(posted.code, 0);
  EXPECT_EQ(posted.out, "0x00000000 (success)\n");
  std::string unsupported = Point("/bin/e2eagent:1");
  unsupported.replace(unsupported.find("\"1.0\""), 5, "\"1.00\"");
  const nuvtest::RunResult refused = tree_.Nuvctl({"post", "--no-check", kTopic, "-"}, unsupported);
  EXPECT_EQ(refused.code, 1);
  EXPECT_EQ(refused.out, "0x84CE0004 (burying point invalid)\n");
  // Checked here first, the reason is the client's to print and nothing is posted.
  const struct {
    std::string body, err;
  } local[] = {
      {unsupported, "nuvctl post: not posted: burying point refused: BP header/type:1.00 is not support\n"},
      {"{\"header\":\n {\"type\": 1,,}}",
       "nuvctl post: not posted: not JSON: line 2, column 13: string or '}' expected near ','\n"},
  };
  for (const auto& l : local) {
    const nuvtest::RunResult r = tree_.Nuvctl({"post", kTopic}, l.body);
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, l.err);
  }

  const nuvtest::RunResult stored = StopAndCat("e2eagent");
  EXPECT_EQ(stored.code, 0);
  EXPECT_EQ(stored.out, direct + "\n" + built + "\n" + fromFile + "\n");
  EXPECT_EQ(
      tree_.Count("[bpmgr] check bp data failed with error:102-bp header/agent_id is invalid"), 1);
  EXPECT_EQ(
      tree_.Count("[bpmgr] check bp data failed with error:102-BP header/type:1.00 is not support"),
      1);
}

// A reader started before the stream exists sees a record posted afterwards, as soon as it is
// indexed, without the daemon stopping.
TEST_F(BpEndToEnd, FollowSeesARecordPostedAfterItStarted) {
  const std::string out = tree_.Sub("follow.out");
  const int follower =
      nuvtest::Spawn({tree_.Sub("bin/nuvctl"), "store", "cat", "followagent", "0", "256", "-f"},
                     {}, "", out, tree_.Sub("follow.err"));
  ASSERT_GT(follower, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const std::string point = Point("/usr/bin/followagent:1");
  ASSERT_EQ(Post(point), 0);
  for (int i = 0; i < 100 && nuvtest::ReadFile(out).empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(nuvtest::ReadFile(out), point + "\n") << nuvtest::ReadFile(tree_.Sub("follow.err"));
  ::kill(follower, SIGTERM);
  EXPECT_EQ(nuvtest::WaitExit(follower), 128 + SIGTERM);
}

TEST_F(BpEndToEnd, ConcurrentPostersLoseNothing) {
  constexpr int kThreads = 4, kEach = 25;
  std::vector<std::string> expected;
  for (int i = 0; i < kThreads * kEach; ++i)
    expected.push_back(Point("/bin/crowd:" + std::to_string(i)));
  std::vector<std::thread> posters;
  std::vector<int> failures(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([t, &failures, &expected] {
      for (int i = t * kEach; i < (t + 1) * kEach; ++i) failures[t] += Post(expected[i]) != 0;
    });
  }
  for (std::thread& poster : posters) poster.join();
  EXPECT_EQ(failures, std::vector<int>(kThreads, 0));

  const nuvtest::RunResult stored = StopAndCat("crowd");
  ASSERT_EQ(stored.code, 0);
  std::string all;
  for (const std::string& point : expected) all += point + "\n";
  const auto sortedLines = [](const std::string& text) {
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
      lines.push_back(text.substr(at, end - at));
    std::sort(lines.begin(), lines.end());
    return lines;
  };
  EXPECT_EQ(sortedLines(stored.out), sortedLines(all));
}

using nuvtest::LinesOf;

TEST_F(BpEndToEnd, AKilledDaemonHasStoredEveryRecordItAcknowledged) {
  constexpr int kThreads = 4;
  std::atomic<bool> stop{false};
  std::vector<std::vector<std::string>> acked(kThreads);
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([t, &stop, &acked] {
      for (int i = 0; !stop; ++i) {
        const std::string point = Point("/bin/killed:" + std::to_string(t * 1000000 + i));
        if (Post(point) != 0) break;
        acked[t].push_back(point);
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ASSERT_EQ(::kill(tree_.pid(), SIGKILL), 0);
  stop = true;
  for (std::thread& poster : posters) poster.join();
  EXPECT_EQ(tree_.Wait(), 128 + SIGKILL);

  // A restart repairs whatever the kill tore; every acknowledged record is still there.
  ASSERT_TRUE(tree_.StartServing()) << tree_.DaemonErr();
  const nuvtest::RunResult stored = StopAndCat("killed");
  ASSERT_EQ(stored.code, 0) << stored.err;
  const std::vector<std::string> lines = LinesOf(stored.out);
  const std::set<std::string> kept(lines.begin(), lines.end());
  size_t total = 0;
  for (const auto& mine : acked) {
    total += mine.size();
    for (const std::string& point : mine) ASSERT_EQ(kept.count(point), 1u) << point;
  }
  EXPECT_GT(total, 100u);
  EXPECT_LE(lines.size(), total + kThreads);  // at most the one in flight per poster besides
  EXPECT_EQ(tree_.Nuvctl({"store", "verify"}).code, 0);
}

// The store's directory on a tmpfs of its own, unmounted when done.
class SmallDisk {
 public:
  explicit SmallDisk(const std::string& dir) : dir_(dir) {
    std::error_code ignored;
    std::filesystem::create_directories(dir, ignored);
    mounted_ = ::mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=256k,mode=0750") == 0;
  }
  ~SmallDisk() {
    if (mounted_) ::umount2(dir_.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }
  bool Grow() { return ::mount("tmpfs", dir_.c_str(), "tmpfs", MS_REMOUNT, "size=4m") == 0; }

 private:
  std::string dir_;
  bool mounted_ = false;
};

TEST(BpEndToEndDisk, AFullDiskRefusesPostsAndLosesNoAcknowledgedRecord) {
  nuvtest::DaemonTree tree;
  ASSERT_TRUE(tree.ok());
  SmallDisk disk(tree.Sub("data"));
  if (!disk.mounted()) GTEST_SKIP() << "mounting a tmpfs needs CAP_SYS_ADMIN";
  setenv("NUV_COMM_DIR", tree.Sub("comm").c_str(), 1);
  ASSERT_EQ(nuv_comm_init(), 0);
  ASSERT_TRUE(tree.StartServing()) << tree.DaemonErr();

  const std::string filler(2000, 'f');
  std::vector<std::string> acked;
  int refused = 0;
  for (int i = 0; i < 1000 && refused == 0; ++i) {
    const std::string point = Point("/bin/full:" + std::to_string(i) + filler);
    refused = Post(point);
    if (refused == 0) acked.push_back(point);
  }
  EXPECT_EQ(refused, 205);  // write file failed: the poster knows
  EXPECT_GT(acked.size(), 50u);
  EXPECT_EQ(tree.Count("[nuv_maintain][fileunit] write content failed."), 1);
  EXPECT_EQ(tree.Nuvctl({"store", "verify"}).code, 0);

  ASSERT_TRUE(disk.Grow());
  for (int i = 0; i < 20; ++i) {
    const std::string point = Point("/bin/full:after" + std::to_string(i));
    ASSERT_EQ(Post(point), 0);
    acked.push_back(point);
  }
  std::string expected;
  for (const std::string& point : acked) expected += point + "\n";
  EXPECT_EQ(tree.Stop(), 0);
  EXPECT_EQ(tree.Nuvctl({"store", "cat", "full", "0", "256"}).out, expected);
  ASSERT_TRUE(tree.StartServing());
  EXPECT_EQ(tree.Stop(), 0);
  EXPECT_EQ(tree.Nuvctl({"store", "cat", "full", "0", "256"}).out, expected);
  nuv_comm_uninit();
}

TEST(BpEndToEndLimits, ManyStreamsUnderALowSoftDescriptorLimit) {
  nuvtest::DaemonTree tree;
  ASSERT_TRUE(tree.ok());
  struct rlimit saved {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  if (saved.rlim_max < 2048) GTEST_SKIP() << "the hard descriptor limit is below 2048";
  struct rlimit low = saved;
  low.rlim_cur = 256;  // what the daemon inherits
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  const bool serving = tree.StartServing();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  ASSERT_TRUE(serving) << tree.DaemonErr();
  setenv("NUV_COMM_DIR", tree.Sub("comm").c_str(), 1);
  ASSERT_EQ(nuv_comm_init(), 0);
  int refused = 0;
  for (int i = 0; i < 400; ++i) {
    refused += Post(Point("/bin/stream" + std::to_string(i) + ":1")) != 0;
  }
  EXPECT_EQ(refused, 0);
  EXPECT_EQ(tree.Stop(), 0);
  nuv_comm_uninit();
  EXPECT_EQ(LinesOf(tree.Nuvctl({"store", "ls"}).out).size(), 401u);
}

TEST(BpEndToEndMidnight, NamesWithDashesCrossMidnightAndAreListed) {
  nuvtest::DaemonTree tree;
  ASSERT_TRUE(tree.ok());
  // The daemon's clock reads two seconds before the next local midnight.
  const time_t now = std::time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  const long untilMidnight = 86400 - (local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec);
  tree.SetEnv("NUV_TIME_OFFSET=" + std::to_string(untilMidnight - 2));
  setenv("NUV_COMM_DIR", tree.Sub("comm").c_str(), 1);
  ASSERT_EQ(nuv_comm_init(), 0);
  ASSERT_TRUE(tree.StartServing()) << tree.DaemonErr();
  const std::string before = Point("/usr/sbin/php-fpm:1"), after = Point("/usr/sbin/php-fpm:2");
  ASSERT_EQ(Post(before), 0);
  std::this_thread::sleep_for(std::chrono::seconds(3));
  EXPECT_EQ(Post(after), 0);
  EXPECT_EQ(tree.Stop(), 0);
  nuv_comm_uninit();

  const nuvtest::RunResult ls = tree.Nuvctl({"store", "ls"});
  const std::vector<std::string> rows = LinesOf(ls.out);
  ASSERT_EQ(rows.size(), 3u) << ls.out << ls.err;  // a header and one row a day
  const std::string firstDay = rows[1].substr(0, 8), secondDay = rows[2].substr(0, 8);
  EXPECT_NE(firstDay, secondDay);
  const std::pair<std::string, std::string> days[] = {{firstDay, before}, {secondDay, after}};
  for (const auto& [day, record] : days) {
    EXPECT_NE(rows[day == firstDay ? 1 : 2].find("php-fpm"), std::string::npos);
    EXPECT_EQ(tree.Nuvctl({"store", "cat", "php-fpm", "0", "256", "--day", day}).out,
              record + "\n");
  }
  EXPECT_EQ(tree.Nuvctl({"store", "verify"}).code, 0);
}

}  // namespace

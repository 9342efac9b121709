// A daemon serving the bus from a tree of its own, with the test process joined to that bus,
// for tests that post to it and read the store back. Tests that include this link nuv_comm.
#ifndef NUV_TESTS_SERVING_DAEMON_H
#define NUV_TESTS_SERVING_DAEMON_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "nuv_comm.h"
#include "testutil/testutil.h"

namespace nuvtest {

class ServingDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tree_.ok());
    // Posters here outrun the default 10 MiB a stream may hold before it starts again empty,
    // which would drop acknowledged records by design.
    std::string config = ReadFile(tree_.ConfigPath());
    const std::string limit = "\"file_size\": 10";
    const size_t at = config.find(limit);
    ASSERT_NE(at, std::string::npos);
    config.replace(at, limit.size(), "\"file_size\": 1000");
    ASSERT_TRUE(WriteFile(tree_.ConfigPath(), config));
    setenv("NUV_COMM_DIR", tree_.Sub("comm").c_str(), 1);
    ASSERT_EQ(nuv_comm_init(), 0);
    ASSERT_TRUE(tree_.StartServing()) << tree_.DaemonErr();
  }
  void TearDown() override {
    tree_.Stop();
    nuv_comm_uninit();
  }
  // The stream `name`, pid 0, type 256 as nuvctl reads it once the daemon has stopped.
  RunResult StopAndCat(const std::string& name) {
    EXPECT_EQ(tree_.Stop(), 0) << tree_.DaemonErr();
    return tree_.Nuvctl({"store", "cat", name, "0", "256"});
  }

  DaemonTree tree_;
};

// The lines of `text`, without their line feeds; an unterminated last line is left out.
inline std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
    lines.push_back(text.substr(at, end - at));
  return lines;
}

}  // namespace nuvtest

#endif

// nuvctl status against a daemon that runs, one that stopped, and a bus directory that is not
// where the daemon is: the answer says which, and names the directory tried.
#include <gtest/gtest.h>

#include <string>

#include "testutil/testutil.h"

namespace {

TEST(NuvctlStatus, UpDownAndWrongDirectory) {
  nuvtest::DaemonTree tree;
  ASSERT_TRUE(tree.ok());
  ASSERT_TRUE(tree.StartServing()) << tree.DaemonErr();
  const std::string comm = tree.Sub("comm");
  ASSERT_EQ(tree.Nuvctl({"bp", "--type", "512", "--focus", "/usr/bin/statusagent:5"}).code, 0);

  const nuvtest::RunResult up = tree.Nuvctl({"status", "--json"});
  EXPECT_EQ(up.code, 0) << up.err;
  EXPECT_NE(up.out.find(R"({"alive":true,"bus_dir":{"path":")" + comm +
                        R"(","chosen_by":"NUV_COMM_DIR","exists":true,"topics":["maintenance:POST",)"
                        R"("maintenance:reciver","maintenance:register","maintenance:status",)"
                        R"("maintenance:unregister"]},"daemon":{"pid":)" +
                        std::to_string(tree.pid()) + ","),
            std::string::npos)
      << up.out;
  // The stream just written is held open, under the store directory beside bin/.
  EXPECT_NE(up.out.find(R"("store":[{"path":")" + tree.Sub("data") + R"(","files":2,)"),
            std::string::npos)
      << up.out;
  EXPECT_NE(up.out.find(R"("name":"statusagent","pid":0,"type":512,)"), std::string::npos);
  const nuvtest::RunResult text = tree.Nuvctl({"status"});
  EXPECT_EQ(text.code, 0);
  EXPECT_EQ(text.out.rfind("daemon:        running, pid " + std::to_string(tree.pid()), 0), 0u)
      << text.out;

  ASSERT_EQ(tree.Stop(), 0);
  const nuvtest::RunResult down = tree.Nuvctl({"status"});
  EXPECT_EQ(down.code, 1);
  EXPECT_EQ(down.out, "daemon:        not answering\n");
  EXPECT_NE(down.err.find("bus directory " + comm + " (NUV_COMM_DIR): exists, no sockets in it"),
            std::string::npos)
      << down.err;

  const nuvtest::RunResult post = tree.Nuvctl({"bp", "--type", "512", "--focus", "/usr/bin/a:1"});
  EXPECT_EQ(post.code, 1);
  EXPECT_EQ(post.err, "nuvctl bp: maintenance:POST: bus directory " + comm +
                          " (NUV_COMM_DIR): exists, no sockets in it\n");

  tree.SetEnv("NUV_COMM_DIR=" + tree.Sub("elsewhere"));
  const nuvtest::RunResult wrong = tree.Nuvctl({"status", "--json"});
  EXPECT_EQ(wrong.code, 1);
  EXPECT_EQ(wrong.out.rfind(R"({"alive":false,"bus_dir":{"path":")" + tree.Sub("elsewhere") +
                                R"(","chosen_by":"NUV_COMM_DIR","exists":false,"topics":[]},)",
                            0),
            0u)
      << wrong.out;
}

}  // namespace

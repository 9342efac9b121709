#include "common/error.h"

#include <gtest/gtest.h>

#include <string>

TEST(CErrorTest, SuccessAndFormatting) {
  CError ok;
  EXPECT_EQ(ok.code, 0);
  EXPECT_EQ(ok.desc, "success");

  const struct {
    CError got;
    int code;
    const char* desc;
  } cases[] = {
      {CError::CreateError(103, "n`t found config"), 103, "n`t found config"},
      {CError::CreateError(110, "insert worker exist, id = %s, image = %s, pid = %d", "m1", "agent",
                           42),
       110, "insert worker exist, id = m1, image = agent, pid = 42"},
      {CError::CreateError(206, "buffer malloc error  %u", 4096u), 206,
       "buffer malloc error  4096"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.got.code, c.code) << c.desc;
    EXPECT_EQ(c.got.desc, c.desc);
  }
}

TEST(CErrorTest, ExpandedTextIsCutAt1023Characters) {
  const struct {
    size_t length, kept;
  } cases[] = {{1022, 1022}, {1023, 1023}, {1024, 1023}, {5000, 1023}};
  for (const auto& c : cases) {
    std::string text;
    for (size_t i = 0; i < c.length; ++i) text.push_back(static_cast<char>('a' + i % 26));
    CError err = CError::CreateError(102, "%s", text.c_str());
    EXPECT_EQ(err.desc, text.substr(0, c.kept)) << "length " << c.length;
  }
  // A short format that expands past the limit is cut the same way.
  CError err =
      CError::CreateError(204, "read file failed, path = %s", std::string(1020, 'x').c_str());
  EXPECT_EQ(err.desc, "read file failed, path = " + std::string(998, 'x'));
}

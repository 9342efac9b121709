#include "common/error.h"

#include <gtest/gtest.h>

#include <string>

TEST(CErrorTest, FormatsAndCutsAt1023Characters) {
  EXPECT_EQ(CError().code, 0);
  EXPECT_EQ(CError().desc, "success");
  CError err = CError::CreateError(110, "id = %s, pid = %d, %u%%", "m1", 42, 4096u);
  EXPECT_EQ(err.code, 110);
  EXPECT_EQ(err.desc, "id = m1, pid = 42, 4096%");

  for (size_t length : {1022u, 1023u, 1024u, 5000u}) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text.push_back(static_cast<char>('a' + i % 26));
    EXPECT_EQ(CError::CreateError(102, "%s", text.c_str()).desc, text.substr(0, 1023)) << length;
  }
  // A short format that expands past the limit is cut the same way.
  err = CError::CreateError(204, "read file failed, path = %s", std::string(1020, 'x').c_str());
  EXPECT_EQ(err.desc, "read file failed, path = " + std::string(998, 'x'));
}

// Bounded copies, formatting and UTF-32 to UTF-8 conversion.
#include <gtest/gtest.h>
#include <iconv.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "nuv_str.h"

namespace {

constexpr char kGuard = '#';

TEST(StrNcpy, BoundedByBufferCountAndTerminator) {
  const std::string longsrc(5000, 'x');
  const struct { size_t dst_size; std::string src; size_t count; std::string expected; } cases[] = {
      {1024, longsrc, longsrc.size(), std::string(1023, 'x')},  // count larger than the buffer
      {1024, longsrc, SIZE_MAX, std::string(1023, 'x')},
      {16, "hello", 100, "hello"}, {16, "hello", 3, "hel"}, {6, "hello", 5, "hello"},
      {5, "hello", 5, "hell"},     {1, "hello", 5, ""},
  };
  for (const auto& c : cases) {
    std::vector<char> buf(c.dst_size + 64, kGuard);
    // The source sits in an exactly-sized block so reading past its terminator is caught by ASan.
    auto src = std::make_unique<char[]>(c.src.size() + 1);
    std::memcpy(src.get(), c.src.c_str(), c.src.size() + 1);
    EXPECT_EQ(nuv_strncpy(buf.data(), c.dst_size, src.get(), c.count), buf.data());
    EXPECT_EQ(std::string(buf.data()), c.expected) << c.dst_size << "/" << c.count;
    for (size_t i = c.expected.size() + 1; i < buf.size(); i++) ASSERT_EQ(buf[i], kGuard) << i;
  }
}

TEST(StrNcpy, UnterminatedSourceAndZeroSizedBuffer) {
  auto src = std::make_unique<char[]>(4);  // no terminator: count alone must bound the read
  std::memcpy(src.get(), "abcd", 4);
  char buf[8] = {kGuard};
  EXPECT_EQ(nuv_strncpy(buf, 0, src.get(), 4), buf);
  EXPECT_EQ(buf[0], kGuard);
  nuv_strncpy(buf, sizeof(buf), src.get(), 4);
  EXPECT_STREQ(buf, "abcd");
}

TEST(StrLcpy, ReturnsSourceLengthAndCuts) {
  const struct { size_t size; const char* src; const char* expected; } cases[] = {
      {16, "hello", "hello"}, {6, "hello", "hello"}, {5, "hello", "hell"},
      {1, "hello", ""},       {16, "", ""},
  };
  for (const auto& c : cases) {
    std::vector<char> buf(c.size + 8, kGuard);
    EXPECT_EQ(nuv_str_strlcpy(buf.data(), c.src, c.size), std::strlen(c.src));
    EXPECT_STREQ(buf.data(), c.expected);
    for (size_t i = std::strlen(c.expected) + 1; i < buf.size(); i++)
      ASSERT_EQ(buf[i], kGuard) << i;
  }
  char buf[1] = {kGuard};
  EXPECT_EQ(nuv_str_strlcpy(buf, "hello", 0), 5u);
  EXPECT_EQ(buf[0], kGuard);
}

TEST(StrSnprintf, CutsAndReportsFullLength) {
  char buf[8];
  std::memset(buf, kGuard, sizeof(buf));
  EXPECT_EQ(nuv_str_snprintf(buf, 6, "%s-%d", "abc", 12345), 9);
  EXPECT_STREQ(buf, "abc-1");
  EXPECT_EQ(buf[6], kGuard);
  EXPECT_EQ(nuv_str_snprintf(buf, sizeof(buf), "%d", 42), 2);
  EXPECT_STREQ(buf, "42");
  EXPECT_EQ(nuv_str_snprintf(nullptr, 0, "%s", "sized"), 5);
}

std::string Utf8(const std::wstring& in) {
  std::unique_ptr<char, void (*)(void*)> out(nuv_str_unicode_to_utf8(in.c_str()), nuv_str_free);
  return out ? std::string(out.get()) : std::string("<null>");
}

TEST(UnicodeToUtf8, RefusesNonScalarValues) {
  for (wchar_t bad : {wchar_t(0xd800), wchar_t(0xdbff), wchar_t(0xdc00), wchar_t(0xdfff),
                      wchar_t(0x110000), wchar_t(0x7fffffff), wchar_t(-1)}) {
    EXPECT_EQ(Utf8(std::wstring(L"ok") + bad + L"ok"), "<null>") << std::hex << bad;
  }
  EXPECT_EQ(nuv_str_unicode_to_utf8(nullptr), nullptr);
}

// Every scalar value at once, checked against glibc's own converter.
TEST(UnicodeToUtf8, AgreesWithIconvOverAllScalarValues) {
  std::wstring all;
  for (wchar_t c = 1; c <= 0x10ffff; c++)
    if (c < 0xd800 || c > 0xdfff) all += c;
  const std::string ours = Utf8(all);

  iconv_t cd = iconv_open("UTF-8", "WCHAR_T");
  ASSERT_NE(cd, reinterpret_cast<iconv_t>(-1));
  std::string theirs(all.size() * 4, '\0');
  char* in = reinterpret_cast<char*>(all.data());
  size_t in_left = all.size() * sizeof(wchar_t);
  char* out = theirs.data();
  size_t out_left = theirs.size();
  ASSERT_NE(iconv(cd, &in, &in_left, &out, &out_left), static_cast<size_t>(-1));
  iconv_close(cd);
  theirs.resize(theirs.size() - out_left);
  EXPECT_TRUE(ours == theirs) << ours.size() << " vs " << theirs.size();
}

}  // namespace

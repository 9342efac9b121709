// MD5, MurmurHash and UUID calls against published vectors and their documented edge cases.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <utility>

#include "nuv_md5.h"
#include "nuv_murmur.h"
#include "nuv_uuid.h"

namespace {

// The digests of `text` fed in two updates split at `split`, and fed through a copy of the
// context taken at the split, the rest byte by byte; both in hex.
std::pair<std::string, std::string> Md5Hex(const std::string& text, size_t split) {
  nuv_md5_ctx_t ctx;
  EXPECT_EQ(nuv_md5_init(&ctx), 0);
  EXPECT_EQ(nuv_md5_update(&ctx, text.data(), split), 0);
  nuv_md5_ctx_t copy = ctx;  // the state must live entirely inside the struct
  EXPECT_EQ(nuv_md5_update(&ctx, text.data() + split, text.size() - split), 0);
  for (size_t i = split; i < text.size(); i++) nuv_md5_update(&copy, &text[i], 1);
  std::string hex[2];
  for (nuv_md5_ctx_t* c : {&ctx, &copy}) {
    unsigned char digest[NUV_MD5_DIGEST_LENGTH];
    char out[2 * NUV_MD5_DIGEST_LENGTH + 1];
    EXPECT_EQ(nuv_md5_final(c, digest), 0);
    EXPECT_EQ(nuv_md5_bin2str(digest, sizeof(digest), out, sizeof(out)), 0);
    hex[c == &copy] = out;
  }
  return {hex[0], hex[1]};
}

TEST(Md5, Rfc1321Suite) {
  const struct { std::string text, hex; } cases[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
      {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"},
  };
  // Splits on both sides of the 64-byte block boundaries, including empty updates.
  for (const auto& c : cases)
    for (size_t split : {0u, 1u, 63u, 64u, 65u}) {
      size_t at = std::min(split, c.text.size());
      EXPECT_EQ(Md5Hex(c.text, at), std::make_pair(c.hex, c.hex)) << c.text.substr(0, 40);
    }
  nuv_md5_ctx_t ctx;
  unsigned char digest[16];
  ASSERT_EQ(nuv_md5_init(&ctx), 0);
  EXPECT_EQ(nuv_md5_update(&ctx, nullptr, 1), -1);
  EXPECT_EQ(nuv_md5_final(&ctx, nullptr), -1);
  ASSERT_EQ(nuv_md5_final(&ctx, digest), 0);  // the refused calls left the empty digest intact
  EXPECT_EQ(digest[0], 0xd4);
}

TEST(Md5, Bin2StrRefusesShortBufferWithoutWriting) {
  const unsigned char bin[2] = {0xab, 0xcd};
  const struct { size_t size, out_size; int rc; const char* text; } cases[] = {
      {2, 5, 0, "abcd"}, {2, 4, -1, nullptr}, {2, 0, -1, nullptr},
      {0, 1, 0, ""},     {0, 0, -1, nullptr},
      // 2 * size + 1 wraps to 1 here; it must still be refused.
      {SIZE_MAX / 2 + 1, 2, -1, nullptr},
  };
  for (const auto& c : cases) {
    char out[8];
    std::memset(out, '#', sizeof(out));
    EXPECT_EQ(nuv_md5_bin2str(bin, c.size, out, c.out_size), c.rc) << c.size << "/" << c.out_size;
    if (c.text) {
      EXPECT_STREQ(out, c.text);
    }
    for (size_t i = c.text ? std::strlen(c.text) + 1 : 0; i < sizeof(out); i++)
      EXPECT_EQ(out[i], '#') << i;
  }
}

// Expected values come from a separate MurmurHash3_x64_128 reference (first half of the 128
// bits), which reproduces the published values for "hello" and the quick-brown-fox text.
TEST(Murmur, KnownValues) {
  std::string high;
  for (int i = 0x80; i <= 0xa0; i++) high += static_cast<char>(i);  // 33 bytes: block + long tail
  const struct { std::string text; uint32_t seed; uint64_t hash; } cases[] = {
      {"", 0, 0},
      {"hello", 0, 0xcbd8a7b341bd9b02ULL},
      {"hello, world", 0, 0x342fac623a5ebc8eULL},
      {"The quick brown fox jumps over the lazy dog", 0, 0xe34bbc7bbc071b6cULL},
      {"", 0xadc16596, 0x568c7f6263719154ULL},
      {"hello", 0xadc16596, 0x71d9eb903abf7027ULL},
      {"The quick brown fox jumps over the lazy dog", 0xadc16596, 0xd9e8436c06ae44c7ULL},
      {high, 0xadc16596, 0xb41b374a0cfdcb15ULL},
  };
  for (const auto& c : cases)
    EXPECT_EQ(nuv_murmur_hash64(c.text.data(), c.text.size(), c.seed), c.hash)
        << c.text << " " << c.seed;
  EXPECT_EQ(nuv_murmur_hash64(nullptr, 5, 0xadc16596), 0u);
  // Over 4 GiB is refused before any byte is read: the pointer covers only one byte.
  const char one = 'x';
  if (sizeof(size_t) > 4) {  // only a 64-bit size_t can say more than 4 GiB
    EXPECT_EQ(nuv_murmur_hash64(&one, static_cast<size_t>(uint64_t{UINT32_MAX} + 2), 0), 0u);
  }
}

TEST(Uuid, TextFormOfKnownBytesAndCreatedIdsAreUniqueVersion4) {
  const unsigned char id[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  char out[40];
  std::memset(out, '#', sizeof(out));
  EXPECT_EQ(nuv_uuid_make_cstr(id, out, NUV_UUID_STR_LENGTH - 1), -1);
  EXPECT_EQ(out[0], '#');
  ASSERT_EQ(nuv_uuid_make_cstr(id, out, NUV_UUID_STR_LENGTH), 0);
  EXPECT_STREQ(out, "00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(out[NUV_UUID_STR_LENGTH], '#');

  std::set<std::string> seen;
  for (int n = 0; n < 1000; n++) {
    unsigned char made[NUV_UUID_LENGTH];
    char text[NUV_UUID_STR_LENGTH];
    ASSERT_EQ(nuv_uuid_create(made), 0);
    ASSERT_EQ(nuv_uuid_make_cstr(made, text, sizeof(text)), 0);
    EXPECT_EQ(made[6] >> 4, 4) << text;       // version
    EXPECT_EQ(made[8] & 0xC0, 0x80) << text;  // RFC 4122 variant
    EXPECT_TRUE(seen.insert(text).second) << "repeated " << text;
  }
}

}  // namespace

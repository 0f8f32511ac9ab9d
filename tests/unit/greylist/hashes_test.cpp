#include <gtest/gtest.h>

#include <string>

#include "greylist/crc32.h"
#include "greylist/keyed_hash.h"

namespace trabex {
namespace {

// The test vectors of the hash's authors: the secret is the bytes 00 to 0F, the text the bytes 00, 01, ...
TEST(KeyedHash, GivesThePublishedValues) {
  const HashSecret secret{0x0706050403020100, 0x0F0E0D0C0B0A0908};
  std::string text;
  EXPECT_EQ(KeyedHash(secret, text), 0x726FDB47DD0E0E31U);
  while (text.size() < 7) text += static_cast<char>(text.size());
  EXPECT_EQ(KeyedHash(secret, text), 0xAB0200F58B01D137U);
  text += '\x07';
  EXPECT_EQ(KeyedHash(secret, text), 0x93F5F5799A932462U);
  while (text.size() < 15) text += static_cast<char>(text.size());
  EXPECT_EQ(KeyedHash(secret, text), 0xA129CA6149BE45E5U);
}

TEST(KeyedHash, DependsOnTheSecret) {
  const HashSecret one = HashSecret::Random();
  const HashSecret other = HashSecret::Random();
  EXPECT_NE(KeyedHash(one, "10.1.2 s@a.test r@b.test"), KeyedHash(other, "10.1.2 s@a.test r@b.test"));
}

std::uint32_t CrcOf(std::string_view text) {
  Crc32 crc;
  crc.Add(text);
  return crc.Value();
}

TEST(Crc32, GivesTheKnownValues) {
  EXPECT_EQ(CrcOf(""), 0U);
  EXPECT_EQ(CrcOf("123456789"), 0xCBF43926U);
  EXPECT_EQ(CrcOf("The quick brown fox jumps over the lazy dog"), 0x414FA339U);
}

TEST(Crc32, DoesNotDependOnThePieces) {
  const std::string text = "The quick brown fox jumps over the lazy dog";
  for (std::size_t first = 0; first <= text.size(); ++first) {
    for (std::size_t second = first; second <= text.size(); ++second) {
      Crc32 crc;
      crc.Add(std::string_view(text).substr(0, first));
      crc.Add(std::string_view(text).substr(first, second - first));
      crc.Add(std::string_view(text).substr(second));
      ASSERT_EQ(crc.Value(), 0x414FA339U) << first << " " << second;
    }
  }
}

}  // namespace
}  // namespace trabex

#include "greylist/triple_key.h"

#include <gtest/gtest.h>

#include <string>

#include "support/ip_address.h"

namespace trabex {
namespace {

TEST(TripleKey, IsTakenApartAgain) {
  const struct {
    std::string network, sender, recipient, key;
  } rows[] = {
      {"192.0.2", "s@x.example", "r@y.example", "192.0.2 s@x.example r@y.example"},
      {"192.0.2", "", "r@y.example", "192.0.2  r@y.example"},
      {"2001:db8::/64", "\"a b\"@x.example", "\" \"@y", "2001:db8::/64 \"a b\"@x.example \" \"@y"},
      {"192.0.2", "S@X.Example", "r", "192.0.2 s@x.example r"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(TripleKey(row.network, row.sender, row.recipient), row.key);
    const TripleParts parts = PartsOf(row.key);
    EXPECT_EQ(TripleKey(parts.network, parts.sender, parts.recipient), row.key);
    EXPECT_EQ(parts.recipient, row.recipient);
  }
}

TEST(TripleKey, AnyTextHasParts) {
  for (const std::string key : {"", " ", "  ", "a", "a b", "a \"b c", "\" \" \" \""}) {
    const TripleParts parts = PartsOf(key);
    EXPECT_LE(parts.network.size() + parts.sender.size() + parts.recipient.size(), key.size()) << key;
  }
}

}  // namespace
}  // namespace trabex

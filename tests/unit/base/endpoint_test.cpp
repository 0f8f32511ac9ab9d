#include "base/endpoint.h"

#include <gtest/gtest.h>

#include <optional>

namespace trabex {
namespace {

TEST(Endpoint, TextHasBracketsAroundAnIPv6Address) {
  const struct {
    const char* address;
    std::uint16_t port;
    const char* text;
  } rows[] = {
      {"192.0.2.1", 25, "192.0.2.1:25"},
      {"0.0.0.0", 0, "0.0.0.0:0"},
      {"2001:db8::1", 65535, "[2001:db8::1]:65535"},
      {"::", 25, "[::]:25"},
      {"::ffff:192.0.2.1", 25, "192.0.2.1:25"},
  };
  for (const auto& row : rows) {
    const Endpoint endpoint{*ParseIPAddress(row.address), row.port};
    EXPECT_EQ(FormatEndpoint(endpoint), row.text);
    const std::optional<Endpoint> read = ParseEndpoint(row.text);
    ASSERT_EQ(read.has_value(), row.port != 0) << row.text;
    if (read) {
      EXPECT_EQ(*read, endpoint) << row.text;
    }
  }
}

TEST(Endpoint, IsReadFromNothingElse) {
  for (const char* text : {"",
                           ":",
                           "192.0.2.1",
                           "192.0.2.1:",
                           ":25",
                           "192.0.2.1:0",
                           "192.0.2.1:65536",
                           "192.0.2.1:000025",
                           "192.0.2.1:+25",
                           "192.0.2.1: 25",
                           " 192.0.2.1:25",
                           "192.0.2.1:25 ",
                           "[192.0.2.1]:25",
                           "2001:db8::1:25",
                           "[2001:db8::1]",
                           "[2001:db8::1]25",
                           "[2001:db8::1:25",
                           "2001:db8::1]:25",
                           "[]:25",
                           "localhost:25",
                           "1.2.3:25"}) {
    EXPECT_FALSE(ParseEndpoint(text)) << text;
  }
  EXPECT_EQ(*ParseEndpoint("[::FFFF:192.0.2.1]:00025"), (Endpoint{*ParseIPAddress("192.0.2.1"), 25}));
}

}  // namespace
}  // namespace trabex

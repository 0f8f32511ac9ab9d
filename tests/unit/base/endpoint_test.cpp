#include "base/endpoint.h"

#include <gtest/gtest.h>

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
    EXPECT_EQ(FormatEndpoint({*ParseIPAddress(row.address), row.port}), row.text);
  }
}

}  // namespace
}  // namespace trabex

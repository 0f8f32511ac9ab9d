#include "app/own_address.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/ip_address.h"

namespace trabex {
namespace {

TEST(IsOwnAddress, KnowsLoopbackAndTheMachine) {
  const std::vector<IPAddress> own = {IP("192.0.2.1"), IP("203.0.113.9")};
  for (const char* text : {"127.0.0.1", "127.0.0.0", "127.255.255.255", "192.0.2.1", "203.0.113.9"}) {
    EXPECT_TRUE(mCommon::IsOwnAddress(IP(text), own)) << text;
  }
  for (const char* text : {"126.255.255.255", "128.0.0.0", "192.0.2.2", "0.0.0.0"}) {
    EXPECT_FALSE(mCommon::IsOwnAddress(IP(text), own)) << text;
  }
}

}  // namespace
}  // namespace trabex

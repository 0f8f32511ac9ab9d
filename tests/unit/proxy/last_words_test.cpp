#include "proxy/last_words.h"

#include <gtest/gtest.h>

#include <string>

namespace trabex {
namespace {

TEST(LastWords, AreTheReplyThatTheServerIsNotThere) {
  Configuration configuration = DefaultConfiguration();
  configuration.LocalHostName = "proxy.test";
  EXPECT_EQ(LastWords(configuration).Text(), "421 proxy.test is temporarily unavailable.\r\n");
}

TEST(LastWords, HaveTheirEndHoweverLongTheName) {
  Configuration configuration = DefaultConfiguration();
  for (std::size_t size = 470; size < 520; ++size) {
    configuration.LocalHostName = std::string(size, 'x');
    const std::string whole = "421 " + configuration.LocalHostName + " is temporarily unavailable.";
    EXPECT_EQ(LastWords(configuration).Text(), whole.substr(0, 510) + "\r\n") << size;
  }
}

}  // namespace
}  // namespace trabex

#include "platform/windows/files/retries.h"

#include <gtest/gtest.h>

#include <chrono>

namespace trabex {
namespace {

TEST(TryAgainWhileInUse, FiveTimesMoreWithinATenthOfASecond) {
  for (const DWORD code : {DWORD{ERROR_SHARING_VIOLATION}, DWORD{ERROR_LOCK_VIOLATION},
                           DWORD{ERROR_ACCESS_DENIED}, DWORD{ERROR_DELETE_PENDING}}) {
    int attempts = 0;
    const auto begin = std::chrono::steady_clock::now();
    auto last = begin;
    EXPECT_FALSE(TryAgainWhileInUse([&] {
      ++attempts;
      last = std::chrono::steady_clock::now();
      SetLastError(code);
      return false;
    }));
    EXPECT_EQ(GetLastError(), code);
    EXPECT_EQ(attempts, 6) << code;
    EXPECT_GE(last - begin, std::chrono::milliseconds(90)) << "as long as a scanner needs";
  }
}

TEST(TryAgainWhileInUse, EndsWithTheFirstThatSucceedsOrFailsForAnotherReason) {
  int attempts = 0;
  EXPECT_TRUE(TryAgainWhileInUse([&] {
    SetLastError(ERROR_SHARING_VIOLATION);
    return ++attempts == 3;
  }));
  EXPECT_EQ(attempts, 3);
  attempts = 0;
  EXPECT_FALSE(TryAgainWhileInUse([&] {
    ++attempts;
    SetLastError(ERROR_FILE_NOT_FOUND);
    return false;
  }));
  EXPECT_EQ(attempts, 1);
  EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
}

}  // namespace
}  // namespace trabex

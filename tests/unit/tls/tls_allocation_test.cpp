// The memory of the TLS library comes from the program's reserve when there is no other.
#include "tls/tls_allocation.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>

namespace trabex {
namespace {

int calls = 0;

// Finds something to give back twice.
void Handler() {
  if (++calls > 2) throw std::bad_alloc();
}

class TlsAllocation : public testing::Test {
 protected:
  void SetUp() override {
    calls = 0;
    before_ = std::set_new_handler(Handler);
  }
  void TearDown() override { std::set_new_handler(before_); }

  // Has memory from the call behind `failures` others on.
  void* AllocateBehind(int failures) {
    attempts = 0;
    return InsistOnMemory([&]() -> void* { return ++attempts > failures ? this : nullptr; });
  }

  int attempts = 0;

 private:
  std::new_handler before_ = nullptr;
};

TEST_F(TlsAllocation, AsksTheHandlerUntilItHasNothingToGiveBack) {
  EXPECT_EQ(AllocateBehind(0), this);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(AllocateBehind(2), this);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(AllocateBehind(1), nullptr);
  EXPECT_EQ(attempts, 1);
}

TEST_F(TlsAllocation, DoesWithoutAHandler) {
  std::set_new_handler(nullptr);
  EXPECT_EQ(AllocateBehind(1), nullptr);
  EXPECT_EQ(attempts, 1);
}

TEST_F(TlsAllocation, KeepsWhatIsThere) {
  void* const memory = AllocateForTls(10, "", 0);
  ASSERT_NE(memory, nullptr);
  std::memcpy(memory, "something", 10);
  void* const more = ReallocateForTls(memory, 100000, "", 0);
  ASSERT_NE(more, nullptr);
  EXPECT_STREQ(static_cast<const char*>(more), "something");
  FreeForTls(more, "", 0);
}

TEST_F(TlsAllocation, TakesNothingForNothing) {
  EXPECT_EQ(AllocateForTls(0, "", 0), nullptr);
  EXPECT_EQ(ReallocateForTls(nullptr, 0, "", 0), nullptr);
  EXPECT_EQ(ReallocateForTls(AllocateForTls(10, "", 0), 0, "", 0), nullptr);
  EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace trabex

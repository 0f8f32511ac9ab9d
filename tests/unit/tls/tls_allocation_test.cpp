// The memory of the TLS library comes from the program's reserve when there is no other.
#include "tls/tls_allocation.h"

#include <gtest/gtest.h>

#include <cstdint>
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
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer ends a program that asks for so much";
#endif
    calls = 0;
    before_ = std::set_new_handler(Handler);
  }
  void TearDown() override {
    std::set_new_handler(before_);
  }

  // No machine has it, and no compiler knows.
  volatile std::size_t too_much = SIZE_MAX / 4;

 private:
  std::new_handler before_ = nullptr;
};

TEST_F(TlsAllocation, AsksTheHandlerUntilItHasNothingToGiveBack) {
  EXPECT_EQ(AllocateForTls(too_much, "", 0), nullptr);
  EXPECT_EQ(calls, 3);
  void* const memory = AllocateForTls(10, "", 0);
  ASSERT_NE(memory, nullptr);
  std::memcpy(memory, "something", 10);
  EXPECT_EQ(ReallocateForTls(memory, too_much, "", 0), nullptr);
  EXPECT_EQ(calls, 4);
  EXPECT_STREQ(static_cast<const char*>(memory), "something");
  void* const more = ReallocateForTls(memory, 100000, "", 0);
  ASSERT_NE(more, nullptr);
  EXPECT_STREQ(static_cast<const char*>(more), "something");
  FreeForTls(more, "", 0);
  EXPECT_EQ(calls, 4);
}

TEST_F(TlsAllocation, DoesWithoutAHandler) {
  std::set_new_handler(nullptr);
  EXPECT_EQ(AllocateForTls(too_much, "", 0), nullptr);
}

TEST_F(TlsAllocation, TakesNothingForNothing) {
  EXPECT_EQ(AllocateForTls(0, "", 0), nullptr);
  EXPECT_EQ(ReallocateForTls(nullptr, 0, "", 0), nullptr);
  EXPECT_EQ(ReallocateForTls(AllocateForTls(10, "", 0), 0, "", 0), nullptr);
  EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace trabex

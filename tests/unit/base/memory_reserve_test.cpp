#include "base/memory_reserve.h"

#include <gtest/gtest.h>

#include <new>

namespace trabex {
namespace {

TEST(MemoryReserve, GivesItsHeadroomOnceToWhoeverFindsNoMemory) {
  MemoryReserve reserve;
  EXPECT_TRUE(reserve.IsThere());
  for (int i = 0; i < 3; ++i) {
    // What operator new calls, again and again until it has what it wants.
    const std::new_handler handler = std::get_new_handler();
    ASSERT_NE(handler, nullptr);
    EXPECT_NO_THROW(handler());
    EXPECT_FALSE(reserve.IsThere());
    EXPECT_THROW(handler(), std::bad_alloc);
    reserve.Renew();
    EXPECT_TRUE(reserve.IsThere());
  }
}

TEST(MemoryReserve, IsGivenBackAsAWhole) {
  MemoryReserve reserve;
  reserve.Release();
  EXPECT_FALSE(reserve.IsThere());
  EXPECT_THROW(std::get_new_handler()(), std::bad_alloc);
  reserve.Release();
  reserve.Renew();
  EXPECT_TRUE(reserve.IsThere());
}

TEST(MemoryReserve, LeavesTheProgramAsItWas) {
  const std::new_handler before = std::get_new_handler();
  {
    const MemoryReserve reserve;
    EXPECT_NE(std::get_new_handler(), before);
  }
  EXPECT_EQ(std::get_new_handler(), before);
}

}  // namespace
}  // namespace trabex

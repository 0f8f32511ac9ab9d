// Look-ups when there is no memory for a part of them.
#include <gtest/gtest.h>

#include <chrono>
#include <new>

#include "name_lookup_fixture.h"
#include "support/counted_allocations.h"

namespace trabex {
namespace {

using LookupMemoryTest = NameLookupTest;

// Calls `action` with each of its allocations failing, one after the other; `settle` comes behind each.
template <class Action, class Settle>
void WithEachFailing(const Action& action, const Settle& settle) {
  for (std::size_t before = 0;; ++before) {
    SCOPED_TRACE(before);
    bool failed = false;
    bool threw = false;
    {
      const FailedAllocation failure(before);
      try {
        action();
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      failed = failure.HasFailed();
    }
    settle(threw);
    if (!failed || testing::Test::HasFailure()) break;
    ASSERT_LT(before, 200U);
  }
}

TEST_F(LookupMemoryTest, OneThatCannotBeginHasNoAnswerAndAnyOtherHasOne) {
  server_.SetAddresses("one.test", {kAddress1, kAddress2});
  server_.SetNames(kReverse1, {"a-name-that-is-kept-on-the-heap.test"});
  int answers = 0;
  const auto settle = [&](bool threw) {
    for (int i = 0; i < 20; ++i) {
      clock_.Advance(std::chrono::seconds(1));
      RunUntilIdle(loop_);
    }
    EXPECT_EQ(answers, threw ? 0 : 1);
    answers = 0;
    EXPECT_EQ(Outcome("one.test"), "192.0.2.1 192.0.2.2");
  };
  WithEachFailing(
      [&] {
        lookup_->FindAddresses("one.test", LookupFamily::kIPv4, [&](const AddressAnswer&) { ++answers; });
      },
      settle);
  WithEachFailing([&] { lookup_->FindConfirmedName(kAddress1, [&](const NameAnswer&) { ++answers; }); },
                  settle);
}

TEST_F(LookupMemoryTest, AnswerThatThereIsNoneForIsOneThatHasNotCome) {
  server_.SetAddresses("one.test", {kAddress1, kAddress2});
  int answers = 0;
  lookup_->FindAddresses("first.test", LookupFamily::kIPv4, [&](const AddressAnswer&) { ++answers; });
  ASSERT_TRUE(RunUntil(loop_, [&] { return answers == 1; }));
  answers = 0;
  const auto ask = [&] {
    server_.Hold();
    const std::size_t asked = server_.Questions("one.test");
    lookup_->FindAddresses("one.test", LookupFamily::kIPv4, [&](const AddressAnswer&) { ++answers; });
    ASSERT_TRUE(Asked("one.test", asked + 1));
    server_.Release();
  };
  ask();
  WithEachFailing([&] { RunUntilIdle(loop_); },
                  [&](bool) {
                    for (int i = 0; i < 20 && answers == 0; ++i) {
                      clock_.Advance(std::chrono::seconds(1));
                      RunUntilIdle(loop_);
                    }
                    EXPECT_EQ(answers, 1);
                    answers = 0;
                    ask();
                  });
}

}  // namespace
}  // namespace trabex

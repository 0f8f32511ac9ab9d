#include "proxy/accepted_recipients.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace trabex {
namespace {

TEST(AcceptedRecipients, KeepsTheFirstAndCountsAll) {
  AcceptedRecipients recipients;
  for (std::size_t i = 0; i < 1000; ++i) recipients.Add("u" + std::to_string(i) + "@local.test");
  EXPECT_EQ(recipients.count, 1000);
  ASSERT_EQ(recipients.first.size(), AcceptedRecipients::kMaxKept);
  EXPECT_EQ(recipients.first[0], "u0@local.test");
  EXPECT_EQ(recipients.first[AcceptedRecipients::kMaxKept - 1], "u9@local.test");
}

TEST(SpareRecipients, GivesEmptyOnesAgain) {
  SpareRecipients spare;
  auto recipients = spare.Take();
  recipients->Add("u@local.test");
  const AcceptedRecipients* const first = recipients.get();
  spare.GiveBack(std::move(recipients));
  recipients = spare.Take();
  EXPECT_EQ(recipients.get(), first);
  EXPECT_EQ(recipients->count, 0);
  EXPECT_EQ(recipients->first.size(), 0U);
  EXPECT_NE(spare.Take().get(), first) << "it is taken";
}

TEST(SpareRecipients, KeepsAFewOnly) {
  SpareRecipients spare;
  std::vector<std::unique_ptr<AcceptedRecipients>> taken;
  for (std::size_t i = 0; i < SpareRecipients::kMaxSpare + 10; ++i) taken.push_back(spare.Take());
  for (auto& one : taken) spare.GiveBack(std::move(one));
  EXPECT_EQ(spare.Count(), SpareRecipients::kMaxSpare);
}

}  // namespace
}  // namespace trabex

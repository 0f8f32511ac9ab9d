#include "report/counters.h"

#include <gtest/gtest.h>

#include <set>
#include <string_view>

namespace trabex {
namespace {

TEST(CountedReplies, AreAllRepliesWithAKeyEachByItsOwn) {
  std::set<std::string_view> keys;
  for (const CountedReply& reply : CountedReplies()) {
    EXPECT_TRUE(keys.insert(reply.key).second) << reply.key;
    EXPECT_EQ(reply.code, FindPolicyReply(reply.kind).code);
  }
  for (int number = 0; number < kReplyKinds; ++number) {
    const PolicyReply& row = FindPolicyReply(static_cast<ReplyKind>(number));
    EXPECT_EQ(keys.contains(row.key), !row.key.empty() && row.key != "BadSeq") << row.key;
  }
  for (const char* key :
       {"BadSeq.Transaction", "BadSeq.NoTransaction", "BadSeq.BDAT", "BadSeq.NoHelo", "BadSeq.BadIP"}) {
    EXPECT_TRUE(keys.contains(key)) << key;
  }
}

TEST(CountedReplies, AreFoundByKindAndKey) {
  const auto& replies = CountedReplies();
  for (std::size_t i = 0; i < replies.size(); ++i) {
    EXPECT_EQ(CountedReplyIndex(replies[i].kind, replies[i].key), i);
  }
  EXPECT_EQ(replies[CountedReplyIndex(ReplyKind::kIPBlackList, "")].key, "IPBlackList");
  EXPECT_EQ(CountedReplyIndex(ReplyKind::kTlsBegins, ""), replies.size());
}

TEST(Histogram, CountsUpToEachBound) {
  Histogram times;
  for (const int microseconds : {500, 501, 9999, 10'000'000, 10'000'001}) {
    times.Observe(std::chrono::microseconds(microseconds));
  }
  EXPECT_EQ(times.UpTo(0), 1U);   // 0.0005
  EXPECT_EQ(times.UpTo(1), 2U);   // 0.001
  EXPECT_EQ(times.UpTo(4), 3U);   // 0.01
  EXPECT_EQ(times.UpTo(13), 4U);  // 10
  EXPECT_EQ(times.Count(), 5U);
  EXPECT_DOUBLE_EQ(times.SumSeconds(), 20.011001);
}

}  // namespace
}  // namespace trabex

#include "report/counters.h"

#include <algorithm>

namespace trabex {

const std::vector<CountedReply>& CountedReplies() {
  static const std::vector<CountedReply> replies = [] {
    std::vector<CountedReply> result;
    for (int number = 0; number < kReplyKinds; ++number) {
      const PolicyReply& row = FindPolicyReply(static_cast<ReplyKind>(number));
      if (row.kind == ReplyKind::kBadSequence) {
        // The one kind with several keys of its own.
        for (const std::string_view key : {"BadSeq.Transaction", "BadSeq.NoTransaction", "BadSeq.BDAT"}) {
          result.push_back({row.kind, key, row.code});
        }
      } else if (!row.key.empty()) {
        result.push_back({row.kind, row.key, row.code});
      }
    }
    return result;
  }();
  return replies;
}

std::size_t CountedReplyIndex(ReplyKind kind, std::string_view key) {
  const std::vector<CountedReply>& replies = CountedReplies();
  const auto found = std::find_if(replies.begin(), replies.end(), [&](const CountedReply& reply) {
    return reply.kind == kind && (key.empty() || reply.key == key);
  });
  return static_cast<std::size_t>(found - replies.begin());
}

}  // namespace trabex

#include "proxy/last_words.h"

#include <algorithm>

#include "base/text.h"
#include "proxy/dialogue/policy_replies.h"

namespace trabex {

LastWords::LastWords(const Configuration& configuration) {
  constexpr std::string_view kName = "<localhostname>";
  const PolicyReply& reply = FindPolicyReply(ReplyKind::kServerError);
  Append(reply.code);
  Append(" ");
  const std::size_t name = reply.text.find(kName);
  Append(reply.text.substr(0, name));
  if (name != std::string_view::npos) {
    Append(configuration.LocalHostName);
    Append(reply.text.substr(name + kName.size()));
  }
  size_ = std::min(size_, text_.size() - kCrLf.size());
  Append(kCrLf);
}

void LastWords::Append(std::string_view text) {
  size_ += text.copy(text_.data() + size_, text_.size() - size_);
}

}  // namespace trabex

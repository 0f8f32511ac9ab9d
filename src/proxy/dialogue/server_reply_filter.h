// Follows the server's replies, so that the session's state is what the server said, and rewrites them for
// the client. The filter sees no socket and sends nothing; the session acts on what it returns.
#pragma once

#include <string>
#include <string_view>

#include "config/configuration.h"
#include "platform/clock.h"
#include "proxy/dialogue/session_facts.h"
#include "proxy/dialogue/session_macros.h"
#include "proxy/dialogue/session_state.h"

namespace trabex {

// What the session is to do with a reply.
struct ReplyDecision {
  std::string text;    // for the client, with its line ends
  std::string header;  // for the server first, when not empty: it opens the message content
  bool content_cut_off =
      false;  // the server answered before the content was complete: the session ends behind the reply
};

class ServerReplyFilter {
 public:
  // All references outlive the filter.
  ServerReplyFilter(const Configuration& configuration, const Clock& clock, const SessionFacts& facts,
                    SessionState& state);

  // `reply` is one complete reply with its line ends.
  ReplyDecision ProcessOutgoingData(std::string_view reply);

 private:
  // Whether the next reply is the one to the last chunk of a message.
  bool AnswersLastChunk() const;
  void FollowReply(std::string_view code, std::string_view reply, ReplyDecision& decision);
  void FollowAccepted();
  void FollowContentWanted(ReplyDecision& decision);
  // The reply to EHLO as the client shall see it, without the last CR LF.
  std::string RewriteEhloReply(std::string_view reply);
  void LimitSize();
  void ApplyExtensionLists();

  const Configuration& configuration_;
  const Clock& clock_;
  const SessionFacts& facts_;
  SessionState& state_;
  SessionMacros macros_;
};

}  // namespace trabex

// What happens in a dialogue, for whoever counts it and keeps records. Nothing of it changes what the
// dialogue does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "match/ip_range.h"
#include "match/mText.h"
#include "proxy/dialogue/command_table.h"
#include "proxy/dialogue/dialogue_state.h"
#include "proxy/dialogue/greylist_check.h"
#include "proxy/dialogue/policy_replies.h"

namespace trabex {

// The list of the settings that refused something. The entry is looked for only by who wants to know it.
struct DecidingList {
  // What was looked for in it.
  enum class Value : std::uint8_t { kAddress, kName, kHelo, kSender, kRecipient };

  std::string_view name = {};  // its key; "": no list decided
  // With one of them the first entry that matches the value refused; without, that no entry does.
  const ExpressionList* list = nullptr;
  const IPRangeList* ranges = nullptr;
  Value value = Value::kAddress;
};

// A reply that the proxy gives by itself. Valid during the call only.
struct OwnReply {
  ReplyKind kind;
  std::string_view key;   // of a member of a family its own
  std::string_view text;  // with its changes, without line end
  const RequestedState& requested;
  DecidingList list = {};
  bool sent = true;   // false: the session ends without a word
  bool ends = false;  // the session ends with it
};

enum class RecipientResult : std::uint8_t {
  kAccepted,
  kRefused,   // by the proxy
  kDeferred,  // by the proxy
  kServerRefused,
  kServerDeferred,
};

// Every method has an empty body, for those who want to know of some only.
class DialogueEvents {
 public:
  virtual ~DialogueEvents() = default;
  // A command line of the client was taken.
  virtual void OnCommand() {}
  virtual void OnOwnReply(const OwnReply&) {}
  // Greylisting has judged the recipient of `requested`; with `callback` it was let through all the same, as
  // one of a sender that only asks whether it exists.
  virtual void OnGreylisting(const GreylistVerdict&, bool /*callback*/, const RequestedState& /*requested*/) {
  }
  // A complete reply of the server, before its changes; to its greeting belongs Command::kOther.
  virtual void OnServerReply(Command, std::string_view /*reply*/) {}
  // The server has accepted a sender, which is that of `requested`.
  virtual void OnTransaction(const RequestedState& /*requested*/) {}
  virtual void OnRecipient(RecipientResult, std::string_view /*mailbox*/) {}
  // Octets of a message's content that were passed on.
  virtual void OnContent(std::size_t /*octets*/) {}
  // The server's reply to a message that came whole.
  virtual void OnMessage(std::string_view /*reply*/) {}
};

}  // namespace trabex

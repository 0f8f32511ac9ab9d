// What can be shown of an open session.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include "base/ip_address.h"
#include "proxy/accepted_recipients.h"
#include "proxy/dialogue/greylist_check.h"
#include "proxy/session_id.h"
#include "proxy/session_observer.h"
#include "proxy/session_state.h"

namespace trabex {

// The texts are as the client or server said them, of any length, and may hold any byte. They and the recipients
// are valid until the session goes on: who keeps them copies them.
struct SessionSnapshot {
  SessionId id = 0;
  std::int32_t client_handle = -1;
  std::int32_t server_handle = -1;  // -1: not connected
  IPAddress client = {};
  bool is_local = false;       // the client
  bool client_tls = false;     // its connection is under TLS
  bool server_tls = false;     // likewise the server's
  std::string_view name = {};  // of the client, from DNS; "": none, or not yet
  std::string_view helo = {};  // "": none
  bool in_transaction =
      false;  // from MAIL up to the reply to the message; without, the following four are empty
  std::string_view sender = {};                       // "" is one, too
  std::string_view recipient = {};                    // that of the latest RCPT, accepted or not
  std::int64_t rcpt_commands = 0;                     // of the transaction
  const AcceptedRecipients* recipients = nullptr;     // nullptr: none was accepted
  std::optional<GreylistingResult> greylisting = {};  // of `recipient`, or of one before it
  std::int64_t mail_commands = 0;                     // of the session
  std::string_view last_command = {};                 // its verb, in upper case
  std::string_view last_reply = {};  // the beginning of its first line; "": none was said to the client
  SessionState state = SessionState::kEnding;
  std::chrono::milliseconds time_in_state{0};
  std::chrono::milliseconds age{0};
  TransferredBytes client_bytes = {};
  TransferredBytes server_bytes = {};
};

class cProxy;

// Takes no memory and makes no texts.
SessionSnapshot SnapshotOf(const cProxy& session);

}  // namespace trabex

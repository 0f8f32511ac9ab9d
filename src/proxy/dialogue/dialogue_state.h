// What a dialogue remembers. Only Dialogue writes it: the filters read it and return the changes in their
// decisions.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "base/numbers.h"
#include "base/rare_text.h"
#include "proxy/dialogue/command_table.h"
#include "proxy/dialogue/content_tracker.h"
#include "proxy/dialogue/dialogue_phase.h"
#include "proxy/dialogue/extension_collection.h"

namespace trabex {

// What the client asked for, whether it was accepted or not. Replies and the Received header name it: after
// an EHLO that was accepted and a HELO that was refused the domain is that of the HELO.
struct RequestedState {
  std::string CurrentVerb;  // of the line being filtered, upper case, whether it will be forwarded or not

  // Greeting.
  std::string HeloDomain;
  bool EhloUsed = false;  // the latest greeting was an EHLO

  // Transaction.
  bool SmtpUtf8 = false;            // MAIL carries SMTPUTF8, which the server offers
  bool Greylisted = false;          // a recipient was let through so far; DATA and BDAT are refused
  std::string Sender;               // mailbox of MAIL, without brackets
  std::string Recipient;            // mailbox of the latest RCPT
  FixedPoint DeclaredSize = 0;      // SIZE= of MAIL
  std::int64_t RecipientCount = 0;  // RCPT commands of the transaction, refused ones too

  // Session.
  std::int64_t TransactionCount = 0;  // MAIL commands
  std::int64_t BadSequenceCount = 0;

  // What is left when all that was said is forgotten: the counters of the session.
  void BeginAnew() {
    RequestedState anew;
    anew.TransactionCount = TransactionCount;
    anew.BadSequenceCount = BadSequenceCount;
    *this = std::move(anew);
  }
  // For a MAIL that goes to the server. Whether a transaction is open then, the server's reply decides.
  void BeginTransaction(std::string_view sender, bool smtp_utf8) {
    ResetTransaction();
    Sender = sender;
    SmtpUtf8 = smtp_utf8;
  }
  // The state after an accepted EHLO, HELO or RSET, and after a message that was refused.
  void ResetTransaction() {
    Sender.clear();
    SmtpUtf8 = false;
    Recipient.clear();
    RecipientCount = 0;
    Greylisted = false;
  }
};

// What the server offered in its reply to the greeting that it accepted last.
struct OfferedState {
  ExtensionCollection Extensions;  // as rewritten for the client; empty after HELO
  bool TlsOffered = false;         // by STARTTLS, when TLS could begin
  bool SmtpUtf8Offered = false;    // by the server itself (RFC 6531), and left in its reply
  FixedPoint SizeLimit = 0;        // bytes for a message of this session; 0: none. HELO leaves it
};

// The last forwarded command; the pending or latest reply belongs to it.
struct ForwardedCommand {
  std::string ForwardedVerb;
  Command command = Command::kOther;
  bool last_chunk = false;   // of a BDAT: it is marked as the last one
  std::uint64_t octets = 0;  // that follow a BDAT, or will follow an XEXCH50 that is accepted
};

// What the server has said to AUTH (RFC 4954).
struct LoginState {
  bool ever = false;    // it took one: the server may know the client since
  bool latest = false;  // it took the latest one
};

struct DialogueState {
  Phase phase = Phase::kServerGreeting;
  Transaction transaction = Transaction::kNoGreeting;
  LoginState login;
  bool header_begun = false;  // in kProxyHeader: a byte of it has come
  RequestedState requested;
  OfferedState offered;
  ForwardedCommand forwarded;
  ContentTracker content;  // in the phases with content
  // What the client has sent of the message under way, all its chunks together.
  std::uint64_t content_octets = 0;
  RareText asking_line;  // in kAsking: the line that waits for the answer
  // The server's latest 250 to an EHLO, as it came, while the client has to greet once more: after TLS has
  // begun, or when the proxy greeted first.
  std::string earlier_ehlo_reply;
  std::int64_t BytesReceived = 0;  // octets of the client that were taken

  // Nothing that the client said counts any more, and nothing that it was told (RFC 3207, 4.2); the counters
  // of the session stay. The server has not heard of it: it forgets at the EHLO that the client must send
  // now.
  void BeginAnew() {
    transaction = Transaction::kNoGreeting;
    requested.BeginAnew();
    offered = {};
    login = {};
  }
};

}  // namespace trabex

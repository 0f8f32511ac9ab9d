// The protocol state of one session, which both filters share. It changes only through the transitions named
// here.
//
//   greeting ──► EHLO/HELO accepted (GreetingDone) ──► MAIL accepted (TransactionOpen) ──► RCPT …
//                          ▲                                                                  │
//                          ├─────── DATA, 354 ──► content ◄───────────────────────────────────┤
//                          ├─────── BDAT … BDAT LAST, any reply ◄─────────────────────────────┤
//                          └─────── RSET, EHLO or HELO accepted ◄─────────────────────────────┘
//
// What opens, ends or resets a transaction is always a complete reply of the server to the command in
// question, never the command itself: the proxy's view of the dialogue is that of the server.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/numbers.h"
#include "proxy/dialogue/command_table.h"
#include "proxy/dialogue/content_tracker.h"
#include "proxy/dialogue/extension_collection.h"

namespace trabex {

// Whose answer the next reply of the server is. Only one is ever under way, so no reply is taken for that of
// another command.
enum class ReplyExpected {
  kNone,      // a reply now is the server's own idea (421, say) and changes no state
  kGreeting,  // RFC 5321, 3.1
  kCommand,   // to ForwardedVerb
  kContent,   // to the message content, after DATA or XEXCH50
};

struct SessionState {
  // The command line being looked at, as the client sent it (upper case), answered by whom ever.
  std::string CurrentVerb;
  // The last command that the server got, and whose reply is awaited or was the last one.
  std::string ForwardedVerb;
  Command Forwarded = Command::kOther;
  ReplyExpected Expected = ReplyExpected::kGreeting;

  // Greeting.
  bool GreetingDone = false;  // the server accepted an EHLO or HELO
  bool EhloUsed = false;      // the last greeting was EHLO
  std::string HeloDomain;
  ExtensionCollection Extensions;  // what the server offered, rewritten; empty after HELO
  bool SmtpUtf8Offered = false;    // by the server itself (RFC 6531), and left in its reply
  FixedPoint SizeLimit = 0;        // bytes for a message of this session; 0: none

  // Transaction.
  bool TransactionOpen = false;
  std::string Sender;               // mailbox of MAIL, without brackets
  std::string Recipient;            // mailbox of the last RCPT
  FixedPoint DeclaredSize = 0;      // SIZE= of MAIL
  std::int64_t RecipientCount = 0;  // RCPT commands of the transaction, refused ones too
  bool SmtpUtf8 = false;            // its MAIL carries SMTPUTF8, which the server offered
  bool Greylisted = false;          // let through so far, refused at DATA
  bool ChunkSequence = false;       // between the first BDAT of a message and its LAST
  bool LastChunk = false;           // the BDAT under way is the last one

  // Session.
  std::int64_t TransactionCount = 0;  // MAIL commands
  std::int64_t BadSequenceCount = 0;
  bool AuthenticationData = false;    // the client's next line is no command, RFC 4954
  std::uint64_t AnnouncedOctets = 0;  // of the XEXCH50 under way
  ContentTracker Content;

  // A MAIL that goes to the server begins a transaction; whether one is open, the server says.
  void BeginTransaction(std::string_view sender, bool smtp_utf8);
  // What EHLO, HELO and RSET leave behind.
  void ResetTransaction();
  // 354 to DATA, or any reply to the last chunk: the server is done with the transaction, the next message
  // needs a new MAIL. The addresses stay, for what is still said about this one.
  void EndTransaction();

  // A command goes to the server.
  void Forward(std::string_view verb, Command command);
};

}  // namespace trabex

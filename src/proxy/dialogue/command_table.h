// Everything the program knows about a command, one row each. No other file compares verbs.
#pragma once

#include <span>
#include <string_view>

namespace trabex {

enum class Command {
  kOther,  // any verb without a row of its own
  kAtrn,
  kAuth,
  kBdat,
  kData,
  kEhlo,
  kExpn,
  kHelo,
  kHelp,
  kMail,
  kNoop,
  kQuit,
  kRcpt,
  kRset,
  kSaml,
  kSend,
  kSoml,
  kStarttls,
  kTurn,
  kVrfy,
  kXclient,
  kXexch50,
  kXforward,
};

// What a command asks of the mail transaction.
enum class TransactionRule {
  kAnywhere,
  kOutsideTransaction,  // not while one is open: what opens one (RFC 5321, 4.1.4), and STARTTLS
  kInTransaction,       // only while a transaction is open
};

struct CommandRow {
  std::string_view verb = {};  // upper case
  Command id = Command::kOther;
  bool before_greeting = false;  // taken before HELO or EHLO
  TransactionRule transaction = TransactionRule::kAnywhere;
  bool in_chunk_sequence = false;  // taken between two BDAT of one message, RFC 3030
  // The EHLO keyword without which the command is out of order in a transaction; "" when it needs none.
  std::string_view extension = {};
  // Never forwarded: it would hand the connection, or the client's identity, to the server unchecked.
  // STARTTLS is answered by the proxy, which has a TLS of its own.
  bool blocked = false;
};

// The row of `verb` (upper case). Verbs that begin with "X" and have no row of their own, and all others
// without one, get a general row.
const CommandRow& FindCommand(std::string_view verb);
// Whether `verb` (upper case, without a row of its own) is that of a row with something behind it that is neither a
// letter nor a digit, as "MAIL;": a server that reads no further would take it for the command of that row.
bool BeginsWithCommand(std::string_view verb);
// The rows of those that have one.
std::span<const CommandRow> AllCommands();

}  // namespace trabex

#include "proxy/dialogue/command_table.h"

#include <algorithm>
#include <array>

namespace trabex {

namespace {

constexpr std::array kCommands = {
    // verb, id, before_greeting, transaction, in_chunk_sequence, extension, blocked
    CommandRow{"ATRN", Command::kAtrn, false, TransactionRule::kAnywhere, false, "", true},
    CommandRow{"AUTH", Command::kAuth, false, TransactionRule::kAnywhere, false, "", false},
    CommandRow{"BDAT", Command::kBdat, false, TransactionRule::kInTransaction, true, "CHUNKING", false},
    CommandRow{"DATA", Command::kData, false, TransactionRule::kInTransaction, false, "", false},
    CommandRow{"EHLO", Command::kEhlo, true, TransactionRule::kAnywhere, false, "", false},
    CommandRow{"EXPN", Command::kExpn, true, TransactionRule::kAnywhere, false, "", false},
    CommandRow{"HELO", Command::kHelo, true, TransactionRule::kAnywhere, false, "", false},
    CommandRow{"HELP", Command::kHelp, true, TransactionRule::kAnywhere, false, "", false},
    CommandRow{"MAIL", Command::kMail, false, TransactionRule::kOutsideTransaction, false, "", false},
    CommandRow{"NOOP", Command::kNoop, true, TransactionRule::kAnywhere, false, "", false},
    CommandRow{"QUIT", Command::kQuit, true, TransactionRule::kAnywhere, true, "", false},
    CommandRow{"RCPT", Command::kRcpt, false, TransactionRule::kInTransaction, false, "", false},
    CommandRow{"RSET", Command::kRset, true, TransactionRule::kAnywhere, true, "", false},
    CommandRow{"SAML", Command::kSaml, false, TransactionRule::kOutsideTransaction, false, "", false},
    CommandRow{"SEND", Command::kSend, false, TransactionRule::kOutsideTransaction, false, "", false},
    CommandRow{"SOML", Command::kSoml, false, TransactionRule::kOutsideTransaction, false, "", false},
    CommandRow{"STARTTLS", Command::kStarttls, false, TransactionRule::kOutsideTransaction, false, "", true},
    CommandRow{"TURN", Command::kTurn, false, TransactionRule::kAnywhere, false, "", true},
    CommandRow{"VRFY", Command::kVrfy, true, TransactionRule::kAnywhere, false, "", false},
    CommandRow{"XCLIENT", Command::kXclient, true, TransactionRule::kAnywhere, false, "", true},
    CommandRow{"XEXCH50", Command::kXexch50, true, TransactionRule::kInTransaction, false, "XEXCH50", false},
    CommandRow{"XFORWARD", Command::kXforward, true, TransactionRule::kAnywhere, false, "", true},
};

constexpr CommandRow kExtensionVerb{"", Command::kOther, true, TransactionRule::kAnywhere, false, "", false};
constexpr CommandRow kUnknownVerb{"", Command::kOther, false, TransactionRule::kAnywhere, false, "", false};

}  // namespace

const CommandRow& FindCommand(std::string_view verb) {
  const auto row = std::find_if(kCommands.begin(), kCommands.end(),
                                [&](const CommandRow& command) { return command.verb == verb; });
  if (row != kCommands.end()) return *row;
  return verb.starts_with('X') ? kExtensionVerb : kUnknownVerb;
}

std::span<const CommandRow> AllCommands() {
  return kCommands;
}

}  // namespace trabex

#include "proxy/dialogue/command_table.h"

#include <algorithm>
#include <array>

namespace trabex {

namespace {

constexpr std::array kCommands = {
    //         verb        command              before  place                     chunks  extension   never
    CommandRow{"ATRN", Command::kAtrn, false, Place::kAnywhere, false, "", true},
    CommandRow{"AUTH", Command::kAuth, false, Place::kAnywhere, false, "", false},
    CommandRow{"BDAT", Command::kBdat, false, Place::kInTransaction, true, "CHUNKING", false},
    CommandRow{"DATA", Command::kData, false, Place::kInTransaction, false, "", false},
    CommandRow{"EHLO", Command::kEhlo, true, Place::kAnywhere, false, "", false},
    CommandRow{"EXPN", Command::kExpn, true, Place::kAnywhere, false, "", false},
    CommandRow{"HELO", Command::kHelo, true, Place::kAnywhere, false, "", false},
    CommandRow{"HELP", Command::kHelp, true, Place::kAnywhere, false, "", false},
    CommandRow{"MAIL", Command::kMail, false, Place::kOpensTransaction, false, "", false},
    CommandRow{"NOOP", Command::kNoop, true, Place::kAnywhere, false, "", false},
    CommandRow{"QUIT", Command::kQuit, true, Place::kAnywhere, true, "", false},
    CommandRow{"RCPT", Command::kRcpt, false, Place::kInTransaction, false, "", false},
    CommandRow{"RSET", Command::kRset, true, Place::kAnywhere, true, "", false},
    CommandRow{"SAML", Command::kSaml, false, Place::kOpensTransaction, false, "", false},
    CommandRow{"SEND", Command::kSend, false, Place::kOpensTransaction, false, "", false},
    CommandRow{"SOML", Command::kSoml, false, Place::kOpensTransaction, false, "", false},
    CommandRow{"STARTTLS", Command::kStarttls, false, Place::kAnywhere, false, "", true},
    CommandRow{"TURN", Command::kTurn, false, Place::kAnywhere, false, "", true},
    CommandRow{"VRFY", Command::kVrfy, true, Place::kAnywhere, false, "", false},
    CommandRow{"XCLIENT", Command::kXclient, true, Place::kAnywhere, false, "", true},
    CommandRow{"XEXCH50", Command::kXexch50, true, Place::kInTransaction, false, "XEXCH50", false},
    CommandRow{"XFORWARD", Command::kXforward, true, Place::kAnywhere, false, "", true},
};

constexpr CommandRow kExtensionVerb{"", Command::kOther, true, Place::kAnywhere, false, "", false};
constexpr CommandRow kUnknownVerb{"", Command::kOther, false, Place::kAnywhere, false, "", false};

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

#include "proxy/dialogue/command_table.h"

#include <algorithm>
#include <iterator>

#include "base/text.h"

namespace trabex {

namespace {

using enum Command;
using enum TransactionRule;

constexpr CommandRow kCommands[] = {
    {.verb = "ATRN", .id = kAtrn, .blocked = true},
    {.verb = "AUTH", .id = kAuth},
    {.verb = "BDAT",
     .id = kBdat,
     .transaction = kInTransaction,
     .in_chunk_sequence = true,
     .extension = "CHUNKING"},
    {.verb = "DATA", .id = kData, .transaction = kInTransaction},
    {.verb = "EHLO", .id = kEhlo, .before_greeting = true},
    {.verb = "EXPN", .id = kExpn, .before_greeting = true},
    {.verb = "HELO", .id = kHelo, .before_greeting = true},
    {.verb = "HELP", .id = kHelp, .before_greeting = true},
    {.verb = "MAIL", .id = kMail, .transaction = kOutsideTransaction},
    {.verb = "NOOP", .id = kNoop, .before_greeting = true},
    {.verb = "QUIT", .id = kQuit, .before_greeting = true, .in_chunk_sequence = true},
    {.verb = "RCPT", .id = kRcpt, .transaction = kInTransaction},
    {.verb = "RSET", .id = kRset, .before_greeting = true, .in_chunk_sequence = true},
    {.verb = "SAML", .id = kSaml, .transaction = kOutsideTransaction},
    {.verb = "SEND", .id = kSend, .transaction = kOutsideTransaction},
    {.verb = "SOML", .id = kSoml, .transaction = kOutsideTransaction},
    {.verb = "STARTTLS", .id = kStarttls, .transaction = kOutsideTransaction, .blocked = true},
    {.verb = "TURN", .id = kTurn, .blocked = true},
    {.verb = "VRFY", .id = kVrfy, .before_greeting = true},
    {.verb = "XCLIENT", .id = kXclient, .before_greeting = true, .blocked = true},
    {.verb = "XEXCH50",
     .id = kXexch50,
     .before_greeting = true,
     .transaction = kInTransaction,
     .extension = "XEXCH50"},
    {.verb = "XFORWARD", .id = kXforward, .before_greeting = true, .blocked = true},
};

constexpr CommandRow kExtensionVerb{.before_greeting = true};
constexpr CommandRow kUnknownVerb{};

}  // namespace

const CommandRow& FindCommand(std::string_view verb) {
  const auto* row = std::ranges::find(kCommands, verb, &CommandRow::verb);
  if (row != std::end(kCommands)) return *row;
  return verb.starts_with('X') ? kExtensionVerb : kUnknownVerb;
}

bool BeginsWithCommand(std::string_view verb) {
  const auto* end =
      std::ranges::find_if_not(verb, [](char c) { return IsDigit(c) || (c >= 'A' && c <= 'Z'); });
  const auto size = static_cast<std::size_t>(end - verb.begin());
  return size != verb.size() && FindCommand(verb.substr(0, size)).id != Command::kOther;
}

std::span<const CommandRow> AllCommands() {
  return kCommands;
}

}  // namespace trabex

#include "proxy/dialogue/command_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>

namespace trabex {
namespace {

TEST(CommandTable, KnowsWhereEveryCommandHasItsPlace) {
  constexpr auto kAnywhere = TransactionRule::kAnywhere;
  constexpr auto kOutside = TransactionRule::kOutsideTransaction;
  constexpr auto kInside = TransactionRule::kInTransaction;
  const struct {
    const char* verb;
    bool before_greeting;
    TransactionRule transaction;
    bool in_chunk_sequence;
    const char* extension;
    bool blocked;
  } rows[] = {
      {"EHLO", true, kAnywhere, false, "", false},
      {"HELO", true, kAnywhere, false, "", false},
      {"RSET", true, kAnywhere, true, "", false},
      {"QUIT", true, kAnywhere, true, "", false},
      {"VRFY", true, kAnywhere, false, "", false},
      {"HELP", true, kAnywhere, false, "", false},
      {"NOOP", true, kAnywhere, false, "", false},
      {"EXPN", true, kAnywhere, false, "", false},
      {"MAIL", false, kOutside, false, "", false},
      {"SEND", false, kOutside, false, "", false},
      {"SOML", false, kOutside, false, "", false},
      {"SAML", false, kOutside, false, "", false},
      {"RCPT", false, kInside, false, "", false},
      {"DATA", false, kInside, false, "", false},
      {"BDAT", false, kInside, true, "CHUNKING", false},
      {"XEXCH50", true, kInside, false, "XEXCH50", false},
      {"AUTH", false, kAnywhere, false, "", false},
      {"STARTTLS", false, kOutside, false, "", true},
      {"TURN", false, kAnywhere, false, "", true},
      {"ATRN", false, kAnywhere, false, "", true},
      {"XCLIENT", true, kAnywhere, false, "", true},
      {"XFORWARD", true, kAnywhere, false, "", true},
      // Without a row of their own: the extension verbs, and the others.
      {"X", true, kAnywhere, false, "", false},
      {"X-EXPS", true, kAnywhere, false, "", false},
      {"XADR", true, kAnywhere, false, "", false},
      {"XZZZ{", true, kAnywhere, false, "", false},
      {"ETRN", false, kAnywhere, false, "", false},
      {"WXYZ", false, kAnywhere, false, "", false},
      {"YXZ", false, kAnywhere, false, "", false},
      {"", false, kAnywhere, false, "", false},
      {"MAILX", false, kAnywhere, false, "", false},
      {"mail", false, kAnywhere, false, "", false},  // asked for in upper case only
  };
  for (const auto& row : rows) {
    const CommandRow& command = FindCommand(row.verb);
    EXPECT_EQ(command.before_greeting, row.before_greeting) << row.verb;
    EXPECT_EQ(command.transaction, row.transaction) << row.verb;
    EXPECT_EQ(command.in_chunk_sequence, row.in_chunk_sequence) << row.verb;
    EXPECT_EQ(command.extension, row.extension) << row.verb;
    EXPECT_EQ(command.blocked, row.blocked) << row.verb;
  }
  for (const CommandRow& command : AllCommands()) {
    const bool tested = std::any_of(std::begin(rows), std::end(rows),
                                    [&](const auto& row) { return row.verb == command.verb; });
    EXPECT_TRUE(tested) << command.verb;
  }
}

}  // namespace
}  // namespace trabex

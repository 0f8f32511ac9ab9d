// MAIL, and SEND, SOML and SAML, which open a transaction just as it does.
#include <gtest/gtest.h>

#include <string>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

constexpr const char* kSyntax = "<- 501 5.5.4 Invalid syntax of address in MAIL command.";

// A session that is greeted, with `bare` for ProcessAddressesWithoutBrackets.
std::string Mail(int bare, std::string_view line) {
  TestDialogue d;
  d.configuration.ProcessAddressesWithoutBrackets = bare;
  d.state.transaction = Transaction::kGreeted;
  return d.Says(Unescape(line));
}

TEST(Mail, AddressesInBrackets) {
  const struct {
    const char* line;
    const char* outcome;
  } rows[] = {
      {"MAIL FROM:<a@b>", "-> MAIL FROM:<a@b>"},
      {"mail from:<A@B>", "-> MAIL FROM:<A@B>"},
      {"MAIL FROM: <a@b>", "-> MAIL FROM:<a@b>"},
      {"MAIL  FROM:<a@b>", "-> MAIL FROM:<a@b>"},
      {R"(MAIL\tFROM:\t<a@b>\tSIZE=1)", "-> MAIL FROM:<a@b> SIZE=1"},
      {"MAIL FROM:<>", "-> MAIL FROM:<>"},
      {"MAIL FROM:< >", "-> MAIL FROM:<>"},
      {"MAIL FROM:<a@b> BODY=8BITMIME  X=Y ", "-> MAIL FROM:<a@b> BODY=8BITMIME  X=Y"},
      {"MAIL FROM:<@r1,@r2:a@b.>", "-> MAIL FROM:<a@b>"},
      {R"(MAIL FROM:<"a"@b>)", "-> MAIL FROM:<a@b>"},
      {R"(MAIL FROM:<"a b"@c> SIZE=1)", R"(-> MAIL FROM:<"a b"@c> SIZE=1)"},
      // A sender may hold a route: nothing is delivered to it.
      {"MAIL FROM:<x%y@b>", "-> MAIL FROM:<x%y@b>"},
      {"SEND FROM:<a@b>", "-> SEND FROM:<a@b>"},
      {"soml from:<a@b>", "-> SOML FROM:<a@b>"},
      {"SAML FROM:<a@b>", "-> SAML FROM:<a@b>"},
      // No address.
      {"MAIL", kSyntax},
      {"MAIL ", kSyntax},
      {"MAIL FROM", kSyntax},
      {"MAIL FROM <a@b>", kSyntax},
      {"MAIL FROM :<a@b>", kSyntax},
      {"MAIL FROM:", kSyntax},
      {"MAIL FROM:  ", kSyntax},
      {"SEND FROM:", kSyntax},
      {"soml from: ", kSyntax},
      {"SAML FROM:", kSyntax},
      {"MAIL TO:<a@b>", kSyntax},
      {"MAIL <a@b>", kSyntax},
      {"MAIL XFROM:<a@b>", kSyntax},
      {"SEND TO:<a@b>", kSyntax},
      {"MAIL FROM:<a@b@c>", kSyntax},
      {"MAIL FROM:<a b@c>", kSyntax},
      {"MAIL FROM:<a(c)@b>", kSyntax},
      {"MAIL FROM:<a@b,c@d>", kSyntax},
      {R"(MAIL FROM:<"a@b>)", kSyntax},
      {"MAIL FROM:<x%y>", kSyntax},
      {"MAIL FROM:<<a@b>>", kSyntax},
      // A second address, where the filter sees parameters.
      {"MAIL FROM:<> <a@b>", kSyntax},
      {"MAIL FROM:<a@b> c@d", kSyntax},
      {"MAIL FROM:<a@b> SIZE=1 (<c@d>)", kSyntax},
  };
  for (const auto& row : rows) {
    for (const int bare : {0, 1, 2}) {
      // Doubled brackets are unbalanced, so that the setting decides.
      if (bare == 2 && std::string_view(row.line).ends_with(">>")) continue;
      EXPECT_EQ(Mail(bare, row.line), row.outcome) << row.line << " with " << bare;
    }
  }
}

TEST(Mail, AddressesWithoutBrackets) {
  const struct {
    const char* line;
    const char* taken;
    const char* unchecked;
  } rows[] = {
      {"MAIL FROM:a@b", "-> MAIL FROM:<a@b>", "-> MAIL FROM:a@b"},
      {"MAIL FROM: a@b SIZE=1", "-> MAIL FROM:<a@b> SIZE=1", "-> MAIL FROM: a@b SIZE=1"},
      {"mail from:a@b", "-> MAIL FROM:<a@b>", "-> mail from:a@b"},
      {"MAIL FROM:<a@b", "-> MAIL FROM:<a@b>", "-> MAIL FROM:<a@b"},
      {"MAIL FROM:<a@b SIZE=1", "-> MAIL FROM:<a@b> SIZE=1", "-> MAIL FROM:<a@b SIZE=1"},
      {"MAIL FROM:a@b>", "-> MAIL FROM:<a@b>", "-> MAIL FROM:a@b>"},
      // A word in the place of an address is one.
      {"MAIL FROM: SIZE=5", "-> MAIL FROM:<SIZE=5>", "-> MAIL FROM: SIZE=5"},
      {"MAIL FROM:<", kSyntax, "-> MAIL FROM:<"},
      {"MAIL FROM:a@b@c", kSyntax, "-> MAIL FROM:a@b@c"},
      {"MAIL FROM:<a@b>SIZE=1", kSyntax, "-> MAIL FROM:<a@b>SIZE=1"},
      {"MAIL FROM:<<a@b>>", kSyntax, "-> MAIL FROM:<<a@b>>"},
      {"MAIL FROM:Joe <a@b>", kSyntax, "-> MAIL FROM:Joe <a@b>"},
      {R"(MAIL FROM:"a b"@c)", kSyntax, R"(-> MAIL FROM:"a b"@c)"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Mail(0, row.line), row.taken) << row.line;
    EXPECT_EQ(Mail(1, row.line), kSyntax) << row.line;
    EXPECT_EQ(Mail(2, row.line), row.unchecked) << row.line;
  }
}

TEST(Mail, AnUncheckedOneSkipsTheOtherChecks) {
  TestDialogue d;
  d.Greet();
  d.configuration.ProcessAddressesWithoutBrackets = 2;
  d.configuration.SendersBlackList = ListOf({"*"});
  d.configuration.MaxTransactionsRemote = 1;
  d.configuration.SenderReplacementsRemote = TableOf({{"*", "new@b"}});
  d.state.offered.SizeLimit = kFixedPointOne;
  EXPECT_EQ(d.Says("MAIL FROM:a@b SIZE=9"), "-> MAIL FROM:a@b SIZE=9");
  EXPECT_EQ(d.Says("MAIL FROM:a@b SIZE=9"), "-> MAIL FROM:a@b SIZE=9");
  // It was a transaction all the same, and its sender is the one that the later checks see.
  EXPECT_EQ(d.state.requested.TransactionCount, 2);
  EXPECT_EQ(d.state.requested.Sender, "a@b");
  EXPECT_EQ(d.state.requested.DeclaredSize, 0);
  EXPECT_EQ(d.Says("MAIL FROM:<a@b>"), "<- 452 4.5.0 Too many transactions during one session.");
}

TEST(Mail, ARestrictedSenderIsRestrictedWithoutBracketsToo) {
  for (const char* line : {"MAIL FROM:boss@local.test", "MAIL FROM:<boss@local.test",
                           "MAIL FROM:<boss@local.test>", "MAIL FROM:\"boss\"@local.test SIZE=1"}) {
    TestDialogue d;
    d.Greet();
    d.facts.local = true;
    d.configuration.ProcessAddressesWithoutBrackets = 2;
    d.configuration.RestrictedSenders = ListOf({"boss@local.test"});
    EXPECT_TRUE(d.Says(line).starts_with("->")) << line;
    d.Run(R"(
      S: 250 ok
      <- 250 ok
      C: RCPT TO:<x@far.test>
      <- 550 5.7.1 Sending mail to external recipients not allowed for boss@local.test.)");
  }
}

TEST(Mail, TransactionsAreCounted) {
  for (const bool local : {false, true}) {
    TestDialogue d;
    d.facts.local = local;
    (local ? d.configuration.MaxTransactionsLocal : d.configuration.MaxTransactionsRemote) = 2;
    (local ? d.configuration.MaxTransactionsRemote : d.configuration.MaxTransactionsLocal) = 1;
    d.Greet();
    d.Run(R"(
      C: MAIL FROM:<a@b>
      -> MAIL FROM:<a@b>
      S: 550 no
      <- 550 no
      # Not counted: no address.
      C: MAIL FROM:<a@b@c>
      <- 501 5.5.4 Invalid syntax of address in MAIL command.
      C: MAIL FROM:<a@b>
      -> MAIL FROM:<a@b>
      S: 250 ok
      <- 250 ok
      # Not counted: out of order.
      C: MAIL FROM:<a@b>
      <- 503 5.5.1 Bad sequence of commands.
      C: RSET
      -> RSET
      S: 250 ok
      <- 250 ok
      C: MAIL FROM:<a@b>
      <- 452 4.5.0 Too many transactions during one session.
      C: SEND FROM:<a@b>
      <- 452 4.5.0 Too many transactions during one session.)");
    EXPECT_EQ(d.state.requested.TransactionCount, 4);
  }
}

TEST(Mail, NoLimitOfTransactions) {
  TestDialogue d;
  d.Greet();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(d.Says("MAIL FROM:<a@b>"), "-> MAIL FROM:<a@b>");
}

TEST(Mail, SendersAreTestedWithThreeLists) {
  const struct {
    bool white;
    bool allowed;
    bool black;
    bool passes;
  } rows[] = {
      {false, false, false, false}, {false, false, true, false}, {false, true, false, true},
      {false, true, true, false},   {true, false, false, true},  {true, false, true, true},
      {true, true, false, true},    {true, true, true, true},
  };
  for (const auto& row : rows) {
    for (const bool local : {false, true}) {
      TestDialogue d;
      d.Greet();
      d.facts.local = local;
      const auto list = [](bool listed) { return listed ? ListOf({"x@y", "A@b"}) : ListOf({"x@y"}); };
      d.configuration.SendersWhiteList = list(row.white);
      d.configuration.SendersAllowList = list(row.allowed);
      d.configuration.SendersBlackList = list(row.black);
      EXPECT_EQ(d.Says("MAIL FROM:<a@B>"),
                row.passes ? "-> MAIL FROM:<a@B>" : "<- 550 5.7.1 Mail from a@B not allowed.");
    }
  }
}

TEST(Mail, EverySpellingOfASenderIsTested) {
  for (const char* line :
       {"MAIL FROM:<s@black.test>", "MAIL FROM:<S@BLACK.TEST>", "MAIL FROM:<s@black.test.>",
        "MAIL FROM:<\"s\"@black.test>", "MAIL FROM:<@white.test:s@black.test>", "MAIL FROM:s@black.test",
        "MAIL FROM:<s@black.test", "MAIL FROM:< s@black.test >", "SEND FROM:<s@black.test>",
        "MAIL FROM:<@white.test:\"s\"@black.test.> SIZE=1"}) {
    TestDialogue d;
    d.Greet();
    d.configuration.SendersBlackList = ListOf({"s@black.test"});
    EXPECT_TRUE(d.Says(line).starts_with("<- 550 5.7.1 Mail from ")) << line;
  }
}

TEST(Mail, TheNullSenderIsInNoList) {
  TestDialogue d;
  d.Greet();
  d.configuration.SendersAllowList = ExpressionList();
  d.configuration.SendersBlackList = ListOf({"*", "[]"});
  EXPECT_EQ(d.Says("MAIL FROM:<>"), "-> MAIL FROM:<>");
}

TEST(Mail, TheSizeIsLimited) {
  constexpr const char* kTooBig =
      "<- 552 5.3.4 Message size (1001 bytes) exceeds fixed maximium message size "
      "(1000 bytes).";
  const struct {
    const char* parameters;
    const char* outcome;
    int declared;
  } rows[] = {
      {"", "", 0},
      {" SIZE=0", "", 0},
      {" SIZE=999", "", 999},
      {" SIZE=1000", "", 1000},
      {" SIZE=1001", kTooBig, 1001},
      {" size=1001", kTooBig, 1001},
      {" SIZE=0000000000000000000000000000001001", kTooBig, 1001},
      {" BODY=7BIT SIZE=1001", kTooBig, 1001},
      {"   SIZE=1001   BODY=7BIT", kTooBig, 1001},
      // What is no number does not count.
      {" SIZE=12abc", "", 0},
      {" SIZE=1001abc", "", 0},
      {" SIZE=", "", 0},
      {" SIZE= 1001", "", 0},
      {" SIZE=-1001", "", 0},
      {" SIZE=+1001", "", 0},
      {" SIZE=1001.0", "", 0},
      {" SIZE", "", 0},
      {" XSIZE=1001", "", 0},
      {" X=SIZE=1001", "", 0},
      // Of several the greatest counts.
      {" SIZE=1 SIZE=1001", kTooBig, 1001},
      {" SIZE=1001 SIZE=1", kTooBig, 1001},
      {" SIZE=x SIZE=1001", kTooBig, 1001},
      {" SIZE=5 SIZE=7 SIZE=6", "", 7},
      {" SIZE=SIZE=1001", "", 0},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.Greet();
    d.state.offered.SizeLimit = 1000 * kFixedPointOne;
    const std::string line = std::string("MAIL FROM:<a@b>") + row.parameters;
    EXPECT_EQ(d.Says(line), *row.outcome ? row.outcome : "-> " + line);
    EXPECT_EQ(d.state.requested.DeclaredSize, row.declared * kFixedPointOne) << row.parameters;
  }
}

TEST(Mail, HugeSizesAreTooBig) {
  for (const char* digits : {"922337203685477", "922337203685478", "9223372036854775807",
                             "18446744073709551616", "99999999999999999999999999999999999999999"}) {
    TestDialogue d;
    d.Greet();
    d.state.offered.SizeLimit = 922337203685476 * kFixedPointOne;
    EXPECT_TRUE(
        d.Says(std::string("MAIL FROM:<a@b> SIZE=") + digits).starts_with("<- 552 5.3.4 Message size (92"))
        << digits;
  }
}

TEST(Mail, WithoutALimitNoSizeIsDeclared) {
  TestDialogue d;
  d.Greet();
  d.state.requested.DeclaredSize = 5 * kFixedPointOne;
  EXPECT_EQ(d.Says("MAIL FROM:<a@b> SIZE=99999999999999999999999"),
            "-> MAIL FROM:<a@b> SIZE=99999999999999999999999");
  EXPECT_EQ(d.state.requested.DeclaredSize, 0);
}

// The size belongs to one MAIL: a later one that is refused for another reason does not name it.
TEST(Mail, ARefusedOneForgetsTheSizeOfTheOneBefore) {
  TestDialogue d;
  d.Greet();
  d.state.offered.SizeLimit = 1000 * kFixedPointOne;
  EXPECT_EQ(d.Says("MAIL FROM:<a@b> SIZE=7"), "-> MAIL FROM:<a@b> SIZE=7");
  d.configuration.SendersBlackList = ListOf({"*"});
  d.configuration.ResponseChanges.Add(WholeReply("MAIL.BlackList", "550 {%size%}"));
  EXPECT_EQ(d.Says("MAIL FROM:<a@b>"), "<- 550 0");
}

TEST(Mail, TheListsComeBeforeTheSize) {
  TestDialogue d;
  d.Greet();
  d.state.offered.SizeLimit = kFixedPointOne;
  d.configuration.SendersBlackList = ListOf({"a@b"});
  EXPECT_EQ(d.Says("MAIL FROM:<a@b> SIZE=9"), "<- 550 5.7.1 Mail from a@b not allowed.");
  EXPECT_EQ(d.Says("MAIL FROM:<a@c> SIZE=9"),
            "<- 552 5.3.4 Message size (9 bytes) exceeds fixed maximium message size (1 bytes).");
}

TEST(Mail, SendersAreReplaced) {
  for (const bool local : {false, true}) {
    TestDialogue d;
    d.Greet();
    d.facts.local = local;
    (local ? d.configuration.SenderReplacementsLocal : d.configuration.SenderReplacementsRemote) =
        TableOf({{"a@b", "new@c"}, {"*@b", "any@c"}, {"[]", "null@c"}});
    (local ? d.configuration.SenderReplacementsRemote : d.configuration.SenderReplacementsLocal) =
        TableOf({{"*", "wrong@c"}});
    EXPECT_EQ(d.Says("MAIL FROM:<A@b> SIZE=1"), "-> MAIL FROM:<new@c> SIZE=1");
    // The session goes on with the sender that the client gave.
    EXPECT_EQ(d.state.requested.Sender, "A@b");
    EXPECT_EQ(d.Says("MAIL FROM:<x@b>"), "-> MAIL FROM:<any@c>");
    EXPECT_EQ(d.Says("MAIL FROM:<x@c>"), "-> MAIL FROM:<x@c>");
    EXPECT_EQ(d.Says("MAIL FROM:<>"), "-> MAIL FROM:<null@c>");
  }
}

// A pattern that is good as a whole may be bad in its parts. That costs the replacement, not the mail.
TEST(Mail, ABadReplacementKeyLeavesTheSender) {
  TestDialogue d;
  d.Greet();
  d.configuration.SenderReplacementsRemote = TableOf({{"a@b", "new@c"}, {"[x,y]*@b", "any@c"}});
  const LineDecision decision = d.Line("MAIL FROM:<x@b>\r\n");
  EXPECT_EQ(decision.text, "MAIL FROM:<x@b>\r\n");
  ASSERT_TRUE(decision.failure);
  EXPECT_EQ(decision.failure->Number(), error_number::kBadPattern);
  EXPECT_EQ(d.state.phase, Phase::kReply);
  // An address that matches before the bad pattern meets no failure.
  EXPECT_FALSE(d.Line("MAIL FROM:<a@b>\r\n").failure);
}

TEST(Mail, BeginsANewTransaction) {
  TestDialogue d;
  d.Greet();
  d.state.requested.Recipient = "old@local.test";
  d.state.requested.RecipientCount = 7;
  d.state.requested.Greylisted = true;
  EXPECT_EQ(d.Says("MAIL FROM:<a@b>"), "-> MAIL FROM:<a@b>");
  EXPECT_EQ(d.state.requested.Sender, "a@b");
  EXPECT_EQ(d.state.requested.Recipient, "");
  EXPECT_EQ(d.state.requested.RecipientCount, 0);
  EXPECT_FALSE(d.state.requested.Greylisted);
  EXPECT_FALSE(d.TransactionOpen()) << "only the server's reply makes it so";
}

TEST(Mail, RepliesAreChangedByTheirKeys) {
  TestDialogue d;
  d.Greet();
  for (const char* key : {"MAIL.AddressSyntax", "MAIL.BlackList", "MAIL.Size", "MAIL.TooManyTransactions"}) {
    d.configuration.ResponseChanges.Add(
        WholeReply(key, std::string(key) + " {%from%} {%fromdomain%} {%size%} {%maxsize%}"));
  }
  d.configuration.SendersBlackList = ListOf({"a@b"});
  d.configuration.MaxTransactionsRemote = 2;
  d.state.offered.SizeLimit = 10 * kFixedPointOne;
  d.Run(R"(
    C: MAIL FROM:<a@b> SIZE=5
    <- MAIL.BlackList a@b b 0 10
    C: MAIL FROM:<c@d> SIZE=12
    <- MAIL.Size c@d d 12 10
    C: MAIL FROM:<e@f> SIZE=1
    <- MAIL.TooManyTransactions e@f f 0 10)");
  EXPECT_TRUE(d.Says("MAIL x").starts_with("<- MAIL.AddressSyntax "));
}

}  // namespace
}  // namespace trabex

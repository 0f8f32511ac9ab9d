// Addresses and names with letters beyond ASCII: when they are taken, and that no spelling steps around a
// list.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/unicode_fold.h"
#include "support/ascii_spellings.h"
#include "support/utf8.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

constexpr const char* kMailSyntax = "<- 501 5.5.4 Invalid syntax of address in MAIL command.";
constexpr const char* kRcptSyntax = "<- 501 5.5.4 Invalid syntax of address in RCPT command.";

// After an EHLO to a server that offers SMTPUTF8.
void GreetWithSmtpUtf8(TestDialogue& d) {
  d.Run(R"(
      S: 220 ready
      <- 220 ready
      C: EHLO client.test
      -> EHLO client.test
      S: 250-server.test
      S: 250 smtputf8
      <- 250-server.test
      <- 250 smtputf8
  )");
}

// In a transaction of s@sender.test, too, whose MAIL carries it.
void MailWithSmtpUtf8(TestDialogue& d) {
  GreetWithSmtpUtf8(d);
  d.Run(R"(
      C: MAIL FROM:<s@sender.test> SMTPUTF8
      -> MAIL FROM:<s@sender.test> SMTPUTF8
      S: 250 ok
      <- 250 ok
  )");
}

TEST(SmtpUtf8, AMailHasToCarryIt) {
  const struct {
    const char* line;
    const char* outcome;
  } rows[] = {
      {"MAIL FROM:<ü@b.test>", kMailSyntax},
      {"MAIL FROM:<ü@b.test> BODY=8BITMIME", kMailSyntax},
      {"MAIL FROM:<ü@b.test> SMTPUTF8=", kMailSyntax},
      {"MAIL FROM:<ü@b.test> SMTPUTF8=1", kMailSyntax},
      {"MAIL FROM:<ü@b.test> SMTPUTF", kMailSyntax},
      {"MAIL FROM:<ü@b.test> X=SMTPUTF8", kMailSyntax},
      {"SEND FROM:<ü@b.test>", kMailSyntax},
      {"SOML FROM:<ü@b.test>", kMailSyntax},
      {"SAML FROM:<ü@b.test>", kMailSyntax},
      {"MAIL FROM:<\xFC@b.test> SMTPUTF8", kMailSyntax},
      {"MAIL FROM:<u\u0378@b.test> SMTPUTF8", kMailSyntax},
      {"MAIL FROM:<u＠b.test> SMTPUTF8", kMailSyntax},
      {"MAIL FROM:<@ü:u@b.test>", kMailSyntax},
      {"MAIL FROM:<ü@b.test> SMTPUTF8", "-> MAIL FROM:<ü@b.test> SMTPUTF8"},
      {"MAIL FROM:ü@b.test SMTPUTF8", "-> MAIL FROM:<ü@b.test> SMTPUTF8"},
      {"MAIL FROM:<u@bücher.test>  SIZE=1 smtpUtf8  BODY=8BITMIME",
       "-> MAIL FROM:<u@bücher.test>  SIZE=1 smtpUtf8  BODY=8BITMIME"},
      {"SEND FROM:<ü@b.test> SMTPUTF8", "-> SEND FROM:<ü@b.test> SMTPUTF8"},
      // An address in ASCII needs nothing.
      {"MAIL FROM:<u@b.test>", "-> MAIL FROM:<u@b.test>"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    GreetWithSmtpUtf8(d);
    EXPECT_EQ(Unescape(d.Says(row.line)), row.outcome) << row.line;
  }
}

TEST(SmtpUtf8, TheMailOfTheRecipientHasToCarryIt) {
  TestDialogue d;
  MailWithSmtpUtf8(d);
  EXPECT_EQ(Unescape(d.Says("RCPT TO:<ü@local.test>")), "-> RCPT TO:<ü@local.test>");
  EXPECT_EQ(Unescape(d.Says("RCPT TO:<ü@LOCAL.teﬆ>")), "-> RCPT TO:<ü@LOCAL.teﬆ>");
  EXPECT_EQ(d.Says("RCPT TO:<\xFC@local.test>"), kRcptSyntax);
  // A MAIL that is refused changes nothing about the one that was accepted.
  EXPECT_EQ(d.Says("MAIL FROM:<s@sender.test>"), "<- 503 5.5.1 Bad sequence of commands.");
  EXPECT_EQ(Unescape(d.Says("RCPT TO:<ü@local.test>")), "-> RCPT TO:<ü@local.test>");
  EXPECT_EQ(d.Says("RCPT TO:<u@local.test> SMTPUTF8"), "-> RCPT TO:<u@local.test> SMTPUTF8");
}

TEST(SmtpUtf8, ARefusedMailGivesNothing) {
  TestDialogue d;
  GreetWithSmtpUtf8(d);
  d.Run(R"(
      C: MAIL FROM:<s@sender.test>
      -> MAIL FROM:<s@sender.test>
      S: 250 ok
      <- 250 ok
      C: MAIL FROM:<s@sender.test> SMTPUTF8
      <- 503 5.5.1 Bad sequence of commands.
      C: RCPT TO:<\xC3\xBC@local.test>
      <- 501 5.5.4 Invalid syntax of address in RCPT command.
  )");
}

TEST(SmtpUtf8, ItEndsWithItsTransaction) {
  for (const char* command : {"RSET", "EHLO client.test", "HELO client.test"}) {
    TestDialogue d;
    MailWithSmtpUtf8(d);
    EXPECT_TRUE(d.state.requested.SmtpUtf8);
    EXPECT_EQ(d.Says(command), std::string("-> ") + command);
    EXPECT_TRUE(d.state.requested.SmtpUtf8) << command;
    d.Run("S: 250 ok\n<- 250 ok");
    EXPECT_FALSE(d.state.requested.SmtpUtf8) << command;
  }
  // The next one does not have it from the last.
  TestDialogue d;
  MailWithSmtpUtf8(d);
  d.Run(R"(
      C: RCPT TO:<u@local.test>
      -> RCPT TO:<u@local.test>
      S: 250 ok
      <- 250 ok
      C: RSET
      -> RSET
      S: 250 ok
      <- 250 ok
      C: MAIL FROM:<s@sender.test>
      -> MAIL FROM:<s@sender.test>
      S: 250 ok
      <- 250 ok
      C: RCPT TO:<\xC3\xBC@local.test>
      <- 501 5.5.4 Invalid syntax of address in RCPT command.
  )");
}

// The reply to the client, and whether its address is taken then.
TEST(SmtpUtf8, TheServerItselfHasToOfferIt) {
  const struct {
    const char* what;
    const char* added;
    const char* removed;
    const char* greeting;
    bool taken;
  } rows[] = {
      {"offered", "", "",
       "C: EHLO c.test\n-> EHLO c.test\nS: 250-s\nS: 250 SMTPUTF8\n<- 250-s\n<- 250 SMTPUTF8", true},
      {"with a parameter", "", "",
       "C: EHLO c.test\n-> EHLO c.test\nS: 250-s\nS: 250 SMTPUTF8 x\n<- 250-s\n<- 250 SMTPUTF8 x", true},
      {"not offered", "", "", "C: EHLO c.test\n-> EHLO c.test\nS: 250 s\n<- 250 s", false},
      {"added by us", "SMTPUTF8", "", "C: EHLO c.test\n-> EHLO c.test\nS: 250 s\n<- 250-s\n<- 250 SMTPUTF8",
       false},
      {"removed by us", "", "smtputf8", "C: EHLO c.test\n-> EHLO c.test\nS: 250-s\nS: 250 SMTPUTF8\n<- 250 s",
       false},
      {"both", "SMTPUTF8", "",
       "C: EHLO c.test\n-> EHLO c.test\nS: 250-s\nS: 250 SMTPUTF8\n<- 250-s\n<- 250 SMTPUTF8", true},
      {"the last greeting counts", "", "",
       "C: EHLO c.test\n-> EHLO c.test\nS: 250-s\nS: 250 SMTPUTF8\n<- 250-s\n<- 250 SMTPUTF8\n"
       "C: EHLO c.test\n-> EHLO c.test\nS: 250 s\n<- 250 s",
       false},
      {"HELO offers nothing", "", "",
       "C: EHLO c.test\n-> EHLO c.test\nS: 250-s\nS: 250 SMTPUTF8\n<- 250-s\n<- 250 SMTPUTF8\n"
       "C: HELO c.test\n-> HELO c.test\nS: 250 s\n<- 250 s",
       false},
      {"a refused greeting changes nothing", "", "",
       "C: EHLO c.test\n-> EHLO c.test\nS: 250-s\nS: 250 SMTPUTF8\n<- 250-s\n<- 250 SMTPUTF8\n"
       "C: HELO c.test\n-> HELO c.test\nS: 550 no\n<- 550 no",
       true},
      {"in a refusal", "", "",
       "C: EHLO c.test\n-> EHLO c.test\nS: 250 s\n<- 250 s\n"
       "C: EHLO c.test\n-> EHLO c.test\nS: 550-s\nS: 550 SMTPUTF8\n<- 550-s\n<- 550 SMTPUTF8",
       false},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    if (*row.added != 0) d.configuration.AddSMTPExtensionsRemote = ListOf({row.added});
    if (*row.removed != 0) d.configuration.RemoveSMTPExtensionsRemote = ListOf({row.removed});
    d.Run("S: 220 ready\n<- 220 ready\n" + std::string(row.greeting));
    EXPECT_EQ(Unescape(d.Says("MAIL FROM:<ü@b.test> SMTPUTF8")),
              row.taken ? "-> MAIL FROM:<ü@b.test> SMTPUTF8" : kMailSyntax)
        << row.what;
    EXPECT_EQ(d.Says("MAIL FROM:<u@b.test> SMTPUTF8"), "-> MAIL FROM:<u@b.test> SMTPUTF8") << row.what;
  }
}

TEST(SmtpUtf8, WhatIsForwardedUncheckedStaysUnchecked) {
  TestDialogue d;
  d.configuration.ProcessAddressesWithoutBrackets = 2;
  d.Greet();
  EXPECT_EQ(d.Says("MAIL FROM:\xFC@b.test"), "-> MAIL FROM:\\xFC@b.test");
  EXPECT_EQ(d.Says("MAIL FROM:<\xFC@b.test>"), kMailSyntax);
  d.state.transaction = Transaction::kOpen;
  EXPECT_EQ(d.Says("RCPT TO:\xFC@b.test"), "-> RCPT TO:\\xFC@b.test");
  EXPECT_EQ(d.Says("RCPT TO:<\xFC@b.test>"), kRcptSyntax);
}

TEST(Rcpt, ARoutedAddressIsRelayingHoweverTheRouteIsSpelled) {
  for (const char* address : {"x％evil.test@local.test", "x﹪evil.test@local.test", "evil.test！x@local.test",
                              "x＠evil.test@local.test", "x@evil.test＠local.test", "x％evil.test@local.teﬆ",
                              "\xFFx％evil.test@local.test"}) {
    TestDialogue d;
    MailWithSmtpUtf8(d);
    EXPECT_TRUE(d.Says("RCPT TO:<" + std::string(address) + ">").starts_with("<- 550 5.7.1 Relaying to "))
        << address;
    d.facts.local = true;
    EXPECT_EQ(d.Says("RCPT TO:<" + std::string(address) + ">"), kRcptSyntax) << address;
  }
}

// A route in the source route is dropped with it and makes no routed address of one that is not to be taken.
TEST(Rcpt, ASourceRouteBeyondAsciiNeedsSmtpUtf8Too) {
  TestDialogue d;
  d.GreetAndMail();
  EXPECT_EQ(d.Says("RCPT TO:<@r％x:u@local.test>"), kRcptSyntax);
  EXPECT_EQ(d.Says("RCPT TO:<@r＠x:u@local.test>"), kRcptSyntax);
}

TEST(Rcpt, AnAddressThatIsTooLongIsNone) {
  TestDialogue d;
  d.GreetAndMail();
  const std::string domain = "@local.test";
  EXPECT_EQ(d.Says("RCPT TO:<" + std::string(309, 'a') + domain + ">"),
            "-> RCPT TO:<" + std::string(309, 'a') + domain + ">");
  EXPECT_EQ(d.Says("RCPT TO:<" + std::string(310, 'a') + domain + ">"), kRcptSyntax);
  EXPECT_EQ(d.Says("RCPT TO:<a@" + std::string(256, 'b') + ">"), kRcptSyntax);
  // For a remote client a route comes before the form.
  EXPECT_TRUE(
      d.Says("RCPT TO:<" + std::string(310, '%') + domain + ">").starts_with("<- 550 5.7.1 Relaying to "));
  d.state.transaction = Transaction::kGreeted;
  EXPECT_EQ(d.Says("MAIL FROM:<" + std::string(310, 'a') + domain + ">"), kMailSyntax);
  EXPECT_EQ(d.Says("MAIL FROM:<a@" + std::string(256, 'b') + ">"), kMailSyntax);
}

// It is remembered, and may be kept for weeks in a greylisting key.
TEST(Rcpt, AnAddressThatIsTooLongIsNoneToBeForwardedUncheckedEither) {
  TestDialogue d;
  d.configuration.ProcessAddressesWithoutBrackets = 2;
  d.Greet();
  const std::string longest(320, 'a');
  EXPECT_EQ(d.Says("MAIL FROM:" + longest + " x"), "-> MAIL FROM:" + longest + " x");
  EXPECT_EQ(d.Says("MAIL FROM:" + longest + "a"), kMailSyntax);
  EXPECT_EQ(d.state.requested.Sender, longest);
  d.state.transaction = Transaction::kOpen;
  EXPECT_EQ(d.Says("RCPT TO:" + longest + " x"), "-> RCPT TO:" + longest + " x");
  EXPECT_EQ(d.Says("RCPT TO:" + longest + "a"), kRcptSyntax);
  EXPECT_EQ(d.state.requested.Recipient, longest);
}

TEST(Helo, NamesBeyondAsciiAreComparedFolded) {
  TestDialogue d;
  d.configuration.ValidateHELO = 10;
  d.state.transaction = Transaction::kGreeted;
  d.facts.host = "mail.client.test";
  d.configuration.HELOBlackList = ListOf({"black.*", "grüß*", "lat\xFCn"});
  for (const char* name : {"blac\u212A.test", "ⓑlack.test", "GRÜẞE", "gru\u0308sse", "LAT\xFCn"}) {
    EXPECT_TRUE(d.Says("EHLO " + std::string(name)).starts_with("<- 550 Disallowed domain name: ")) << name;
  }
  // A name that is the client's needs no look-up.
  EXPECT_EQ(Unescape(d.Says("EHLO mail.client.teﬆ")), "-> EHLO mail.client.teﬆ");
  EXPECT_EQ(Unescape(d.Says("EHLO x.MAIL.client.teﬆ")), "-> EHLO x.MAIL.client.teﬆ");
  EXPECT_EQ(Unescape(d.Says("EHLO other.teﬆ")), "asks name other.teﬆ");
}

TEST(ResponseChanges, AKeyHoldsItsAddressInAnySpelling) {
  TestDialogue d;
  d.configuration.PrivateRecipients = ListOf({"*"});
  d.configuration.ResponseChanges.Add(WholeReply("RCPT.Private.sales@local.test", "550 ours"));
  MailWithSmtpUtf8(d);
  EXPECT_EQ(d.Says("RCPT TO:<ſales@local.test>"), "<- 550 ours");
  EXPECT_EQ(d.Says("RCPT TO:<SALES@local.test>"), "<- 550 ours");
  d.configuration.ResponseChanges.Add(WholeReply("RCPT.Private.JÜRGEN@local.test", "550 his"));
  d.configuration.ResponseChanges.Add(WholeReply("RCPT.Private.b\u212A@local.test", "550 k"));
  d.configuration.ResponseChanges.Add(WholeReply("RCPT.Private.ſales@local.test", "550 not the first"));
  EXPECT_EQ(d.Says("RCPT TO:<jürgen@local.test>"), "<- 550 his");
  EXPECT_EQ(d.Says("RCPT TO:<bk@local.test>"), "<- 550 k");
  EXPECT_EQ(d.Says("RCPT TO:<ſales@local.test>"), "<- 550 ours");
  EXPECT_TRUE(d.Says("RCPT TO:<jurgen@local.test>").starts_with("<- 550 5.2.1 "));
}

TEST(Rcpt, WhatIsForwardedIsNotFolded) {
  TestDialogue d;
  d.configuration.RecipientReplacementsRemote = TableOf({{"sales@local.test", "Vertrieb＋@Ｘ.test"}});
  MailWithSmtpUtf8(d);
  EXPECT_EQ(Unescape(d.Says("RCPT TO:<ſales@local.test>")), "-> RCPT TO:<Vertrieb＋@Ｘ.test>");
  EXPECT_EQ(Unescape(d.Says("RCPT TO:<SALEZ＋ß@LOCAL.teﬆ>")), "-> RCPT TO:<SALEZ＋ß@LOCAL.teﬆ>");
  EXPECT_EQ(d.state.requested.Recipient, "SALEZ＋ß@LOCAL.teﬆ");
}

// --- every character that folds to ASCII, at each place of an address, for each list

// A character, and the text that it folds to, at one place of a name.
struct Spelling {
  std::string written;
  std::string folded;
};

// Bytes that make out the structure of an address.
bool ChangesStructure(std::string_view folded) {
  return folded.find_first_of("()<>[]:;,\\\"@%!. ") != std::string_view::npos;
}

template <class Visit>
void EachCharacter(Visit visit) {
  for (const AsciiSpelling& row : kAsciiSpellings) {
    for (const char32_t* character = row.characters; *character != 0; ++character) {
      visit(Utf8(*character), std::string(row.folded));
    }
  }
}

// All spellings that are no other structure, at the begin, in the middle and at the end of a name.
std::vector<Spelling> Spellings() {
  std::vector<Spelling> spellings;
  EachCharacter([&](const std::string& character, const std::string& folded) {
    if (ChangesStructure(folded)) return;
    spellings.push_back({character + "yz", folded + "yz"});
    spellings.push_back({"y" + character + "z", "y" + folded + "z"});
    spellings.push_back({"yz" + character, "yz" + folded});
    spellings.push_back({character, folded});
  });
  return spellings;
}

// The pattern that takes exactly `text`.
std::string PatternOf(std::string_view text) {
  std::string pattern;
  for (const char c : text) {
    if (std::string_view("?*#[").find(c) != std::string_view::npos) {
      pattern.append("[").append(1, c).append("]");
    } else {
      pattern.push_back(c);
    }
  }
  return pattern;
}

// A list of `before` + folded name + `behind` for all spellings.
ExpressionList ListOfFolded(const std::vector<Spelling>& spellings, std::string_view before,
                            std::string_view behind) {
  ExpressionList list;
  for (const Spelling& spelling : spellings) {
    const std::string pattern = std::string(before).append(PatternOf(spelling.folded)).append(behind);
    if (!list.Contains(std::string(before).append(spelling.folded).append(behind))) {
      list.Add(pattern, {{pattern}, false});
    }
  }
  return list;
}

TEST(AsciiSpellings, FoldAsTheTableSays) {
  std::size_t count = 0;
  EachCharacter([&](const std::string& character, const std::string& folded) {
    EXPECT_EQ(FoldText(character), folded) << character;
    ++count;
  });
  EXPECT_EQ(count, 1640u);
  // And there are no others.
  std::size_t with_ascii = 0;
  for (char32_t code_point = 0x80; code_point < 0x110000; ++code_point) {
    if (code_point >= 0xD800 && code_point < 0xE000) continue;
    const std::string folded = FoldText(Utf8(code_point));
    with_ascii += std::any_of(folded.begin(), folded.end(), [](char byte) { return IsAscii({&byte, 1}); });
  }
  EXPECT_EQ(with_ascii, count);
}

class EveryAsciiSpelling : public testing::Test {
 protected:
  // `verdict` of the outcome of the line for each spelling: MAIL or RCPT with `before` and `behind` around
  // the name.
  template <class Verdict>
  void Expect(std::string_view before, std::string_view behind, Verdict verdict) {
    for (const Spelling& spelling : spellings_) {
      const std::string line = std::string(before).append(spelling.written).append(behind);
      EXPECT_TRUE(verdict(d_.Says(line))) << line;
    }
  }
  void ExpectAnswer(std::string_view before, std::string_view behind, std::string_view answer) {
    Expect(before, behind, [&](std::string_view outcome) { return outcome.starts_with(answer); });
  }

  const std::vector<Spelling> spellings_ = Spellings();
  TestDialogue d_;
};

TEST_F(EveryAsciiSpelling, PrivateRecipients) {
  MailWithSmtpUtf8(d_);
  d_.configuration.PrivateRecipients = ListOfFolded(spellings_, "", "@local.test");
  ExpectAnswer("RCPT TO:<", "@local.test>", "<- 550 5.2.1 ");
  EXPECT_EQ(d_.Says("RCPT TO:<another@local.test>"), "-> RCPT TO:<another@local.test>");
}

TEST_F(EveryAsciiSpelling, RecipientsBlackLists) {
  MailWithSmtpUtf8(d_);
  d_.configuration.RecipientsBlackListRemote = ListOfFolded(spellings_, "", "@local.test");
  d_.configuration.RecipientsBlackListLocal = ListOfFolded(spellings_, "*@", ".test");
  ExpectAnswer("RCPT TO:<", "@local.test>", "<- 550 5.1.1 ");
  d_.facts.local = true;
  ExpectAnswer("RCPT TO:<u@", ".test>", "<- 550 5.7.1 Sending mail to ");
  EXPECT_EQ(d_.Says("RCPT TO:<another@another.test>"), "-> RCPT TO:<another@another.test>");
}

TEST_F(EveryAsciiSpelling, SendersBlackList) {
  GreetWithSmtpUtf8(d_);
  d_.configuration.SendersBlackList = ListOfFolded(spellings_, "", "@b.test");
  ExpectAnswer("MAIL FROM:<", "@b.test> SMTPUTF8", "<- 550 5.7.1 ");
  d_.configuration.SendersBlackList = ListOfFolded(spellings_, "*@", ".test");
  ExpectAnswer("MAIL FROM:<s@", ".test> SMTPUTF8", "<- 550 5.7.1 ");
  ExpectAnswer("MAIL FROM:<s@", ".TEST> SMTPUTF8", "<- 550 5.7.1 ");
  EXPECT_EQ(d_.Says("MAIL FROM:<s@another.test>"), "-> MAIL FROM:<s@another.test>");
}

TEST_F(EveryAsciiSpelling, ListsThatLetThrough) {
  GreetWithSmtpUtf8(d_);
  d_.configuration.SendersBlackList = ListOf({"*"});
  d_.configuration.SendersWhiteList = ListOfFolded(spellings_, "", "@b.test");
  ExpectAnswer("MAIL FROM:<", "@b.test> SMTPUTF8", "-> MAIL FROM:<");
  EXPECT_TRUE(d_.Says("MAIL FROM:<another@b.test>").starts_with("<- 550 5.7.1 "));
}

TEST_F(EveryAsciiSpelling, RestrictedSenders) {
  MailWithSmtpUtf8(d_);
  d_.facts.local = true;
  d_.configuration.RestrictedSenders = ListOfFolded(spellings_, "", "@local.test");
  for (const Spelling& spelling : spellings_) {
    d_.state.transaction = Transaction::kGreeted;
    EXPECT_TRUE(d_.Says("MAIL FROM:<" + spelling.written + "@local.test> SMTPUTF8").starts_with("-> "))
        << spelling.written;
    d_.state.transaction = Transaction::kOpen;
    EXPECT_TRUE(d_.Says("RCPT TO:<u@far.test>").starts_with("<- 550 5.7.1 Sending mail to external "))
        << spelling.written;
  }
}

TEST_F(EveryAsciiSpelling, CallbackSenders) {
  MailWithSmtpUtf8(d_);
  d_.configuration.GreyListing.Enabled = true;
  d_.configuration.GreyListing.CallbackSenderAction = 1;
  d_.configuration.GreyListing.CallbackSendersList = ListOfFolded(spellings_, "", "@far.test");
  d_.greylisting.delays = true;
  for (const Spelling& spelling : spellings_) {
    d_.state.transaction = Transaction::kGreeted;
    d_.Says("MAIL FROM:<" + spelling.written + "@far.test> SMTPUTF8");
    d_.state.transaction = Transaction::kOpen;
    EXPECT_EQ(d_.Says("RCPT TO:<u@local.test>"), "-> RCPT TO:<u@local.test>") << spelling.written;
    EXPECT_TRUE(d_.state.requested.Greylisted) << spelling.written;
  }
}

TEST_F(EveryAsciiSpelling, LocalDomains) {
  MailWithSmtpUtf8(d_);
  d_.configuration.LocalDomains = ListOfFolded(spellings_, "", ".test");
  ExpectAnswer("RCPT TO:<u@", ".test>", "-> RCPT TO:<u@");
  EXPECT_EQ(d_.Says("RCPT TO:<u@another.test>"), "<- 550 5.7.1 Relaying to another.test not allowed.");
}

TEST_F(EveryAsciiSpelling, HeloBlackList) {
  d_.Greet();
  d_.configuration.ValidateHELO = 8;
  d_.configuration.HELOBlackList = ListOfFolded(spellings_, "", ".test");
  ExpectAnswer("EHLO ", ".test", "<- 550 Disallowed domain name: ");
}

TEST_F(EveryAsciiSpelling, Replacements) {
  MailWithSmtpUtf8(d_);
  for (const Spelling& spelling : spellings_) {
    d_.configuration.RecipientReplacementsRemote.Add(PatternOf(spelling.folded) + "@local.test",
                                                     "new@local.test");
  }
  ExpectAnswer("RCPT TO:<", "@local.test>", "-> RCPT TO:<new@local.test>");
  EXPECT_EQ(d_.Says("RCPT TO:<another@local.test>"), "-> RCPT TO:<another@local.test>");
}

TEST_F(EveryAsciiSpelling, KeysOfResponses) {
  MailWithSmtpUtf8(d_);
  d_.configuration.PrivateRecipients = ListOf({"*"});
  for (const Spelling& spelling : spellings_) {
    const std::string key = "RCPT.Private." + spelling.folded + "@local.test";
    if (!d_.configuration.ResponseChanges.Find(key)) {
      d_.configuration.ResponseChanges.Add(WholeReply(key, "550 ours"));
    }
  }
  ExpectAnswer("RCPT TO:<", "@local.test>", "<- 550 ours");
  EXPECT_TRUE(d_.Says("RCPT TO:<another@local.test>").starts_with("<- 550 5.2.1 "));
}

// A list may hold the spelling, and the host's name or the address be ASCII.
TEST_F(EveryAsciiSpelling, InTheListItself) {
  for (const Spelling& spelling : spellings_) {
    const ExpressionList list =
        ListOf({spelling.written + ".test", "*@" + spelling.written + ".test", "x*" + spelling.written});
    EXPECT_EQ(list.Find(spelling.folded + ".test"), 0u) << spelling.written;
    EXPECT_EQ(list.Find("u@" + spelling.folded + ".TEST"), 1u) << spelling.written;
    EXPECT_EQ(list.Find("Xx" + spelling.folded), 2u) << spelling.written;
  }
}

TEST_F(EveryAsciiSpelling, WithoutSmtpUtf8NoneIsTaken) {
  d_.GreetAndMail();
  ExpectAnswer("RCPT TO:<", "@local.test>", kRcptSyntax);
  ExpectAnswer("RCPT TO:<u@", ".test>", kRcptSyntax);
  d_.state.transaction = Transaction::kGreeted;
  ExpectAnswer("MAIL FROM:<", "@b.test> SMTPUTF8", kMailSyntax);
}

TEST_F(EveryAsciiSpelling, WhatChangesTheStructureIsNoAddress) {
  MailWithSmtpUtf8(d_);
  std::size_t count = 0;
  EachCharacter([&](const std::string& character, const std::string& folded) {
    if (!ChangesStructure(folded)) return;
    ++count;
    const bool routes = folded.find_first_of("@%!") != std::string::npos;
    for (const std::string& local : {character + "yz", "y" + character + "z", "yz" + character, character}) {
      const std::string outcome = d_.Says("RCPT TO:<" + local + "@local.test>");
      EXPECT_TRUE(outcome.starts_with(routes ? "<- 550 5.7.1 Relaying to " : kRcptSyntax))
          << local << ": " << outcome;
      for (const std::string& address : {"u@" + local + ".test", "u@local." + local, "u@local.test" + local,
                                         "\"" + local + " \"@local.test", local}) {
        const std::string other = d_.Says("RCPT TO:<" + address + ">");
        EXPECT_TRUE(other == kRcptSyntax || other.starts_with("<- 550 5.7.1 Relaying to "))
            << address << ": " << other;
      }
    }
    d_.facts.local = true;
    EXPECT_EQ(d_.Says("RCPT TO:<u" + character + "z@local.test>"), kRcptSyntax) << character;
    EXPECT_EQ(d_.Says("RCPT TO:<u@local" + character + "z.test>"), kRcptSyntax) << character;
    d_.facts.local = false;
  });
  EXPECT_EQ(count, 289u);
}

}  // namespace
}  // namespace trabex

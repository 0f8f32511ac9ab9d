// Which check answers when several would, and which list wins: docs/order.md. In each test everything is wrong
// at first, and is put right step by step, so that the replies come in the order of the checks.
#include <gtest/gtest.h>

#include <string>

#include "base/text.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

// The key of the reply that refuses the line, or what the server gets.
std::string Fate(const TestDialogue& d, const std::string& line) {
  const LineDecision decision = d.commands.ProcessIncomingData(line + "\r\n", d.state);
  if (decision.refusal) return std::string(decision.refusal->key);
  if (decision.action == LineDecision::Action::kAskForAddresses) return "looks up " + decision.text;
  return std::string(WithoutLineEnd(decision.text));
}

TEST(OrderOfChecks, OfAnyCommand) {
  const std::string no_count = "BDAT x\x01";
  EXPECT_TRUE(ClientCommandFilter::IsTooLong(no_count + std::string(5000, 'x'), false, Phase::kCommand));
  TestDialogue d;
  d.configuration.TLS.Require = 3;
  d.configuration.HELOBlackList = ListOf({"*"});
  d.configuration.ValidateHELO = 15;
  d.Refuse();
  EXPECT_EQ(Fate(d, no_count), "BadSeq.BDAT");
  EXPECT_EQ(Fate(d, "XCLIENT \x01"), "BadSyntax");
  EXPECT_EQ(Fate(d, "XCLIENT x"), "NotImplemented");
  EXPECT_EQ(Fate(d, "EHLO x"), "BadSeq.BadIP");
  EXPECT_EQ(Fate(d, "RCPT x"), "BadSeq.BadIP");
  d.state.transaction = Transaction::kNoGreeting;
  EXPECT_EQ(Fate(d, "RCPT x"), "TLS.Required");
  EXPECT_EQ(Fate(d, "EHLO x"), "HELO.BlackList");
  d.OfferTls();
  d.state.offered.Extensions.AddExtension("STARTTLS");
  EXPECT_EQ(Fate(d, "STARTTLS x"), "TLS.Syntax");
  d.configuration.TLS.Require = 0;
  EXPECT_EQ(Fate(d, "RCPT x"), "BadSeq.NoHelo");
  d.state.transaction = Transaction::kGreeted;
  EXPECT_EQ(Fate(d, "RCPT x"), "BadSeq.NoTransaction");
  d.state.transaction = Transaction::kOpen;
  EXPECT_EQ(Fate(d, "MAIL x"), "BadSeq.Transaction");
  EXPECT_EQ(Fate(d, "RCPT x"), "RCPT.AddressSyntax");
}

TEST(OrderOfChecks, OfHelo) {
  TestDialogue d;
  d.facts.host = "mail.client.test";
  d.configuration.ValidateHELO = 15;
  d.configuration.IPWhiteList = IPRangeList({{d.facts.ip, d.facts.ip}});
  d.configuration.HELOBlackList = ListOf({"*.client.test", "[]"});
  EXPECT_EQ(Fate(d, "EHLO mail.client.test"), "HELO.BlackList");
  EXPECT_EQ(Fate(d, "EHLO"), "HELO.NoDomain");
  d.configuration.HELOBlackList = {};
  EXPECT_EQ(Fate(d, "EHLO mail.client.test"), "EHLO mail.client.test");
  EXPECT_EQ(Fate(d, "EHLO"), "HELO.NoDomain");
  EXPECT_EQ(Fate(d, "EHLO other.test"), "looks up other.test");
}

TEST(OrderOfChecks, OfMail) {
  TestDialogue d;
  Configuration& c = d.configuration;
  d.state.transaction = Transaction::kGreeted;
  d.state.requested.TransactionCount = 1;
  d.state.offered.SizeLimit = 10 * kFixedPointOne;
  c.ProcessAddressesWithoutBrackets = 1;
  c.MaxTransactionsRemote = 1;
  c.SendersAllowList = ListOf({"*@good.test"});
  c.SendersBlackList = ListOf({"*"});
  c.SenderReplacementsRemote = TableOf({{"s@bad.test", "new@bad.test"}});
  EXPECT_EQ(Fate(d, "MAIL FROM:s@bad.test SIZE=99"), "MAIL.AddressSyntax");
  EXPECT_EQ(Fate(d, "MAIL FROM:<s@bad.test> SIZE=99"), "MAIL.TooManyTransactions");
  c.MaxTransactionsRemote = 2;
  EXPECT_EQ(Fate(d, "MAIL FROM:<s@bad.test> SIZE=99"), "MAIL.BlackList") << "the allow list does not hold it";
  EXPECT_EQ(Fate(d, "MAIL FROM:<s@good.test> SIZE=99"), "MAIL.BlackList") << "black wins over allow";
  c.SendersWhiteList = ListOf({"s@bad.test"});
  EXPECT_EQ(Fate(d, "MAIL FROM:<s@bad.test> SIZE=99"), "MAIL.Size") << "white wins over black";
  EXPECT_EQ(Fate(d, "MAIL FROM:<new@bad.test>"), "MAIL.BlackList");
  EXPECT_EQ(Fate(d, "MAIL FROM:<s@bad.test> SIZE=9"), "MAIL FROM:<new@bad.test> SIZE=9")
      << "the lists see what the client wrote";
  // Without brackets, and to be passed on unchecked.
  c.ProcessAddressesWithoutBrackets = 2;
  c.MaxTransactionsRemote = 1;
  EXPECT_EQ(Fate(d, "MAIL FROM:other@bad.test SIZE=99"), "MAIL FROM:other@bad.test SIZE=99");
}

TEST(OrderOfChecks, OfRcptFromRemoteClients) {
  TestDialogue d;
  Configuration& c = d.configuration;
  d.state.transaction = Transaction::kOpen;
  d.state.requested.Sender = "s@sender.test";
  d.state.requested.RecipientCount = 1;
  d.greylisting.delays = true;
  c.GreyListing.Enabled = true;
  c.ProcessAddressesWithoutBrackets = 1;
  c.MaxRecipientsRemote = 1;
  c.RecipientsAllowListRemote = ListOf({"*@local.test"});
  c.RecipientsBlackListRemote = ListOf({"*"});
  c.PrivateRecipients = ListOf({"*"});
  c.RecipientReplacementsRemote = TableOf({{"*@local.test", "all@far.test"}});
  EXPECT_EQ(Fate(d, "RCPT TO:u@far.test"), "RCPT.AddressSyntax");
  EXPECT_EQ(Fate(d, "RCPT TO:<u@far.test>"), "RCPT.TooManyRecipients");
  c.MaxRecipientsRemote = 0;
  c.RecipientsWhiteListRemote = ListOf({"*@far.test", "*%*"});
  EXPECT_EQ(Fate(d, "RCPT TO:<u@far.test>"), "RCPT.Relaying") << "no white list lifts it";
  EXPECT_EQ(Fate(d, "RCPT TO:<u%far.test@local.test>"), "RCPT.Relaying");
  EXPECT_EQ(Fate(d, "RCPT TO:<u@local.test>"), "RCPT.BlackList.Remote");
  c.RecipientsWhiteListRemote = ListOf({"*"});
  EXPECT_EQ(Fate(d, "RCPT TO:<u@local.test>"), "RCPT.Private") << "the white list does not lift it";
  c.PrivateRecipients = {};
  EXPECT_EQ(Fate(d, "RCPT TO:<u@local.test>"), "RCPT.Greylisted") << "nor this";
  d.greylisting.delays = false;
  EXPECT_EQ(Fate(d, "RCPT TO:<u@local.test>"), "RCPT TO:<all@far.test>");
}

TEST(OrderOfChecks, OfRcptFromLocalClients) {
  TestDialogue d;
  Configuration& c = d.configuration;
  d.facts.local = true;
  d.state.transaction = Transaction::kOpen;
  d.state.requested.Sender = "s@local.test";
  d.state.requested.RecipientCount = 1;
  d.greylisting.delays = true;
  c.GreyListing.Enabled = true;
  c.ProcessAddressesWithoutBrackets = 1;
  c.MaxRecipientsLocal = 1;
  c.RestrictedSenders = ListOf({"s@local.test"});
  c.RecipientsBlackListLocal = ListOf({"*"});
  c.PrivateRecipients = ListOf({"*"});
  c.RecipientReplacementsLocal = TableOf({{"u@far.test", "v@far.test"}});
  EXPECT_EQ(Fate(d, "RCPT TO:u@far.test"), "RCPT.AddressSyntax");
  EXPECT_EQ(Fate(d, "RCPT TO:<u@far.test>"), "RCPT.TooManyRecipients");
  c.MaxRecipientsLocal = 0;
  EXPECT_EQ(Fate(d, "RCPT TO:<u@far.test>"), "RCPT.Restricted");
  EXPECT_EQ(Fate(d, "RCPT TO:<u@local.test>"), "RCPT.BlackList.Local");
  c.RestrictedSenders = {};
  EXPECT_EQ(Fate(d, "RCPT TO:<u@far.test>"), "RCPT.BlackList.Local");
  c.RecipientsWhiteListLocal = ListOf({"u@far.test"});
  EXPECT_EQ(Fate(d, "RCPT TO:<u@far.test>"), "RCPT TO:<v@far.test>")
      << "nothing private and no greylisting for them";
  c.RestrictedSenders = ListOf({"s@local.test"});
  EXPECT_EQ(Fate(d, "RCPT TO:<u@far.test>"), "RCPT.Restricted") << "the white list does not lift it";
}

}  // namespace
}  // namespace trabex

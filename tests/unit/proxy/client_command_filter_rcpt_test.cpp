// RCPT: relaying, lists, private recipients, greylisting.
#include <gtest/gtest.h>

#include <string>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

constexpr const char* kSyntax = "<- 501 5.5.4 Invalid syntax of address in RCPT command.";

// A session in a transaction of s@sender.test, without the dialogue that led there.
void BringToTransaction(TestDialogue& d) {
  d.state.phase = Phase::kCommand;
  d.state.transaction = Transaction::kOpen;
  d.state.requested.Sender = "s@sender.test";
}

std::string Rcpt(bool local, int bare, std::string_view line) {
  TestDialogue d;
  BringToTransaction(d);
  d.facts.local = local;
  d.configuration.ProcessAddressesWithoutBrackets = bare;
  return d.Says(Unescape(line));
}

TEST(Rcpt, AddressesOfALocalClient) {
  const struct {
    const char* line;
    const char* taken;
    const char* refused;
    const char* unchecked;
  } rows[] = {
      {"RCPT TO:<u@far.test>", "-> RCPT TO:<u@far.test>", "-> RCPT TO:<u@far.test>",
       "-> RCPT TO:<u@far.test>"},
      {"rcpt  to: <u@far.test.> NOTIFY=NEVER  X", "-> RCPT TO:<u@far.test> NOTIFY=NEVER  X",
       "-> RCPT TO:<u@far.test> NOTIFY=NEVER  X", "-> RCPT TO:<u@far.test> NOTIFY=NEVER  X"},
      {"RCPT TO:<@r:u@far.test>", "-> RCPT TO:<u@far.test>", "-> RCPT TO:<u@far.test>",
       "-> RCPT TO:<u@far.test>"},
      {"RCPT TO:<postmaster>", "-> RCPT TO:<postmaster>", "-> RCPT TO:<postmaster>",
       "-> RCPT TO:<postmaster>"},
      // Local clients may relay.
      {"RCPT TO:<x%far.test@local.test>", "-> RCPT TO:<x%far.test@local.test>",
       "-> RCPT TO:<x%far.test@local.test>", "-> RCPT TO:<x%far.test@local.test>"},
      {"RCPT TO:u@far.test", "-> RCPT TO:<u@far.test>", kSyntax, "-> RCPT TO:u@far.test"},
      {"RCPT TO:<u@far.test", "-> RCPT TO:<u@far.test>", kSyntax, "-> RCPT TO:<u@far.test"},
      {"RCPT TO:u@far.test> A=B", "-> RCPT TO:<u@far.test> A=B", kSyntax, "-> RCPT TO:u@far.test> A=B"},
      {"RCPT TO:<u@far.test>x", kSyntax, kSyntax, "-> RCPT TO:<u@far.test>x"},
      {"RCPT TO:<x@far.test@local.test>", kSyntax, kSyntax, kSyntax},
      {"RCPT TO:<u@far.test,v@far.test>", kSyntax, kSyntax, kSyntax},
      {"RCPT TO:<u(c)@far.test>", kSyntax, kSyntax, kSyntax},
      {"RCPT TO:<x%far.test>", kSyntax, kSyntax, kSyntax},
      {"RCPT TO:<u@far.test> <v@far.test>", kSyntax, kSyntax, kSyntax},
      {"RCPT TO:<u@far.test> v@far.test", kSyntax, kSyntax, kSyntax},
      {"RCPT TO:u@far.test (<v@far.test>)", kSyntax, kSyntax, "-> RCPT TO:u@far.test (<v@far.test>)"},
      {"RCPT FROM:<u@far.test>", kSyntax, kSyntax, kSyntax},
      {"RCPT TO:", kSyntax, kSyntax, kSyntax},
      {"RCPT TO: ", kSyntax, kSyntax, kSyntax},
      {"RCPT TO :<u@far.test>", kSyntax, kSyntax, kSyntax},
      {"RCPT", kSyntax, kSyntax, kSyntax},
      {"RCPT <u@far.test>", kSyntax, kSyntax, kSyntax},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Rcpt(true, 0, row.line), row.taken) << row.line;
    EXPECT_EQ(Rcpt(true, 1, row.line), row.refused) << row.line;
    EXPECT_EQ(Rcpt(true, 2, row.line), row.unchecked) << row.line;
  }
}

TEST(Rcpt, ARemoteClientMayWriteToLocalDomainsOnly) {
  const auto relaying = [](std::string_view domain) {
    return std::string("<- 550 5.7.1 Relaying to ").append(domain).append(" not allowed.");
  };
  const struct {
    const char* line;
    std::string outcome;
  } rows[] = {
      {"RCPT TO:<u@local.test>", "-> RCPT TO:<u@local.test>"},
      {"RCPT TO:<u@LOCAL.test.>", "-> RCPT TO:<u@LOCAL.test>"},
      {"RCPT TO:<@evil.test:u@local.test>", "-> RCPT TO:<u@local.test>"},
      {R"(RCPT TO:<"u"@local.test>)", "-> RCPT TO:<u@local.test>"},
      {R"(RCPT TO:<"u v"@local.test>)", R"(-> RCPT TO:<"u v"@local.test>)"},
      {"RCPT TO:u@local.test", "-> RCPT TO:<u@local.test>"},
      {"RCPT TO:<u@local.test", "-> RCPT TO:<u@local.test>"},
      {"RCPT TO:<u@far.test>", relaying("far.test")},
      {"RCPT TO:<u@sub.local.test>", relaying("sub.local.test")},
      {"RCPT TO:<u@local.test.far.test>", relaying("local.test.far.test")},
      {"RCPT TO:<@local.test:u@far.test>", relaying("far.test")},
      {"RCPT TO:u@far.test", relaying("far.test")},
      {"RCPT TO:<u@far.test", relaying("far.test")},
      {R"(RCPT TO:<"u@local.test"@far.test>)", relaying("far.test")},
      {"RCPT TO:<u@[127.0.0.1]>", relaying("[127.0.0.1]")},
      // No domain at all.
      {"RCPT TO:<postmaster>", relaying("postmaster")},
      {"RCPT TO:<>", relaying("")},
      {"RCPT TO:", kSyntax},
      {"RCPT TO:  ", kSyntax},
      {"RCPT TO:<", kSyntax},
      // Servers that trust the proxy route these on.
      {"RCPT TO:<x%evil.test@local.test>", relaying("local.test")},
      {R"(RCPT TO:<"x@evil.test"@local.test>)", relaying("local.test")},
      {"RCPT TO:<x@evil.test@local.test>", relaying("local.test")},
      {"RCPT TO:<evil.test!x@local.test>", relaying("local.test")},
      {R"(RCPT TO:<"x%evil.test"@local.test>)", relaying("local.test")},
      {R"(RCPT TO:<"evil.test!x"@local.test>)", relaying("local.test")},
      {"RCPT TO:<@r:x%evil.test@local.test>", relaying("local.test")},
      {"RCPT TO:x%evil.test@local.test", relaying("local.test")},
      {"RCPT TO:x@evil.test@local.test SIZE=1", relaying("local.test")},
      {"RCPT TO:<x%local.test>", relaying("x%local.test")},
      {R"(RCPT TO:<"x@local.test">)", relaying("local.test\"")},
      // What is no address is one for nobody.
      {"RCPT TO:<u(c)@local.test>", kSyntax},
      {"RCPT TO:<u@local.test(c)>", kSyntax},
      {R"(RCPT TO:<"u@local.test>)", kSyntax},
      {R"(RCPT TO:<"u\\"v"@local.test>)", kSyntax},
      {"RCPT TO:<u v@local.test>", kSyntax},
      {"RCPT TO:<u@local..test>", kSyntax},
      {"RCPT TO:<u@.local.test>", kSyntax},
      {"RCPT TO:<u@local.test>x", kSyntax},
      {"RCPT TO:<g:u@local.test;>", kSyntax},
  };
  for (const auto& row : rows) EXPECT_EQ(Rcpt(false, 0, row.line), row.outcome) << row.line;
}

TEST(Rcpt, RelayingIsRefusedWhateverTheListsSay) {
  for (const char* line :
       {"RCPT TO:<u@far.test>", "RCPT TO:<x%far.test@local.test>", "RCPT TO:<x@far.test@local.test>"}) {
    TestDialogue d;
    BringToTransaction(d);
    d.configuration.RecipientsWhiteListRemote = ListOf({"*"});
    EXPECT_TRUE(d.Says(line).starts_with("<- 550 5.7.1 Relaying to ")) << line;
    EXPECT_TRUE(d.greylisting.asked.empty());
  }
}

TEST(Rcpt, AnUncheckedOneSkipsTheOtherChecks) {
  TestDialogue d;
  BringToTransaction(d);
  d.configuration.ProcessAddressesWithoutBrackets = 2;
  d.configuration.MaxRecipientsRemote = 1;
  d.configuration.RecipientReplacementsRemote = TableOf({{"*", "new@b"}});
  EXPECT_EQ(d.Says("rcpt  to:u@far.test"), "-> rcpt to:u@far.test");
  EXPECT_EQ(d.Says("RCPT TO:v@far.test A=B"), "-> RCPT TO:v@far.test A=B");
  EXPECT_EQ(d.state.requested.RecipientCount, 2);
  EXPECT_EQ(d.state.requested.Recipient, "v@far.test");
  EXPECT_EQ(d.Says("RCPT TO:<v@local.test>"), "<- 452 4.5.3 Too many recipients.");
}

TEST(Rcpt, RecipientsAreCounted) {
  for (const bool local : {false, true}) {
    TestDialogue d;
    BringToTransaction(d);
    d.facts.local = local;
    (local ? d.configuration.MaxRecipientsLocal : d.configuration.MaxRecipientsRemote) = 3;
    (local ? d.configuration.MaxRecipientsRemote : d.configuration.MaxRecipientsLocal) = 1;
    EXPECT_EQ(d.Says("RCPT TO:<u@local.test>"), "-> RCPT TO:<u@local.test>");
    // Refused ones count, but not those without an address.
    d.configuration.RecipientsBlackListLocal = d.configuration.RecipientsBlackListRemote =
        ListOf({"black@local.test"});
    EXPECT_TRUE(d.Says("RCPT TO:<black@local.test>").starts_with("<- 550"));
    EXPECT_EQ(d.Says("RCPT TO:<u(c)@local.test>"), kSyntax);
    EXPECT_EQ(d.Says("RCPT TO:<u@local.test>"), "-> RCPT TO:<u@local.test>");
    EXPECT_EQ(d.Says("RCPT TO:<u@local.test>"), "<- 452 4.5.3 Too many recipients.");
    // Before the relaying test.
    EXPECT_EQ(d.Says("RCPT TO:<u@far.test>"), "<- 452 4.5.3 Too many recipients.");
    EXPECT_EQ(d.state.requested.RecipientCount, 5);
  }
}

TEST(Rcpt, RecipientsAreTestedWithThreeLists) {
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
    const auto list = [](bool listed) { return listed ? ListOf({"x@y", "U@local.test"}) : ListOf({"x@y"}); };
    {
      TestDialogue d;
      BringToTransaction(d);
      d.configuration.RecipientsWhiteListRemote = list(row.white);
      d.configuration.RecipientsAllowListRemote = list(row.allowed);
      d.configuration.RecipientsBlackListRemote = list(row.black);
      EXPECT_EQ(d.Says("RCPT TO:<u@local.test>"),
                row.passes ? "-> RCPT TO:<u@local.test>"
                           : "<- 550 5.1.1 Unknown or invalid recipient: u@local.test.");
    }
    {
      TestDialogue d;
      BringToTransaction(d);
      d.facts.local = true;
      d.configuration.RecipientsWhiteListLocal = list(row.white);
      d.configuration.RecipientsAllowListLocal = list(row.allowed);
      d.configuration.RecipientsBlackListLocal = list(row.black);
      EXPECT_EQ(d.Says("RCPT TO:<u@local.test>"),
                row.passes ? "-> RCPT TO:<u@local.test>"
                           : "<- 550 5.7.1 Sending mail to u@local.test not allowed.");
    }
  }
}

TEST(Rcpt, RestrictedSendersWriteToLocalDomainsOnly) {
  const struct {
    bool local_client;
    const char* sender;
    const char* line;
    const char* outcome;
  } rows[] = {
      {true, "boss@local.test", "RCPT TO:<u@local.test>", "-> RCPT TO:<u@local.test>"},
      {true, "boss@local.test", "RCPT TO:<u@far.test>",
       "<- 550 5.7.1 Sending mail to external recipients not allowed for boss@local.test."},
      {true, "", "RCPT TO:<u@far.test>",
       "<- 550 5.7.1 Sending mail to external recipients not allowed for ."},
      {true, "other@local.test", "RCPT TO:<u@far.test>", "-> RCPT TO:<u@far.test>"},
      {false, "boss@local.test", "RCPT TO:<u@far.test>", "<- 550 5.7.1 Relaying to far.test not allowed."},
      {false, "boss@local.test", "RCPT TO:<u@local.test>", "-> RCPT TO:<u@local.test>"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    BringToTransaction(d);
    d.facts.local = row.local_client;
    d.state.requested.Sender = row.sender;
    d.configuration.RestrictedSenders = ListOf({"boss@*", "[]"});
    d.configuration.RecipientsWhiteListLocal = ListOf({"*"});  // does not help
    EXPECT_EQ(d.Says(row.line), row.outcome) << row.sender;
  }
}

TEST(Rcpt, PrivateRecipientsAreForLocalClients) {
  for (const char* line :
       {"RCPT TO:<private@local.test>", "RCPT TO:<PRIVATE@local.test.>", "RCPT TO:<\"private\"@local.test>",
        "RCPT TO:private@local.test", "RCPT TO:<@r:private@local.test>"}) {
    TestDialogue d;
    BringToTransaction(d);
    d.configuration.PrivateRecipients = ListOf({"private@*"});
    d.configuration.RecipientsWhiteListRemote = ListOf({"*"});  // does not help
    d.configuration.GreyListing.Enabled = true;
    EXPECT_TRUE(d.Says(line).ends_with("doesn't accept external mail.")) << line;
    EXPECT_TRUE(d.greylisting.asked.empty());
    d.facts.local = true;
    EXPECT_TRUE(d.Says(line).starts_with("-> RCPT TO:<")) << line;
  }
}

TEST(Rcpt, TheBlackListComesBeforeThePrivateRecipients) {
  TestDialogue d;
  BringToTransaction(d);
  d.configuration.PrivateRecipients = ListOf({"u@*"});
  d.configuration.RecipientsBlackListRemote = ListOf({"u@*"});
  EXPECT_EQ(d.Says("RCPT TO:<u@local.test>"), "<- 550 5.1.1 Unknown or invalid recipient: u@local.test.");
}

TEST(Rcpt, RecipientsAreReplaced) {
  for (const bool local : {false, true}) {
    TestDialogue d;
    BringToTransaction(d);
    d.facts.local = local;
    (local ? d.configuration.RecipientReplacementsLocal : d.configuration.RecipientReplacementsRemote) =
        TableOf({{"u@local.test", "new@far.test"}, {"*@local.test", "any@far.test"}});
    (local ? d.configuration.RecipientReplacementsRemote : d.configuration.RecipientReplacementsLocal) =
        TableOf({{"*", "wrong@c"}});
    d.configuration.SenderReplacementsLocal = d.configuration.SenderReplacementsRemote =
        TableOf({{"*", "wrong@c"}});
    EXPECT_EQ(d.Says("RCPT TO:<\"U\"@local.test> A=B"), "-> RCPT TO:<new@far.test> A=B");
    EXPECT_EQ(d.state.requested.Recipient, "U@local.test");
    EXPECT_EQ(d.Says("RCPT TO:<x@local.test>"), "-> RCPT TO:<any@far.test>");
  }
}

TEST(Rcpt, ABadReplacementKeyLeavesTheRecipient) {
  TestDialogue d;
  BringToTransaction(d);
  d.configuration.RecipientReplacementsRemote = TableOf({{"[x,y]*@b", "any@c"}});
  const LineDecision decision = d.Line("RCPT TO:<u@local.test>\r\n");
  EXPECT_EQ(decision.text, "RCPT TO:<u@local.test>\r\n");
  EXPECT_TRUE(decision.failure);
}

// --- greylisting

TEST(Greylisting, AsksForTheTriple) {
  TestDialogue d;
  BringToTransaction(d);
  d.configuration.GreyListing.Enabled = true;
  EXPECT_EQ(d.Says("RCPT TO:<\"U\"@local.test.>"), "-> RCPT TO:<U@local.test>");
  EXPECT_EQ(d.greylisting.asked,
            std::vector<std::string>{"mail.client.test|192.0.2.7|s@sender.test|U@local.test"});
  // The name as it is known: a client without one has an empty one.
  d.facts.host.clear();
  d.state.requested.Sender.clear();
  EXPECT_EQ(d.Says("RCPT TO:<u@local.test>"), "-> RCPT TO:<u@local.test>");
  EXPECT_EQ(d.greylisting.asked.back(), "|192.0.2.7||u@local.test");
  d.facts.host_is_unknown = true;
  EXPECT_EQ(d.Says("RCPT TO:<u@local.test>"), "-> RCPT TO:<u@local.test>");
  EXPECT_EQ(d.greylisting.asked.back(), "?|192.0.2.7||u@local.test");
}

TEST(Greylisting, IsNotAskedWhenItDoesNotMatter) {
  const struct {
    bool enabled;
    bool local;
    const char* line;
  } rows[] = {
      {false, false, "RCPT TO:<u@local.test>"},    {true, true, "RCPT TO:<u@local.test>"},
      {true, true, "RCPT TO:<u@far.test>"},        {true, false, "RCPT TO:<u@far.test>"},
      {true, false, "RCPT TO:<black@local.test>"}, {true, false, "RCPT TO:<>"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    BringToTransaction(d);
    d.greylisting.delays = true;
    d.configuration.GreyListing.Enabled = row.enabled;
    d.configuration.RecipientsBlackListRemote = ListOf({"black@*"});
    d.facts.local = row.local;
    EXPECT_EQ(d.Says(row.line).find("451"), std::string::npos) << row.line;
    EXPECT_TRUE(d.greylisting.asked.empty()) << row.line;
  }
}

TEST(Greylisting, CanBeMissing) {
  TestDialogue d;
  BringToTransaction(d);
  d.configuration.GreyListing.Enabled = true;
  const ClientCommandFilter without(d.configuration, d.clock, d.facts, nullptr);
  EXPECT_EQ(without.ProcessIncomingData("RCPT TO:<u@local.test>\r\n", d.state).text,
            "RCPT TO:<u@local.test>\r\n");
}

TEST(Greylisting, WhatBecomesOfADelayedRecipient) {
  constexpr const char* kDelayed = "<- 451 4.7.1 Greylisted. Delivery delayed.";
  constexpr const char* kPasses = "-> RCPT TO:<u@local.test>";
  constexpr const char* kBroken = "log Connection broken due to Greylisting; closed C";
  const struct {
    const char* sender;
    int action;
    const char* rcpt;
    const char* data;
    const char* bdat;
  } rows[] = {
      // Callbacks: the null sender, and postmasters.
      {"", 0, kPasses, "-> DATA", "-> BDAT 1"},
      {"", 1, kPasses, kDelayed, kBroken},
      {"", 2, kDelayed, "-> DATA", "-> BDAT 1"},
      {"", 3, kPasses, kBroken, kBroken},
      {"Postmaster@sender.test", 1, kPasses, kDelayed, kBroken},
      // Everybody else.
      {"s@sender.test", 0, kDelayed, "-> DATA", "-> BDAT 1"},
      {"s@sender.test", 1, kDelayed, "-> DATA", "-> BDAT 1"},
      {"s@sender.test", 2, kDelayed, "-> DATA", "-> BDAT 1"},
      {"s@sender.test", 3, kDelayed, "-> DATA", "-> BDAT 1"},
  };
  for (const auto& row : rows) {
    for (const bool with_bdat : {false, true}) {
      TestDialogue d;
      BringToTransaction(d);
      d.state.requested.Sender = row.sender;
      d.state.offered.Extensions.AddExtension("CHUNKING");
      d.configuration.AddReceived = false;
      d.configuration.GreyListing.Enabled = true;
      d.configuration.GreyListing.CallbackSenderAction = row.action;
      d.greylisting.delays = true;
      EXPECT_EQ(d.Says("RCPT TO:<u@local.test>"), row.rcpt) << row.sender << " " << row.action;
      EXPECT_EQ(d.Says(with_bdat ? "BDAT 1" : "DATA"), with_bdat ? row.bdat : row.data)
          << row.sender << " " << row.action;
    }
  }
}

TEST(Greylisting, WhoIsAcceptedPasses) {
  for (const int action : {0, 1, 2, 3}) {
    TestDialogue d;
    BringToTransaction(d);
    d.state.requested.Sender.clear();
    d.configuration.GreyListing.Enabled = true;
    d.configuration.GreyListing.CallbackSenderAction = action;
    EXPECT_EQ(d.Says("RCPT TO:<u@local.test>"), "-> RCPT TO:<u@local.test>");
    EXPECT_EQ(d.Says("DATA"), "-> DATA");
  }
}

TEST(Greylisting, TheMarkIsThatOfOneTransaction) {
  TestDialogue d;
  d.configuration.GreyListing.Enabled = true;
  d.greylisting.delays = true;
  d.configuration.AddReceived = false;
  d.Greet();
  d.Run(R"(
    C: MAIL FROM:<>
    -> MAIL FROM:<>
    S: 250 ok
    <- 250 ok
    C: RCPT TO:<u@local.test>
    -> RCPT TO:<u@local.test>
    S: 250 ok
    <- 250 ok
    C: DATA
    <- 451 4.7.1 Greylisted. Delivery delayed.
    # A RSET that the server refuses clears nothing.
    C: RSET
    -> RSET
    S: 451 no
    <- 451 no
    C: DATA
    <- 451 4.7.1 Greylisted. Delivery delayed.
    C: RSET
    -> RSET
    S: 250 ok
    <- 250 ok
    C: MAIL FROM:<>
    -> MAIL FROM:<>
    S: 250 ok
    <- 250 ok
    C: DATA
    -> DATA)");
}

TEST(Greylisting, OneMarkedRecipientIsEnough) {
  TestDialogue d;
  BringToTransaction(d);
  d.state.requested.Sender.clear();
  d.configuration.GreyListing.Enabled = true;
  d.greylisting.delays = true;
  EXPECT_EQ(d.Says("RCPT TO:<u@local.test>"), "-> RCPT TO:<u@local.test>");
  d.greylisting.delays = false;
  EXPECT_EQ(d.Says("RCPT TO:<v@local.test>"), "-> RCPT TO:<v@local.test>");
  EXPECT_EQ(d.Says("DATA"), "<- 451 4.7.1 Greylisted. Delivery delayed.");
}

TEST(Rcpt, RepliesAreChangedByTheirKeys) {
  TestDialogue d;
  BringToTransaction(d);
  for (const char* key :
       {"RCPT.AddressSyntax", "RCPT.TooManyRecipients", "RCPT.Restricted", "RCPT.Restricted.s@sender.test",
        "RCPT.Relaying", "RCPT.Relaying.x@far.test", "RCPT.Private", "RCPT.Private.p@local.test",
        "RCPT.BlackList.Local", "RCPT.BlackList.Local.b@local.test", "RCPT.BlackList.Remote",
        "RCPT.BlackList.Remote.b@local.test", "RCPT.Greylisted", "RCPT.Greylisted.g@local.test",
        "DATA.Greylisted"}) {
    d.configuration.ResponseChanges.Add(Appended(key, std::string(" > ") + key + " {%rcpt%} {%rcptdomain%}"));
  }
  d.configuration.EnhancedStatusCodes = false;
  d.configuration.PrivateRecipients = ListOf({"p@*", "q@*"});
  d.configuration.RecipientsBlackListRemote = d.configuration.RecipientsBlackListLocal =
      ListOf({"b@*", "c@*"});
  d.configuration.RestrictedSenders = ListOf({"s@*"});
  d.configuration.GreyListing.Enabled = true;
  d.configuration.MaxRecipientsRemote = 7;
  d.greylisting.delays = true;
  d.Run(R"(
    C: RCPT TO:<x@far.test>
    <- 550 Relaying to far.test not allowed. > RCPT.Relaying x@far.test far.test
    C: RCPT TO:<p@local.test>
    <- 550 p@local.test doesn't accept external mail. > RCPT.Private p@local.test local.test > RCPT.Private.p@local.test p@local.test local.test
    C: RCPT TO:<q@local.test>
    <- 550 q@local.test doesn't accept external mail. > RCPT.Private q@local.test local.test
    C: RCPT TO:<b@local.test>
    <- 550 Unknown or invalid recipient: b@local.test. > RCPT.BlackList.Remote b@local.test local.test > RCPT.BlackList.Remote.b@local.test b@local.test local.test
    C: RCPT TO:<c@local.test>
    <- 550 Unknown or invalid recipient: c@local.test. > RCPT.BlackList.Remote c@local.test local.test
    C: RCPT TO:<g@local.test>
    <- 451 Greylisted. Delivery delayed. > RCPT.Greylisted g@local.test local.test > RCPT.Greylisted.g@local.test g@local.test local.test
    C: RCPT TO:<h@local.test>
    <- 451 Greylisted. Delivery delayed. > RCPT.Greylisted h@local.test local.test
    C: RCPT TO:<u@local.test>
    <- 452 Too many recipients. > RCPT.TooManyRecipients u@local.test local.test)");
  d.facts.local = true;
  d.state.requested.Greylisted = true;
  d.Run(R"(
    C: RCPT TO:<x@far.test>
    <- 550 Sending mail to external recipients not allowed for s@sender.test. > RCPT.Restricted x@far.test far.test > RCPT.Restricted.s@sender.test x@far.test far.test
    C: RCPT TO:<b@local.test>
    <- 550 Sending mail to b@local.test not allowed. > RCPT.BlackList.Local b@local.test local.test > RCPT.BlackList.Local.b@local.test b@local.test local.test
    C: DATA
    <- 451 Greylisted. Delivery delayed. > DATA.Greylisted b@local.test local.test)");
}

}  // namespace
}  // namespace trabex

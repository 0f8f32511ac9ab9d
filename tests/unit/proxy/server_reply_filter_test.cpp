#include "proxy/dialogue/server_reply_filter.h"

#include <gtest/gtest.h>

#include <string>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

// What the client gets for the reply (lines of `reply` end in "|") to an EHLO, in the same form.
std::string EhloReply(TestDialogue& d, std::string_view reply) {
  EXPECT_EQ(d.Says("EHLO client.test"), "-> EHLO client.test");
  std::string text(reply);
  for (std::size_t at = text.find('|'); at != std::string::npos; at = text.find('|', at)) {
    text.replace(at, 1, "\r\n");
  }
  std::string got = d.Reply(text).text;
  for (std::size_t at = got.find("\r\n"); at != std::string::npos; at = got.find("\r\n", at)) {
    got.replace(at, 2, "|");
  }
  return got;
}

TEST(EhloReply, IsRewritten) {
  const struct {
    const char* server;
    const char* client;
  } rows[] = {
      {"250 server.test|", "250 server.test|"},
      {"250-server.test hello|250 HELP|", "250-server.test hello|250 HELP|"},
      {"250-server.test|250-8BITMIME|250-AUTH LOGIN PLAIN|250 HELP|",
       "250-server.test|250-8BITMIME|250-AUTH LOGIN PLAIN|250 HELP|"},
      // What never reaches a client.
      {"250-server.test|250-PIPELINING|250-STARTTLS|250-HELP|250-TURN|250-ATRN|250-XCLIENT NAME ADDR|250 "
       "XFORWARD NAME|",
       "250-server.test|250 HELP|"},
      {"250-server.test|250-starttls|250 Pipelining|", "250 server.test|"},
      {"250-server.test|250-HELP|250 OK|", "250-server.test|250 HELP|"},
      {"250-server.test|250 STARTTLSX|", "250-server.test|250 STARTTLSX|"},
      // The first line is no extension.
      {"250-STARTTLS|250 HELP|", "250-STARTTLS|250 HELP|"},
      {"250 STARTTLS|", "250 STARTTLS|"},
      {"250-|250 HELP|", "250-|250 HELP|"},
      {"250|", "250 |"},
      // Of two with one keyword the later one stays.
      {"250-server.test|250-HELP a|250-DSN|250 HELP b|", "250-server.test|250-DSN|250 HELP b|"},
      // Lines with another code in between say nothing.
      {"250-server.test|251-STARTTLS|250-HELP|550-XCLIENT|250 DSN|", "250-server.test|250-HELP|250 DSN|"},
      {"250-server.test|250-HELP|250|", "250-server.test|250 HELP|"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    EXPECT_EQ(EhloReply(d, row.server), row.client);
    EXPECT_TRUE(d.Greeted()) << row.server;
  }
}

TEST(EhloReply, ARefusalStaysAsItIs) {
  for (const char* reply : {"550 no|", "421-busy|421 later|", "500-server.test|500 STARTTLS|", "220 ok|",
                            "250-server.test|250-HELP|550 no|", "550-server.test|250 HELP|"}) {
    TestDialogue d;
    EXPECT_EQ(EhloReply(d, reply), reply);
    EXPECT_FALSE(d.Greeted()) << reply;
    EXPECT_TRUE(d.state.offered.Extensions.Lines().empty());
  }
}

TEST(EhloReply, ExtensionsAreRemovedAndAdded) {
  constexpr const char* kServer = "250-server.test|250-DSN|250-SIZE 1000|250-AUTH LOGIN|250 HELP|";
  // The order is that of the server, then that of the list.
  const struct {
    bool local;
    const char* client;
  } rows[] = {
      {false, "250-server.test|250-DSN|250-SIZE 1000|250-HELP|250-XREMOTE a|250 STARTTLS|"},
      {true, "250-server.test|250-SIZE 1000|250-AUTH LOGIN|250-dsn new|250 XLOCAL|"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.facts.local = row.local;
    d.configuration.RemoveSMTPExtensionsRemote = ListOf({"auth", "ABSENT"});
    d.configuration.AddSMTPExtensionsRemote = ListOf({"XREMOTE a", "STARTTLS"});
    d.configuration.RemoveSMTPExtensionsLocal = ListOf({"HELP more"});
    d.configuration.AddSMTPExtensionsLocal = ListOf({"dsn new", "XLOCAL"});
    d.configuration.MaxSize = -1 * kFixedPointOne;
    EXPECT_EQ(EhloReply(d, kServer), row.client);
  }
  // Also to a reply without any.
  TestDialogue d;
  d.configuration.AddSMTPExtensionsRemote = ListOf({"X"});
  EXPECT_EQ(EhloReply(d, "250 server.test|"), "250-server.test|250 X|");
}

TEST(EhloReply, WhatTheListsMakeOfItIsWhatTheFilterGoesBy) {
  TestDialogue d;
  d.state.transaction = Transaction::kOpen;
  d.configuration.RemoveSMTPExtensionsRemote = ListOf({"CHUNKING"});
  EXPECT_EQ(EhloReply(d, "250-server.test|250-CHUNKING|250 XEXCH50|"), "250-server.test|250 XEXCH50|");
  d.state.transaction = Transaction::kOpen;
  EXPECT_EQ(d.Says("BDAT 0 LAST"), "<- 503 5.5.1 Bad sequence of commands.");
  EXPECT_EQ(d.Says("XEXCH50 0"), "-> XEXCH50 0");
}

TEST(EhloReply, TheSizeIsTheSmallerOfTwo) {
  constexpr FixedPoint kOne = kFixedPointOne;
  const struct {
    const char* server;  // the SIZE line, "" for none
    FixedPoint own;      // MaxSize
    const char* client;  // the SIZE line, "" for none
    FixedPoint limit;
  } rows[] = {
      {"SIZE 20000000", 10000000 * kOne, "SIZE 10000000", 10000000 * kOne},
      {"SIZE 5000000", 10000000 * kOne, "SIZE 5000000", 5000000 * kOne},
      {"SIZE 1000", 1000 * kOne, "SIZE 1000", 1000 * kOne},
      {"SIZE 1000", 0, "SIZE 1000", 1000 * kOne},
      {"SIZE 1000", -1 * kOne, "SIZE 1000", 0},
      {"size 1000", -1 * kOne, "size 1000", 0},
      {"SIZE 1000", -2 * kOne, "", 0},
      {"SIZE 1000", -1 * kOne - 1, "", 0},
      {"", 1000 * kOne, "SIZE 1000", 1000 * kOne},
      {"", 0, "", 0},
      {"", -1 * kOne, "", 0},
      {"", -2 * kOne, "", 0},
      // A SIZE without a number is none.
      {"SIZE", 1000 * kOne, "SIZE 1000", 1000 * kOne},
      {"SIZE", 0, "", 0},
      {"SIZE", -1 * kOne, "", 0},
      {"SIZE", -2 * kOne, "", 0},
      {"SIZE 0", 1000 * kOne, "SIZE 1000", 1000 * kOne},
      {"SIZE 0", 0, "", 0},
      {"SIZE 0", -1 * kOne, "", 0},
      {"SIZE many", 0, "", 0},
      {"SIZE many", 1000 * kOne, "SIZE 1000", 1000 * kOne},
      {"SIZE 10x", 0, "", 0},
      {"SIZE -10", 0, "", 0},
      {"SIZE 10.5", 0, "", 0},
      {"SIZE 99999999999999999999999", 0, "", 0},
      {"SIZE 99999999999999999999999", 1000 * kOne, "SIZE 1000", 1000 * kOne},
      {"SIZE  1000 more", 0, "SIZE 1000", 1000 * kOne},
      {"SIZE 00001000", 0, "SIZE 1000", 1000 * kOne},
      {"SIZE 922337203685477", 0, "SIZE 922337203685477", 922337203685477 * kOne},
      {"SIZEX 1000", 0, "SIZEX 1000", 0},
      // A fraction of a byte is none.
      {"", 1000 * kOne + kOne / 2, "SIZE 1000", 1000 * kOne},
      {"", 1001 * kOne + kOne / 2, "SIZE 1001", 1001 * kOne},
      {"", 1000 * kOne + kOne - 1, "SIZE 1000", 1000 * kOne},
      {"SIZE 1001", 1000 * kOne + kOne - 1, "SIZE 1000", 1000 * kOne},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.configuration.MaxSize = row.own;
    const std::string server = std::string("250-server.test|250-DSN|") +
                               (*row.server ? std::string("250-") + row.server + "|" : "") + "250 HELP|";
    const std::string client = EhloReply(d, server);
    // A new figure comes at the end, the server's own line in its place.
    const std::string size = *row.client ? std::string("250-") + row.client + "|" : "";
    const bool untouched = std::string_view(row.client) == row.server && row.limit == 0;
    const std::string expected =
        untouched      ? server
        : size.empty() ? "250-server.test|250-DSN|250 HELP|"
                       : "250-server.test|250-DSN|250-HELP|250 " + std::string(row.client) + "|";
    EXPECT_EQ(client, expected) << row.server << " with " << row.own;
    EXPECT_EQ(d.state.offered.SizeLimit, row.limit) << row.server << " with " << row.own;
  }
}

TEST(EhloReply, EachBeginsAnew) {
  TestDialogue d;
  EXPECT_EQ(EhloReply(d, "250-server.test|250-CHUNKING|250 SIZE 1000|"),
            "250-server.test|250-CHUNKING|250 SIZE 1000|");
  EXPECT_EQ(EhloReply(d, "250-server.test|250 SIZE 2000|"), "250-server.test|250 SIZE 2000|");
  EXPECT_EQ(d.state.offered.SizeLimit, 2000 * kFixedPointOne);
  EXPECT_FALSE(d.state.offered.Extensions.Has("CHUNKING"));
  EXPECT_EQ(EhloReply(d, "250 server.test|"), "250 server.test|");
  EXPECT_EQ(d.state.offered.SizeLimit, 0);
}

// What the server offered before is still in force when it refuses another EHLO.
TEST(EhloReply, ARefusedOneLeavesTheExtensions) {
  TestDialogue d;
  EXPECT_EQ(EhloReply(d, "250-server.test|250-CHUNKING|250 SIZE 1000|"),
            "250-server.test|250-CHUNKING|250 SIZE 1000|");
  EXPECT_EQ(EhloReply(d, "550 no|"), "550 no|");
  EXPECT_TRUE(d.state.offered.Extensions.Has("CHUNKING"));
  EXPECT_EQ(d.state.offered.SizeLimit, 1000 * kFixedPointOne);
}

TEST(HeloReply, PassesAndEmptiesTheExtensions) {
  TestDialogue d;
  d.Greet();
  d.Run(R"(
    C: HELO client.test
    -> HELO client.test
    S: 550 no
    <- 550 no)");
  EXPECT_TRUE(d.state.offered.Extensions.Has("CHUNKING"));
  d.Run(R"(
    C: HELO client.test
    -> HELO client.test
    S: 250-server.test
    S: 250-STARTTLS
    S: 250 SIZE 5
    <- 250-server.test
    <- 250-STARTTLS
    <- 250 SIZE 5)");
  EXPECT_TRUE(d.state.offered.Extensions.Lines().empty());
  EXPECT_TRUE(d.Greeted());
}

TEST(ServerReply, EachCommandIsFollowed) {
  struct Expectation {
    bool greeting_done;
    bool transaction_open;
  };
  const struct {
    const char* command;
    const char* reply;
    bool greeted;  // before
    bool open;
    Expectation after;
  } rows[] = {
      {"HELO x", "250 ok", false, false, {true, false}},
      {"HELO x", "250 ok", true, true, {true, false}},
      {"HELO x", "550 no", false, false, {false, false}},
      {"HELO x", "550 no", true, true, {true, true}},
      {"HELO x", "220 ok", false, false, {false, false}},
      {"HELO x", "354 ok", false, false, {false, false}},
      {"EHLO x", "250 ok", false, false, {true, false}},
      {"EHLO x", "250 ok", true, true, {true, false}},
      {"EHLO x", "550 no", true, true, {true, true}},
      {"MAIL FROM:<a@b>", "250 ok", true, false, {true, true}},
      {"MAIL FROM:<a@b>", "355 ok", true, false, {true, true}},
      {"MAIL FROM:<a@b>", "251 ok", true, false, {true, false}},
      {"MAIL FROM:<a@b>", "354 ok", true, false, {true, false}},
      {"MAIL FROM:<a@b>", "550 no", true, false, {true, false}},
      {"SEND FROM:<a@b>", "250 ok", true, false, {true, true}},
      {"SOML FROM:<a@b>", "250 ok", true, false, {true, true}},
      {"SAML FROM:<a@b>", "250 ok", true, false, {true, true}},
      {"SEND FROM:<a@b>", "355 ok", true, false, {true, false}},
      {"RCPT TO:<u@local.test>", "250 ok", true, true, {true, true}},
      {"RCPT TO:<u@local.test>", "550 no", true, true, {true, true}},
      {"RCPT TO:<u@local.test>", "354 no", true, true, {true, true}},
      {"RSET", "250 ok", true, true, {true, false}},
      {"RSET", "250 ok", false, false, {false, false}},
      {"RSET", "451 no", true, true, {true, true}},
      {"DATA", "354 go on", true, true, {true, false}},
      {"DATA", "250 ok", true, true, {true, true}},
      {"DATA", "554 no", true, true, {true, true}},
      {"NOOP", "250 ok", true, true, {true, true}},
      {"NOOP", "250 ok", false, false, {false, false}},
      {"NOOP", "355 ok", true, false, {true, false}},
      {"VRFY x", "250 ok", true, false, {true, false}},
      {"QUIT", "221 bye", true, true, {true, true}},
      {"AUTH PLAIN x", "235 ok", true, false, {true, false}},
      {"FOO", "250 ok", true, false, {true, false}},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.configuration.AddReceived = false;
    d.state.transaction = row.open      ? Transaction::kOpen
                          : row.greeted ? Transaction::kGreeted
                                        : Transaction::kNoGreeting;
    EXPECT_TRUE(d.Says(row.command).starts_with("-> ")) << row.command;
    EXPECT_EQ(d.Greeted(), row.greeted) << row.command;
    EXPECT_EQ(d.TransactionOpen(), row.open) << row.command;
    const std::string reply = std::string(row.reply) + "\r\n";
    EXPECT_EQ(d.Reply(reply).text, reply);
    EXPECT_EQ(d.Greeted(), row.after.greeting_done) << row.command << " " << row.reply;
    EXPECT_EQ(d.TransactionOpen(), row.after.transaction_open) << row.command << " " << row.reply;
    // What the server says without being asked changes nothing.
    for (const char* unasked : {"250 ok\r\n", "354 ok\r\n", "355 ok\r\n"}) {
      if (d.TakesContent()) break;
      d.Reply(unasked);
      EXPECT_EQ(d.Greeted(), row.after.greeting_done) << row.command << " " << unasked;
      EXPECT_EQ(d.TransactionOpen(), row.after.transaction_open) << row.command << " " << unasked;
      EXPECT_FALSE(d.TakesContent());
    }
  }
}

TEST(ServerReply, WithSeveralCodesSaysNothing) {
  const struct {
    const char* command;
    const char* reply;
  } rows[] = {
      {"MAIL FROM:<a@b>", "250-ok\r\n550 no\r\n"},
      {"MAIL FROM:<a@b>", "550-no\r\n250 ok\r\n"},
      {"MAIL FROM:<a@b>", "250-ok\r\n25\r\n"},
      {"MAIL FROM:<a@b>", "250-ok\r\n\r\n"},
      {"HELO x", "250-ok\r\n\r\n"},
      {"MAIL FROM:<a@b>", "250-ok\r\n251-ok\r\n250 ok\r\n"},
      {"HELO x", "250-ok\r\n550 no\r\n"},
      {"HELO x", "550-no\r\n250 ok\r\n"},
      {"MAIL FROM:<a@b>", "\r\n"},
      {"MAIL FROM:<a@b>", "25\r\n"},
      {"MAIL FROM:<a@b>", " 250 ok\r\n"},
      {"DATA", "354-go\r\n554 no\r\n"},
      {"DATA", "554-no\r\n354 go\r\n"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.state.transaction = std::string_view(row.command) == "HELO x" ? Transaction::kNoGreeting
                          : std::string_view(row.command) == "DATA" ? Transaction::kOpen
                                                                    : Transaction::kGreeted;
    const bool greeted = d.Greeted();
    const bool open = d.TransactionOpen();
    EXPECT_TRUE(d.Says(row.command).starts_with("-> ")) << row.command;
    EXPECT_EQ(d.Reply(row.reply).text, row.reply);
    EXPECT_EQ(d.Greeted(), greeted) << row.reply;
    EXPECT_EQ(d.TransactionOpen(), open) << row.reply;
    EXPECT_FALSE(d.TakesContent());
    EXPECT_EQ(d.state.phase, Phase::kCommand);
  }
}

TEST(ServerReply, ResetClearsTheTransaction) {
  for (const char* command : {"RSET", "EHLO x", "HELO x"}) {
    TestDialogue d;
    d.GreetMailAndRcpt();
    d.state.requested.Greylisted = true;
    EXPECT_TRUE(d.Says(command).starts_with("-> "));
    // Not yet.
    EXPECT_EQ(d.state.requested.Sender, "s@sender.test");
    EXPECT_EQ(d.state.requested.RecipientCount, 1);
    EXPECT_TRUE(d.state.requested.Greylisted);
    d.Reply("250 ok\r\n");
    EXPECT_FALSE(d.TransactionOpen());
    EXPECT_EQ(d.state.requested.Sender, "");
    EXPECT_EQ(d.state.requested.Recipient, "");
    EXPECT_EQ(d.state.requested.RecipientCount, 0);
    EXPECT_FALSE(d.state.requested.Greylisted);
    EXPECT_TRUE(d.Greeted());
  }
}

TEST(ServerReply, TheHeaderOpensContentAt354Only) {
  const struct {
    bool add;
    int recipients;
    const char* reply;
    bool header;
  } rows[] = {
      {true, 1, "354 go\r\n", true},  {true, 5, "354-go\r\n354 on\r\n", true},
      {true, 0, "354 go\r\n", false}, {false, 1, "354 go\r\n", false},
      {true, 1, "554 no\r\n", false}, {true, 1, "250 ok\r\n", false},
      {true, 1, "353 ok\r\n", false},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.state.transaction = Transaction::kOpen;
    d.state.requested.HeloDomain = "client.test";
    d.state.requested.RecipientCount = row.recipients;
    d.configuration.AddReceived = row.add;
    EXPECT_EQ(d.Says("DATA"), "-> DATA");
    EXPECT_EQ(d.Reply(row.reply).header,
              row.header ? "Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test\r\n"
                           "      with SMTP; Sun, 15 Nov 2026 16:54:24 -0000\r\n"
                         : "")
        << row.reply;
  }
}

// The recipients that were refused count: the number is that of the RCPT commands.
TEST(ServerReply, TheHeaderIsAddedWhenAllRecipientsWereRefused) {
  TestDialogue d;
  d.GreetAndMail();
  d.Run(R"(
    C: RCPT TO:<u@far.test>
    <- 550 5.7.1 Relaying to far.test not allowed.
    C: DATA
    -> DATA
    S: 354 go on
    <- 354 go on
    -> Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test
    ->       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000)");
}

TEST(ServerReply, ARefusedDataLeavesTheTransactionOpen) {
  TestDialogue d;
  d.GreetMailAndRcpt();
  d.Run(R"(
    C: DATA
    -> DATA
    S: 451 later
    <- 451 later
    C: RCPT TO:<v@local.test>
    -> RCPT TO:<v@local.test>)");
}

TEST(ServerReply, WhateverItSaysToTheLastChunkTheTransactionIsOver) {
  const struct {
    const char* reply;
    bool refused;
  } rows[] = {
      {"250 queued\r\n", false},
      {"250-queued\r\n250 as 1\r\n", false},
      {"251 queued\r\n", true},
      {"354 go on\r\n", true},
      {"421 closing\r\n", true},
      {"452 later\r\n", true},
      {"503 no recipients\r\n", true},
      {"550 5.7.1 denied\r\n", true},
      {"550-denied\r\n550 see above\r\n", true},
      {"554 no\r\n", true},
      // What cannot be understood is no acceptance.
      {"250-queued\r\n550 no\r\n", true},
      {"550-no\r\n250 queued\r\n", true},
      {"25\r\n", true},
      {"\r\n", true},
  };
  for (const auto& row : rows) {
    for (const char* chunks : {"BDAT 3 LAST", "BDAT 3; BDAT 3 LAST"}) {
      TestDialogue d;
      d.configuration.AddReceived = false;
      d.GreetMailAndRcpt();
      if (std::string_view(chunks).find(';') != std::string_view::npos) {
        d.Run(R"(
          C: BDAT 3
          -> BDAT 3
          C+ one
          *> one)");
        EXPECT_EQ(d.LeftOver(), "");
        d.Run(R"(
          S: 250 more
          <- 250 more)");
      }
      d.Run(R"(
        C: BDAT 3 LAST
        -> BDAT 3 LAST
        C+ two
        *> two)");
      EXPECT_EQ(d.LeftOver(), "");
      EXPECT_TRUE(d.TransactionOpen());
      EXPECT_EQ(d.Reply(row.reply).text, row.reply);
      EXPECT_FALSE(d.TransactionOpen()) << row.reply;
      EXPECT_FALSE(d.InChunks()) << row.reply;
      if (row.refused) {
        EXPECT_EQ(d.state.requested.Sender, "") << row.reply;
        EXPECT_EQ(d.state.requested.Recipient, "") << row.reply;
        EXPECT_EQ(d.state.requested.RecipientCount, 0) << row.reply;
      }
      d.Run(R"(
        C: RCPT TO:<v@local.test>
        <- 503 5.5.1 Bad sequence of commands.
        C: BDAT 0 LAST
        <- 503 5.5.1 Bad sequence of commands.
        C: MAIL FROM:<t@sender.test>
        -> MAIL FROM:<t@sender.test>
        S: 250 ok
        <- 250 ok
        C: RCPT TO:<v@local.test>
        -> RCPT TO:<v@local.test>)");
      EXPECT_EQ(d.state.requested.Sender, "t@sender.test");
      EXPECT_EQ(d.state.requested.RecipientCount, 1);
    }
  }
}

// RFC 3030, 2: after any other chunk that failed it is the client who ends the transaction. Until then no octets go to a
// server that might look for RSET in them.
TEST(ServerReply, ARefusedChunkThatIsNotTheLastLeavesTheTransactionOpen) {
  for (const char* reply : {"452 later\r\n", "550 no\r\n", "250-ok\r\n550 no\r\n"}) {
    TestDialogue d;
    d.configuration.AddReceived = false;
    d.GreetMailAndRcpt();
    EXPECT_EQ(d.Says("BDAT 0"), "-> BDAT 0");
    d.Reply(reply);
    EXPECT_TRUE(d.TransactionOpen()) << reply;
    EXPECT_TRUE(d.InChunks()) << reply;
    EXPECT_EQ(d.state.requested.Sender, "s@sender.test") << reply;
    d.Run(R"(
      C: MAIL FROM:<t@sender.test>
      <- 503 5.5.1 Bad sequence of commands.
      C: BDAT 5 LAST
      <- 503 5.5.1 Bad sequence of commands.
      C+ RSET\n
      C: RSET
      -> RSET
      S: 250 ok
      <- 250 ok
      C: MAIL FROM:<t@sender.test>
      -> MAIL FROM:<t@sender.test>)");
  }
}

// What is said about the message may still name its addresses; what is said later may not.
TEST(ServerReply, TheRefusalOfTheLastChunkStillKnowsTheSender) {
  TestDialogue d;
  d.configuration.AddReceived = false;
  d.configuration.ResponseChanges.Add(WholeReply("BDAT.550", "550 {%from%} {%rcpt%}"));
  d.configuration.ResponseChanges.Add(WholeReply("NOOP.250", "250 [{%from%}{%rcpt%}]"));
  d.GreetMailAndRcpt();
  d.Run(R"(
    C: BDAT 0 LAST
    -> BDAT 0 LAST
    S: 550 no
    <- 550 s@sender.test u@local.test
    C: NOOP
    -> NOOP
    S: 250 ok
    <- 250 [])");
}

TEST(ServerReply, TheReplyToContentIsAwaitedAndIsNone354) {
  for (const char* reply : {"250 accepted\r\n", "554 no\r\n", "354 more\r\n"}) {
    TestDialogue d;
    d.configuration.AddReceived = false;
    d.GreetMailAndRcpt();
    d.Run(R"(
      C: DATA
      -> DATA
      S: 354 go on
      <- 354 go on)");
    EXPECT_EQ(d.state.phase, Phase::kDotContent);
    d.Run(R"(
      C+ .\r\n
      *> .\r\n)");
    EXPECT_EQ(d.LeftOver(), "");
    EXPECT_EQ(d.state.phase, Phase::kContentReply);
    d.Reply(reply);
    EXPECT_EQ(d.state.phase, Phase::kCommand);
    EXPECT_FALSE(d.TakesContent()) << reply;
    EXPECT_FALSE(d.TransactionOpen());
  }
}

TEST(ServerReply, AnAnswerBeforeTheDotCutsTheContentOff) {
  TestDialogue d;
  d.configuration.AddReceived = false;
  d.GreetMailAndRcpt();
  d.Run(R"(
    C: DATA
    -> DATA
    S: 354 go on
    <- 354 go on
    C+ text
    *> text
    S: 421 closing
    <- 421 closing
    closed C)");
  EXPECT_FALSE(d.TakesContent());
}

TEST(ServerReply, AfterThe221WhatTheClientSendsIsDropped) {
  const struct {
    const char* command;
    const char* reply;
    bool dropped;
  } rows[] = {
      {"QUIT", "221 bye\r\n", true},   {"quit", "221-bye\r\n221 bye\r\n", true},
      {"QUIT", "500 stay\r\n", false}, {"QUIT", "221-bye\r\n500 stay\r\n", false},
      {"NOOP", "221 bye\r\n", false},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.Greet();
    EXPECT_EQ(d.Says(row.command), std::string("-> ") + row.command);
    EXPECT_EQ(d.Reply(row.reply).text, row.reply);
    EXPECT_EQ(d.Discards(), row.dropped) << row.command << " " << row.reply;
  }
}

// --- response changes

TEST(ServerReply, IsChangedByCodeThenByCommandAndCode) {
  TestDialogue d;
  d.configuration.AddReceived = false;
  for (const char* key : {"220", ".220", "250", "EHLO.250", "MAIL.250", "RCPT.550", "550", "DATA.250",
                          "DATA.354", "NOOP", "NOOP.", "mail.552"}) {
    d.configuration.ResponseChanges.Add(Appended(key, std::string(" > ") + key));
  }
  d.Run(R"(
    S: 220 ready
    <- 220 ready > 220 > .220
    C: ehlo client.test
    -> ehlo client.test
    S: 250-server.test
    S: 250-STARTTLS
    S: 250 HELP
    <- 250-server.test
    <- 250 HELP > 250 > EHLO.250
    C: MAIL FROM:<a@b>
    -> MAIL FROM:<a@b>
    S: 552 no
    <- 552 no > mail.552
    C: mail from:<a@b>
    -> MAIL FROM:<a@b>
    S: 250 ok
    <- 250 ok > 250 > MAIL.250
    C: RCPT TO:<u@local.test>
    -> RCPT TO:<u@local.test>
    S: 550-no
    S: 550 never
    <- 550-no
    <- 550 never > 550 > RCPT.550
    # The reply of the proxy is none of the server's.
    C: RCPT TO:<u@far.test>
    <- 550 5.7.1 Relaying to far.test not allowed.
    # Nor is the refused command the one that the server answers.
    S: 250 unasked
    <- 250 unasked > 250
    C: DATA
    -> DATA
    S: 354 go on
    <- 354 go on > DATA.354
    C+ .\r\n
    *> .\r\n)");
  EXPECT_EQ(d.LeftOver(), "");
  d.Run(R"(
    S: 250 accepted
    <- 250 accepted > 250 > DATA.250
    C: NOOP
    -> NOOP
    S: 251 x
    <- 251 x)");
  EXPECT_FALSE(d.TransactionOpen());
}

TEST(ServerReply, AChangeOfTheTextChangesNothingElse) {
  TestDialogue d;
  d.configuration.ResponseChanges.Add(WholeReply("MAIL.550", "250 fine"));
  d.configuration.ResponseChanges.Add(WholeReply("RCPT.250", "550-one{%crlf%}550 two"));
  d.Greet();
  d.Run(R"(
    C: MAIL FROM:<a@b>
    -> MAIL FROM:<a@b>
    S: 550 no
    <- 250 fine
    C: DATA
    <- 503 5.5.1 Bad sequence of commands.
    C: MAIL FROM:<a@b>
    -> MAIL FROM:<a@b>
    S: 250 ok
    <- 250 ok
    C: RCPT TO:<u@local.test>
    -> RCPT TO:<u@local.test>
    S: 250 ok
    <- 550-one
    <- 550 two
    C: DATA
    -> DATA)");
}

TEST(ServerReply, MacrosStandForTheSession) {
  TestDialogue d;
  d.configuration.ResponseChanges.Add(
      WholeReply("RCPT.550", "550 {%rcpt%} {%from%} {%helodomain%} {%remotehostip%}"));
  d.GreetAndMail();
  d.Run(R"(
    C: RCPT TO:<"u"@local.test.>
    -> RCPT TO:<u@local.test>
    S: 550 no
    <- 550 u@local.test s@sender.test client.test 192.0.2.7)");
}

TEST(ServerReply, WithoutRulesItsBytesGoOutUnchanged) {
  for (const char* reply :
       {"250-a\r\n250 b\r\n", "250 a\nb\r\n", "250\r\n", "\r\n", "x\r\n", "999 \xFF\r\n"}) {
    TestDialogue d;
    d.Greet();
    EXPECT_EQ(d.Says("NOOP"), "-> NOOP");
    EXPECT_EQ(d.Reply(reply).text, reply);
  }
}

}  // namespace
}  // namespace trabex

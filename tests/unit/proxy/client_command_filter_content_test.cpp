// DATA, BDAT and XEXCH50: the commands that bring message content, and where it ends.
#include <gtest/gtest.h>

#include <string>

#include "proxy/dialogue/received_header.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

constexpr const char* kClosed = "<- 503 5.5.1 Bad sequence of commands.; closed C";

// A session in a transaction, without the dialogue that led there.
void BringToTransaction(TestDialogue& d) {
  d.state.phase = Phase::kCommand;
  d.state.transaction = Transaction::kGreeted;
  d.state.requested.EhloUsed = true;
  d.state.requested.HeloDomain = "client.test";
  d.state.transaction = Transaction::kOpen;
  d.state.offered.Extensions.AddExtension("CHUNKING");
  d.state.offered.Extensions.AddExtension("XEXCH50");
}

TEST(Data, ContentEndsAtTheDot) {
  TestDialogue d;
  d.GreetMailAndRcpt();
  d.Run(R"(
    C: DATA
    -> DATA
    S: 354 go on
    <- 354 go on
    -> Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test
    ->       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000
    C+ Subject: x\r\n\r\ntext
    *> Subject: x\r\n\r\ntext
    C+ \r\n.\r\nRSET\r\n
    *> \r\n.\r\n)");
  EXPECT_EQ(d.LeftOver(), Unescape(R"(RSET\r\n)"));
  d.Run(R"(
    S: 250 accepted
    <- 250 accepted
    C: RCPT TO:<u@local.test>
    <- 503 5.5.1 Bad sequence of commands.
    C: MAIL FROM:<t@sender.test>
    -> MAIL FROM:<t@sender.test>)");
}

TEST(Data, AnAmbiguousDotBreaksTheMessageOff) {
  TestDialogue d;
  d.configuration.AddReceived = false;
  d.configuration.ResponseChanges.Add(Appended("DATA.AmbiguousEnd", " Bye."));
  d.GreetMailAndRcpt();
  d.Run(R"(
    C: DATA
    -> DATA
    S: 354 go on
    <- 354 go on
    C+ text\n.\r\nMAIL FROM:<x@y>\r\n
    *> text\n.
    <- 554 5.6.0 Ambiguous end of message content. Bye.
    closed C)");
}

TEST(Bdat, WhatIsACount) {
  const struct {
    const char* line;
    const char* outcome;
    bool content;
  } rows[] = {
      {"BDAT 1", "-> BDAT 1", true},
      {"bdat   1", "-> BDAT 1", true},
      {R"(BDAT\t1\tLAST)", "-> BDAT 1 LAST", true},
      {"BDAT 0", "-> BDAT 0", false},
      {"BDAT 2000000000", "-> BDAT 2000000000", true},
      // Some servers read a number with zeros in front as an octal one.
      {"BDAT 010", "-> BDAT 10", true},
      {"BDAT 00000000000000000000000000001 LAST", "-> BDAT 1 LAST", true},
      {"BDAT 2000000001", kClosed, false},
      {"BDAT 4294967297", kClosed, false},
      {"BDAT 18446744073709551617", kClosed, false},
      {"BDAT", kClosed, false},
      {"BDAT ", kClosed, false},
      {"BDAT LAST", kClosed, false},
      {"BDAT LAST 5", kClosed, false},
      {"BDAT -1", kClosed, false},
      {"BDAT +1", kClosed, false},
      {"BDAT 1.0", kClosed, false},
      {"BDAT 0x10", kClosed, false},
      {"BDAT 10K", kClosed, false},
      {"BDAT 1,LAST", kClosed, false},
      {"BDAT ten", kClosed, false},
      {R"(BDAT 1\x01)", kClosed, false},
      {R"(BDAT 1\rLAST)", kClosed, false},
      {R"(BDAT 1\n)", kClosed, false},
      {R"(BDAT \x001)", kClosed, false},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    BringToTransaction(d);
    EXPECT_EQ(d.Says(Unescape(row.line)), row.outcome) << row.line;
    EXPECT_EQ(d.TakesContent(), row.content) << row.line;
    EXPECT_FALSE(d.Discards()) << row.line;
  }
}

TEST(Bdat, WithoutACountTheSessionEndsWhereverItIs) {
  for (const bool refused : {false, true}) {
    TestDialogue d;
    if (refused) d.Refuse();
    d.configuration.ResponseChanges.Add(Appended("BDAT.BadSeq.BDAT", " Bye."));
    EXPECT_EQ(d.Says("BDAT x"), "<- 503 5.5.1 Bad sequence of commands. Bye.; closed C");
    EXPECT_EQ(d.state.requested.BadSequenceCount, 1);
  }
}

// The count is beyond doubt, so its octets can be read and the session goes on.
TEST(Bdat, WithAControlCharacterAfterItsCountIsRefusedLikeOthers) {
  TestDialogue d;
  BringToTransaction(d);
  d.Run(R"(
    C: BDAT 6 LA\x01ST
    <- 500 5.5.2 Invalid character in command line.
    C+ RSET\r\nNOOP)");
  EXPECT_EQ(d.LeftOver(), "NOOP");
  EXPECT_EQ(d.state.requested.BadSequenceCount, 1);
  EXPECT_FALSE(d.InChunks());
}

TEST(Bdat, WhenASequenceEnds) {
  const struct {
    const char* line;
    bool last;
  } rows[] = {
      {"BDAT 1 LAST", true},
      {"BDAT 1 last", true},
      {"BDAT 1 LaSt", true},
      {"BDAT 1   LAST", true},
      {"BDAT 1 LAST ", true},
      {"BDAT 1 LAST more", true},
      {R"(BDAT 1\tLAST)", true},
      {"BDAT 1 more LAST", true},
      {"BDAT 0 LAST", true},
      {"BDAT 1", false},
      {"BDAT 1 ", false},
      {"BDAT 1 LASTX", false},
      {"BDAT 1 XLAST", false},
      {"BDAT 1 LAS", false},
      {"BDAT 1 LAST,", false},
      // The first " LAST" decides.
      {"BDAT 1 LASTX LAST", false},
  };
  for (const auto& row : rows) {
    for (const bool under_way : {false, true}) {
      TestDialogue d;
      BringToTransaction(d);
      if (under_way) d.state.transaction = Transaction::kChunks;
      EXPECT_TRUE(d.Says(Unescape(row.line)).starts_with("-> BDAT ")) << row.line;
      EXPECT_EQ(d.state.forwarded.last_chunk, row.last) << row.line;
      if (d.TakesContent()) {
        d.Run(R"(
          C+ x
          *> x)");
        EXPECT_EQ(d.LeftOver(), "");
      }
      d.Reply("250 ok\r\n");
      EXPECT_EQ(d.InChunks(), !row.last) << row.line;
    }
  }
}

// Servers disagree about words beside LAST: to one the chunk is the last one, to another it is not, a third hangs up, and one that
// refuses the line would read the octets as commands.
TEST(Bdat, TheServerGetsNoWordBesideLast) {
  const struct {
    const char* line;
    const char* forwarded;
  } rows[] = {
      {"BDAT 1 LAST", "-> BDAT 1 LAST"},      {"BDAT 1 last", "-> BDAT 1 last"},
      {"BDAT 1 LAST more", "-> BDAT 1 LAST"}, {"BDAT 1 more LAST", "-> BDAT 1 LAST"},
      {"BDAT 1 LAST LAST", "-> BDAT 1 LAST"}, {"BDAT 1", "-> BDAT 1"},
      {"BDAT 1 LASTX", "-> BDAT 1"},          {"BDAT 1 LASTX LAST", "-> BDAT 1"},
      {"BDAT 1 more", "-> BDAT 1"},           {"BDAT 01 LAST=1", "-> BDAT 1"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.configuration.AddReceived = false;
    BringToTransaction(d);
    EXPECT_EQ(d.Says(row.line), row.forwarded) << row.line;
  }
}

TEST(Bdat, TheReceivedHeaderOpensTheFirstChunk) {
  TestDialogue d;
  d.GreetMailAndRcpt();
  const std::string header =
      GenerateReceivedHeader(d.configuration, d.clock, d.facts, d.state.requested, d.state.login) + "\r\n";
  EXPECT_EQ(header.size(), 124u);
  d.Run(R"(
    C: bdat  010 X
    -> BDAT 134
    -> Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test
    ->       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000
    C+ Subject:x
    *> Subject:x
    C+ \r
    *> \r)");
  EXPECT_EQ(d.LeftOver(), "");
  EXPECT_TRUE(d.TransactionOpen());
  d.Run(R"(
    S: 250 ok
    <- 250 ok
    C: BDAT 2
    -> BDAT 2
    C+ \n.
    *> \n.)");
  EXPECT_EQ(d.LeftOver(), "");
  d.Run(R"(
    S: 250 ok
    <- 250 ok
    C: BDAT 0 LAST
    -> BDAT 0 LAST
    S: 250 accepted
    <- 250 accepted
    C: BDAT 0 LAST
    <- 503 5.5.1 Bad sequence of commands.
    C: MAIL FROM:<t@sender.test>
    -> MAIL FROM:<t@sender.test>)");
}

TEST(Bdat, TheHeaderIsAddedOnceForEveryMessage) {
  TestDialogue d;
  for (int message = 0; message < 2; ++message) {
    if (message == 0) {
      d.GreetMailAndRcpt();
    } else {
      d.Run(R"(
        C: MAIL FROM:<s@sender.test>
        -> MAIL FROM:<s@sender.test>
        S: 250 ok
        <- 250 ok
        C: RCPT TO:<u@local.test>
        -> RCPT TO:<u@local.test>
        S: 250 ok
        <- 250 ok)");
    }
    d.Run(R"(
      C: BDAT 0 LAST
      -> BDAT 124 LAST
      -> Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test
      ->       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000
      S: 250 ok
      <- 250 ok)");
  }
}

TEST(Bdat, NoHeaderWithoutRecipientsOrWithTheSettingOff) {
  for (const bool recipients : {false, true}) {
    TestDialogue d;
    BringToTransaction(d);
    d.configuration.AddReceived = !recipients;
    d.state.requested.RecipientCount = recipients ? 1 : 0;
    EXPECT_EQ(d.Says("BDAT 5 LAST"), "-> BDAT 5 LAST");
  }
}

TEST(Bdat, OnlyTheLastChunkEndsTheTransaction) {
  const struct {
    const char* line;
    const char* reply;
    bool open;
  } rows[] = {
      {"BDAT 0 LAST", "250 ok\r\n", false}, {"BDAT 0 LAST", "451 no\r\n", false},
      {"BDAT 0 LAST", "554 no\r\n", false}, {"BDAT 0 LAST", "354 what\r\n", false},
      {"BDAT 0", "250 ok\r\n", true},       {"BDAT 0", "554 no\r\n", true},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    BringToTransaction(d);
    EXPECT_TRUE(d.Says(row.line).starts_with("-> BDAT 0")) << row.line;
    d.Reply(row.reply);
    EXPECT_EQ(d.TransactionOpen(), row.open) << row.line << " " << row.reply;
    EXPECT_FALSE(d.TakesContent());
  }
}

TEST(Bdat, AChunkGoesOnWhateverTheServerSays) {
  TestDialogue d;
  BringToTransaction(d);
  d.Run(R"(
    C: BDAT 10
    -> BDAT 10
    C+ abc
    *> abc
    S: 452 no room
    <- 452 no room
    C+ RSET\r\nxNOOP
    *> RSET\r\nx)");
  EXPECT_EQ(d.LeftOver(), "NOOP");
}

TEST(Bdat, ARefusedOneIsReadAndDropped) {
  const struct {
    const char* name;
    void (*bring)(TestDialogue&);
    const char* answer;
  } rows[] = {
      {"before the greeting", [](TestDialogue&) {}, "<- 503 Bad sequence of commands."},
      {"without a transaction", [](TestDialogue& d) { d.state.transaction = Transaction::kGreeted; },
       "<- 503 5.5.1 Bad sequence of commands."},
      {"not offered",
       [](TestDialogue& d) {
         BringToTransaction(d);
         d.state.offered.Extensions.RemoveExtension("CHUNKING");
       },
       "<- 503 5.5.1 Bad sequence of commands."},
      {"in a refused session", [](TestDialogue& d) { d.Refuse(); }, "<- 503 Bad sequence of commands."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    TestDialogue d;
    row.bring(d);
    EXPECT_EQ(d.Says("BDAT 8 LAST"), row.answer);
    EXPECT_TRUE(d.Discards());
    d.Run(R"(
      C+ MAIL
      C+ 1234QUIT\r\n)");
    EXPECT_EQ(d.LeftOver(), Unescape(R"(QUIT\r\n)"));
    EXPECT_FALSE(d.InChunks());
    // Nothing to drop.
    EXPECT_EQ(d.Says("BDAT 0 LAST"), row.answer);
    EXPECT_FALSE(d.TakesContent());
  }
}

TEST(Bdat, ResetAndQuitLeaveASequence) {
  TestDialogue d;
  BringToTransaction(d);
  d.Run(R"(
    C: BDAT 1
    -> BDAT 1
    C+ x
    *> x)");
  EXPECT_EQ(d.LeftOver(), "");
  d.Run(R"(
    S: 250 ok
    <- 250 ok
    C: MAIL FROM:<a@b>
    <- 503 5.5.1 Bad sequence of commands.
    C: RSET
    -> RSET
    S: 451 no
    <- 451 no
    C: NOOP
    <- 503 5.5.1 Bad sequence of commands.
    C: RSET
    -> RSET
    S: 250 ok
    <- 250 ok
    C: NOOP
    -> NOOP
    S: 250 ok
    <- 250 ok
    C: BDAT 1
    <- 503 5.5.1 Bad sequence of commands.)");
}

TEST(Xexch50, ItsOctetsFollowThe354) {
  TestDialogue d;
  BringToTransaction(d);
  d.Run(R"(
    C: xexch50  0010 2
    -> XEXCH50 10 2
    S: 354 send it
    <- 354 send it
    C+ RSET\r\n.\r\n
    *> RSET\r\n.\r\n
    C+ xNOOP\r\n
    *> x)");
  EXPECT_EQ(d.LeftOver(), Unescape(R"(NOOP\r\n)"));
  d.Run(R"(
    S: 250 ok
    <- 250 ok
    C: DATA
    -> DATA)");
}

TEST(Xexch50, ARefusedOneHasNoOctets) {
  TestDialogue d;
  BringToTransaction(d);
  d.Run(R"(
    C: XEXCH50 5 2
    -> XEXCH50 5 2
    S: 504 not you
    <- 504 not you
    C: DATA
    -> DATA
    S: 503 no
    <- 503 no)");
  EXPECT_FALSE(d.TakesContent());
}

TEST(Xexch50, WhatIsACount) {
  constexpr const char* kRefused = "<- 503 5.5.1 Bad sequence of commands.";
  const struct {
    const char* line;
    const char* outcome;
  } rows[] = {
      {"XEXCH50 0 2", "-> XEXCH50 0 2"},
      {"XEXCH50 2000000000", "-> XEXCH50 2000000000"},
      {"XEXCH50 5  2 ", "-> XEXCH50 5  2\\x20"},
      {"XEXCH50 2000000001 2", kRefused},
      {"XEXCH50", kRefused},
      {"XEXCH50 x 2", kRefused},
      {"XEXCH50 -5 2", kRefused},
      {"XEXCH50 5x 2", kRefused},
      {"XEXCH50 ,5 2", kRefused},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    BringToTransaction(d);
    EXPECT_EQ(d.Says(row.line), row.outcome) << row.line;
    EXPECT_FALSE(d.TakesContent());
    EXPECT_EQ(d.state.requested.BadSequenceCount, row.outcome == kRefused ? 1 : 0);
  }
}

TEST(Xexch50, WithoutACountItsReplyIsChangedLikeOthers) {
  TestDialogue d;
  BringToTransaction(d);
  for (const char* key : {"BadSeq", "BadSeq.Transaction", "XEXCH50.BadSeq.Transaction"}) {
    d.configuration.ResponseChanges.Add(Appended(key, std::string(" > ") + key));
  }
  EXPECT_EQ(d.Says("XEXCH50 x 2"),
            "<- 503 5.5.1 Bad sequence of commands. > BadSeq > BadSeq.Transaction > "
            "XEXCH50.BadSeq.Transaction");
}

TEST(Xexch50, NoOctetsAreNoContent) {
  TestDialogue d;
  BringToTransaction(d);
  d.Run(R"(
    C: XEXCH50 0 2
    -> XEXCH50 0 2
    S: 354 send it
    <- 354 send it)");
  EXPECT_FALSE(d.TakesContent());
  EXPECT_EQ(d.state.phase, Phase::kContentReply);
}

}  // namespace
}  // namespace trabex

// Each row of the two tables that say how a dialogue goes on, by a dialogue that takes it.
#include "proxy/dialogue/dialogue_phase.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

using enum Phase;

constexpr const char* kGreeting = R"(
    S: 220 server.test
    <- 220 server.test
)";
constexpr const char* kEhlo = R"(
    C: EHLO client.test
    -> EHLO client.test
    S: 250-server.test
    S: 250-CHUNKING
    S: 250 XEXCH50
    <- 250-server.test
    <- 250-CHUNKING
    <- 250 XEXCH50
)";
constexpr const char* kMail = R"(
    C: MAIL FROM:<s@sender.test>
    -> MAIL FROM:<s@sender.test>
    S: 250 ok
    <- 250 ok
)";

struct Row {
  std::optional<Phase> from;
  PhaseEvent event;
  Phase to;
  // The dialogue: up to `from`, and the step that takes the row.
  std::vector<std::string> before;
  std::string step;
};

const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = {
      {kServerGreeting, PhaseEvent::kReply, kCommand, {}, kGreeting},
      {kServerGreeting, PhaseEvent::kNoServer, kCommand, {}, "refuse"},
      {kCommand, PhaseEvent::kForwarded, kReply, {kGreeting}, "C: NOOP\n-> NOOP"},
      {kCommand, PhaseEvent::kAnswered, kCommand, {kGreeting}, "C: DATA\n<- 503 Bad sequence of commands."},
      {kCommand, PhaseEvent::kAsked, kAsking, {kGreeting}, "C: EHLO a.test\nasks name a.test"},
      {kCommand, PhaseEvent::kBdatForwarded, kChunk, {kGreeting, kEhlo, kMail}, "C: BDAT 3\n-> BDAT 3"},
      {kCommand,
       PhaseEvent::kBdatAnswered,
       kDiscard,
       {kGreeting},
       "C: BDAT 3\n<- 503 Bad sequence of commands."},
      {kAsking, PhaseEvent::kForwarded, kReply, {kGreeting, "C: EHLO a.test\nasks name a.test"}, "found"},
      {kAsking,
       PhaseEvent::kAnswered,
       kCommand,
       {kGreeting, "C: EHLO a.test\nasks name a.test"},
       "not found"},
      {kReply, PhaseEvent::kReply, kCommand, {kGreeting, "C: NOOP\n-> NOOP"}, "S: 250 ok\n<- 250 ok"},
      {kReply,
       PhaseEvent::kAuthDataWanted,
       kAuthData,
       {kGreeting, kEhlo, "C: AUTH LOGIN\n-> AUTH LOGIN"},
       "S: 334 x\n<- 334 x"},
      {kReply,
       PhaseEvent::kContentWanted,
       kDotContent,
       {kGreeting, kEhlo, kMail, "C: DATA\n-> DATA"},
       "S: 354 go\n<- 354 go"},
      {kReply,
       PhaseEvent::kOctetsWanted,
       kOctets,
       {kGreeting, kEhlo, kMail, "C: XEXCH50 3 2\n-> XEXCH50 3 2"},
       "S: 354 go\n<- 354 go"},
      {kReply, PhaseEvent::kQuitAccepted, kFarewell, {kGreeting, "C: QUIT\n-> QUIT"}, "S: 221 a\n<- 221 a"},
      {kAuthData,
       PhaseEvent::kForwarded,
       kReply,
       {kGreeting, kEhlo, "C: AUTH LOGIN\n-> AUTH LOGIN", "S: 334 x\n<- 334 x"},
       "C: eA==\n-> eA=="},
      {kAuthData,
       PhaseEvent::kReply,
       kCommand,
       {kGreeting, kEhlo, "C: AUTH LOGIN\n-> AUTH LOGIN", "S: 334 x\n<- 334 x"},
       "S: 535 no\n<- 535 no"},
      {kDotContent,
       PhaseEvent::kContentComplete,
       kContentReply,
       {kGreeting, kEhlo, kMail, "C: DATA\n-> DATA", "S: 354 go\n<- 354 go"},
       "C+ .\\r\\n\n*> .\\r\\n"},
      {kDotContent,
       PhaseEvent::kReply,
       kEnding,
       {kGreeting, kEhlo, kMail, "C: DATA\n-> DATA", "S: 354 go\n<- 354 go"},
       "S: 451 no\n<- 451 no\nclosed C"},
      {kChunk,
       PhaseEvent::kContentComplete,
       kReply,
       {kGreeting, kEhlo, kMail, "C: BDAT 3\n-> BDAT 3"},
       "C+ abc\n*> abc"},
      {kChunk,
       PhaseEvent::kReply,
       kAnsweredOctets,
       {kGreeting, kEhlo, kMail, "C: BDAT 3\n-> BDAT 3"},
       "S: 452 no\n<- 452 no"},
      {kOctets,
       PhaseEvent::kContentComplete,
       kContentReply,
       {kGreeting, kEhlo, kMail, "C: XEXCH50 3 2\n-> XEXCH50 3 2", "S: 354 go\n<- 354 go"},
       "C+ abc\n*> abc"},
      {kOctets,
       PhaseEvent::kReply,
       kAnsweredOctets,
       {kGreeting, kEhlo, kMail, "C: XEXCH50 3 2\n-> XEXCH50 3 2", "S: 354 go\n<- 354 go"},
       "S: 452 no\n<- 452 no"},
      {kAnsweredOctets,
       PhaseEvent::kContentComplete,
       kCommand,
       {kGreeting, kEhlo, kMail, "C: BDAT 3\n-> BDAT 3", "S: 452 no\n<- 452 no"},
       "C+ abc\n*> abc"},
      {kContentReply,
       PhaseEvent::kReply,
       kCommand,
       {kGreeting, kEhlo, kMail, "C: DATA\n-> DATA", "S: 354 go\n<- 354 go", "C+ .\\r\\n\n*> .\\r\\n"},
       "S: 250 ok\n<- 250 ok"},
      {kDiscard,
       PhaseEvent::kContentComplete,
       kCommand,
       {kGreeting, "C: BDAT 3\n<- 503 Bad sequence of commands."},
       "C+ abc"},
      {std::nullopt,
       PhaseEvent::kEnd,
       kEnding,
       {kGreeting, kEhlo, kMail, "C: DATA\n-> DATA", "S: 354 go\n<- 354 go"},
       "C+ \\n.\\n\n*> \\n.\n<- 554 5.6.0 Ambiguous end of message content.\nclosed C"},
  };
  return rows;
}

TEST(DialoguePhase, EachRowIsTaken) {
  for (const Row& row : Rows()) {
    TestDialogue d;
    d.configuration.AddReceived = false;
    d.state.phase = kServerGreeting;
    for (const std::string& part : row.before) {
      // The look-up of names is for the rows that ask.
      d.configuration.ValidateHELO = part == kEhlo ? 0 : 2;
      d.Run(part);
    }
    d.configuration.ValidateHELO = 2;
    if (row.from) {
      EXPECT_EQ(d.state.phase, *row.from) << row.step;
    }
    if (row.step == "refuse") {
      d.Say(ReplyKind::kNoPtr);
    } else if (row.step == "found") {
      const IPAddress client[] = {IPAddress::IPv4(0xC0000207)};
      d.Answer({true, client});
      d.Run("-> EHLO a.test");
    } else if (row.step == "not found") {
      d.Answer({});
      d.Run("<- 450 Unable to verify domain name a.test in DNS.");
    } else {
      d.Run(row.step);
    }
    EXPECT_EQ(d.state.phase, row.to) << row.step;
  }
}

// The rows above are those of the table, no more and no fewer.
TEST(DialoguePhase, EachRowOfTheTableHasItsTest) {
  const auto table = PhaseTransitions();
  ASSERT_EQ(Rows().size(), table.size());
  for (const Row& row : Rows()) {
    EXPECT_TRUE(std::any_of(table.begin(), table.end(), [&](const PhaseTransition& t) {
      return t.from == row.from && t.event == row.event && t.to == row.to;
    })) << row.step;
  }
}

TEST(DialoguePhase, WhatHasNoRowLeadsNowhere) {
  for (const Phase phase : {kCommand, kAsking, kAnsweredOctets, kDiscard, kFarewell, kEnding}) {
    EXPECT_EQ(NextPhase(phase, PhaseEvent::kReply), phase);
    EXPECT_EQ(NextPhase(phase, PhaseEvent::kContentWanted), phase);
  }
}

TEST(Transactions, EachRowIsTakenByItsReplyAndByNoOther) {
  const struct {
    Command command;
    const char* line;
    bool last_chunk;
    Transaction from;
  } lines[] = {
      {Command::kEhlo, "EHLO a.test", false, Transaction::kOpen},
      {Command::kHelo, "HELO a.test", false, Transaction::kOpen},
      {Command::kMail, "MAIL FROM:<a@b>", false, Transaction::kGreeted},
      {Command::kSend, "SEND FROM:<a@b>", false, Transaction::kGreeted},
      {Command::kSoml, "SOML FROM:<a@b>", false, Transaction::kGreeted},
      {Command::kSaml, "SAML FROM:<a@b>", false, Transaction::kGreeted},
      {Command::kRset, "RSET", false, Transaction::kChunks},
      {Command::kData, "DATA", false, Transaction::kOpen},
      {Command::kBdat, "BDAT 0", false, Transaction::kOpen},
      {Command::kBdat, "BDAT 0 LAST", true, Transaction::kChunks},
  };
  std::size_t taken = 0;
  for (const auto& line : lines) {
    for (const char* code : {"250", "251", "354", "355", "550"}) {
      TestDialogue d;
      d.configuration.AddReceived = false;
      d.state.transaction = line.from;
      d.state.offered.Extensions.AddExtension("CHUNKING");
      EXPECT_TRUE(d.Says(line.line).starts_with("-> ")) << line.line;
      EXPECT_EQ(d.state.transaction, line.from) << "the command itself changes nothing: " << line.line;
      d.Reply(std::string(code) + " text\r\n");
      Transaction expected = line.from;
      for (const TransactionTransition& row : TransactionTransitions()) {
        if (row.command != line.command || row.last_chunk != line.last_chunk) continue;
        if (!row.code.empty() && row.code != code) continue;
        expected = row.to;
        ++taken;
      }
      EXPECT_EQ(d.state.transaction, expected) << line.line << " " << code;
    }
  }
  // Eight rows with a code each, MAIL with two, and the two of BDAT with any.
  EXPECT_EQ(taken, 9u + 2u * 5u);
}

TEST(Transactions, RsetGreetsNobody) {
  TestDialogue d;
  EXPECT_EQ(d.Says("RSET"), "-> RSET");
  d.Reply("250 ok\r\n");
  EXPECT_EQ(d.state.transaction, Transaction::kNoGreeting);
}

}  // namespace
}  // namespace trabex

// Each row of the two tables that say how a dialogue goes on, by a dialogue that takes it.
#include "proxy/dialogue/dialogue_phase.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "support/source_documents.h"
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

constexpr const char* kEhloWithSize = R"(
    C: EHLO client.test
    -> EHLO client.test
    S: 250-server.test
    S: 250-CHUNKING
    S: 250 SIZE 3
    <- 250-server.test
    <- 250-CHUNKING
    <- 250 SIZE 3
)";
constexpr const char* kEhloWithTls = R"(
    C: EHLO client.test
    -> EHLO client.test
    S: 250 server.test
    <- 250-server.test
    <- 250 STARTTLS
)";
// The action of the dialogue is the last line of it, before TLS stands.
constexpr const char* kStartTlsCommand = "STARTTLS";

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
      {kServerGreeting, PhaseEvent::kHeaderExpected, kProxyHeader, {}, "balancer"},
      {kTls, PhaseEvent::kHeaderExpected, kProxyHeader, {"TLS port"}, "balancer"},
      {kProxyHeader, PhaseEvent::kHeaderTaken, kServerGreeting, {"balancer"}, "header"},
      {kServerGreeting, PhaseEvent::kTlsExpected, kTls, {}, "TLS port"},
      {kTls, PhaseEvent::kSecured, kServerGreeting, {"TLS port"}, "secured"},
      {kServerGreeting, PhaseEvent::kPrefaceBegins, kPreface, {}, "preface"},
      {kPreface, PhaseEvent::kPrefaceOver, kServerGreeting, {}, "whole preface"},
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
      {kCommand, PhaseEvent::kTlsBegins, kStartTls, {kGreeting, kEhloWithTls}, kStartTlsCommand},
      {kCommand,
       PhaseEvent::kSizeExceeded,
       kTooLarge,
       {"limit", kGreeting, kEhloWithSize, kMail},
       "C: BDAT 4"},
      {kStartTls, PhaseEvent::kSecured, kCommand, {kGreeting, kEhloWithTls, kStartTlsCommand}, "secured"},
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
       PhaseEvent::kSizeExceeded,
       kTooLarge,
       {"limit", kGreeting, kEhloWithSize, kMail, "C: DATA\n-> DATA", "S: 354 go\n<- 354 go"},
       "C+ abcd"},
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

bool IsNamedPart(const std::string& part) {
  static const std::vector<std::string> names = {"TLS port", "secured",       "balancer",      "header",
                                                 "preface",  "whole preface", kStartTlsCommand};
  return std::find(names.begin(), names.end(), part) != names.end();
}

// A part of a dialogue that comes before a row.
void TakePart(TestDialogue& d, const std::string& part) {
  if (part == "limit") {
    d.configuration.Service.EnforceMaxSize = true;
  } else if (part == "TLS port") {
    d.ExpectTls();
  } else if (part == "secured") {
    d.Secure();
  } else if (part == "balancer") {
    d.ExpectHeader();
  } else if (part == "header") {
    const std::string header = "PROXY TCP4 192.0.2.8 203.0.113.5 1 25\r\n";
    EXPECT_EQ(d.TakeHeader(header + "EHLO a.test\r\n"), header.size());
    EXPECT_EQ(d.proxied->client, (Endpoint{IPAddress::IPv4(0xC0000208), 1}));
  } else if (part == "preface") {
    d.BeginPreface(false);
  } else if (part == "whole preface") {
    d.BeginPreface(true);
  } else if (part == kStartTlsCommand) {
    EXPECT_EQ(d.Says("STARTTLS"), "<- 220 2.0.0 Ready to start TLS.; C starts TLS");
  } else {
    d.Run(part);
  }
}

TEST(DialoguePhase, EachRowIsTaken) {
  for (const Row& row : Rows()) {
    TestDialogue d;
    d.configuration.AddReceived = false;
    d.state.phase = kServerGreeting;
    for (const std::string& part : row.before) {
      d.facts.tls_configured = d.facts.tls_ready = part == kEhloWithTls || part == kStartTlsCommand;
      // The look-up of names is for the rows that ask.
      d.configuration.ValidateHELO = part == kEhlo || part == kEhloWithSize ? 0 : 2;
      TakePart(d, part);
    }
    d.configuration.ValidateHELO = 2;
    // A preface is no part of the state, so its end comes in the step that begins it.
    if (row.from && row.step != "whole preface") {
      EXPECT_EQ(d.state.phase, *row.from) << row.step;
    }
    if (row.step == "refuse") {
      d.Say(ReplyKind::kNoPtr);
    } else if (IsNamedPart(row.step)) {
      TakePart(d, row.step);
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
        break;
      }
      EXPECT_EQ(d.state.transaction, expected) << line.line << " " << code;
    }
  }
  // Seven commands with a code each, MAIL with two, and BDAT and BDAT LAST with any.
  EXPECT_EQ(taken, 9u + 2u * 5u);
}

TEST(Transactions, RsetDoesNotGreet) {
  TestDialogue d;
  EXPECT_EQ(d.Says("RSET"), "-> RSET");
  d.Reply("250 ok\r\n");
  EXPECT_EQ(d.state.transaction, Transaction::kNoGreeting);
}

// --- the tables of the document

constexpr const char* kPhaseNames[] = {
    "ProxyHeader",    "Tls",          "Preface",  "ServerGreeting", "Command",  "StartTls",
    "Asking",         "Reply",        "AuthData", "DotContent",     "Chunk",    "Octets",
    "AnsweredOctets", "ContentReply", "Discard",  "TooLarge",       "Farewell", "Ending"};
constexpr const char* kEventNames[] = {"HeaderExpected", "HeaderTaken",     "PrefaceBegins",
                                       "PrefaceOver",    "TlsExpected",     "TlsBegins",
                                       "Secured",        "NoServer",        "Answered",
                                       "BdatAnswered",   "Forwarded",       "BdatForwarded",
                                       "Asked",          "Reply",           "AuthDataWanted",
                                       "ContentWanted",  "OctetsWanted",    "QuitAccepted",
                                       "SizeExceeded",   "ContentComplete", "End"};
constexpr const char* kTransactionNames[] = {"Refused", "NoGreeting", "Greeted",
                                             "Open",    "Chunks",     "RefusedChunks"};

// The rows of the table in docs/design.md whose head is `head`.
std::vector<std::vector<std::string>> DocumentedRows(std::string_view head) {
  std::vector<std::vector<std::string>> rows;
  const std::string text = SourceFile("docs/design.md");
  bool inside = false;
  for (std::string_view line : Split(text, '\n')) {
    if (!line.starts_with("|")) inside = false;
    if (inside && !line.starts_with("|---")) rows.push_back(Cells(line));
    if (line == head) inside = true;
  }
  return rows;
}

// Up to what explains it.
std::string NameIn(std::string_view cell) {
  return std::string(cell.substr(0, cell.find_first_of(":,")));
}

TEST(DesignDocument, ShowsThePhases) {
  const auto rows = DocumentedRows("| phase | the client's bytes are |");
  ASSERT_EQ(rows.size(), std::size(kPhaseNames));
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const ClientBytes bytes = ExpectedBytes(static_cast<Phase>(i));
    EXPECT_EQ(rows[i].at(0), kPhaseNames[i]);
    const std::string& text = rows[i].at(1);
    const bool waits = text.starts_with("left") || text.starts_with("never read");
    EXPECT_EQ(waits, bytes == ClientBytes::kWait) << kPhaseNames[i];
    EXPECT_EQ(text.find("line of") != text.npos || text == "a command line", bytes == ClientBytes::kLine)
        << kPhaseNames[i];
    EXPECT_EQ(text.find("content") != text.npos && !waits, bytes == ClientBytes::kContent) << kPhaseNames[i];
    EXPECT_EQ(text.find("thrown away") != text.npos, bytes == ClientBytes::kDiscarded) << kPhaseNames[i];
  }
}

TEST(DesignDocument, ShowsHowPhasesChange) {
  const auto rows = DocumentedRows("| phase | event | leads to |");
  const auto table = PhaseTransitions();
  ASSERT_EQ(rows.size(), table.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(rows[i].at(0), table[i].from ? kPhaseNames[static_cast<int>(*table[i].from)] : "any");
    EXPECT_EQ(NameIn(rows[i].at(1)), kEventNames[static_cast<int>(table[i].event)]);
    EXPECT_EQ(rows[i].at(2), kPhaseNames[static_cast<int>(table[i].to)]);
  }
}

TEST(DesignDocument, ShowsHowTransactionsChange) {
  const auto rows = DocumentedRows("| command | reply | leads to |");
  const auto table = TransactionTransitions();
  ASSERT_EQ(rows.size(), table.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const std::string verb = rows[i].at(0).substr(0, 4);
    EXPECT_EQ(FindCommand(verb).id, table[i].command) << verb;
    EXPECT_EQ(rows[i].at(0) == "BDAT LAST", table[i].last_chunk);
    EXPECT_EQ(NameIn(rows[i].at(1)), table[i].code.empty() ? "any" : table[i].code);
    EXPECT_EQ(NameIn(rows[i].at(2)), kTransactionNames[static_cast<int>(table[i].to)]);
  }
}

}  // namespace
}  // namespace trabex

// The order of commands: every command in every state of the dialogue.
#include <gtest/gtest.h>

#include <string>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

// A session at a stage, whose replies to commands out of order name their key.
void BringTo(TestDialogue& d, Transaction stage, bool with_extensions) {
  for (const char* key : {"BadSeq.NoHelo", "BadSeq.Transaction", "BadSeq.NoTransaction", "BadSeq.BDAT"}) {
    d.configuration.ResponseChanges.Add(WholeReply(key, key));
  }
  d.configuration.ResponseChanges.Add(WholeReply("NotImplemented", "never"));
  d.state.phase = Phase::kCommand;
  d.state.transaction = stage;
  if (with_extensions && stage >= Transaction::kGreeted) {
    d.state.offered.Extensions.AddExtension("CHUNKING");
    d.state.offered.Extensions.AddExtension("XEXCH50");
  }
}

// "->" when the line is forwarded, else the text of the answer.
std::string Fate(Transaction stage, const std::string& line, bool with_extensions) {
  TestDialogue d;
  BringTo(d, stage, with_extensions);
  const LineDecision decision = d.Line(line + "\r\n");
  const bool forwarded = decision.action == LineDecision::Action::kForward;
  const Phase phase = d.state.phase;
  EXPECT_EQ(phase == Phase::kReply || phase == Phase::kChunk, forwarded) << line;
  return forwarded ? "->" : decision.text;
}

TEST(CommandOrder, EveryCommandInEveryState) {
  const struct {
    const char* line;
    const char* no_greeting;
    const char* greeted;
    const char* transaction;
    const char* chunks;
  } rows[] = {
      {"EHLO x", "->", "->", "->", "BadSeq.BDAT"},
      {"HELO x", "->", "->", "->", "BadSeq.BDAT"},
      {"RSET", "->", "->", "->", "->"},
      {"QUIT", "->", "->", "->", "->"},
      {"VRFY x", "->", "->", "->", "BadSeq.BDAT"},
      {"HELP", "->", "->", "->", "BadSeq.BDAT"},
      {"NOOP", "->", "->", "->", "BadSeq.BDAT"},
      {"EXPN x", "->", "->", "->", "BadSeq.BDAT"},
      {"MAIL FROM:<a@b>", "BadSeq.NoHelo", "->", "BadSeq.Transaction", "BadSeq.BDAT"},
      {"SEND FROM:<a@b>", "BadSeq.NoHelo", "->", "BadSeq.Transaction", "BadSeq.BDAT"},
      {"SOML FROM:<a@b>", "BadSeq.NoHelo", "->", "BadSeq.Transaction", "BadSeq.BDAT"},
      {"SAML FROM:<a@b>", "BadSeq.NoHelo", "->", "BadSeq.Transaction", "BadSeq.BDAT"},
      {"RCPT TO:<u@local.test>", "BadSeq.NoHelo", "BadSeq.NoTransaction", "->", "BadSeq.BDAT"},
      {"DATA", "BadSeq.NoHelo", "BadSeq.NoTransaction", "->", "BadSeq.BDAT"},
      {"BDAT 1", "BadSeq.NoHelo", "BadSeq.NoTransaction", "->", "->"},
      {"BDAT 1 LAST", "BadSeq.NoHelo", "BadSeq.NoTransaction", "->", "->"},
      {"XEXCH50 1 2", "BadSeq.NoTransaction", "BadSeq.NoTransaction", "->", "BadSeq.BDAT"},
      {"AUTH PLAIN", "BadSeq.NoHelo", "->", "->", "BadSeq.BDAT"},
      {"ETRN x", "BadSeq.NoHelo", "->", "->", "BadSeq.BDAT"},
      {"X-EXPS", "->", "->", "->", "BadSeq.BDAT"},
      {"X", "->", "->", "->", "BadSeq.BDAT"},
      {"FOO", "BadSeq.NoHelo", "->", "->", "BadSeq.BDAT"},
      {"", "BadSeq.NoHelo", "->", "->", "BadSeq.BDAT"},
      {"STARTTLS", "never", "never", "never", "never"},
      {"XCLIENT a", "never", "never", "never", "never"},
      // A refusal for the order comes before any other.
      {"MAIL a@b", "BadSeq.NoHelo", "501 5.5.4 Invalid syntax of address in MAIL command.",
       "BadSeq.Transaction", "BadSeq.BDAT"},
      {"RCPT x", "BadSeq.NoHelo", "BadSeq.NoTransaction",
       "501 5.5.4 Invalid syntax of address in RCPT command.", "BadSeq.BDAT"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Fate(Transaction::kNoGreeting, row.line, true), row.no_greeting) << row.line;
    EXPECT_EQ(Fate(Transaction::kGreeted, row.line, true), row.greeted) << row.line;
    EXPECT_EQ(Fate(Transaction::kOpen, row.line, true), row.transaction) << row.line;
    EXPECT_EQ(Fate(Transaction::kChunks, row.line, true), row.chunks) << row.line;
    // Behind a refused one all the same but another one.
    const bool chunk = std::string_view(row.line).starts_with("BDAT ");
    EXPECT_EQ(Fate(Transaction::kRefusedChunks, row.line, true), chunk ? "BadSeq.BDAT" : row.chunks)
        << row.line;
  }
}

TEST(CommandOrder, ContentCommandsNeedTheServersOffer) {
  const struct {
    const char* line;
    Transaction stage;
    const char* fate;
  } rows[] = {
      {"BDAT 1", Transaction::kGreeted, "BadSeq.NoTransaction"},
      {"BDAT 1", Transaction::kOpen, "BadSeq.Transaction"},
      {"XEXCH50 1", Transaction::kGreeted, "BadSeq.NoTransaction"},
      {"XEXCH50 1", Transaction::kOpen, "BadSeq.Transaction"},
      {"DATA", Transaction::kOpen, "->"},
      {"RCPT TO:<u@local.test>", Transaction::kOpen, "->"},
  };
  for (const auto& row : rows) EXPECT_EQ(Fate(row.stage, row.line, false), row.fate) << row.line;
}

// Of several reasons the last one answers.
TEST(CommandOrder, AChunkSequenceIsTheLastReason) {
  // Also out of order in any transaction: the first, and what was not offered.
  for (const char* line : {"MAIL FROM:<a@b>", "XEXCH50 1"}) {
    EXPECT_EQ(Fate(Transaction::kOpen, line, false), "BadSeq.Transaction") << line;
    EXPECT_EQ(Fate(Transaction::kChunks, line, false), "BadSeq.BDAT") << line;
  }
}

TEST(CommandOrder, RepliesAreChangedFromTheGeneralToTheCommand) {
  TestDialogue d;
  d.configuration.ResponseChanges.Add(Appended("BadSeq", " a"));
  d.configuration.ResponseChanges.Add(Appended("BadSeq.NoHelo", " b"));
  d.configuration.ResponseChanges.Add(Appended("MAIL.BadSeq.NoHelo", " c"));
  d.configuration.ResponseChanges.Add(Appended("BadSeq.NoTransaction", " d"));
  d.configuration.ResponseChanges.Add(Appended("RCPT.BadSeq.NoTransaction", " e"));
  d.configuration.ResponseChanges.Add(Appended("MAIL.BadSeq.Transaction", " f"));
  d.configuration.ResponseChanges.Add(Appended("NOOP.BadSeq.BDAT", " g"));
  d.configuration.AddReceived = false;
  d.Run(R"(
    C: mail from:<a@b>
    <- 503 Bad sequence of commands. a b c
    C: DATA
    <- 503 Bad sequence of commands. a b)");
  d.Greet();
  d.Run(R"(
    C: rcpt to:<a@b>
    <- 503 5.5.1 Bad sequence of commands. a d e
    C: DATA
    <- 503 5.5.1 Bad sequence of commands. a d
    C: MAIL FROM:<a@b>
    -> MAIL FROM:<a@b>
    S: 250 ok
    <- 250 ok
    C: MAIL FROM:<a@b>
    <- 503 5.5.1 Bad sequence of commands. a f
    C: BDAT 1
    -> BDAT 1
    C+ x
    *> x)");
  EXPECT_EQ(d.LeftOver(), "");
  d.Run(R"(
    S: 250 ok
    <- 250 ok
    C: NOOP
    <- 503 5.5.1 Bad sequence of commands. a g)");
}

}  // namespace
}  // namespace trabex

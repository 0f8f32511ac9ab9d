// The order of commands: every command in every state of the dialogue.
#include <gtest/gtest.h>

#include <string>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

enum class Stage { kNoGreeting, kGreeted, kTransaction, kChunks };

// A session at a stage, whose replies to commands out of order name their key.
void BringTo(Dialogue& d, Stage stage, bool with_extensions) {
  for (const char* key : {"BadSeq.NoHelo", "BadSeq.Transaction", "BadSeq.NoTransaction", "BadSeq.BDAT"}) {
    d.configuration.ResponseChanges.Add(WholeReply(key, key));
  }
  d.configuration.ResponseChanges.Add(WholeReply("NotImplemented", "never"));
  d.state.Expected = ReplyExpected::kNone;
  d.state.GreetingDone = stage >= Stage::kGreeted;
  d.state.TransactionOpen = stage >= Stage::kTransaction;
  d.state.ChunkSequence = stage == Stage::kChunks;
  if (with_extensions && stage >= Stage::kGreeted) {
    d.state.Extensions.AddExtension("CHUNKING");
    d.state.Extensions.AddExtension("XEXCH50");
  }
}

// "->" when the line is forwarded, else the text of the answer.
std::string Fate(Stage stage, const std::string& line, bool with_extensions) {
  Dialogue d;
  BringTo(d, stage, with_extensions);
  const LineDecision decision = d.commands.ProcessIncomingData(line + "\r\n");
  const bool forwarded = decision.action == LineDecision::Action::kForward;
  EXPECT_EQ(d.state.Expected, forwarded ? ReplyExpected::kCommand : ReplyExpected::kNone) << line;
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
    EXPECT_EQ(Fate(Stage::kNoGreeting, row.line, true), row.no_greeting) << row.line;
    EXPECT_EQ(Fate(Stage::kGreeted, row.line, true), row.greeted) << row.line;
    EXPECT_EQ(Fate(Stage::kTransaction, row.line, true), row.transaction) << row.line;
    EXPECT_EQ(Fate(Stage::kChunks, row.line, true), row.chunks) << row.line;
  }
}

TEST(CommandOrder, ContentCommandsNeedTheServersOffer) {
  const struct {
    const char* line;
    Stage stage;
    const char* fate;
  } rows[] = {
      {"BDAT 1", Stage::kGreeted, "BadSeq.NoTransaction"},
      {"BDAT 1", Stage::kTransaction, "BadSeq.Transaction"},
      {"XEXCH50 1", Stage::kGreeted, "BadSeq.NoTransaction"},
      {"XEXCH50 1", Stage::kTransaction, "BadSeq.Transaction"},
      {"DATA", Stage::kTransaction, "->"},
      {"RCPT TO:<u@local.test>", Stage::kTransaction, "->"},
  };
  for (const auto& row : rows) EXPECT_EQ(Fate(row.stage, row.line, false), row.fate) << row.line;
}

// Of several reasons the last one answers.
TEST(CommandOrder, AChunkSequenceIsTheLastReason) {
  const struct {
    const char* line;
    bool transaction_open;
    const char* fate;
  } rows[] = {
      {"MAIL FROM:<a@b>", true, "BadSeq.BDAT"},
      {"RCPT TO:<u@local.test>", false, "BadSeq.BDAT"},
      {"DATA", false, "BadSeq.BDAT"},
      {"XEXCH50 1", false, "BadSeq.BDAT"},
      {"BDAT 1", false, "->"},
  };
  for (const auto& row : rows) {
    Dialogue d;
    BringTo(d, Stage::kChunks, true);
    d.state.TransactionOpen = row.transaction_open;
    const LineDecision decision = d.commands.ProcessIncomingData(std::string(row.line) + "\r\n");
    EXPECT_EQ(decision.action == LineDecision::Action::kForward ? "->" : decision.text, row.fate) << row.line;
  }
}

TEST(CommandOrder, RepliesAreChangedFromTheGeneralToTheCommand) {
  Dialogue d;
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
    *> x
    end
    S: 250 ok
    <- 250 ok
    C: NOOP
    <- 503 5.5.1 Bad sequence of commands. a g)");
}

}  // namespace
}  // namespace trabex

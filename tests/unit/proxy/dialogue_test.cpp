// What the session knows of the dialogue: which state each command and reply lead to, and that no sequence of
// them makes it believe what the server has not said.
#include "proxy/dialogue/dialogue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "support/seeds.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

// '0' nothing yet, 'G' greeted, 'T' in a transaction, 'C' between two chunks, 'R' behind a refused one, 'M' in
// content after DATA, 'X' in that after XEXCH50.
char StateOf(const DialogueState& state) {
  if (state.phase == Phase::kDotContent) return 'M';
  if (state.phase == Phase::kOctets) return 'X';
  switch (state.transaction) {
    case Transaction::kChunks:
      return 'C';
    case Transaction::kRefusedChunks:
      return 'R';
    case Transaction::kOpen:
      return 'T';
    case Transaction::kGreeted:
      return 'G';
    default:
      return '0';
  }
}

void BringTo(TestDialogue& d, char state) {
  d.configuration.AddReceived = false;
  d.state.transaction = state == '0'   ? Transaction::kNoGreeting
                        : state == 'G' ? Transaction::kGreeted
                        : state == 'T' ? Transaction::kOpen
                        : state == 'C' ? Transaction::kChunks
                                       : Transaction::kRefusedChunks;
  d.state.offered.Extensions.AddExtension("CHUNKING");
  d.state.offered.Extensions.AddExtension("XEXCH50");
}

// The states that the replies 250, 354, 355 and 550 to the command lead to; "-" when it is not forwarded.
std::string After(char state, const std::string& command) {
  std::string after;
  for (const char* reply : {"250 a\r\n", "354 a\r\n", "355 a\r\n", "550 a\r\n"}) {
    TestDialogue d;
    BringTo(d, state);
    EXPECT_EQ(StateOf(d.state), state);
    if (!d.Says(command).starts_with("->")) {
      EXPECT_EQ(StateOf(d.state), state) << command;
      return "-";
    }
    d.Reply(reply);
    after += StateOf(d.state);
  }
  return after;
}

TEST(Dialogue, WhereEachCommandAndReplyLead) {
  const struct {
    const char* command;
    const char* from_nothing;
    const char* from_greeted;
    const char* from_transaction;
    const char* from_chunks;
    const char* from_refused_chunks;
  } rows[] = {
      // Replies:       250 354 355 550
      {"EHLO x", "G000", "GGGG", "GTTT", "-", "-"},
      {"HELO x", "G000", "GGGG", "GTTT", "-", "-"},
      {"MAIL FROM:<a@b>", "-", "TGTG", "-", "-", "-"},
      {"SEND FROM:<a@b>", "-", "TGGG", "-", "-", "-"},
      {"SOML FROM:<a@b>", "-", "TGGG", "-", "-", "-"},
      {"SAML FROM:<a@b>", "-", "TGGG", "-", "-", "-"},
      {"RCPT TO:<u@local.test>", "-", "-", "TTTT", "-", "-"},
      {"DATA", "-", "-", "TMTT", "-", "-"},
      {"BDAT 0", "-", "-", "CRRR", "CRRR", "-"},
      {"BDAT 0 LAST", "-", "-", "GGGG", "GGGG", "-"},
      {"XEXCH50 5 2", "-", "-", "TXTT", "-", "-"},
      {"RSET", "0000", "GGGG", "GTTT", "GCCC", "GRRR"},
      {"QUIT", "0000", "GGGG", "TTTT", "CCCC", "RRRR"},
      {"NOOP", "0000", "GGGG", "TTTT", "-", "-"},
      {"HELP", "0000", "GGGG", "TTTT", "-", "-"},
      {"VRFY x", "0000", "GGGG", "TTTT", "-", "-"},
      {"EXPN x", "0000", "GGGG", "TTTT", "-", "-"},
      {"X-ANY", "0000", "GGGG", "TTTT", "-", "-"},
      {"AUTH PLAIN", "-", "GGGG", "TTTT", "-", "-"},
      {"ETRN x", "-", "GGGG", "TTTT", "-", "-"},
      {"", "-", "GGGG", "TTTT", "-", "-"},
      {"STARTTLS", "-", "-", "-", "-", "-"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(After('0', row.command), row.from_nothing) << row.command;
    EXPECT_EQ(After('G', row.command), row.from_greeted) << row.command;
    EXPECT_EQ(After('T', row.command), row.from_transaction) << row.command;
    EXPECT_EQ(After('C', row.command), row.from_chunks) << row.command;
    EXPECT_EQ(After('R', row.command), row.from_refused_chunks) << row.command;
  }
}

TEST(Dialogue, TheGreetingOfTheServerIsNoReplyToACommand) {
  for (const char* greeting : {"250 ok\r\n", "220 ok\r\n", "354 ok\r\n", "334 ok\r\n"}) {
    TestDialogue d;
    d.state.phase = Phase::kServerGreeting;
    d.Reply(greeting);
    EXPECT_EQ(StateOf(d.state), '0');
    EXPECT_EQ(d.state.phase, Phase::kCommand);
  }
}

// The server as it sees itself: it knows what it was sent and what it answered, and nothing of the proxy.
class Server {
 public:
  void Gets(std::string_view command_line) {
    command_ = ToUpper(FirstWord(command_line.substr(0, command_line.find('\r'))));
    last_chunk_ = EndsWithNoCase(command_line, " LAST\r\n");
    const bool opens = Is({"MAIL", "SEND", "SOML", "SAML"});
    EXPECT_TRUE(greeted || !(opens || Is({"RCPT", "DATA", "BDAT", "AUTH"}))) << Escape(command_line);
    EXPECT_FALSE(open && opens) << Escape(command_line);
    EXPECT_TRUE(open || !Is({"RCPT", "DATA", "BDAT", "XEXCH50"})) << Escape(command_line);
    EXPECT_TRUE(!chunks || Is({"BDAT", "RSET", "QUIT"})) << Escape(command_line);
    EXPECT_TRUE(!refused_chunk || Is({"RSET", "QUIT"})) << Escape(command_line);
    EXPECT_FALSE(Is({"STARTTLS", "TURN", "ATRN", "XCLIENT", "XFORWARD"})) << Escape(command_line);
    EXPECT_TRUE(offers_chunks || command_ != "BDAT") << Escape(command_line);
    answered_ = false;
  }

  // `reply` in full; the first one counts, unless its lines disagree. Whatever it is, with the last chunk the
  // message is over.
  void Says(const std::string& reply, bool lines_agree) {
    if (std::exchange(answered_, true)) return;
    if (Is({"BDAT"})) chunks = !last_chunk_;
    if (Is({"BDAT"})) refused_chunk = !last_chunk_ && !(lines_agree && reply.starts_with("250"));
    if (Is({"BDAT"}) && last_chunk_) open = false;
    if (!lines_agree) return;
    const std::string code = reply.substr(0, 3);
    if (code == "250" && Is({"EHLO", "HELO"})) {
      greeted = true;
      offers_chunks = command_ == "EHLO" && reply.find("CHUNKING") != std::string::npos;
    }
    if (code == "250" && Is({"MAIL", "SEND", "SOML", "SAML"})) open = true;
    if (code == "355" && Is({"MAIL"})) open = true;
    if (code == "250" && Is({"EHLO", "HELO", "RSET"})) open = chunks = refused_chunk = false;
    if (code == "354" && Is({"DATA"})) open = false;
  }

  bool greeted = false;
  bool open = false;
  bool chunks = false;
  bool refused_chunk = false;
  bool offers_chunks = false;

 private:
  bool Is(std::initializer_list<std::string_view> commands) const {
    return std::find(commands.begin(), commands.end(), command_) != commands.end();
  }

  std::string command_;
  bool last_chunk_ = false;
  bool answered_ = true;
};

class RandomSession {
 public:
  explicit RandomSession(std::uint32_t seed) : random_(seed) {
    d_.facts.local = random_() % 2 == 0;
    d_.configuration.ProcessAddressesWithoutBrackets = static_cast<std::int32_t>(random_() % 3);
    d_.configuration.MaxBadSeq = 1000;
    d_.configuration.GreyListing.Enabled = random_() % 2 == 0;
    d_.configuration.GreyListing.CallbackSenderAction = static_cast<std::int32_t>(random_() % 3);
    d_.greylisting.delays = true;
  }

  void Run(int steps) {
    for (int step = 0; step < steps && !over_; ++step) {
      Step();
      EXPECT_EQ(d_.Greeted(), server_.greeted) << transcript_;
      EXPECT_EQ(d_.TransactionOpen(), server_.open) << transcript_;
      EXPECT_EQ(d_.InChunks(), server_.chunks) << transcript_;
      if (testing::Test::HasFailure()) return;
    }
  }

  bool ReachedTransaction() const { return reached_transaction_; }
  bool ReachedContent() const { return reached_content_; }

 private:
  template <class T>
  const T& OneOf(const std::vector<T>& choices) {
    return choices[random_() % choices.size()];
  }

  void Step() {
    const ClientBytes expected = ExpectedBytes(d_.state.phase);
    const bool content = expected == ClientBytes::kContent || expected == ClientBytes::kDiscarded;
    if (content && random_() % 4 != 0) {
      ClientSendsContent();
    } else if (content || expected == ClientBytes::kWait || random_() % 8 == 0) {
      ServerReplies();
    } else {
      ClientSendsLine();
    }
    reached_transaction_ |= d_.TransactionOpen();
    reached_content_ |= d_.TakesContent();
  }

  void ClientSendsLine() {
    static const std::vector<std::string> kLines = {"EHLO x",
                                                    "EHLO x",
                                                    "EHLO x",
                                                    "HELO x",
                                                    "MAIL FROM:<a@b>",
                                                    "MAIL FROM:<>",
                                                    "mail from:<a@b> SIZE=5",
                                                    "MAIL FROM:a@b",
                                                    "MAIL FROM:<a",
                                                    "SEND FROM:<a@b>",
                                                    "SOML FROM:<>",
                                                    "SAML FROM:<a@b>",
                                                    "MAIL",
                                                    "MAIL TO:<a@b>",
                                                    "RCPT TO:<u@local.test>",
                                                    "RCPT TO:<u@local.test>",
                                                    "RCPT TO:<u@far.test>",
                                                    "RCPT TO:u@far.test",
                                                    "RCPT",
                                                    "DATA",
                                                    "DATA",
                                                    "data x",
                                                    "BDAT 0",
                                                    "BDAT 0 LAST",
                                                    "BDAT 12",
                                                    "bdat 12 last",
                                                    "BDAT 5 LASTX",
                                                    "BDAT",
                                                    "BDAT x",
                                                    "XEXCH50 5 2",
                                                    "XEXCH50 x",
                                                    "XEXCH50 0",
                                                    "RSET",
                                                    "RSET",
                                                    "rset x",
                                                    "NOOP",
                                                    "QUIT",
                                                    "HELP",
                                                    "VRFY a",
                                                    "AUTH LOGIN",
                                                    "AUTH PLAIN x",
                                                    "STARTTLS",
                                                    "XCLIENT a",
                                                    "XFORWARD a",
                                                    "TURN",
                                                    "ATRN",
                                                    "FOO",
                                                    "",
                                                    "NOOP \x01",
                                                    "MAIL FROM:<a\x01@b>",
                                                    "\tRSET",
                                                    "X-EXPS",
                                                    "ETRN x"};
    // Often the line that comes next in a dialogue.
    static const std::vector<std::string> kGreeting = {"EHLO x"};
    static const std::vector<std::string> kOpening = {"MAIL FROM:<a@b>", "SEND FROM:<a@b>", "MAIL FROM:<>"};
    static const std::vector<std::string> kGoingOn = {"RCPT TO:<u@local.test>", "DATA", "BDAT 5",
                                                      "BDAT 5 LAST", "XEXCH50 5"};
    const std::vector<std::string>& next = !d_.Greeted()           ? kGreeting
                                           : !d_.TransactionOpen() ? kOpening
                                                                   : kGoingOn;
    const std::string line = OneOf(random_() % 2 == 0 ? next : kLines);
    transcript_ += "C: " + Escape(line) + "\n";
    const bool data = d_.state.phase == Phase::kAuthData;
    const LineDecision decision = d_.Line(line + "\r\n");
    if (decision.action == LineDecision::Action::kForward) {
      transcript_ += "-> " + Escape(decision.text) + "\n";
      // Without the header that a chunk may begin with.
      if (!data) server_.Gets(decision.text.substr(0, decision.text.find(kCrLf) + kCrLf.size()));
    } else {
      over_ = d_.state.phase == Phase::kEnding;
    }
  }

  void ClientSendsContent() {
    static const std::vector<std::string> kContent = {"text", "\r\n.\r\n", "RSET\r\n", "\r\n",
                                                      "MAIL FROM:<a@b>\r\n"};
    const std::string content = OneOf(kContent);
    d_.Content(content);
    over_ = d_.state.phase == Phase::kEnding;
    transcript_ += "C+ " + Escape(content) + "\n";
  }

  void ServerReplies() {
    static const std::vector<std::string> kCodes = {"250", "250", "250", "250", "250", "354", "354", "355",
                                                    "550", "451", "334", "220", "235", "221", "25",  ""};
    static const std::vector<std::string> kTexts = {"ok", "CHUNKING", "XEXCH50", "STARTTLS", "250 ok", ""};
    const bool wants_content =
        d_.state.forwarded.command == Command::kData || d_.state.forwarded.command == Command::kXexch50;
    const std::string code = random_() % 2 == 0 ? OneOf(kCodes) : wants_content ? "354" : "250";
    std::string reply;
    bool same = true;
    // A line can go on only after a code.
    for (std::size_t more = code.size() == 3 ? random_() % 4 : 0; more > 0; --more) {
      reply += code + "-" + OneOf(kTexts) + "\r\n";
    }
    const std::string last = !reply.empty() && random_() % 8 == 0 ? OneOf(kCodes) : code;
    same = last == code;
    reply += last + " " + OneOf(kTexts) + "\r\n";
    transcript_ += "S: " + Escape(reply) + "\n";
    // The first line of an EHLO reply is no extension.
    const std::size_t first_end = reply.find("\r\n");
    std::string heard = reply;
    for (std::size_t at = heard.find("CHUNKING"); at < first_end; at = heard.find("CHUNKING", at + 1))
      heard[at] = '-';
    server_.Says(heard, same);
    d_.Reply(reply);
    over_ = d_.state.phase == Phase::kEnding;
  }

  std::mt19937 random_;
  TestDialogue d_;
  Server server_;
  std::string transcript_;
  bool over_ = false;
  bool reached_transaction_ = false;
  bool reached_content_ = false;
};

TEST(Dialogue, BelievesWhatTheServerSaidAndNothingElse) {
  const unsigned seeds = SeedCount(2000);
  unsigned transactions = 0;
  unsigned contents = 0;
  for (unsigned seed = 0; seed < seeds && !HasFailure(); ++seed) {
    RandomSession session(seed);
    session.Run(150);
    transactions += session.ReachedTransaction();
    contents += session.ReachedContent();
  }
  EXPECT_GT(transactions, seeds / 2);
  EXPECT_GT(contents, seeds / 4);
}

// The client has not taken everything yet, so the session is still there.
TEST(Dialogue, AnAnswerAfterTheServersEndIsIgnored) {
  TestDialogue d;
  d.configuration.ValidateHELO = 3;
  d.Run("C: EHLO other.test\nasks name other.test");
  d.EndServer();
  EXPECT_EQ(d.state.phase, Phase::kEnding);
  d.Answer({});
  d.Run("");
}

// Where the bytes that go to the server lie.
class Addresses final : public DialogueActions {
 public:
  void ToServer(std::string_view bytes, bool) override { sent.push_back(bytes); }
  void ToClient(std::string_view) override {}
  void StartTls(std::string_view) override {}
  void ClientIs(const std::optional<ProxiedConnection>&) override {}
  void StartServerTls() override {}
  void AskForClientNames() override {}
  void GoOnWithoutServer() override {}
  void AskForAddresses(std::string_view) override {}
  void CloseServer() override {}
  void EndAfterPause() override {}
  void Log(Side, std::int32_t, std::string_view) override {}
  void LogFailure(const Error&) override {}

  std::vector<std::string_view> sent;
};

TEST(Dialogue, PassesContentOnFromWhereItLies) {
  const Configuration configuration = TestConfiguration();
  const FakeClock clock;
  const FakeFacts facts;
  const std::string content = "a line\r\n..a dot\r\nthe rest";
  for (const Phase phase : {Phase::kDotContent, Phase::kOctets, Phase::kChunk}) {
    DialogueState state;
    state.phase = phase;
    state.content.BeginOctets(100);
    if (phase == Phase::kDotContent) state.content.BeginDot();
    Dialogue dialogue(configuration, clock, facts, nullptr, state);
    Addresses actions;
    EXPECT_EQ(dialogue.OnClientBytes(content, actions), content.size());
    ASSERT_EQ(actions.sent.size(), 1U);
    EXPECT_EQ(actions.sent.front().data(), content.data());
    EXPECT_EQ(actions.sent.front().size(), content.size());
  }
}

}  // namespace
}  // namespace trabex

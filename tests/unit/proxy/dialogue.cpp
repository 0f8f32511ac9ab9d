#include "unit/proxy/dialogue.h"

#include <algorithm>

#include "base/text.h"
#include "support/openings.h"

namespace trabex {

namespace {

// A line of a script: a blank at its end shows.
std::string ScriptLine(std::string_view mark, std::string_view text) {
  std::string line = std::string(mark).append(" ").append(Escape(text));
  if (text.empty()) line.pop_back();
  if (text.ends_with(' ')) line.replace(line.size() - 1, 1, "\\x20");
  return line;
}

// The lines of `text`, each of which ends in CR LF, with `mark` in front of each.
void AddLines(std::vector<std::string>& outcome, std::string_view mark, std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = text.find(kCrLf);
    if (end == std::string_view::npos) {
      outcome.push_back(ScriptLine(mark, text) + " (without a line end)");
      return;
    }
    outcome.push_back(ScriptLine(mark, text.substr(0, end)));
    text.remove_prefix(end + kCrLf.size());
  }
}

// Whether `outcome` is what the step expects.
bool IsOutcome(const script::Step& step, std::string_view outcome) {
  using script::StepKind;
  const auto text_after = [&](std::string_view mark) {
    return Unescape(outcome.substr(std::min(outcome.size(), mark.size() + 1)));
  };
  switch (step.kind) {
    case StepKind::kGetLine: {
      const std::string_view mark = step.side == script::Side::kServer ? "->" : "<-";
      return outcome.starts_with(mark) && step.pattern.Matches(text_after(mark));
    }
    case StepKind::kGetBytes:
      return outcome.starts_with("*>") && text_after("*>") == step.bytes;
    case StepKind::kAskName:
      return outcome == ScriptLine("asks name", step.bytes);
    case StepKind::kLog:
      return outcome.starts_with("log ") && step.pattern.Matches(text_after("log"));
    case StepKind::kWait:
      return outcome == "wait " + std::to_string(step.milliseconds);
    case StepKind::kStartTls:
      return outcome == "C starts TLS";
    case StepKind::kClosed:
      return outcome == "closed C" && step.side == script::Side::kClient;
    default:
      return false;
  }
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "; ") + line;
  return text;
}

}  // namespace

ExpressionList ListOf(std::initializer_list<std::string_view> patterns) {
  ExpressionList list;
  for (std::string_view pattern : patterns) list.Add(pattern, {{std::string(pattern)}, false});
  return list;
}

ReplacementTable TableOf(std::initializer_list<ReplacementTable::Rule> rules) {
  return ReplacementTable(rules);
}

cReplaces WholeReply(std::string name, std::string text) {
  cReplaces replaces;
  replaces.SetName(std::move(name));
  replaces.Add("", std::move(text), true);
  return replaces;
}

cReplaces Appended(std::string name, std::string text) {
  return WholeReply(std::move(name), "{%original%}" + text);
}

GreylistVerdict FakeGreylisting::ShouldDefer(std::optional<std::string_view> host_name, const IPAddress& ip,
                                             std::string_view sender, std::string_view recipient) {
  asked.push_back(std::string(host_name.value_or("?"))
                      .append("|")
                      .append(FormatIPAddress(ip))
                      .append("|")
                      .append(sender)
                      .append("|")
                      .append(recipient));
  return delays;
}

Configuration TestConfiguration() {
  Configuration c = DefaultConfiguration();
  c.LocalHostName = "proxy.test";
  c.LocalDomains = ListOf({"local.test"});
  return c;
}

void TestDialogue::Run(std::string_view text) {
  std::string so_far;
  std::string wrong;
  try {
    for (const script::Step& step : script::ReadScript(text).steps) {
      so_far.append(step.source).append("\n");
      wrong = Take(step);
      if (!wrong.empty()) break;
    }
  } catch (const script::ScriptError& error) {
    wrong = error.what();
  }
  if (wrong.empty() && !outcome_.empty()) wrong = "not in the script: " + Joined(outcome_);
  if (!wrong.empty()) ADD_FAILURE() << wrong << "\nthe dialogue:\n" << so_far;
  outcome_.clear();
}

std::string TestDialogue::Take(const script::Step& step) {
  if (step.kind == script::StepKind::kSend) {
    if (!outcome_.empty()) return "not in the script: " + Joined(outcome_);
    Send(step);
    return {};
  }
  if (outcome_.empty() || !IsOutcome(step, outcome_.front())) {
    return "got: " + (outcome_.empty() ? "nothing" : Joined(outcome_)) + "\nwant: " + step.source;
  }
  outcome_.erase(outcome_.begin());
  if (step.kind == script::StepKind::kStartTls) {
    Secure();
  }
  return {};
}

void TestDialogue::Send(const script::Step& step) {
  const std::string& bytes = step.sending.bytes;
  if (step.side == script::Side::kServer) {
    reply_ += bytes;
    // The last line of a reply has no "-" after its code.
    if (bytes.size() <= 3 || bytes[3] != '-') outcome_ = OutcomeOfReply(std::exchange(reply_, {}));
  } else if (TakesContent() || Discards()) {
    outcome_ = OutcomeOfContent(bytes);
  } else {
    outcome_ = OutcomeOfLine(bytes);
  }
}

void TestDialogue::Answer(const HostAddresses& answer) {
  ASSERT_TRUE(outcome_.empty()) << Joined(outcome_);
  outcome_ = Outcome([&](Dialogue& dialogue) { dialogue.OnAddresses(answer, *this); });
}

void TestDialogue::EndServer() {
  Outcome([&](Dialogue& dialogue) { dialogue.OnServerEnd(Dialogue::ServerEnd::kClosed, *this); });
}

void TestDialogue::Greet() {
  Run(Greeting() + Ehlo({"CHUNKING", "XEXCH50"}));
}

void TestDialogue::OfferTls() {
  facts.tls_configured = facts.tls_ready = true;
  facts.tls = {"TLSv1.3", "TLS_AES_256_GCM_SHA384", ""};
}

void TestDialogue::ExpectTls() {
  Outcome([&](Dialogue& dialogue) { dialogue.ExpectTls(); });
}

void TestDialogue::ExpectHeader() {
  Outcome([&](Dialogue& dialogue) { dialogue.ExpectHeader(); });
}

std::size_t TestDialogue::TakeHeader(std::string_view bytes) {
  std::size_t used = 0;
  Outcome([&](Dialogue& dialogue) { used = dialogue.OnClientBytes(bytes, *this); });
  return used;
}

void TestDialogue::BeginPreface(bool tls) {
  ServerApproach approach;
  approach.preface.tls_at_once = tls;
  approach.preface.starttls = !tls;
  Outcome([&](Dialogue& dialogue) {
    dialogue.OnServerConnected(approach, *this);
    EXPECT_EQ(dialogue.phase(), Phase::kPreface);
    EXPECT_EQ(actions_.empty(), !tls);
    if (tls) dialogue.OnServerSecured(*this);
  });
}

void TestDialogue::Secure() {
  facts.tls_active = true;
  Outcome([&](Dialogue& dialogue) { dialogue.OnSecured(); });
}

void TestDialogue::GreetAndMail() {
  Greet();
  Run(Mail("s@sender.test"));
}

void TestDialogue::GreetMailAndRcpt() {
  GreetAndMail();
  Run(Rcpt());
}

void TestDialogue::Refuse() {
  state.transaction = Transaction::kRefused;
  state.phase = Phase::kCommand;
}

std::string TestDialogue::Say(ReplyKind kind) {
  return Joined(Outcome([&](Dialogue& dialogue) { dialogue.Say(kind, *this); }));
}

std::string TestDialogue::Says(std::string_view client_line) {
  return Joined(OutcomeOfLine(std::string(client_line).append(kCrLf)));
}

LineDecision TestDialogue::Line(std::string_view line_with_end) {
  LineDecision decision = commands.ProcessIncomingData(line_with_end, state);
  OutcomeOfLine(line_with_end);
  return decision;
}

ReplyDecision TestDialogue::Reply(std::string_view reply) {
  ReplyDecision decision = replies.ProcessOutgoingData(reply, state);
  OutcomeOfReply(reply);
  return decision;
}

void TestDialogue::ToServer(std::string_view bytes, bool) {
  if (content_) {
    actions_.push_back(ScriptLine("*>", bytes));
  } else {
    AddLines(actions_, "->", bytes);
  }
}

void TestDialogue::ToClient(std::string_view reply) {
  AddLines(actions_, "<-", reply);
}

void TestDialogue::StartTls(std::string_view last_words) {
  AddLines(actions_, "<-", last_words);
  actions_.push_back("C starts TLS");
}

void TestDialogue::AskForAddresses(std::string_view host_name) {
  actions_.push_back(ScriptLine("asks name", host_name));
}

void TestDialogue::EndAfterPause() {
  actions_.insert(actions_.end(), {"wait 500", "closed C"});
}

void TestDialogue::Log(Side side, std::int32_t level, std::string_view text) {
  if (side == Side::kClient && level == log_level::kErrors) actions_.push_back(ScriptLine("log", text));
}

template <class Step>
std::vector<std::string> TestDialogue::Outcome(Step step) {
  Dialogue dialogue(configuration, clock, facts, &greylisting, state);
  const bool ending = state.phase == Phase::kEnding;
  content_ = dialogue.Expected() == ClientBytes::kContent;
  actions_.clear();
  step(dialogue);
  state = dialogue.State();
  if (state.phase == Phase::kEnding && !ending) actions_.push_back("closed C");
  return std::move(actions_);
}

std::vector<std::string> TestDialogue::OutcomeOfLine(std::string_view line) {
  if (state.phase == Phase::kReply) OutcomeOfReply("550 no\r\n");
  if (ExpectedBytes(state.phase) != ClientBytes::kLine) return {"no line is expected"};
  return Outcome([&](Dialogue& dialogue) { dialogue.OnClientBytes(line, *this); });
}

std::vector<std::string> TestDialogue::OutcomeOfReply(std::string_view reply) {
  return Outcome([&](Dialogue& dialogue) { dialogue.OnServerBytes(std::string(reply), *this); });
}

std::vector<std::string> TestDialogue::OutcomeOfContent(std::string_view bytes) {
  if (!TakesContent() && !Discards()) return {"no content is expected"};
  std::size_t used = 0;
  const Phase before = state.phase;
  left_over_.reset();
  std::vector<std::string> outcome =
      Outcome([&](Dialogue& dialogue) { used = dialogue.OnClientBytes(bytes, *this); });
  if (state.phase != before && state.phase != Phase::kEnding) left_over_ = bytes.substr(used);
  return outcome;
}

}  // namespace trabex

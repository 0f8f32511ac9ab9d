#include "unit/proxy/dialogue.h"

#include <algorithm>

#include "base/text.h"

namespace trabex {

namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

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

bool FakeGreylisting::ShouldDefer(std::string_view host_name, const IPAddress& ip, std::string_view sender,
                                  std::string_view recipient) {
  asked.push_back(std::string(host_name)
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

std::string Unescape(std::string_view text) {
  std::string bytes;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\\') {
      bytes += text[at];
      continue;
    }
    const char kind = text.at(++at);
    if (kind == 'x') {
      const auto high = kHexDigits.find(text.at(at + 1));
      const auto low = kHexDigits.find(text.at(at + 2));
      bytes += static_cast<char>(high * 16 + low);
      at += 2;
    } else {
      bytes += kind == 'r' ? '\r' : kind == 'n' ? '\n' : kind == 't' ? '\t' : kind == '0' ? '\0' : kind;
    }
  }
  return bytes;
}

std::string Escape(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    if (byte == '\\') {
      text += "\\\\";
    } else if (byte == '\r' || byte == '\n' || byte == '\t') {
      text += byte == '\r' ? "\\r" : byte == '\n' ? "\\n" : "\\t";
    } else if (byte == '\0') {
      text += "\\0";
    } else if (value < 32 || value > 126) {
      text.append("\\x").append(1, kHexDigits[value >> 4]).append(1, kHexDigits[value & 15]);
    } else {
      text += byte;
    }
  }
  return text;
}

void TestDialogue::Run(std::string_view script) {
  std::string so_far;
  const auto expect_all_named = [&] {
    if (outcome_.empty()) return true;
    ADD_FAILURE() << "not in the script: " << Joined(outcome_) << "\nthe dialogue:\n" << so_far;
    outcome_.clear();
    return false;
  };
  for (std::string_view line : Split(script, '\n')) {
    line = Trim(line);
    if (line.empty() || line.front() == '#') continue;
    so_far.append(line).append("\n");
    const std::string_view mark = line.substr(0, 2);
    const std::string text = line.size() > 3 ? Unescape(line.substr(3)) : "";
    if (mark == "C:") {
      if (!expect_all_named()) return;
      outcome_ = OutcomeOfLine(text + "\r\n");
    } else if (mark == "C+") {
      if (!expect_all_named()) return;
      outcome_ = OutcomeOfContent(text);
    } else if (mark == "S:") {
      if (!expect_all_named()) return;
      reply_.append(text).append(kCrLf);
      if (text.size() > 3 && text[3] == '-') continue;
      outcome_ = OutcomeOfReply(std::exchange(reply_, {}));
    } else if (!outcome_.empty() && outcome_.front() == line) {
      outcome_.erase(outcome_.begin());
    } else {
      ADD_FAILURE() << "got: " << (outcome_.empty() ? "nothing" : Joined(outcome_)) << "\nwant: " << line
                    << "\nthe dialogue:\n"
                    << so_far;
      outcome_.clear();
      return;
    }
  }
  expect_all_named();
}

void TestDialogue::Answer(const HostAddresses& answer) {
  ASSERT_TRUE(outcome_.empty()) << Joined(outcome_);
  outcome_ = Outcome([&](Dialogue& dialogue) { dialogue.OnAddresses(answer, *this); });
}

void TestDialogue::Greet() {
  Run(R"(
    S: 220 server.test ESMTP
    <- 220 server.test ESMTP
    C: EHLO client.test
    -> EHLO client.test
    S: 250-server.test
    S: 250-CHUNKING
    S: 250 XEXCH50
    <- 250-server.test
    <- 250-CHUNKING
    <- 250 XEXCH50)");
}

void TestDialogue::GreetAndMail() {
  Greet();
  Run(R"(
    C: MAIL FROM:<s@sender.test>
    -> MAIL FROM:<s@sender.test>
    S: 250 sender ok
    <- 250 sender ok)");
}

void TestDialogue::GreetMailAndRcpt() {
  GreetAndMail();
  Run(R"(
    C: RCPT TO:<u@local.test>
    -> RCPT TO:<u@local.test>
    S: 250 recipient ok
    <- 250 recipient ok)");
}

void TestDialogue::Refuse() {
  state.transaction = Transaction::kRefused;
  state.phase = Phase::kCommand;
}

void TestDialogue::Say(ReplyKind kind) {
  Outcome([&](Dialogue& dialogue) { dialogue.Say(kind, *this); });
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

void TestDialogue::AskForAddresses(std::string_view host_name) {
  actions_.push_back(ScriptLine("wait", host_name));
}

void TestDialogue::EndAfterPause() {
  actions_.push_back("pause");
}

void TestDialogue::Log(Side side, std::int32_t level, std::string_view text) {
  if (side == Side::kClient && level == log_level::kErrors) actions_.push_back(ScriptLine("break", text));
}

template <class Step>
std::vector<std::string> TestDialogue::Outcome(Step step) {
  Dialogue dialogue(configuration, clock, facts, &greylisting, state);
  const bool ending = state.phase == Phase::kEnding;
  content_ = dialogue.Expected() == ClientBytes::kContent;
  actions_.clear();
  step(dialogue);
  state = dialogue.State();
  const bool broken = !actions_.empty() && actions_.back().starts_with("break");
  if (state.phase == Phase::kEnding && !ending && !broken) actions_.push_back("close");
  return std::move(actions_);
}

std::vector<std::string> TestDialogue::OutcomeOfLine(std::string_view line) {
  if (state.phase == Phase::kReply) state.phase = Phase::kCommand;
  if (ExpectedBytes(state.phase) != ClientBytes::kLine) return {"no line is expected"};
  return Outcome([&](Dialogue& dialogue) { dialogue.OnClientBytes(line, *this); });
}

std::vector<std::string> TestDialogue::OutcomeOfReply(std::string_view reply) {
  return Outcome([&](Dialogue& dialogue) { dialogue.OnServerBytes(reply, *this); });
}

std::vector<std::string> TestDialogue::OutcomeOfContent(std::string_view bytes) {
  const ClientBytes expected = ExpectedBytes(state.phase);
  if (expected != ClientBytes::kContent && expected != ClientBytes::kDiscarded)
    return {"no content is expected"};
  std::size_t used = 0;
  const Phase before = state.phase;
  std::vector<std::string> outcome =
      Outcome([&](Dialogue& dialogue) { used = dialogue.OnClientBytes(bytes, *this); });
  if (state.phase != before && state.phase != Phase::kEnding) {
    outcome.push_back("end");
    if (used < bytes.size()) outcome.push_back("left over: " + Escape(bytes.substr(used)));
  }
  return outcome;
}

}  // namespace trabex

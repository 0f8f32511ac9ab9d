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

void Dialogue::Run(std::string_view script) {
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
      outcome_ = Outcome(commands.ProcessIncomingData(text + "\r\n"));
    } else if (mark == "C+") {
      if (!expect_all_named()) return;
      outcome_ = TakeContent(text);
    } else if (mark == "S:") {
      if (!expect_all_named()) return;
      reply_.append(text).append(kCrLf);
      if (text.size() > 3 && text[3] == '-') continue;
      outcome_ = Outcome(replies.ProcessOutgoingData(std::exchange(reply_, {})));
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

void Dialogue::Answer(const AddressAnswer& answer) {
  ASSERT_TRUE(outcome_.empty()) << Joined(outcome_);
  outcome_ = Outcome(commands.ProcessNameAnswer(answer));
}

void Dialogue::Greet() {
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

void Dialogue::GreetAndMail() {
  Greet();
  Run(R"(
    C: MAIL FROM:<s@sender.test>
    -> MAIL FROM:<s@sender.test>
    S: 250 sender ok
    <- 250 sender ok)");
}

void Dialogue::GreetMailAndRcpt() {
  GreetAndMail();
  Run(R"(
    C: RCPT TO:<u@local.test>
    -> RCPT TO:<u@local.test>
    S: 250 recipient ok
    <- 250 recipient ok)");
}

std::string Dialogue::Says(std::string_view client_line) {
  return Joined(Outcome(commands.ProcessIncomingData(std::string(client_line).append(kCrLf))));
}

std::vector<std::string> Dialogue::Outcome(const LineDecision& decision) {
  std::vector<std::string> outcome;
  switch (decision.action) {
    case LineDecision::Action::kForward:
      AddLines(outcome, "->", decision.text);
      AddLines(outcome, "->", decision.extra);
      break;
    case LineDecision::Action::kAnswer:
      AddLines(outcome, "<-", decision.text + "\r\n");
      break;
    case LineDecision::Action::kWaitForName:
      outcome.push_back(ScriptLine("wait", decision.text));
      break;
    case LineDecision::Action::kBreak:
      outcome.push_back(ScriptLine("break", decision.text));
      break;
  }
  if (decision.close_when_sent) outcome.push_back("close");
  if (decision.too_many_bad_sequences) outcome.push_back("pause");
  return outcome;
}

std::vector<std::string> Dialogue::Outcome(const ReplyDecision& decision) {
  std::vector<std::string> outcome;
  AddLines(outcome, "->", decision.header);
  AddLines(outcome, "<-", decision.text);
  if (decision.content_cut_off) outcome.push_back("close");
  return outcome;
}

std::vector<std::string> Dialogue::TakeContent(std::string_view bytes) {
  std::vector<std::string> outcome;
  if (!state.Content.Active()) return {"no content is expected"};
  const bool dropping = state.Content.Dropping();
  const ContentTracker::Step step = state.Content.Scan(bytes);
  if (step.bytes > 0 && !dropping) outcome.push_back(ScriptLine("*>", bytes.substr(0, step.bytes)));
  if (step.outcome == ContentTracker::Outcome::kEnded) {
    outcome.push_back("end");
    if (step.bytes < bytes.size()) outcome.push_back("left over: " + Escape(bytes.substr(step.bytes)));
  }
  if (step.outcome == ContentTracker::Outcome::kAmbiguous) outcome.push_back("ambiguous");
  return outcome;
}

}  // namespace trabex

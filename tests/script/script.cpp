#include "script/script.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "script/escapes.h"

namespace trabex::script {

namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr std::array<std::string_view, 5> kStages = {"nothing", "ehlo", "mail", "rcpt", "data"};
constexpr std::array<std::string_view, 4> kServers = {"scripted", "postfix", "exim", "opensmtpd"};

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

template <class List>
bool Contains(const List& list, std::string_view wanted) {
  return std::find(list.begin(), list.end(), wanted) != list.end();
}

std::vector<std::string> SplitAtCommas(std::string_view text) {
  std::vector<std::string> parts;
  for (;;) {
    const std::size_t end = text.find(", ");
    parts.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) return parts;
    text.remove_prefix(end + 2);
  }
}

template <class Number>
Number NumberIn(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size())
    throw std::invalid_argument("a number is missing");
  return number;
}

Sending SendingOf(std::string_view text) {
  Decoded decoded = Decode(text);
  Sending sending{std::move(decoded.bytes), std::move(decoded.segments), {}};
  if (decoded.marks) {
    for (std::size_t at = decoded.marks->first + 1; at < decoded.marks->second; ++at)
      sending.cuts.push_back(at);
  }
  return sending;
}

Pattern PatternOf(std::string_view text) {
  const Decoded decoded = Decode(text);
  if (decoded.marks || !decoded.segments.empty()) throw std::invalid_argument("a cut where none can be");
  Pattern pattern;
  std::size_t begin = 0;
  for (const std::size_t star : decoded.stars) {
    pattern.pieces.push_back(decoded.bytes.substr(begin, star - begin));
    begin = star + 1;
  }
  pattern.pieces.push_back(decoded.bytes.substr(begin));
  return pattern;
}

NameAnswers AnswersOf(std::string_view text) {
  NameAnswers answers;
  if (text.starts_with("error ")) {
    answers.error = NumberIn<int>(text.substr(6));
  } else if (!text.empty()) {
    answers.addresses = SplitAtCommas(text);
  }
  return answers;
}

class Reader {
 public:
  Script Read(std::string_view text) {
    for (std::size_t number = 1; !text.empty(); ++number) {
      const std::size_t end = std::min(text.find('\n'), text.size());
      const std::string_view line = Trimmed(text.substr(0, end));
      text.remove_prefix(std::min(end + 1, text.size()));
      if (line.empty()) continue;
      try {
        Take(line, number);
      } catch (const std::invalid_argument& wrong) {
        throw ScriptError("line " + std::to_string(number) + ": \"" + std::string(line) +
                          "\": " + wrong.what());
      }
    }
    return std::move(script_);
  }

 private:
  void Take(std::string_view line, std::size_t number) {
    if (line.front() == '#') {
      if (script_.steps.empty()) script_.head.comment.append(Trimmed(line.substr(1))).append(" ");
      return;
    }
    Step step;
    step.line = number;
    step.source = line;
    if (TakeMark(line, step) || TakeEnd(line, step) || TakeWord(line, step)) {
      script_.steps.push_back(std::move(step));
    } else if (!TakeHead(line)) {
      throw std::invalid_argument("no such step");
    }
  }

  // What is sent and what arrives: two letters, a blank and a text.
  static bool TakeMark(std::string_view line, Step& step) {
    if (line.size() < 2 || (line.size() > 2 && line[2] != ' ')) return false;
    const std::string_view mark = line.substr(0, 2);
    const std::string_view text = line.substr(std::min<std::size_t>(3, line.size()));
    if (mark == "C:" || mark == "S:" || mark == "C+" || mark == "S+") {
      step.kind = StepKind::kSend;
      step.side = mark[0] == 'C' ? Side::kClient : Side::kServer;
      step.sending = SendingOf(text);
      if (mark[1] == ':') step.sending.bytes += "\r\n";
    } else if (mark == "->" || mark == "<-") {
      step.kind = text == "nothing" ? StepKind::kGetNothing : StepKind::kGetLine;
      step.side = mark == "<-" ? Side::kClient : Side::kServer;
      step.pattern = PatternOf(text);
    } else if (mark == "*>") {
      step.kind = StepKind::kGetBytes;
      step.side = Side::kServer;
      step.bytes = Unescape(text);
    } else {
      return false;
    }
    return true;
  }

  // "C closes" and its kin.
  static bool TakeEnd(std::string_view line, Step& step) {
    if (!line.starts_with("C ") && !line.starts_with("S ")) return false;
    static const std::map<std::string_view, StepKind> kWords = {{"closes", StepKind::kClose},
                                                                {"resets", StepKind::kReset},
                                                                {"shuts", StepKind::kShutDown},
                                                                {"accepts", StepKind::kAccept},
                                                                {"starts TLS", StepKind::kStartTls}};
    const auto word = kWords.find(line.substr(2));
    step.side = line[0] == 'C' ? Side::kClient : Side::kServer;
    if (word == kWords.end()) return false;
    const Side other = word->second == StepKind::kAccept ? Side::kClient : Side::kServer;
    const bool of_one_side = word->second == StepKind::kAccept || word->second == StepKind::kStartTls;
    if (of_one_side && step.side == other) return false;
    step.kind = word->second;
    return true;
  }

  bool TakeWord(std::string_view line, Step& step) {
    static const std::map<std::string_view, StepKind> kWords = {
        {"closed", StepKind::kClosed}, {"connect", StepKind::kConnect},   {"wait", StepKind::kWait},
        {"log", StepKind::kLog},       {"asks name", StepKind::kAskName}, {"answer", StepKind::kAnswer},
        {"shutdown", StepKind::kStop}};
    for (const auto& [name, kind] : kWords) {
      if (!line.starts_with(name) || (line.size() > name.size() && line[name.size()] != ' ')) continue;
      step.kind = kind;
      TakeArgument(Trimmed(line.substr(name.size())), step);
      return true;
    }
    return false;
  }

  void TakeArgument(std::string_view text, Step& step) {
    switch (step.kind) {
      case StepKind::kClosed:
        if (text == "both") {
          step.side = Side::kClient;
          script_.steps.push_back(step);
        }
        if (text != "C" && text != "S" && text != "both") throw std::invalid_argument("C, S or both?");
        step.side = text == "C" ? Side::kClient : Side::kServer;
        return;
      case StepKind::kConnect:
        step.bytes = text;
        return;
      case StepKind::kWait:
        step.milliseconds = NumberIn<std::int64_t>(text);
        return;
      case StepKind::kLog:
        step.pattern = PatternOf(text);
        return;
      case StepKind::kAskName:
        step.bytes = Unescape(text);
        return;
      case StepKind::kAnswer:
        step.answers = AnswersOf(text);
        return;
      default:
        if (!text.empty()) throw std::invalid_argument("more than the step can have");
    }
  }

  bool TakeHead(std::string_view line) {
    const std::size_t colon = line.find(": ");
    if (colon == std::string_view::npos) return false;
    const std::string_view key = line.substr(0, colon);
    const std::string_view value = line.substr(colon + 2);
    Head& head = script_.head;
    if (key == "after") {
      if (!Contains(kStages, value)) throw std::invalid_argument("no such stage");
      head.after = value;
    } else if (key == "direct") {
      head.direct = value == "none" ? std::vector<std::string>() : SplitAtCommas(value);
      for (const std::string& server : *head.direct) {
        if (!Contains(kServers, server)) throw std::invalid_argument("no such server");
      }
    } else if (key == "owes") {
      head.owes = value;
    } else if (key == "set" || key.starts_with("set ")) {
      const std::size_t equals = value.find('=');
      if (equals == std::string_view::npos) throw std::invalid_argument("a setting without \"=\"");
      head.settings.push_back({std::string(key == "set" ? "Common" : key.substr(4)),
                               std::string(value.substr(0, equals)), std::string(value.substr(equals + 1))});
    } else if (key.starts_with("on ")) {
      head.replies[std::string(key.substr(3))].push_back(value == "nothing" ? Sending() : SendingOf(value));
    } else {
      return false;
    }
    if (!script_.steps.empty()) throw std::invalid_argument("a line of the head among the steps");
    return true;
  }

  Script script_;
};

}  // namespace

bool Pattern::Matches(std::string_view text) const {
  if (pieces.size() == 1) return text == pieces.front();
  if (!text.starts_with(pieces.front())) return false;
  text.remove_prefix(pieces.front().size());
  for (std::size_t i = 1; i + 1 < pieces.size(); ++i) {
    const std::size_t at = text.find(pieces[i]);
    if (at == std::string_view::npos) return false;
    text.remove_prefix(at + pieces[i].size());
  }
  return text.ends_with(pieces.back());
}

Script ReadScript(std::string_view text) {
  return Reader().Read(text);
}

Script ReadScriptFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  if (!file) throw ScriptError(path.string() + ": cannot be read");
  try {
    return ReadScript(text);
  } catch (const ScriptError& error) {
    throw ScriptError(path.string() + ": " + error.what());
  }
}

std::vector<Step> JoinSendings(std::vector<Step> steps) {
  std::vector<Step> joined;
  for (Step& step : steps) {
    const bool goes_on = !joined.empty() && step.kind == StepKind::kSend &&
                         joined.back().kind == StepKind::kSend && joined.back().side == step.side;
    if (!goes_on) {
      joined.push_back(std::move(step));
      continue;
    }
    Sending& all = joined.back().sending;
    const std::size_t before = all.bytes.size();
    all.bytes += step.sending.bytes;
    for (const std::size_t place : step.sending.segments) all.segments.push_back(before + place);
    for (const std::size_t place : step.sending.cuts) all.cuts.push_back(before + place);
  }
  return joined;
}

}  // namespace trabex::script

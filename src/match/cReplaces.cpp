#include "match/cReplaces.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "base/error.h"
#include "base/unicode_fold.h"
#include "base/utf8.h"

namespace trabex {

namespace {

// How much longer than the original the macros may make a text. Rules find what those before them have put
// in, and part of that is the client's: without a bound a few rules could blow one short command up to
// gigabytes. No reply comes near it (RFC 5321, 4.5.3.1.5: 512 octets a line).
constexpr std::size_t kMaxGrowth_bytes = 65536;

// `text` with every "¶" as CR LF. The single byte B6 is that sign too, but only where it is no part of
// another character.
std::string WithLineBreaks(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::string_view character =
        text.substr(0, std::max<std::size_t>(FirstUtf8Character(text).size, 1));
    const bool is_sign = character == "\xC2\xB6" || character == "\xB6";
    result.append(is_sign ? kCrLf : character);
    text.remove_prefix(character.size());
  }
  return result;
}

// The lines of `text`, which end in CR LF, CR or LF; the last one is what follows the last line end.
std::vector<std::string_view> LinesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  for (;;) {
    const std::size_t end = text.find_first_of(kCrLf);
    lines.push_back(text.substr(0, end));
    if (end == std::string_view::npos) return lines;
    text.remove_prefix(end);
    text.remove_prefix(text.starts_with(kCrLf) ? kCrLf.size() : 1);
  }
}

// The code that `line` begins with when it is the line of a reply (RFC 5321, 4.2.1), or "".
std::string_view ReplyCode(std::string_view line) {
  const std::string_view code = line.substr(0, 3);
  const bool is_code = code.size() == 3 && std::all_of(code.begin(), code.end(), IsDigit) &&
                       (line.size() == 3 || line[3] == ' ' || line[3] == '-');
  return is_code ? code : std::string_view();
}

// Whether `text` is one complete reply: every line but the last one announces another one.
bool IsOneReply(std::string_view text) {
  const auto lines = LinesOf(text);
  const std::string_view code = ReplyCode(lines[0]);
  std::size_t size = (lines.size() - 1) * kCrLf.size();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const bool goes_on = lines[i].size() > code.size() && lines[i][code.size()] == '-';
    if (code.empty() || ReplyCode(lines[i]) != code || goes_on != (i + 1 < lines.size())) return false;
    size += lines[i].size();
  }
  return size == text.size();  // otherwise some line ends in less than CR LF
}

// `value` in one line, so that it cannot end a line of the reply that it is put into: what follows
// would be another line, or another reply. Of a reply in several lines the texts are left, one after the
// other; the "-" after the first code, which announces more lines, goes with the codes of these.
std::string InOneLine(std::string value) {
  if (value.find_first_of(kCrLf) == std::string::npos) return value;
  const auto lines = LinesOf(value);
  const std::string_view code = ReplyCode(lines[0]);
  std::string result(lines[0]);
  if (!code.empty() && result.size() > code.size()) result[code.size()] = ' ';
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const bool same_reply = !code.empty() && ReplyCode(lines[i]) == code;
    result += ' ';
    result.append(lines[i].substr(same_reply ? std::min(code.size() + 1, lines[i].size()) : 0));
  }
  return result;
}

constexpr std::string_view kMacroStart = "{%";
constexpr std::string_view kMacroEnd = "%}";
constexpr std::size_t kMaxMacroName = 32;  // longer than any source has

// The name of the macro that `words` begin with; "" when they begin with none.
std::string_view MacroName(std::string_view words) {
  const std::string_view name = words.substr(kMacroStart.size(), kMaxMacroName + kMacroEnd.size());
  const std::size_t end = name.find(kMacroEnd);
  return end == std::string_view::npos ? std::string_view() : name.substr(0, end);
}

// The macros of one rule. Each value is taken from its source once.
class Macros {
 public:
  Macros(const std::string& original, const MacroSource& source) : original_(original), source_(source) {}

  // The text that replaces {%name%}, or nullptr when there is no such macro. `at_line_begin` says that
  // it begins a line, where an original that is one reply keeps its own lines; any other value is one line.
  // Valid until the next call.
  const std::string* Value(std::string_view name, bool at_line_begin) {
    static const std::string kLineEnd(kCrLf);
    if (EqualNoCase(name, "crlf")) return &kLineEnd;
    const bool is_original = EqualNoCase(name, "original");
    if (is_original && at_line_begin && IsOneReply(original_)) return &original_;
    for (const Known& known : known_) {
      if (EqualNoCase(known.name, name)) return &known.value;
    }
    std::optional<std::string> value = is_original ? original_ : source_.Value(name);
    if (!value) return nullptr;
    return &known_.emplace_back(name, InOneLine(std::move(*value))).value;
  }

 private:
  struct Known {
    Known(std::string_view its_name, std::string its_value) : name(its_name), value(std::move(its_value)) {}
    std::string_view name;
    std::string value;
  };

  const std::string& original_;
  const MacroSource& source_;
  std::vector<Known> known_;
};

// `words` with each macro's value in its place, from left to right: what is put in is never searched again.
// `begins_reply` says that they begin a reply, and not somewhere in it. Nothing when the result would be
// longer than `limit`.
std::optional<std::string> ExpandMacros(std::string_view words, bool begins_reply,
                                        const std::string& original, const MacroSource& source,
                                        std::size_t limit) {
  Macros macros(original, source);
  std::string result;
  while (result.size() <= limit) {
    const std::size_t start = words.find(kMacroStart);
    result.append(words.substr(0, start));
    if (start == std::string_view::npos) return result;
    words.remove_prefix(start);
    const std::string_view name = MacroName(words);
    const bool begins_line = result.empty() ? begins_reply : result.ends_with(kCrLf);
    if (const std::string* const value = name.empty() ? nullptr : macros.Value(name, begins_line)) {
      result.append(*value);
      words.remove_prefix(kMacroStart.size() + name.size() + kMacroEnd.size());
    } else {
      result.append(kMacroStart);
      words.remove_prefix(kMacroStart.size());
    }
  }
  return std::nullopt;
}

}  // namespace

cReplace::cReplace(std::string search, std::string replacement, bool case_sensitive)
    : search_(std::move(search)),
      match_(WithLineBreaks(search_)),
      replacement_(std::move(replacement)),
      case_sensitive_(case_sensitive) {}

void cReplace::ApplyRule(std::string& text) const {
  Replace(text, replacement_);
}

void cReplace::ApplyRule(std::string& text, const std::string& original, const MacroSource& macros) const {
  if (replacement_.find(kMacroStart) == std::string::npos) return ApplyRule(text);
  const std::size_t occurrences = CountIn(text);
  if (occurrences == 0) return;
  const std::size_t limit = original.size() + kMaxGrowth_bytes;
  const auto expanded = ExpandMacros(replacement_, match_.empty(), original, macros, limit);
  const std::size_t kept = match_.empty() ? 0 : text.size() - occurrences * match_.size();
  const bool fits = expanded && kept + occurrences * expanded->size() <= limit;
  Replace(text, fits ? *expanded : replacement_);
}

std::size_t cReplace::CountIn(std::string_view text) const {
  if (match_.empty()) return 1;
  const auto find = [&](std::size_t from) {
    return case_sensitive_ ? text.find(match_, from) : FindNoCase(text, match_, from);
  };
  std::size_t count = 0;
  for (std::size_t at = find(0); at != std::string_view::npos; at = find(at + match_.size())) ++count;
  return count;
}

void cReplace::Replace(std::string& text, std::string_view replacement) const {
  if (match_.empty()) {
    text = replacement;
  } else if (case_sensitive_) {
    text = ReplaceAll(text, match_, replacement);
  } else {
    text = ReplaceAllNoCase(text, match_, replacement);
  }
}

std::string cReplace::Format() const {
  std::string replacement = "<" + replacement_ + ">";
  if (search_.empty()) return replacement;
  return "<" + search_ + (case_sensitive_ ? ">==" : ">=") + replacement;
}

const cReplace& cReplaces::Add(std::string search, std::string replacement, bool case_sensitive) {
  return rules_.emplace_back(std::move(search), std::move(replacement), case_sensitive);
}

void cReplaces::Apply(std::string& text, const MacroSource& macros, std::vector<std::size_t>* changed) const {
  try {
    std::string result = text;
    for (std::size_t index = 0; index < rules_.size(); ++index) {
      const std::string before = changed == nullptr ? std::string() : result;
      rules_[index].ApplyRule(result, text, macros);
      if (changed != nullptr && result != before) changed->push_back(index);
    }
    text = std::move(result);
  } catch (const Error& error) {
    throw Error(error.Number(), "cReplaces.Apply", error.Description());
  }
}

void ResponseChangeTable::Add(cReplaces replaces) {
  if (replaces.Count() == 0) return;
  if (index_.find(std::string_view(replaces.Name())) != index_.end()) {
    throw Error(error_number::kDuplicateKey, "ResponseChangeTable.Add",
                "This key is already associated with an element of this collection");
  }
  index_.emplace(replaces.Name(), lists_.size());
  folded_index_.try_emplace(FoldText(replaces.Name()), lists_.size());
  has_names_beyond_ascii_ = has_names_beyond_ascii_ || !IsAscii(replaces.Name());
  lists_.push_back(std::move(replaces));
}

const cReplaces* ResponseChangeTable::Find(std::string_view name) const {
  if (lists_.empty()) return nullptr;
  if (has_names_beyond_ascii_ || !IsAscii(name)) {
    const auto found = folded_index_.find(FoldText(name));
    return found == folded_index_.end() ? nullptr : &lists_[found->second];
  }
  const auto found = index_.find(name);
  return found == index_.end() ? nullptr : &lists_[found->second];
}

}  // namespace trabex

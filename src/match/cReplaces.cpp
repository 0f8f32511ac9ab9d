#include "match/cReplaces.h"

#include <utility>

#include "base/error.h"

namespace trabex {

namespace {

// How much longer than the original the macros may make a text. Some stand for what the client sent, which
// may itself be full of macros, and each rule expands anew: without a bound one short command could be blown
// up to gigabytes. No reply comes near it (RFC 5321, 4.5.3.1.5: 512 octets a line).
constexpr std::size_t kMaxGrowth_bytes = 65536;

bool IsIn(unsigned char byte, unsigned char low, unsigned char high) {
  return low <= byte && byte <= high;
}

// The length of the well-formed UTF-8 character that `text` begins with (RFC 3629, section 4), or 1 for any
// other byte.
std::size_t CharacterSize(std::string_view text) {
  const auto byte = [&](std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : static_cast<unsigned char>(0);
  };
  const auto continues = [&](std::size_t at) { return IsIn(byte(at), 0x80, 0xBF); };
  const unsigned char lead = byte(0);
  if (IsIn(lead, 0xC2, 0xDF)) return continues(1) ? 2 : 1;
  if (IsIn(lead, 0xE0, 0xEF)) {
    // No overlong forms, no surrogates.
    const bool second = IsIn(byte(1), lead == 0xE0 ? 0xA0 : 0x80, lead == 0xED ? 0x9F : 0xBF);
    return second && continues(2) ? 3 : 1;
  }
  if (IsIn(lead, 0xF0, 0xF4)) {
    // No overlong forms, nothing beyond U+10FFFF.
    const bool second = IsIn(byte(1), lead == 0xF0 ? 0x90 : 0x80, lead == 0xF4 ? 0x8F : 0xBF);
    return second && continues(2) && continues(3) ? 4 : 1;
  }
  return 1;
}

// `text` with every "¶" as CR LF. The single byte B6 is that sign too, but only where it is no part of
// another character.
std::string WithLineBreaks(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::string_view character = text.substr(0, CharacterSize(text));
    const bool is_sign = character == "\xC2\xB6" || character == "\xB6";
    result.append(is_sign ? kCrLf : character);
    text.remove_prefix(character.size());
  }
  return result;
}

// The part of an address behind its last "@"; all of it when there is none.
std::string Domain(const std::string& address) {
  const std::size_t at = address.rfind('@');
  return at == std::string::npos ? address : address.substr(at + 1);
}

struct Macro {
  std::string_view name;
  std::string (*value)(const MacroSource& macros, const std::string& original);
};

// In the order of their expansion: what one brings in, those after it expand.
constexpr Macro kMacros[] = {
    {"{%original%}", [](const MacroSource&, const std::string& original) { return original; }},
    {"{%localhostname%}",
     [](const MacroSource& macros, const std::string&) { return macros.LocalHostName(); }},
    {"{%rfctime%}", [](const MacroSource& macros, const std::string&) { return macros.RFCTime(); }},
    {"{%crlf%}", [](const MacroSource&, const std::string&) { return std::string(kCrLf); }},
    {"{%remotehostname%}",
     [](const MacroSource& macros, const std::string&) { return macros.RemoteHostName(); }},
    {"{%remotehostip%}", [](const MacroSource& macros, const std::string&) { return macros.RemoteHostIP(); }},
    {"{%helodomain%}", [](const MacroSource& macros, const std::string&) { return macros.HeloDomain(); }},
    {"{%bytesreceived%}",
     [](const MacroSource& macros, const std::string&) { return macros.BytesReceived(); }},
    {"{%bytessent%}", [](const MacroSource& macros, const std::string&) { return macros.BytesSent(); }},
    {"{%from%}", [](const MacroSource& macros, const std::string&) { return macros.From(); }},
    {"{%rcpt%}", [](const MacroSource& macros, const std::string&) { return macros.Rcpt(); }},
    {"{%fromdomain%}", [](const MacroSource& macros, const std::string&) { return Domain(macros.From()); }},
    {"{%rcptdomain%}", [](const MacroSource& macros, const std::string&) { return Domain(macros.Rcpt()); }},
    {"{%maxsize%}", [](const MacroSource& macros, const std::string&) { return macros.MaxSize(); }},
    {"{%size%}", [](const MacroSource& macros, const std::string&) { return macros.Size(); }},
};

// Replaces the occurrences of `name`, the first of which is at `at`. One that would make the text longer than
// `limit` stays as it is written.
void ReplaceMacro(std::string& text, std::size_t at, std::string_view name, std::string_view value,
                  std::size_t limit) {
  std::string result;
  std::size_t from = 0;
  std::size_t size = text.size();
  for (; at != std::string::npos; at = FindNoCase(text, name, from)) {
    if (value.size() > name.size() && size + (value.size() - name.size()) > limit) break;
    size = size + value.size() - name.size();
    result.append(text, from, at - from).append(value);
    from = at + name.size();
  }
  text = result.append(text, from);
}

void ExpandMacros(std::string& text, const std::string& original, const MacroSource& macros) {
  const std::size_t limit = original.size() + kMaxGrowth_bytes;
  for (const Macro& macro : kMacros) {
    // Every macro begins so, and most texts hold none.
    const std::size_t first = text.find("{%");
    if (first == std::string::npos) return;
    const std::size_t at = FindNoCase(text, macro.name, first);
    if (at != std::string::npos) ReplaceMacro(text, at, macro.name, macro.value(macros, original), limit);
  }
}

}  // namespace

cReplace::cReplace(std::string search, std::string replacement, bool case_sensitive)
    : search_(std::move(search)),
      match_(WithLineBreaks(search_)),
      replacement_(std::move(replacement)),
      case_sensitive_(case_sensitive) {}

void cReplace::ApplyRule(std::string& text) const {
  if (match_.empty()) {
    text = replacement_;
  } else if (case_sensitive_) {
    text = ReplaceAll(text, match_, replacement_);
  } else {
    text = ReplaceAllNoCase(text, match_, replacement_);
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

void cReplaces::Apply(std::string& text, const MacroSource& macros) const {
  try {
    std::string result = text;
    for (const cReplace& rule : rules_) {
      rule.ApplyRule(result);
      ExpandMacros(result, text, macros);
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
  lists_.push_back(std::move(replaces));
}

const cReplaces* ResponseChangeTable::Find(std::string_view name) const {
  const auto found = index_.find(name);
  return found == index_.end() ? nullptr : &lists_[found->second];
}

}  // namespace trabex

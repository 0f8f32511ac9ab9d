#include "match/pattern.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "base/error.h"
#include "base/text.h"
#include "base/unicode_fold.h"

namespace trabex::pattern {

namespace {

constexpr std::size_t kNone = std::string_view::npos;

// One element of a pattern as it is written.
struct Element {
  enum class Kind : std::uint8_t { kByte, kAny, kRun, kDigit, kList, kNotList, kEmpty, kUnclosed };
  Kind kind = Kind::kByte;
  char byte = 0;          // of kByte
  std::string_view list;  // of kList and kNotList: the text between the brackets, without the "!"
  std::size_t next = 0;   // where the next element begins
};

Element ReadList(std::string_view pattern, std::size_t at) {
  const std::size_t close = pattern.find(']', at + 1);
  if (close == kNone) return {Element::Kind::kUnclosed, 0, {}, pattern.size()};
  const std::string_view list = pattern.substr(at + 1, close - at - 1);
  if (list.empty()) return {Element::Kind::kEmpty, 0, {}, close + 1};
  if (list == "!") return {Element::Kind::kByte, '!', {}, close + 1};
  if (list.front() == '!') return {Element::Kind::kNotList, 0, list.substr(1), close + 1};
  return {Element::Kind::kList, 0, list, close + 1};
}

Element ReadElement(std::string_view pattern, std::size_t at) {
  switch (pattern[at]) {
    case '?':
      return {Element::Kind::kAny, 0, {}, at + 1};
    case '*':
      return {Element::Kind::kRun, 0, {}, at + 1};
    case '#':
      return {Element::Kind::kDigit, 0, {}, at + 1};
    case '[':
      return ReadList(pattern, at);
    default:
      return {Element::Kind::kByte, pattern[at], {}, at + 1};
  }
}

unsigned char Folded(char c, Case compare) {
  return static_cast<unsigned char>(compare == Case::kFolded ? ToLower(c) : c);
}

// Calls `visit(low, high)` for each byte or range of a list until it returns false; the result is whether it
// never did.
template <class Visit>
bool EachRange(std::string_view list, Case compare, Visit visit) {
  for (std::size_t at = 0; at < list.size();) {
    const bool is_range = list.size() - at >= 3 && list[at + 1] == '-';
    if (!visit(Folded(list[at], compare), Folded(list[is_range ? at + 2 : at], compare))) return false;
    at += is_range ? 3 : 1;
  }
  return true;
}

bool ListHolds(std::string_view list, char c, Case compare) {
  const unsigned char byte = Folded(c, compare);
  return !EachRange(list, compare,
                    [byte](unsigned char low, unsigned char high) { return byte < low || byte > high; });
}

bool IsMalformedElement(const Element& element, Case compare) {
  if (element.kind == Element::Kind::kUnclosed) return true;
  return !EachRange(element.list, compare, [](unsigned char low, unsigned char high) { return low <= high; });
}

// The match itself, for patterns in either form: greedy, with backtracking to the last run only. That is
// enough, because what comes before the run has matched at its earliest place, so a longer earlier run gains
// nothing.
template <class Form>
bool Run(std::string_view text, const Form& form, std::size_t position, std::size_t end) {
  std::size_t at = 0;
  std::size_t resume_position = kNone;
  std::size_t resume_at = 0;
  while (true) {
    if (position != end) {
      const auto code = form.Read(position);
      if (form.IsRun(code)) {
        position = form.Next(code, position);
        if (position == end) return true;
        resume_position = position;
        at = resume_at = form.Seek(position, text, at);
        continue;
      }
      if (form.IsEmpty(code)) {
        position = form.Next(code, position);
        continue;
      }
      // A byte is missing; with a longer run there would be fewer left still.
      if (at == text.size()) return false;
      if (form.Takes(code, text[at])) {
        ++at;
        position = form.Next(code, position);
        continue;
      }
    } else if (at == text.size()) {
      return true;
    }
    if (resume_position == kNone) return false;
    at = resume_at = form.Seek(resume_position, text, resume_at + 1);
    position = resume_position;
  }
}

// A pattern as it is written.
struct WrittenForm {
  std::string_view pattern;
  Case compare;

  Element Read(std::size_t position) const { return ReadElement(pattern, position); }
  static std::size_t Next(const Element& element, std::size_t /*position*/) { return element.next; }
  // Where from `at` on a run may end at the soonest.
  static std::size_t Seek(std::size_t /*position*/, std::string_view /*text*/, std::size_t at) { return at; }
  static bool IsRun(const Element& element) { return element.kind == Element::Kind::kRun; }
  static bool IsEmpty(const Element& element) { return element.kind == Element::Kind::kEmpty; }
  bool Takes(const Element& element, char c) const {
    switch (element.kind) {
      case Element::Kind::kByte:
        return Folded(element.byte, compare) == Folded(c, compare);
      case Element::Kind::kAny:
        return true;
      case Element::Kind::kDigit:
        return IsDigit(c);
      case Element::Kind::kList:
        return ListHolds(element.list, c, compare);
      case Element::Kind::kNotList:
        return !ListHolds(element.list, c, compare);
      default:
        return false;
    }
  }
};

// Codes of compiled patterns as they are read: a byte, a wildcard by its own character above the bytes, or a
// list. They are stored in one byte each, a list in five. No byte is taken for a wildcard then, since a
// pattern can have a plain "?", "*", "#" or "[" inside brackets only.
constexpr std::uint32_t kWildcard = 256;
constexpr std::uint32_t kAnyCode = kWildcard + '?';
constexpr std::uint32_t kDigitCode = kWildcard + '#';
constexpr std::uint32_t kRunCode = kWildcard + '*';
constexpr std::uint32_t kFirstList = 2 * kWildcard;
constexpr std::size_t kStoredListSize = 5;

}  // namespace

bool IsMalformed(std::string_view pattern, Case compare) {
  for (std::size_t at = pattern.find('['); at != kNone; at = pattern.find('[', at)) {
    const Element element = ReadList(pattern, at);
    if (IsMalformedElement(element, compare)) return true;
    at = element.next;
  }
  return false;
}

bool Matches(std::string_view text, std::string_view pattern, Case compare) {
  return Run(text, WrittenForm{pattern, compare}, 0, pattern.size());
}

std::string FoldPattern(std::string_view pattern) {
  std::string result;
  std::string plain;
  const auto fold_plain = [&] {
    for (const char c : FoldText(std::exchange(plain, {}))) {
      if (std::string_view("?*#[").find(c) != kNone) {
        result.append("[").append(1, c).append("]");
      } else {
        result.push_back(c);
      }
    }
  };
  for (std::size_t at = 0; at < pattern.size();) {
    const Element element = ReadElement(pattern, at);
    if (element.kind == Element::Kind::kByte) {
      plain.push_back(element.byte);
    } else if (element.kind != Element::Kind::kEmpty || at == 0) {
      // Elsewhere "[]" matches nothing, and would turn the pattern round if all before it were dropped.
      fold_plain();
      result.append(pattern.substr(at, element.next - at));
    }
    at = element.next;
  }
  fold_plain();
  // What is not that of which nothing is left is not empty.
  if (IsNegated(pattern) && result == "[]") result.append("[]");
  return result;
}

Kind Classify(std::string_view pattern) {
  const std::size_t wildcard = pattern.find_first_of("?*#[");
  if (wildcard == kNone) return Kind::kText;
  if (wildcard != 0 || pattern[0] != '*') return Kind::kOther;
  return pattern.find_first_of("?*#[", 1) == kNone ? Kind::kSuffix : Kind::kOther;
}

struct PatternStore::CompiledForm {
  const PatternStore& store;

  std::uint32_t Read(std::size_t position) const {
    const char c = store.bytes_[position];
    switch (c) {
      case '?':
        return kAnyCode;
      case '#':
        return kDigitCode;
      case '*':
        return kRunCode;
      case '[': {
        std::uint32_t list = 0;
        store.bytes_.copy(reinterpret_cast<char*>(&list), sizeof list, position + 1);
        return kFirstList + list;
      }
      default:
        return static_cast<unsigned char>(c);
    }
  }
  static std::size_t Next(std::uint32_t code, std::size_t position) {
    return position + (code < kFirstList ? 1 : kStoredListSize);
  }
  // The place of the byte that follows the run.
  std::size_t Seek(std::size_t position, std::string_view text, std::size_t at) const {
    const std::uint32_t code = Read(position);
    return code < kWildcard ? std::min(text.find(static_cast<char>(code), at), text.size()) : at;
  }
  static bool IsRun(std::uint32_t code) { return code == kRunCode; }
  static bool IsEmpty(std::uint32_t /*code*/) { return false; }
  bool Takes(std::uint32_t code, char c) const {
    if (code < kWildcard) return code == static_cast<unsigned char>(c);
    if (code == kAnyCode) return true;
    if (code == kDigitCode) return IsDigit(c);
    return store.lists_[code - kFirstList][static_cast<unsigned char>(c)];
  }
};

std::uint32_t PatternStore::ListCode(std::string_view list, bool negated) {
  const auto next = static_cast<std::uint32_t>(lists_.size());
  const auto [known, is_new] = list_codes_.try_emplace((negated ? "!" : "=") + std::string(list), next);
  if (!is_new) return kFirstList + known->second;
  std::bitset<256> bytes;
  for (unsigned byte = 0; byte < 256; ++byte) {
    bytes[byte] = ListHolds(list, static_cast<char>(byte), Case::kFolded) != negated;
  }
  lists_.push_back(bytes);
  return kFirstList + next;
}

std::uint32_t PatternStore::CodeOf(std::string_view pattern, std::size_t at) {
  const Element element = ReadElement(pattern, at);
  switch (element.kind) {
    case Element::Kind::kByte:
      return Folded(element.byte, Case::kFolded);
    case Element::Kind::kList:
    case Element::Kind::kNotList:
      return ListCode(element.list, element.kind == Element::Kind::kNotList);
    default:
      return kWildcard + static_cast<unsigned char>(pattern[at]);
  }
}

void PatternStore::Store(std::uint32_t code) {
  if (code < kFirstList) {
    bytes_.push_back(static_cast<char>(code % kWildcard));
    return;
  }
  const std::uint32_t list = code - kFirstList;
  bytes_.push_back('[');
  bytes_.append(reinterpret_cast<const char*>(&list), sizeof list);
}

CompiledPattern PatternStore::Compile(std::string_view pattern) {
  CompiledPattern compiled;
  compiled.malformed = IsMalformed(pattern, Case::kFolded);
  if (compiled.malformed) return compiled;
  if (bytes_.size() + kStoredListSize * pattern.size() > std::numeric_limits<std::uint32_t>::max()) {
    throw Error(error_number::kOutOfMemory, "mText.ExpressionList", "Out of memory");
  }
  compiled.negated = IsNegated(pattern);
  if (compiled.negated) pattern.remove_prefix(2);
  compiled.begin = static_cast<std::uint32_t>(bytes_.size());
  for (std::size_t at = 0; at < pattern.size(); at = ReadElement(pattern, at).next) {
    if (ReadElement(pattern, at).kind == Element::Kind::kEmpty) continue;
    const std::uint32_t code = CodeOf(pattern, at);
    // Runs in a row are one.
    if (code == kRunCode && compiled.last == kRunCode) continue;
    Store(code);
    compiled.last = code;
    compiled.has_run = compiled.has_run || code == kRunCode;
    if (code != kRunCode) ++compiled.min_size;
  }
  compiled.end = static_cast<std::uint32_t>(bytes_.size());
  return compiled;
}

std::uint32_t PatternStore::FirstByteClass(const CompiledPattern& compiled) const {
  if (compiled.negated || compiled.begin == compiled.end) return kAnyFirstByte;
  const std::uint32_t code = CompiledForm{*this}.Read(compiled.begin);
  return code == kRunCode ? kAnyFirstByte : code;
}

bool PatternStore::BeginsWith(std::string_view folded_text, std::uint32_t first_byte_class) const {
  if (first_byte_class == kAnyFirstByte) return true;
  return !folded_text.empty() && CompiledForm{*this}.Takes(first_byte_class, folded_text.front());
}

bool PatternStore::Matches(const CompiledPattern& compiled, std::string_view folded_text) const {
  const CompiledForm form{*this};
  const std::size_t size = folded_text.size();
  // Most texts fail by their size or their last byte, so these are compared first.
  bool possible = compiled.has_run ? size >= compiled.min_size : size == compiled.min_size;
  if (possible && compiled.min_size > 0 && compiled.last != kRunCode) {
    possible = form.Takes(compiled.last, folded_text.back());
  }
  return (possible && Run(folded_text, form, compiled.begin, compiled.end)) != compiled.negated;
}

}  // namespace trabex::pattern

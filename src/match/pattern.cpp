#include "match/pattern.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "base/error.h"
#include "base/text.h"
#include "base/unicode_fold.h"
#include "match/pattern_run.h"

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

bool IsWildcard(char c) {
  return c == '?' || c == '*' || c == '#' || c == '[';
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

// The bytes that a list takes.
ByteSet BytesOfList(std::string_view list, bool negated, Case compare) {
  ByteSet bytes;
  EachRange(list, compare, [&bytes](unsigned char low, unsigned char high) {
    bytes.AddRange(low, high);
    return true;
  });
  if (compare == Case::kFolded) bytes.FoldCase();
  if (negated) bytes.Invert();
  return bytes;
}

ByteSet BytesFrom(char low, char high) {
  ByteSet bytes;
  bytes.AddRange(static_cast<unsigned char>(low), static_cast<unsigned char>(high));
  return bytes;
}

ByteSet AnyByte() {
  return BytesFrom('\0', '\xFF');
}

bool IsMalformedElement(const Element& element, Case compare) {
  if (element.kind == Element::Kind::kUnclosed) return true;
  return !EachRange(element.list, compare, [](unsigned char low, unsigned char high) { return low <= high; });
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
  ByteSet Bytes(const Element& element) const {
    switch (element.kind) {
      case Element::Kind::kByte:
        return BytesOfList({&element.byte, 1}, false, compare);
      case Element::Kind::kAny:
        return AnyByte();
      case Element::Kind::kDigit:
        return BytesFrom('0', '9');
      case Element::Kind::kList:
      case Element::Kind::kNotList:
        return BytesOfList(element.list, element.kind == Element::Kind::kNotList, compare);
      default:
        return {};
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

// Of an element that is no list.
std::uint32_t PlainCodeOf(const Element& element) {
  switch (element.kind) {
    case Element::Kind::kAny:
      return kAnyCode;
    case Element::Kind::kRun:
      return kRunCode;
    case Element::Kind::kDigit:
      return kDigitCode;
    default:
      return Folded(element.byte, Case::kFolded);
  }
}

// So that a code fits into the bits that a compiled pattern has for it.
constexpr std::uint32_t kMaxCode = (std::uint32_t{1} << 29) - 1;
constexpr std::size_t kMaxLists = kMaxCode - kFirstList;

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
    return store.lists_[code - kFirstList].Holds(static_cast<unsigned char>(c));
  }
  ByteSet Bytes(std::uint32_t code) const {
    if (code < kWildcard) return BytesFrom(static_cast<char>(code), static_cast<char>(code));
    if (code == kAnyCode) return AnyByte();
    if (code == kDigitCode) return BytesFrom('0', '9');
    return store.lists_[code - kFirstList];
  }
};

std::uint32_t PatternStore::ListCode(std::string_view list, bool negated) {
  const auto next = static_cast<std::uint32_t>(lists_.size());
  const auto [known, is_new] = list_codes_.try_emplace((negated ? "!" : "=") + std::string(list), next);
  if (!is_new) return kFirstList + known->second;
  lists_.push_back(BytesOfList(list, negated, Case::kFolded));
  return kFirstList + next;
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

std::uint32_t PatternStore::Compile(std::string_view pattern) {
  const bool malformed = pattern::IsMalformed(pattern, Case::kFolded);
  if (!malformed &&
      (bytes_.size() + kStoredListSize * pattern.size() > std::numeric_limits<std::uint32_t>::max() ||
       lists_.size() + pattern.size() > kMaxLists)) {
    throw Error(error_number::kOutOfMemory, "mText.ExpressionList", "Out of memory");
  }
  const auto number = static_cast<std::uint32_t>(patterns_.size());
  patterns_.push_back({.begin = static_cast<std::uint32_t>(bytes_.size()),
                       .min_size = 0,
                       .last = 0,
                       .has_run = 0,
                       .negated = IsNegated(pattern) ? 1U : 0U,
                       .malformed = malformed ? 1U : 0U});
  if (malformed) return number;
  Compiled& compiled = patterns_.back();
  if (compiled.negated != 0) pattern.remove_prefix(2);
  for (std::size_t at = 0; at < pattern.size();) {
    if (!IsWildcard(pattern[at])) {
      const std::string_view rest = pattern.substr(at);
      const std::string plain = ToLower({rest.begin(), std::find_if(rest.begin(), rest.end(), IsWildcard)});
      bytes_.append(plain);
      compiled.min_size += static_cast<std::uint32_t>(plain.size());
      compiled.last = static_cast<unsigned char>(plain.back());
      at += plain.size();
      continue;
    }
    const Element element = ReadElement(pattern, at);
    at = element.next;
    if (element.kind == Element::Kind::kEmpty) continue;
    const std::uint32_t code = element.list.empty()
                                   ? PlainCodeOf(element)
                                   : ListCode(element.list, element.kind == Element::Kind::kNotList);
    // Runs in a row are one.
    if (code == kRunCode && compiled.last == kRunCode) continue;
    Store(code);
    compiled.last = code & kMaxCode;
    if (code == kRunCode) {
      compiled.has_run = 1;
    } else {
      ++compiled.min_size;
    }
  }
  return number;
}

std::uint32_t PatternStore::End(std::uint32_t number) const {
  return number + 1 < patterns_.size() ? patterns_[number + 1].begin
                                       : static_cast<std::uint32_t>(bytes_.size());
}

void PatternStore::AppendRequiredTexts(std::uint32_t number, std::size_t min_size,
                                       std::vector<std::string_view>& texts) const {
  if (patterns_[number].negated != 0) return;
  const CompiledForm form{*this};
  const std::uint32_t end = End(number);
  std::size_t begin = patterns_[number].begin;
  for (std::size_t position = begin;;) {
    const std::uint32_t code = position == end ? kRunCode : form.Read(position);
    if (code >= kWildcard) {
      if (position - begin >= min_size)
        texts.push_back(std::string_view(bytes_).substr(begin, position - begin));
      if (position == end) return;
      begin = form.Next(code, position);
    }
    position = form.Next(code, position);
  }
}

std::uint32_t PatternStore::FirstByteClass(std::uint32_t number) const {
  const Compiled& compiled = patterns_[number];
  if (compiled.negated != 0 || compiled.begin == End(number)) return kAnyFirstByte;
  const std::uint32_t code = CompiledForm{*this}.Read(compiled.begin);
  return code == kRunCode ? kAnyFirstByte : code;
}

bool PatternStore::BeginsWith(std::string_view folded_text, std::uint32_t first_byte_class) const {
  if (first_byte_class == kAnyFirstByte) return true;
  return !folded_text.empty() && CompiledForm{*this}.Takes(first_byte_class, folded_text.front());
}

void PatternStore::Shrink() {
  bytes_.shrink_to_fit();
  patterns_.shrink_to_fit();
}

bool PatternStore::Matches(std::uint32_t number, std::string_view folded_text) const {
  const CompiledForm form{*this};
  const Compiled& compiled = patterns_[number];
  const std::size_t size = folded_text.size();
  // Most texts fail by their size or their last byte, so these are compared first.
  bool possible = compiled.has_run != 0 ? size >= compiled.min_size : size == compiled.min_size;
  if (possible && compiled.min_size > 0 && compiled.last != kRunCode) {
    possible = form.Takes(compiled.last, folded_text.back());
  }
  return (possible && Run(folded_text, form, compiled.begin, End(number))) != (compiled.negated != 0);
}

}  // namespace trabex::pattern

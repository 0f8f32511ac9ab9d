#include "base/unicode_fold.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

#include "base/text.h"
#include "base/utf8.h"
#include "base/visible_text.h"

namespace trabex {

namespace {

// The length of the well-formed run at the front of `text`.
std::size_t WellFormedLength(std::string_view text) {
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t size = FirstUtf8Character(text.substr(at)).size;
    if (size == 0) break;
    at += size;
  }
  return at;
}

// Whether `holds(code point)` for every character of `text`, which has to be well-formed.
template <class Holds>
bool AllCharacters(std::string_view text, Holds holds) {
  while (!text.empty()) {
    const Utf8Character character = FirstUtf8Character(text);
    if (character.size == 0 || !holds(static_cast<utf8proc_int32_t>(character.code))) return false;
    text.remove_prefix(character.size);
  }
  return true;
}

constexpr int kDecompose = UTF8PROC_STABLE | UTF8PROC_DECOMPOSE;
constexpr int kCompose = UTF8PROC_STABLE | UTF8PROC_COMPOSE;
constexpr int kFold = kCompose | UTF8PROC_COMPAT | UTF8PROC_CASEFOLD;

utf8proc_option_t Options(int options) {
  return static_cast<utf8proc_option_t>(options);
}

// `text` is well-formed.
std::u32string CharactersOf(std::string_view text) {
  std::u32string characters;
  for (; !text.empty(); text.remove_prefix(FirstUtf8Character(text).size)) {
    characters.push_back(FirstUtf8Character(text).code);
  }
  return characters;
}

// Puts the marks after each letter in canonical order (D109 of the Unicode Standard). utf8proc_map would
// take quadratic time for many marks.
void OrderMarks(std::vector<utf8proc_int32_t>& characters) {
  const auto order = [](utf8proc_int32_t code_point) {
    return utf8proc_get_property(code_point)->combining_class;
  };
  const auto is_mark = [order](utf8proc_int32_t code_point) { return order(code_point) != 0; };
  const auto by_order = [order](utf8proc_int32_t a, utf8proc_int32_t b) { return order(a) < order(b); };
  for (auto at = characters.begin(); at != characters.end();) {
    at = std::find_if(at, characters.end(), is_mark);
    const auto end = std::find_if_not(at, characters.end(), is_mark);
    if (end - at > 1) std::stable_sort(at, end, by_order);
    at = end;
  }
}

// The decomposition of each character by the options, in canonical order.
template <class Characters>
std::vector<utf8proc_int32_t> Decomposed(const Characters& characters, int options) {
  std::array<utf8proc_int32_t, 32> parts{};  // one character has 18 at most
  std::vector<utf8proc_int32_t> result;
  result.reserve(characters.size());
  int boundary = UTF8PROC_BOUNDCLASS_START;
  for (const auto character : characters) {
    const utf8proc_ssize_t count =
        utf8proc_decompose_char(static_cast<utf8proc_int32_t>(character), parts.data(),
                                static_cast<utf8proc_ssize_t>(parts.size()), Options(options), &boundary);
    result.insert(result.end(), parts.begin(), parts.begin() + count);
  }
  OrderMarks(result);
  return result;
}

std::string Encoded(const std::vector<utf8proc_int32_t>& characters) {
  std::string result;
  std::array<utf8proc_uint8_t, 4> bytes{};
  for (const utf8proc_int32_t character : characters) {
    const auto size = static_cast<std::size_t>(utf8proc_encode_char(character, bytes.data()));
    result.append(reinterpret_cast<const char*>(bytes.data()), size);
  }
  return result;
}

// As UTF-8, with letters and marks made one where that is a character of its own.
std::string Composed(std::vector<utf8proc_int32_t> characters) {
  characters.resize(static_cast<std::size_t>(utf8proc_normalize_utf32(
      characters.data(), static_cast<utf8proc_ssize_t>(characters.size()), Options(kCompose))));
  return Encoded(characters);
}

// Marks are brought into their order first: U+0345 folds to a letter, after which they would stay as they
// are (D147 of the Unicode Standard).
std::string FoldWellFormed(std::string_view text, int more_options) {
  return Composed(Decomposed(Decomposed(CharactersOf(text), kDecompose), kFold | more_options));
}

// Nothing is dropped here: the bytes on both sides of what is dropped could make up a new character.
std::string FoldRuns(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::size_t run = WellFormedLength(text);
    result.append(FoldWellFormed(text.substr(0, run), 0));
    text.remove_prefix(run);
    if (text.empty()) break;
    result.push_back(text.front());
    text.remove_prefix(1);
  }
  return result;
}

bool IsAddressCharacter(utf8proc_int32_t code_point) {
  if (code_point < 128) return true;
  switch (utf8proc_category(code_point)) {
    case UTF8PROC_CATEGORY_CN:
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_CS:
    case UTF8PROC_CATEGORY_CO:
    case UTF8PROC_CATEGORY_ZS:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
      return false;
    default:
      // The others that a log does not show turn the text around them about, or repeat ASCII unseen.
      return IsVisible(static_cast<char32_t>(code_point));
  }
}

}  // namespace

bool IsAscii(std::string_view text) {
  constexpr std::uint64_t kHighBits = 0x8080808080808080ULL;
  std::uint64_t bits = 0;
  std::size_t at = 0;
  for (; at + sizeof bits <= text.size(); at += sizeof bits) {
    std::uint64_t eight = 0;
    std::memcpy(&eight, text.data() + at, sizeof eight);
    bits |= eight;
  }
  for (; at < text.size(); ++at) bits |= static_cast<unsigned char>(text[at]);
  return (bits & kHighBits) == 0;
}

std::string FoldText(std::string_view text) {
  if (IsAscii(text)) return ToLower(text);
  if (WellFormedLength(text) == text.size()) return FoldWellFormed(text, UTF8PROC_IGNORE);
  return FoldRuns(text);
}

bool FoldsLikeItsCaseFolding(std::string_view text) {
  if (IsAscii(text)) return true;
  return FoldText(Encoded(Decomposed(CharactersOf(text), UTF8PROC_STABLE | UTF8PROC_CASEFOLD))) ==
         FoldText(text);
}

bool EqualFolded(std::string_view a, std::string_view b) {
  if (IsAscii(a) && IsAscii(b)) return EqualNoCase(a, b);
  return FoldText(a) == FoldText(b);
}

bool EndsWithFolded(std::string_view text, std::string_view suffix) {
  if (IsAscii(text) && IsAscii(suffix)) return EndsWithNoCase(text, suffix);
  return FoldText(text).ends_with(FoldText(suffix));
}

bool HoldsAddressCharacters(std::string_view text) {
  return IsAscii(text) || AllCharacters(text, IsAddressCharacter);
}

bool HoldsIgnorable(std::string_view text) {
  return !IsAscii(text) && !AllCharacters(text, [](utf8proc_int32_t code_point) {
    return utf8proc_get_property(code_point)->ignorable == 0;
  });
}

}  // namespace trabex

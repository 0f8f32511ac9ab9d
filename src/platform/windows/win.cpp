#include "platform/windows/win.h"

#include <cstddef>

#include "base/utf8.h"

namespace trabex {

namespace {

constexpr char32_t kReplacement = 0xFFFD;
// Code points from here on are a pair in UTF-16.
constexpr char32_t kFirstOfPairs = 0x10000;
constexpr char32_t kHighHalf = 0xD800;
constexpr char32_t kLowHalf = 0xDC00;
constexpr char32_t kBeyondHalves = 0xE000;
constexpr unsigned kHalfBits = 10;

void AppendWide(std::wstring& text, char32_t code) {
  if (code < kFirstOfPairs) {
    text += static_cast<wchar_t>(code);
    return;
  }
  const char32_t rest = code - kFirstOfPairs;
  text += static_cast<wchar_t>(kHighHalf + (rest >> kHalfBits));
  text += static_cast<wchar_t>(kLowHalf + (rest & ((1U << kHalfBits) - 1)));
}

void AppendUtf8(std::string& text, char32_t code) {
  const auto add = [&](char32_t byte) { text += static_cast<char>(byte); };
  if (code < 0x80) {
    add(code);
    return;
  }
  if (code < 0x800) {
    add(0xC0 | (code >> 6));
  } else {
    if (code < kFirstOfPairs) {
      add(0xE0 | (code >> 12));
    } else {
      add(0xF0 | (code >> 18));
      add(0x80 | ((code >> 12) & 0x3F));
    }
    add(0x80 | ((code >> 6) & 0x3F));
  }
  add(0x80 | (code & 0x3F));
}

// `bad`, when wanted, says whether a byte was replaced.
std::wstring ToWide(std::string_view utf8, bool* bad) {
  std::wstring result;
  result.reserve(utf8.size());
  while (!utf8.empty()) {
    const Utf8Character character = FirstUtf8Character(utf8);
    if (character.size == 0 && bad != nullptr) *bad = true;
    AppendWide(result, character.size == 0 ? kReplacement : character.code);
    utf8.remove_prefix(character.size == 0 ? 1 : character.size);
  }
  return result;
}

}  // namespace

std::wstring Wide(std::string_view utf8) {
  return ToWide(utf8, nullptr);
}

std::optional<std::wstring> StrictWide(std::string_view utf8) {
  bool bad = false;
  std::wstring result = ToWide(utf8, &bad);
  if (bad) return std::nullopt;
  return result;
}

std::string Utf8(std::wstring_view utf16) {
  std::string result;
  result.reserve(utf16.size());
  for (std::size_t i = 0; i < utf16.size(); ++i) {
    char32_t code = utf16[i];
    if (code >= kHighHalf && code < kBeyondHalves) {
      const char32_t next = i + 1 < utf16.size() ? utf16[i + 1] : 0;
      if (code < kLowHalf && next >= kLowHalf && next < kBeyondHalves) {
        code = kFirstOfPairs + ((code - kHighHalf) << kHalfBits) + (next - kLowHalf);
        ++i;
      } else {
        code = kReplacement;
      }
    }
    AppendUtf8(result, code);
  }
  return result;
}

}  // namespace trabex

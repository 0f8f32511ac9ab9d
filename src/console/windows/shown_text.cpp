#include "console/windows/shown_text.h"

#include "base/visible_text.h"

namespace trabex {

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kFirstBeyondOneUnit = 0x10000;

void AppendUtf16(std::wstring& text, char32_t code) {
  if (code < kFirstBeyondOneUnit) {
    text.push_back(static_cast<wchar_t>(code));
    return;
  }
  const char32_t rest = code - kFirstBeyondOneUnit;
  text.push_back(static_cast<wchar_t>(0xD800 + (rest >> 10)));
  text.push_back(static_cast<wchar_t>(0xDC00 + (rest & 0x3FF)));
}

}  // namespace

std::wstring ShownText(std::string_view text) {
  std::wstring shown;
  shown.reserve(text.size());
  while (!text.empty()) {
    const TextPiece piece = FirstPiece(text);
    if (!piece.is_character) {
      shown.push_back(static_cast<wchar_t>(kReplacement));
    } else if (piece.visible) {
      AppendUtf16(shown, piece.code);
    } else {
      shown.push_back(L'?');
    }
    text.remove_prefix(piece.size);
  }
  return shown;
}

}  // namespace trabex

#include "proxy/session_log.h"

#include <algorithm>
#include <cstddef>

#include "base/text.h"
#include "base/visible_text.h"
#include "config/configuration.h"

namespace trabex {

namespace {

constexpr std::string_view kLineBreakSign = "\xC2\xB6";
constexpr std::size_t kHandleWidth = 6;
constexpr std::size_t kAddressWidth = 15;

// Most of what a peer sends is this.
bool IsPlain(char c) {
  return c >= ' ' && c <= '~';
}

void AppendVisible(std::string& line, std::string_view text) {
  std::size_t from = 0;
  for (std::size_t at = 0;;) {
    at = static_cast<std::size_t>(
        std::find_if_not(text.begin() + static_cast<std::ptrdiff_t>(at), text.end(), IsPlain) - text.begin());
    if (at == text.size()) break;
    const std::string_view rest = text.substr(at);
    const TextPiece piece = FirstPiece(rest);
    std::size_t size = piece.size;
    if (piece.visible) {
      at += size;
      continue;
    }
    line.append(text.substr(from, at - from));
    if (rest.starts_with(kCrLf)) {
      line.append(kLineBreakSign);
      size = kCrLf.size();
    } else {
      AppendHex(line, rest.substr(0, size));
    }
    at += size;
    from = at;
  }
  line.append(text.substr(from));
}

}  // namespace

std::string_view LogMark(std::int32_t level) {
  return level == log_level::kReceived ? "< " : level == log_level::kSent ? "> " : "";
}

std::string FormatSessionLine(std::string_view side_tag, std::int32_t handle, const IPAddress& address,
                              std::string_view text, std::string_view mark) {
  std::string line;
  line.reserve(side_tag.size() + text.size() + 32);
  line.append(side_tag).append("{");
  AppendAlignedRight(line, std::to_string(handle), kHandleWidth);
  line.append("} [");
  AppendAlignedRight(line, address.IsNone() ? "   Undefined   " : FormatIPAddress(address), kAddressWidth);
  line.append("] ").append(mark);
  AppendVisible(line, text);
  return line;
}

}  // namespace trabex

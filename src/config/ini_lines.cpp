#include "config/ini_lines.h"

#include "base/text.h"

namespace trabex {

IniLines::IniLines(std::string_view text) : rest_(text) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (rest_.starts_with(kByteOrderMark)) rest_.remove_prefix(kByteOrderMark.size());
}

bool IniLines::Next(std::string_view& line) {
  if (rest_.empty()) return false;
  std::size_t end = 0;
  while (end < rest_.size() && rest_[end] != '\r' && rest_[end] != '\n') ++end;
  line = Trim(rest_.substr(0, end));
  ++number_;
  std::size_t next = end;
  if (next < rest_.size()) next += rest_.substr(next, 2) == kCrLf ? 2 : 1;
  rest_.remove_prefix(next);
  return true;
}

bool LastLineHasEnd(std::string_view text) {
  return text.ends_with('\n') || text.ends_with('\r');
}

}  // namespace trabex

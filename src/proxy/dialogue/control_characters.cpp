#include "proxy/dialogue/control_characters.h"

#include "base/text.h"

namespace trabex {

std::size_t ControlSize(std::string_view text) {
  if (IsControl(text[0])) return 1;
  const bool two_bytes =
      text[0] == '\xC2' && text.size() > 1 && (static_cast<unsigned char>(text[1]) & 0xE0) == 0x80;
  return two_bytes ? 2 : 0;
}

bool HoldsControl(std::string_view text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\t' && ControlSize(text.substr(at)) > 0) return true;
  }
  return false;
}

}  // namespace trabex

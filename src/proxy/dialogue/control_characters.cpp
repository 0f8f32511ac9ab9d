#include "proxy/dialogue/control_characters.h"

#include "base/text.h"

namespace trabex {

bool HoldsControl(std::string_view text) {
  char before = 0;
  for (const char byte : text) {
    if (IsControl(byte) && byte != '\t') return true;
    if (before == '\xC2' && (static_cast<unsigned char>(byte) & 0xE0) == 0x80) return true;
    before = byte;
  }
  return false;
}

}  // namespace trabex

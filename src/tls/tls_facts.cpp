#include "tls/tls_facts.h"

namespace trabex {

std::string CleanPeerText(std::string_view text, std::size_t max) {
  std::string clean(text.substr(0, max));
  for (char& c : clean) {
    if (c < 0x20 || c > 0x7E) c = '?';
  }
  return clean;
}

}  // namespace trabex

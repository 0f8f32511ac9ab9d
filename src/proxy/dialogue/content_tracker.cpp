#include "proxy/dialogue/content_tracker.h"

#include <algorithm>
#include <cstring>

namespace trabex {

ContentTracker::Step ContentTracker::PassOctets(std::size_t count) {
  const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(*octets_left_, count));
  *octets_left_ -= taken;
  return {taken, *octets_left_ > 0 ? Outcome::kGoesOn : Outcome::kEnded};
}

ContentTracker::Step ContentTracker::ScanDot(std::string_view bytes) {
  std::size_t at = 0;
  while (at < bytes.size()) {
    const char byte = bytes[at];
    const bool ends_line = byte == '\r' || byte == '\n' || byte == '\0';
    if (before_ == Before::kDoubtfulDot && ends_line) return {at, Outcome::kAmbiguous};
    if (before_ == Before::kDot && ends_line) {
      if (byte != '\r') return {at, Outcome::kAmbiguous};
      if (at + 1 == bytes.size()) return {at, Outcome::kGoesOn};
      if (bytes[at + 1] != '\n') return {at, Outcome::kAmbiguous};
      return {at + 2, Outcome::kEnded};
    }
    switch (byte) {
      case '\r':
        before_ = Before::kCr;
        break;
      case '\n':
        before_ = before_ == Before::kCr ? Before::kLineStart : Before::kBareLf;
        break;
      case '.':
        before_ = before_ == Before::kLineStart                          ? Before::kDot
                  : before_ == Before::kCr || before_ == Before::kBareLf ? Before::kDoubtfulDot
                                                                         : Before::kOther;
        break;
      default: {
        before_ = Before::kOther;
        // Only a dot after a line end matters: go to the next dot, and look at the two bytes before it.
        const void* dot = std::memchr(bytes.data() + at, '.', bytes.size() - at);
        const std::size_t next =
            dot ? static_cast<std::size_t>(static_cast<const char*>(dot) - bytes.data()) : bytes.size();
        if (next > at + 2) {
          at = next - 2;
          continue;
        }
      }
    }
    ++at;
  }
  return {at, Outcome::kGoesOn};
}

}  // namespace trabex

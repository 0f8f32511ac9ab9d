// Where message content ends: at the line with the single dot after DATA (RFC 5321, 4.1.1.4), after a count
// of octets with BDAT (RFC 3030) and XEXCH50. Nothing after the end of content may reach the server as if it
// belonged to it, and nothing of the content may be taken for a command.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace trabex {

class ContentTracker {
 public:
  // What became of the bytes given to Scan.
  enum class Outcome {
    kGoesOn,     // content goes on after them
    kEnded,      // their last byte is the last one of the content
    kAmbiguous,  // the next byte would end the message for some servers only; forward nothing more
  };
  struct Step {
    // How many from the front are content; the others must be given again, with what follows.
    std::size_t bytes = 0;
    Outcome outcome = Outcome::kGoesOn;
  };

  // Whether a count tells where the content ends, and not a dot.
  bool IsCounted() const { return octets_left_.has_value(); }
  // Octets that are still to come; 0 for content that ends with a dot.
  std::uint64_t OctetsLeft() const { return octets_left_.value_or(0); }

  // Whether the last octet scanned may be that of the line with the single dot, where a dot ends the content.
  bool EndsInDot() const { return before_ == Before::kDot; }

  void BeginDot() { *this = {}; }
  void BeginOctets(std::uint64_t count) { octets_left_ = count; }

  // Scans the next bytes of the client (not empty). After kEnded new content is begun before the next call;
  // after kAmbiguous the tracker stays where it is. After a dot that may be the last one a trailing CR is
  // withheld (Step::bytes is short) until the next byte is known.
  Step Scan(std::string_view bytes) { return octets_left_ ? PassOctets(bytes.size()) : ScanDot(bytes); }
  // The same for `count` bytes that nobody has looked at. Only where OctetsLeft() is not 0.
  Step PassOctets(std::size_t count);

 private:
  // What the byte before the current one means for a dot.
  enum class Before {
    kLineStart,  // the start of the content, or CR LF
    kOther,
    kCr,           // a CR (a LF makes it kLineStart)
    kBareLf,       // a LF without CR
    kDot,          // a dot at kLineStart
    kDoubtfulDot,  // a dot at kCr or kBareLf
  };

  Step ScanDot(std::string_view bytes);

  Before before_ = Before::kLineStart;
  std::optional<std::uint64_t> octets_left_;  // nothing for content that ends with a dot
};

}  // namespace trabex

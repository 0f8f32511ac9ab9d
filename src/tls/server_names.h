// Which certificate a client gets that names the host it wants (RFC 6066, 3).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace trabex {

// Names without regard to case; "*." at the front of one stands for one label (RFC 6125, 6.4.3). A dot at the
// end does not count.
class ServerNames {
 public:
  // A name that is there already stays with the value of before.
  void Add(std::string_view name, std::size_t value);
  // The name itself goes before one with "*.".
  std::optional<std::size_t> Find(std::string_view name) const;

 private:
  std::unordered_map<std::string, std::size_t> values_;
};

}  // namespace trabex

// Which file systems are mounted where.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace trabex {

class MountTable {
 public:
  // `text` is in the form of /proc/self/mountinfo. What is no line of it is left out. Without any line, as where the
  // table cannot be read, nothing is known, and everything may hang.
  explicit MountTable(std::string_view text);

  // As disk.h.
  bool AnyMayHang() const;
  std::optional<std::string> ThatMayHang(const std::string& path) const;

 private:
  // By its mount point, without a separator at the end, so "" is the root: whether it may hang. Of several at one place
  // the last one is seen; one that hides behind another above it counts all the same.
  std::map<std::string, bool, std::less<>> may_hang_;
};

}  // namespace trabex

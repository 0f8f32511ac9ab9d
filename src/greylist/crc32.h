// The CRC-32 of Ethernet and zip files (polynomial 0x04C11DB7, reflected; start and final inversion of all
// ones).
#pragma once

#include <cstdint>
#include <string_view>

namespace trabex {

class Crc32 {
 public:
  void Add(std::string_view bytes);
  std::uint32_t Value() const { return ~state_; }

 private:
  std::uint32_t state_ = 0xFFFFFFFF;
};

}  // namespace trabex

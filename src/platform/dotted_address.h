// IPv4 addresses written as four decimal numbers, the only form that counts as an address here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace trabex {

// The address (host order; 127.0.0.1 is 0x7F000001) when `text` is exactly four parts of one to three decimal
// digits, each 0 to 255, and nothing around them. The system's own readers also take "1", "127.1", "0x7f.1"
// or octal parts; nobody means an address by these, so here they are names. A leading zero changes nothing.
std::optional<std::uint32_t> ParseDottedAddress(std::string_view text);

// "127.0.0.1".
std::string DottedAddress(std::uint32_t address);

}  // namespace trabex

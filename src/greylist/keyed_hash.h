// A hash that strangers cannot aim: senders choose the addresses that become keys of the greylisting
// database, and with a hash that is the same everywhere they could choose thousands that fall into one
// bucket.
#pragma once

#include <cstdint>
#include <string_view>

namespace trabex {

// The secret that a hash depends on.
struct HashSecret {
  std::uint64_t low = 0;
  std::uint64_t high = 0;

  // From the system's source of randomness.
  static HashSecret Random();
};

// SipHash-2-4 of `text` (Aumasson and Bernstein, "SipHash: a fast short-input PRF").
std::uint64_t KeyedHash(const HashSecret& secret, std::string_view text);

}  // namespace trabex

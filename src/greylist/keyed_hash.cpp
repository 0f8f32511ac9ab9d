#include "greylist/keyed_hash.h"

#include <bit>
#include <random>

#include "greylist/little_endian.h"

namespace trabex {

namespace {

struct State {
  std::uint64_t v0;
  std::uint64_t v1;
  std::uint64_t v2;
  std::uint64_t v3;

  void Round() {
    v0 += v1;
    v1 = std::rotl(v1, 13) ^ v0;
    v0 = std::rotl(v0, 32);
    v2 += v3;
    v3 = std::rotl(v3, 16) ^ v2;
    v0 += v3;
    v3 = std::rotl(v3, 21) ^ v0;
    v2 += v1;
    v1 = std::rotl(v1, 17) ^ v2;
    v2 = std::rotl(v2, 32);
  }

  void Take(std::uint64_t word) {
    v3 ^= word;
    Round();
    Round();
    v0 ^= word;
  }
};

}  // namespace

HashSecret HashSecret::Random() {
  std::random_device source;
  const auto word = [&source] { return (std::uint64_t{source()} << 32) | source(); };
  const std::uint64_t low = word();
  return {low, word()};
}

std::uint64_t KeyedHash(const HashSecret& secret, std::string_view text) {
  State state{secret.low ^ 0x736F6D6570736575, secret.high ^ 0x646F72616E646F6D,
              secret.low ^ 0x6C7967656E657261, secret.high ^ 0x7465646279746573};
  const std::uint64_t length_mark = std::uint64_t{text.size()} << 56;
  for (; text.size() >= 8; text.remove_prefix(8)) state.Take(EightFromLittleEndian(text.data()));
  state.Take(length_mark | FromLittleEndian(text));
  state.v2 ^= 0xFF;
  for (int i = 0; i < 4; ++i) state.Round();
  return state.v0 ^ state.v1 ^ state.v2 ^ state.v3;
}

}  // namespace trabex

#include "base/hash_index.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <utility>

namespace trabex {

namespace {

constexpr std::size_t kMinSize = 8;

// Three quarters full is the most: beyond that, runs of slots get long.
constexpr bool Fits(std::size_t count, std::size_t size) {
  return count * 4 <= size * 3;
}

}  // namespace

void HashIndex::Add(std::uint32_t hash, std::uint32_t number) {
  assert(number != kNone);
  if (!Fits(count_ + 1, slots_.size())) Resize(std::max(kMinSize, slots_.size() * 2));
  Place({hash, number});
  ++count_;
}

void HashIndex::Remove(std::uint32_t hash, std::uint32_t number) {
  assert(count_ > 0);
  std::size_t gap = Home(hash);
  while (slots_[gap].number != number) {
    assert(slots_[gap].number != kNone);
    gap = Next(gap);
  }
  // What comes after the gap moves up into it, unless that is before its home.
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = Next(gap); slots_[at].number != kNone; at = Next(at)) {
    const std::size_t from_home = (at - Home(slots_[at].hash)) & mask;
    const std::size_t from_gap = (at - gap) & mask;
    if (from_home < from_gap) continue;
    slots_[gap] = slots_[at];
    gap = at;
  }
  slots_[gap] = Slot();
  --count_;
}

void HashIndex::Reserve(std::size_t count) {
  if (count == 0) return;
  std::size_t size = std::max(kMinSize, slots_.size());
  while (!Fits(count, size)) size *= 2;
  if (size > slots_.size()) Resize(size);
}

void HashIndex::Place(const Slot& slot) {
  std::size_t at = Home(slot.hash);
  while (slots_[at].number != kNone) at = Next(at);
  slots_[at] = slot;
}

void HashIndex::Resize(std::size_t size) {
  const std::vector<Slot> old = std::exchange(slots_, std::vector<Slot>(size));
  shift_ = 32 - static_cast<unsigned>(std::countr_zero(size));
  for (const Slot& slot : old) {
    if (slot.number != kNone) Place(slot);
  }
}

}  // namespace trabex

// Finds numbers by the hash of the keys that they mean.
//
// An open table with linear probing, of eight bytes an entry: with a million entries the time of a look-up is
// that of its cache misses, of which a standard hash set has three where this has one, and it takes four
// times the memory. The keys themselves stay with the caller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace trabex {

class HashIndex {
 public:
  // No number.
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  // The number added under `hash` for which `is_it(number)` holds; kNone when there is none. `is_it` is asked
  // about numbers of the same hash only, so seldom about a wrong one.
  template <class IsIt>
  std::uint32_t Find(std::uint32_t hash, IsIt is_it) const {
    if (slots_.empty()) return kNone;
    for (std::size_t at = Home(hash); slots_[at].number != kNone; at = Next(at)) {
      if (slots_[at].hash == hash && is_it(slots_[at].number)) return slots_[at].number;
    }
    return kNone;
  }
  // Brings what Find(hash) looks at first near the processor: of several looked up in a row, the cache misses
  // then come at the same time.
  void Prefetch(std::uint32_t hash) const {
    if (!slots_.empty()) __builtin_prefetch(&slots_[Home(hash)]);
  }
  // `number` is not kNone and was not added before. Takes constant time on average; one in so many doubles
  // the table. Raises std::bad_alloc then, and changes nothing; never when Reserve has made room.
  void Add(std::uint32_t hash, std::uint32_t number);
  // `number` was added under `hash` (asserted).
  void Remove(std::uint32_t hash, std::uint32_t number);
  std::size_t Count() const { return count_; }
  // Makes room for `count` numbers in all.
  void Reserve(std::size_t count);

 private:
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t number = kNone;  // kNone: free
  };

  // A number lies at the home of its hash or after it, with no free slot between. The upper bits choose the
  // home: so the order of the slots stays when the table grows, and it is filled from one end to the other.
  std::size_t Home(std::uint32_t hash) const { return hash >> shift_; }
  std::size_t Next(std::size_t at) const { return (at + 1) & (slots_.size() - 1); }
  void Place(const Slot& slot);
  void Resize(std::size_t size);

  std::vector<Slot> slots_;  // none, or a power of two
  std::size_t count_ = 0;
  unsigned shift_ = 32;  // 32 less the binary logarithm of the size
};

}  // namespace trabex

// Finds numbers by the hash of the keys that they mean, made for a million of them while mail goes on: the index
// of the greylisting database.
//
// It is divided into many small tables, so that growing never moves more than a small part of the entries at
// once and holds up the mail.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/hash_index.h"

namespace trabex {

class KeyIndex {
 public:
  static constexpr std::uint32_t kNone = HashIndex::kNone;

  // The number added under `hash` for which `is_it(number)` holds; kNone when there is none. `is_it` is asked
  // about numbers of the same or nearly the same hash only, so seldom about a wrong one.
  template <class IsIt>
  std::uint32_t Find(std::uint64_t hash, IsIt is_it) const {
    return tables_[TableOf(hash)].Find(Tag(hash), is_it);
  }
  // `number` is not kNone and was not added before.
  void Add(std::uint64_t hash, std::uint32_t number) { tables_[TableOf(hash)].Add(Tag(hash), number); }
  // `number` was added under `hash` (asserted).
  void Remove(std::uint64_t hash, std::uint32_t number) { tables_[TableOf(hash)].Remove(Tag(hash), number); }
  // Makes room for `count` numbers in all.
  void Reserve(std::size_t count) {
    // Some more than the even share, since no hash divides evenly.
    for (HashIndex& table : tables_) table.Reserve(count / kTables + count / kTables / 8);
  }
  void Clear() { tables_ = {}; }

 private:
  static constexpr std::size_t kTables = 256;

  // The upper bits choose the table, the lower ones are the hash in it.
  static std::size_t TableOf(std::uint64_t hash) { return hash >> 56; }
  static std::uint32_t Tag(std::uint64_t hash) { return static_cast<std::uint32_t>(hash); }

  std::array<HashIndex, kTables> tables_;
};

}  // namespace trabex

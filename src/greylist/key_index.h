// Finds numbers by the hash of what they stand for: the index of the greylisting database.
//
// An open table of eight bytes an entry, because with a million records the time of a look-up is that of its
// cache misses; a standard hash set has three of them where this has one, and takes four times the memory.
// The table is divided into many small ones, so that growing never moves more than a small part of the
// entries at once and holds up the mail.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace trabex {

class KeyIndex {
 public:
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  // The number added under `hash` for which `is_it(number)` holds; kNone when there is none. `is_it` is asked
  // about numbers of the same or nearly the same hash only, so seldom about a wrong one.
  template <class IsIt>
  std::uint32_t Find(std::uint64_t hash, IsIt is_it) const {
    const Table& table = TableOf(hash);
    if (table.entries.empty()) return kNone;
    for (std::size_t at = table.Home(Tag(hash)); table.entries[at].number != kNone; at = table.Next(at)) {
      if (table.entries[at].tag == Tag(hash) && is_it(table.entries[at].number))
        return table.entries[at].number;
    }
    return kNone;
  }
  // `number` is not kNone and was not added before.
  void Add(std::uint64_t hash, std::uint32_t number);
  // `number` was added under `hash` (asserted).
  void Remove(std::uint64_t hash, std::uint32_t number);
  // Makes room for `count` numbers in all.
  void Reserve(std::size_t count);
  void Clear();

 private:
  struct Entry {
    std::uint32_t tag = 0;         // of the hash
    std::uint32_t number = kNone;  // kNone: free
  };
  // An entry stands at the home of its tag or behind it, with no free one between.
  struct Table {
    std::vector<Entry> entries;  // a power of two, or none
    std::size_t used = 0;
    unsigned shift = 0;  // 32 less the binary logarithm of the size

    // From the high bits: so the order of the entries stays when the table grows, and it is filled from one
    // end to the other.
    std::size_t Home(std::uint32_t tag) const {
      return static_cast<std::size_t>(std::uint64_t{tag} >> shift);
    }
    std::size_t Next(std::size_t at) const { return (at + 1) & (entries.size() - 1); }
    void Place(Entry entry);
    void Resize(std::size_t size);
  };

  static constexpr std::size_t kTables = 256;

  static std::uint32_t Tag(std::uint64_t hash) { return static_cast<std::uint32_t>(hash); }
  Table& TableOf(std::uint64_t hash) { return tables_[hash >> 56]; }
  const Table& TableOf(std::uint64_t hash) const { return tables_[hash >> 56]; }

  std::array<Table, kTables> tables_;
};

}  // namespace trabex

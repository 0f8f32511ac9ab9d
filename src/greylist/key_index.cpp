#include "greylist/key_index.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <utility>

namespace trabex {

namespace {

constexpr std::size_t kSmallest = 8;

// Three quarters full is the most: beyond that, runs of entries get long.
constexpr bool Fits(std::size_t count, std::size_t size) {
  return count * 4 <= size * 3;
}

}  // namespace

void KeyIndex::Table::Place(Entry entry) {
  std::size_t at = Home(entry.tag);
  while (entries[at].number != kNone) at = Next(at);
  entries[at] = entry;
}

void KeyIndex::Table::Resize(std::size_t size) {
  const std::vector<Entry> old = std::exchange(entries, std::vector<Entry>(size));
  shift = 32 - static_cast<unsigned>(std::countr_zero(size));
  for (const Entry& entry : old) {
    if (entry.number != kNone) Place(entry);
  }
}

void KeyIndex::Add(std::uint64_t hash, std::uint32_t number) {
  assert(number != kNone);
  Table& table = TableOf(hash);
  if (!Fits(table.used + 1, table.entries.size())) {
    table.Resize(table.entries.empty() ? kSmallest : table.entries.size() * 2);
  }
  table.Place({Tag(hash), number});
  ++table.used;
}

void KeyIndex::Remove(std::uint64_t hash, std::uint32_t number) {
  Table& table = TableOf(hash);
  assert(table.used > 0);
  std::size_t gap = table.Home(Tag(hash));
  while (table.entries[gap].number != number) {
    assert(table.entries[gap].number != kNone);
    gap = table.Next(gap);
  }
  // What stands behind the gap moves up into it, unless that is before its home.
  const std::size_t mask = table.entries.size() - 1;
  for (std::size_t at = table.Next(gap); table.entries[at].number != kNone; at = table.Next(at)) {
    const std::size_t from_home = (at - table.Home(table.entries[at].tag)) & mask;
    const std::size_t from_gap = (at - gap) & mask;
    if (from_home < from_gap) continue;
    table.entries[gap] = table.entries[at];
    gap = at;
  }
  table.entries[gap] = Entry();
  --table.used;
}

void KeyIndex::Reserve(std::size_t count) {
  // Some more than the even share, since no hash divides evenly.
  const std::size_t share = count / kTables + count / kTables / 8;
  for (Table& table : tables_) {
    std::size_t size = std::max(kSmallest, table.entries.size());
    while (!Fits(share, size)) size *= 2;
    if (share > 0 && size > table.entries.size()) table.Resize(size);
  }
}

void KeyIndex::Clear() {
  for (Table& table : tables_) table = Table();
}

}  // namespace trabex

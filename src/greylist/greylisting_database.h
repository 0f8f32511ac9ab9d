// The greylisting records in memory.
//
// Held as a list in the order of creation plus an index by key. Both are plain containers; with keys of usual
// length a record takes about 200 bytes in all. The index is divided into many small hash sets, because one
// large one that outgrows its buckets would hold up the mail while it moves a million entries at once.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string_view>
#include <unordered_set>

#include "greylist/cGreyListingData.h"
#include "greylist/keyed_hash.h"

namespace trabex {

class GreyListingDatabase {
 public:
  using Records = std::list<cGreyListingData>;

  GreyListingDatabase() = default;
  GreyListingDatabase(GreyListingDatabase&&) = default;
  GreyListingDatabase& operator=(GreyListingDatabase&&) = default;

  // In the order in which they were added.
  const Records& All() const { return records_; }
  std::size_t Count() const { return records_.size(); }

  // nullptr when there is none. A record stays where it is until it is removed.
  cGreyListingData* Find(std::string_view key);
  // Adds it behind all others. Raises 457 "This key is already associated with an element of this collection"
  // (source "GreyListingDatabase.Add") when its key is there already; nothing is changed then.
  cGreyListingData& Add(cGreyListingData record);
  // Makes room in the index for `count` records in all.
  void Reserve(std::size_t count);
  // Removes every record that has reached its ExpireAt at `now`. Returns their number.
  std::size_t RemoveExpired(DateTime now);
  // Removes all records; the changed flag stays.
  void Clear();

  // Whether there is something that the file does not hold yet.
  bool Changed() const { return changed_; }
  void SetChanged(bool changed) { changed_ = changed; }

  // RemoveExpired over several turns of the loop. Records may be added and changed between two steps, but not
  // removed in any other way.
  class Sweep {
   public:
    // `database` outlives the sweep.
    Sweep(GreyListingDatabase& database, DateTime now)
        : database_(&database), next_(database.records_.begin()), now_(now) {}
    // Looks at `limit` records at most. Returns whether there are more.
    bool Step(std::size_t limit);

   private:
    GreyListingDatabase* database_;
    Records::iterator next_;
    DateTime now_;
  };

 private:
  struct Entry {
    std::uint64_t hash;
    Records::iterator record;
  };
  struct Wanted {
    std::uint64_t hash;
    std::string_view key;
  };
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(const Entry& entry) const noexcept { return entry.hash; }
    std::size_t operator()(const Wanted& wanted) const noexcept { return wanted.hash; }
  };
  struct Same {
    using is_transparent = void;
    bool operator()(const Entry& a, const Entry& b) const noexcept { return a.record == b.record; }
    bool operator()(const Wanted& a, const Entry& b) const noexcept {
      return a.hash == b.hash && a.key == b.record->Key();
    }
    bool operator()(const Entry& a, const Wanted& b) const noexcept { return operator()(b, a); }
  };
  using Shard = std::unordered_set<Entry, Hash, Same>;

  static constexpr std::size_t kShards = 256;

  Wanted Want(std::string_view key) const { return {KeyedHash(secret_, key), key}; }
  // The sets take their bucket from the low bits, so the shard is taken from the high ones.
  Shard& ShardOf(std::uint64_t hash) { return shards_[hash >> 56]; }
  Records::iterator Remove(Records::iterator record);

  HashSecret secret_ = HashSecret::Random();
  Records records_;
  std::array<Shard, kShards> shards_;
  bool changed_ = false;
};

}  // namespace trabex

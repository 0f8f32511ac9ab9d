// The greylisting records in memory.
//
// Records lie in large blocks and stay where they are; each is linked to the ones added before and after it.
// With keys of usual length a record takes some 170 bytes in all, a pending one some 200.
//
// A record is pending until it is accepted. A sender can bring about any number of pending records, so their
// number is bounded, in all and for each network: one more drops the oldest. The oldest is the one that was
// added first, not the one whose last attempt is longest ago, because then a sender who repeats his
// attempts would push out all others; and the order of adding is also that in the file and needs no clock,
// which may be set back. It is nearly always the one that would expire first as well.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include "base/key_index.h"
#include "greylist/cGreyListingData.h"
#include "greylist/keyed_hash.h"
#include "greylist/pending_limits.h"
#include "greylist/pending_queue.h"

namespace trabex {

class GreyListingDatabase {
 public:
  class Cursor;
  class Iterator;
  // All records in the order in which they were added.
  class Records;

  GreyListingDatabase() = default;
  GreyListingDatabase(GreyListingDatabase&&) = default;
  GreyListingDatabase& operator=(GreyListingDatabase&&) = default;

  Records All() const;
  std::size_t Count() const { return count_; }

  // nullptr when there is none. A record stays where it is until it is removed. A caller that makes a pending
  // one an accepted one has to call Accepted.
  cGreyListingData* Find(std::string_view key);
  // Adds it after all others. When it is a pending one and there are now more than the limits permit, the
  // oldest are dropped, first of its network, then of all, but never itself. After limits were lowered that
  // takes several additions, as each drops kMaxDroppedAtOnce at most, so that no addition takes long. Raises
  // 457 "This key is already associated with an element of this collection" (source
  // "GreyListingDatabase.Add") when its key is there already; nothing is changed then.
  cGreyListingData& Add(cGreyListingData record);
  // The caller has just accepted `record`, a pending one of this database.
  void Accepted(const cGreyListingData& record);

  // Whether there was a record of this key; it is gone then. `key` is not that of the record itself.
  bool Remove(std::string_view key);

  // They act on the next Add.
  void SetLimits(const PendingLimits& limits) { limits_ = limits; }
  std::size_t PendingCount() const { return pending_.Count(); }
  // What Add has dropped since the last call.
  DroppedPending TakeDropped() { return std::exchange(dropped_, DroppedPending()); }
  static constexpr std::size_t kMaxDroppedAtOnce = 1000;

  // Makes room in the index for `count` records in all.
  void Reserve(std::size_t count) { index_.Reserve(count); }
  // Removes every record that has reached its ExpireAt at `now`, and ends a sweep. Returns their number.
  std::size_t RemoveExpired(DateTime now);
  // Removes all records; the changed flag and the limits stay.
  void Clear();
  // The same over several loop iterations, before the database ends: frees the memory of so many thousand records, all
  // of which are gone with the first call. Whether there is more; until then only this may be called.
  bool FreeSome(std::size_t thousands);

  // Whether there is something that the file does not hold yet.
  bool Changed() const { return changed_; }
  void SetChanged(bool changed) { changed_ = changed; }

  // RemoveExpired over several loop iterations, one at a time. Between two steps records may be added,
  // changed and removed.
  void BeginSweep(DateTime now);
  // Checks `limit` records at most. Returns whether there are more.
  bool SweepSome(std::size_t limit);

 private:
  static constexpr std::uint32_t kNone = KeyIndex::kNone;
  static constexpr std::size_t kBlockBits = 10;
  static constexpr std::size_t kBlockSize = std::size_t{1} << kBlockBits;

  // A record, or a free place for one. Places are numbered; the number says in which block and where in it.
  struct Place {
    cGreyListingData record;
    std::uint32_t before;   // the record added before it
    std::uint32_t after;    // the one added after it; of a free place the next free one
    std::uint32_t pending;  // its entry in the queue of the pending ones; kNone when it is not pending
  };

  Place& At(std::uint32_t number) { return blocks_[number >> kBlockBits][number & (kBlockSize - 1)]; }
  const Place& At(std::uint32_t number) const {
    return blocks_[number >> kBlockBits][number & (kBlockSize - 1)];
  }
  std::uint64_t HashOf(std::string_view key) const { return KeyedHash(secret_, key); }
  // That of the key's network: the text before its first blank.
  std::uint64_t NetworkHashOf(std::string_view key) const { return HashOf(key.substr(0, key.find(' '))); }
  std::uint32_t NumberOf(std::string_view key, std::uint64_t hash) const {
    return index_.Find(hash, [&](std::uint32_t number) { return At(number).record.Key() == key; });
  }
  std::uint32_t TakePlace(cGreyListingData record);
  void RemoveAt(std::uint32_t number);
  void DropFor(std::uint32_t number);
  void LeaveQueue(Place& place);

  HashSecret secret_ = HashSecret::Random();
  std::vector<std::vector<Place>> blocks_;  // each has room for kBlockSize from the start, so it never moves
  KeyIndex index_;
  PendingQueue pending_;
  PendingLimits limits_;
  DroppedPending dropped_;
  std::size_t count_ = 0;
  std::uint32_t first_ = kNone;
  std::uint32_t last_ = kNone;
  std::uint32_t free_ = kNone;
  std::uint32_t sweep_next_ = kNone;  // what a sweep checks next
  DateTime sweep_now_ = 0;
  bool changed_ = false;
  std::vector<Cursor*> cursors_;  // those of now
};

// Walks the records over several loop iterations: between two calls records may be added, changed and removed.
// Those that are added come last; after Clear nothing comes. The database stays where it is meanwhile.
class GreyListingDatabase::Cursor {
 public:
  explicit Cursor(GreyListingDatabase& database) : database_(database), next_(database.first_) {
    database_.cursors_.push_back(this);
  }
  ~Cursor() { std::erase(database_.cursors_, this); }
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;

  // nullptr at the end, once all records of then have come.
  const cGreyListingData* Next();

 private:
  friend class GreyListingDatabase;

  GreyListingDatabase& database_;
  std::uint32_t next_;
};

// Walks the records; valid while none is removed.
class GreyListingDatabase::Iterator {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = cGreyListingData;
  using difference_type = std::ptrdiff_t;
  using pointer = const cGreyListingData*;
  using reference = const cGreyListingData&;

  Iterator() = default;
  Iterator(const GreyListingDatabase& database, std::uint32_t number)
      : database_(&database), number_(number) {}
  reference operator*() const { return database_->At(number_).record; }
  pointer operator->() const { return &**this; }
  Iterator& operator++() {
    number_ = database_->At(number_).after;
    return *this;
  }
  Iterator operator++(int) {
    const Iterator before = *this;
    ++*this;
    return before;
  }
  friend bool operator==(const Iterator&, const Iterator&) = default;

 private:
  const GreyListingDatabase* database_ = nullptr;
  std::uint32_t number_ = kNone;
};

class GreyListingDatabase::Records {
 public:
  explicit Records(const GreyListingDatabase& database) : database_(&database) {}
  Iterator begin() const { return {*database_, database_->first_}; }
  Iterator end() const { return {*database_, kNone}; }

 private:
  const GreyListingDatabase* database_;
};

inline GreyListingDatabase::Records GreyListingDatabase::All() const {
  return Records(*this);
}

}  // namespace trabex

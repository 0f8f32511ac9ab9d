#include "greylist/greylisting_database.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "base/error.h"

namespace trabex {

cGreyListingData* GreyListingDatabase::Find(std::string_view key) {
  const std::uint32_t number = NumberOf(key, HashOf(key));
  return number == kNone ? nullptr : &At(number).record;
}

cGreyListingData& GreyListingDatabase::Add(cGreyListingData record) {
  const std::uint64_t hash = HashOf(record.Key());
  if (NumberOf(record.Key(), hash) != kNone) {
    throw Error(error_number::kDuplicateKey, "GreyListingDatabase.Add",
                "This key is already associated with an element of this collection");
  }
  const bool pending = record.Pending();
  const std::uint64_t network = pending ? NetworkHashOf(record.Key()) : 0;
  const std::uint32_t number = TakePlace(std::move(record));
  index_.Add(hash, number);
  (last_ == kNone ? first_ : At(last_).after) = number;
  last_ = number;
  ++count_;
  if (pending) {
    At(number).pending = pending_.Add(network, number);
    DropFor(number);
  }
  return At(number).record;
}

void GreyListingDatabase::Accepted(const cGreyListingData& record) {
  const std::uint32_t number = NumberOf(record.Key(), HashOf(record.Key()));
  assert(number != kNone);
  LeaveQueue(At(number));
}

// The network first: what it gives up may be all the room that is needed. The new record itself never goes.
void GreyListingDatabase::DropFor(std::uint32_t number) {
  const std::uint32_t entry = At(number).pending;
  std::size_t left = kMaxDroppedAtOnce;
  while (left > 0 && pending_.CountBeside(entry) > std::max<std::size_t>(limits_.per_network, 1)) {
    RemoveAt(pending_.OldestBeside(entry));
    ++dropped_.by_limit_per_network;
    --left;
  }
  while (left > 0 && pending_.Count() > std::max<std::size_t>(limits_.in_all, 1)) {
    RemoveAt(pending_.Oldest());
    ++dropped_.by_limit_in_all;
    --left;
  }
}

void GreyListingDatabase::LeaveQueue(Place& place) {
  if (place.pending == kNone) return;
  pending_.Remove(place.pending);
  place.pending = kNone;
}

// The place is not linked to its neighbours yet, but knows those it will have.
std::uint32_t GreyListingDatabase::TakePlace(cGreyListingData record) {
  if (free_ != kNone) {
    const std::uint32_t number = free_;
    free_ = At(number).after;
    At(number) = {std::move(record), last_, kNone, kNone};
    return number;
  }
  if (blocks_.empty() || blocks_.back().size() == kBlockSize) blocks_.emplace_back().reserve(kBlockSize);
  blocks_.back().push_back({std::move(record), last_, kNone, kNone});
  return static_cast<std::uint32_t>((blocks_.size() - 1) * kBlockSize + blocks_.back().size() - 1);
}

bool GreyListingDatabase::Remove(std::string_view key) {
  const std::uint32_t number = NumberOf(key, HashOf(key));
  if (number != kNone) RemoveAt(number);
  return number != kNone;
}

void GreyListingDatabase::RemoveAt(std::uint32_t number) {
  Place& place = At(number);
  for (Cursor* const cursor : cursors_) {
    if (cursor->next_ == number) cursor->next_ = place.after;
  }
  if (sweep_next_ == number) sweep_next_ = place.after;
  LeaveQueue(place);
  index_.Remove(HashOf(place.record.Key()), number);
  (place.before == kNone ? first_ : At(place.before).after) = place.after;
  (place.after == kNone ? last_ : At(place.after).before) = place.before;
  --count_;
  // Moved out, the key gives its memory back; a short one assigned to it would leave it there.
  { const cGreyListingData gone = std::move(place.record); }
  place.before = kNone;
  place.after = free_;
  free_ = number;
}

std::size_t GreyListingDatabase::RemoveExpired(DateTime now) {
  const std::size_t before = Count();
  BeginSweep(now);
  SweepSome(before);
  return before - Count();
}

void GreyListingDatabase::Clear() {
  FreeSome(blocks_.size());
}

bool GreyListingDatabase::FreeSome(std::size_t thousands) {
  index_.Clear();
  pending_.Clear();
  count_ = 0;
  first_ = last_ = free_ = sweep_next_ = kNone;
  for (Cursor* const cursor : cursors_) cursor->next_ = kNone;
  blocks_.resize(blocks_.size() - std::min(thousands, blocks_.size()));
  if (blocks_.empty()) blocks_ = {};
  return !blocks_.empty();
}

const cGreyListingData* GreyListingDatabase::Cursor::Next() {
  if (next_ == kNone) return nullptr;
  const Place& place = database_.At(next_);
  next_ = place.after;
  return &place.record;
}

void GreyListingDatabase::BeginSweep(DateTime now) {
  sweep_next_ = first_;
  sweep_now_ = now;
}

bool GreyListingDatabase::SweepSome(std::size_t limit) {
  for (; limit > 0 && sweep_next_ != kNone; --limit) {
    const std::uint32_t number = sweep_next_;
    sweep_next_ = At(number).after;
    if (sweep_now_ >= At(number).record.ExpireAt()) RemoveAt(number);
  }
  return sweep_next_ != kNone;
}

}  // namespace trabex

#include "greylist/greylisting_database.h"

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
  const std::uint32_t number = TakePlace(std::move(record));
  index_.Add(hash, number);
  (last_ == kNone ? first_ : At(last_).after) = number;
  last_ = number;
  ++count_;
  return At(number).record;
}

// The place is not linked to its neighbours yet, but knows those it will have.
std::uint32_t GreyListingDatabase::TakePlace(cGreyListingData record) {
  if (free_ != kNone) {
    const std::uint32_t number = free_;
    free_ = At(number).after;
    At(number) = {std::move(record), last_, kNone};
    return number;
  }
  if (blocks_.empty() || blocks_.back().size() == kBlockSize) blocks_.emplace_back().reserve(kBlockSize);
  blocks_.back().push_back({std::move(record), last_, kNone});
  return static_cast<std::uint32_t>((blocks_.size() - 1) * kBlockSize + blocks_.back().size() - 1);
}

void GreyListingDatabase::Remove(std::uint32_t number) {
  Place& place = At(number);
  index_.Remove(HashOf(place.record.Key()), number);
  (place.before == kNone ? first_ : At(place.before).after) = place.after;
  (place.after == kNone ? last_ : At(place.after).before) = place.before;
  --count_;
  // Gives the key's memory back.
  place = {cGreyListingData(std::string(), 0, 0, 0), kNone, free_};
  free_ = number;
}

std::size_t GreyListingDatabase::RemoveExpired(DateTime now) {
  const std::size_t before = Count();
  Sweep(*this, now).Step(before);
  return before - Count();
}

void GreyListingDatabase::Clear() {
  blocks_ = {};
  index_.Clear();
  count_ = 0;
  first_ = last_ = free_ = kNone;
}

bool GreyListingDatabase::Sweep::Step(std::size_t limit) {
  for (; limit > 0 && next_ != kNone; --limit) {
    const std::uint32_t number = next_;
    next_ = database_->At(number).after;
    if (now_ >= database_->At(number).record.ExpireAt()) database_->Remove(number);
  }
  return next_ != kNone;
}

}  // namespace trabex

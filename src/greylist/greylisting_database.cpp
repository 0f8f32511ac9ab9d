#include "greylist/greylisting_database.h"

#include <utility>

#include "base/error.h"

namespace trabex {

cGreyListingData* GreyListingDatabase::Find(std::string_view key) {
  const Wanted wanted = Want(key);
  const Shard& shard = ShardOf(wanted.hash);
  const auto found = shard.find(wanted);
  return found == shard.end() ? nullptr : &*found->record;
}

cGreyListingData& GreyListingDatabase::Add(cGreyListingData record) {
  const Wanted wanted = Want(record.Key());
  Shard& shard = ShardOf(wanted.hash);
  if (shard.find(wanted) != shard.end()) {
    throw Error(error_number::kDuplicateKey, "GreyListingDatabase.Add",
                "This key is already associated with an element of this collection");
  }
  records_.push_back(std::move(record));
  const auto added = std::prev(records_.end());
  try {
    shard.insert({wanted.hash, added});
  } catch (...) {
    records_.pop_back();
    throw;
  }
  return *added;
}

void GreyListingDatabase::Reserve(std::size_t count) {
  // A little more than the even share, since no hash divides evenly.
  const std::size_t share = count / kShards;
  for (Shard& shard : shards_) shard.reserve(share + share / 8);
}

GreyListingDatabase::Records::iterator GreyListingDatabase::Remove(Records::iterator record) {
  const Wanted wanted = Want(record->Key());
  Shard& shard = ShardOf(wanted.hash);
  shard.erase(shard.find(wanted));
  return records_.erase(record);
}

std::size_t GreyListingDatabase::RemoveExpired(DateTime now) {
  const std::size_t before = Count();
  Sweep sweep(*this, now);
  while (sweep.Step(before + 1)) continue;
  return before - Count();
}

void GreyListingDatabase::Clear() {
  for (Shard& shard : shards_) shard = Shard();
  records_.clear();
}

bool GreyListingDatabase::Sweep::Step(std::size_t limit) {
  const auto end = database_->records_.end();
  for (; limit > 0 && next_ != end; --limit) {
    if (now_ < next_->ExpireAt()) {
      ++next_;
    } else {
      next_ = database_->Remove(next_);
    }
  }
  return next_ != end;
}

}  // namespace trabex

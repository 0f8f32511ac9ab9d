#include "report/recent_refusals.h"

namespace trabex {

const RefusalRecord& RecentRefusals::operator[](std::size_t index) const {
  return records_[(latest_ + records_.size() - index) % records_.size()];
}

RefusalRecord& RecentRefusals::Add(bool delayed) {
  ++count_;
  if (delayed) ++delayed_count_;
  latest_ = records_.size() < kMax ? records_.size() : (latest_ + 1) % kMax;
  if (latest_ == records_.size()) records_.emplace_back();
  // The texts keep their memory.
  RefusalRecord& record = records_[latest_];
  record.delayed = delayed;
  return record;
}

}  // namespace trabex

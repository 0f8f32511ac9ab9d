#include "net/splice_pipes.h"

#include <utility>

namespace trabex {

std::unique_ptr<SplicePipe> SplicePipes::Borrow() {
  if (lent_ == kMaxLent) return nullptr;
  std::unique_ptr<SplicePipe> pipe;
  if (!kept_.empty()) {
    pipe = std::move(kept_.back());
    kept_.pop_back();
  } else if (refusals_left_ > 0) {
    --refusals_left_;
  } else {
    kept_.reserve(kMaxKept);  // so that Return needs no memory
    pipe = SplicePipe::Open();
    if (!pipe) refusals_left_ = kRefusals;
  }
  if (pipe) ++lent_;
  return pipe;
}

void SplicePipes::Return(std::unique_ptr<SplicePipe> pipe) {
  if (!pipe) return;
  --lent_;
  if (pipe->IsEmpty() && kept_.size() < kMaxKept) kept_.push_back(std::move(pipe));
}

}  // namespace trabex

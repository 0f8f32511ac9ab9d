// The pipes that bytes go through from one socket object to another. A socket object borrows one while bytes
// are under way in it, so there are few, and none belongs to a session.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "platform/splice_pipe.h"

namespace trabex {

class SplicePipes {
 public:
  // That are lent at a time. Each may hold a megabyte for a peer that is slow.
  static constexpr std::size_t kMaxLent = 16;
  // That are kept open for the next.
  static constexpr std::size_t kMaxKept = 4;
  // After the system has given none, so many wishes are refused before it is asked again.
  static constexpr int kRefusals = 1000;

  // An empty pipe, or nullptr: then the bytes have to be copied.
  std::unique_ptr<SplicePipe> Borrow();
  // Takes a pipe back, and drops what is in it; nullptr: does nothing.
  void Return(std::unique_ptr<SplicePipe> pipe);

  std::size_t Lent() const { return lent_; }

 private:
  std::vector<std::unique_ptr<SplicePipe>> kept_;
  std::size_t lent_ = 0;
  int refusals_left_ = 0;
};

}  // namespace trabex

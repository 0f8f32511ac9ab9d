// How a test lets the process run out of descriptors.
#pragma once

#include <vector>

namespace trabex {

// The limit of this process for open files, sockets among them.
class OpenFileLimit {
 public:
  // The limit stays as it is.
  OpenFileLimit();
  // As Lift.
  ~OpenFileLimit();
  OpenFileLimit(const OpenFileLimit&) = delete;
  OpenFileLimit& operator=(const OpenFileLimit&) = delete;

  // From now on exactly `free` more can be opened, until something is closed. Less than 256 may be open.
  void LeaveOnly(int free);
  // Whether nothing can be opened now.
  static bool NoneLeft();
  // All is again as it was at the beginning.
  void Lift();

 private:
  unsigned long normal_ = 0;
  std::vector<int> taken_;
};

}  // namespace trabex

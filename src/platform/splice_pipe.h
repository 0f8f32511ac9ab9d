// A pipe of the system, through which bytes go from one socket to another without coming to this program
// (Sockets::ReceiveInto and Sockets::SendFrom).
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace trabex {

class SplicePipe {
 public:
  // The most bytes that it takes. The system's usual size gains nothing over copying.
  static constexpr std::size_t kCapacity = 1 << 20;

  // nullptr where the system has no such thing, or gives none that is large enough: open files or the memory
  // of pipes are exhausted.
  static std::unique_ptr<SplicePipe> Open();
  ~SplicePipe();
  SplicePipe(const SplicePipe&) = delete;
  SplicePipe& operator=(const SplicePipe&) = delete;

  // How many bytes are in it.
  std::size_t Size() const { return size_; }
  bool IsEmpty() const { return size_ == 0; }
  // Takes all of them out, for whoever cannot go on with the pipe.
  std::string TakeAll();

 private:
  friend class Sockets;

  SplicePipe(int read_end, int write_end) : read_end_(read_end), write_end_(write_end) {}

  int read_end_;
  int write_end_;
  std::size_t size_ = 0;
};

}  // namespace trabex

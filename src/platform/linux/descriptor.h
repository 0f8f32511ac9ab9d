// An owned file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace trabex {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { Close(); }
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      Close();
      number_ = std::exchange(other.number_, -1);
    }
    return *this;
  }

  int Get() const { return number_; }
  explicit operator bool() const { return number_ >= 0; }
  // Gives it away.
  int Release() { return std::exchange(number_, -1); }
  // Closes it now; the result is that of close().
  int Close() { return number_ < 0 ? 0 : close(std::exchange(number_, -1)); }

 private:
  int number_ = -1;
};

}  // namespace trabex

// An open file of the system, owned. Only the files of platform/ look inside.
#pragma once

#include <cstdint>
#include <utility>

namespace trabex {

class NativeFile {
 public:
  NativeFile() = default;
  // Takes over what the system calls the open file: a descriptor, a handle; -1 is none.
  explicit NativeFile(std::intptr_t value) : value_(value) {}
  ~NativeFile() { Close(); }
  NativeFile(NativeFile&& other) noexcept : value_(std::exchange(other.value_, kNone)) {}
  NativeFile& operator=(NativeFile&& other) noexcept {
    if (this != &other) {
      Close();
      value_ = std::exchange(other.value_, kNone);
    }
    return *this;
  }

  bool IsOpen() const { return value_ != kNone; }
  std::intptr_t Value() const { return value_; }
  // Closes it now, if it is open; errors are ignored.
  void Close();

 private:
  static constexpr std::intptr_t kNone = -1;

  std::intptr_t value_ = kNone;
};

}  // namespace trabex

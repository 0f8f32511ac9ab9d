// A descriptor kept back for something that has to be opened even when the process has used up all others.
#pragma once

#include <cstdint>

namespace trabex {

class DescriptorReserve {
 public:
  // Begins to hold one.
  DescriptorReserve() { Hold(); }
  ~DescriptorReserve() { Release(); }
  DescriptorReserve(const DescriptorReserve&) = delete;
  DescriptorReserve& operator=(const DescriptorReserve&) = delete;

  // Gives the descriptor back, so that the next thing opened finds one.
  void Release();
  // Takes one again, directly after the other thing was closed. Without any to be had it holds none until
  // the next call.
  void Hold();

 private:
  std::intptr_t descriptor_ = -1;
};

}  // namespace trabex

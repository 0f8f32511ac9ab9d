#include "support/counted_allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace trabex {
namespace {

std::atomic<bool> counting = false;
std::atomic<std::size_t> allocations = 0;
std::atomic<bool> failing = false;
std::atomic<std::size_t> left_to_failure = 0;

void* Allocate(std::size_t size) noexcept {
  if (counting) ++allocations;
  if (failing && left_to_failure-- == 0) {
    failing = false;
    return nullptr;
  }
  return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

CountedAllocations::CountedAllocations() {
  allocations = 0;
  counting = true;
}

CountedAllocations::~CountedAllocations() {
  counting = false;
}

std::size_t CountedAllocations::Count() const {
  return allocations;
}

FailedAllocation::FailedAllocation(std::size_t before) {
  left_to_failure = before;
  failing = true;
}

FailedAllocation::~FailedAllocation() {
  failing = false;
}

bool FailedAllocation::HasFailed() const {
  return !failing;
}

}  // namespace trabex

void* operator new(std::size_t size) {
  if (void* const memory = trabex::Allocate(size)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return trabex::Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return trabex::Allocate(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}

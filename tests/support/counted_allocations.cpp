#include "support/counted_allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace trabex {
namespace {

std::atomic<bool> counting = false;
std::atomic<std::size_t> allocations = 0;
std::atomic<std::size_t> largest = 0;
std::atomic<std::size_t> left_to_failure = 0;
std::atomic<std::size_t> failures_left = 0;
std::atomic<bool> has_failed = false;
std::atomic<std::size_t> own = 0;

bool Fails() noexcept {
  if (failures_left == 0 || own != 0) return false;
  if (left_to_failure != 0) {
    --left_to_failure;
    return false;
  }
  if (failures_left != FailedAllocation::kAll) --failures_left;
  return has_failed = true;
}

void* Allocate(std::size_t size) noexcept {
  if (counting) {
    ++allocations;
    if (size > largest) largest = size;
  }
  if (Fails()) return nullptr;
  return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

CountedAllocations::CountedAllocations() {
  allocations = 0;
  largest = 0;
  counting = true;
}

CountedAllocations::~CountedAllocations() {
  counting = false;
}

std::size_t CountedAllocations::Count() const {
  return allocations;
}

std::size_t CountedAllocations::Largest() const {
  return largest;
}

FailedAllocation::FailedAllocation(std::size_t before, std::size_t times) {
  left_to_failure = before;
  has_failed = false;
  failures_left = times;
}

FailedAllocation::~FailedAllocation() {
  failures_left = 0;
}

bool FailedAllocation::HasFailed() const {
  return has_failed;
}

OwnAllocations::OwnAllocations() {
  ++own;
}

OwnAllocations::~OwnAllocations() {
  --own;
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

#include "base/memory_reserve.h"

#include <new>

namespace trabex {

namespace {

std::atomic<MemoryReserve*> giver = nullptr;

}  // namespace

// The memory is not touched, so that it takes none of the machine's.
MemoryReserve::MemoryReserve()
    : last_words_(new char[kLastWords]),
      headroom_(new char[kHeadroom]),
      handler_before_(std::set_new_handler(GiveHeadroom)) {
  giver = this;
}

MemoryReserve::~MemoryReserve() {
  MemoryReserve* self = this;
  if (giver.compare_exchange_strong(self, nullptr)) std::set_new_handler(handler_before_);
  Release();
}

void MemoryReserve::Release() {
  last_words_.reset();
  delete[] headroom_.exchange(nullptr);
}

void MemoryReserve::Renew() {
  if (!last_words_) last_words_.reset(new (std::nothrow) char[kLastWords]);
  if (headroom_ == nullptr) headroom_ = new (std::nothrow) char[kHeadroom];
}

void MemoryReserve::GiveHeadroom() {
  MemoryReserve* const reserve = giver;
  char* const headroom = reserve != nullptr ? reserve->headroom_.exchange(nullptr) : nullptr;
  // Whoever called tries again.
  if (headroom == nullptr) throw std::bad_alloc();
  delete[] headroom;
}

}  // namespace trabex

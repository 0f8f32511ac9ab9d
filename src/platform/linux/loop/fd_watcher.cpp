#include "platform/fd_watcher.h"

#include <cassert>
#include <utility>

#include "platform/common/call_handler.h"
#include "platform/device_error.h"
#include "platform/linux/loop/event_loop_impl.h"

namespace trabex {

std::uint32_t FdTable::Add(int descriptor, Ready ready) {
  if (free_.empty()) {
    slots_.emplace_back();
    free_.reserve(slots_.capacity());  // so that Remove needs no memory
    free_.push_back(static_cast<std::uint32_t>(slots_.size() - 1));
  }
  const std::uint32_t index = free_.back();
  free_.pop_back();
  Slot& slot = slots_[index];
  slot.descriptor = descriptor;
  slot.interest = {};
  slot.in_set = false;
  slot.ready = std::move(ready);
  return index;
}

void FdTable::Remove(std::uint32_t index) {
  Slot& slot = slots_[index];
  slot.descriptor = -1;
  ++slot.generation;
  slot.ready = nullptr;
  free_.push_back(index);
}

bool FdTable::OnReady(std::uint32_t index, std::uint32_t generation, std::uint32_t events) {
  if (index >= slots_.size()) return false;
  Slot& slot = slots_[index];
  if (slot.descriptor < 0 || slot.generation != generation) return false;
  FdReadiness readiness;
  readiness.readable =
      slot.interest.readable && (events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR | EPOLLPRI)) != 0;
  readiness.writable = slot.interest.writable && (events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0;
  if (!readiness.readable && !readiness.writable) return false;
  // Taken out for the call: the watch may be destroyed in it, and the table may grow.
  Ready ready = std::move(slot.ready);
  CallHandler([&] { ready(readiness); });
  Slot& after = slots_[index];
  if (after.descriptor >= 0 && after.generation == generation) after.ready = std::move(ready);
  return true;
}

struct FdWatcher::State {
  EventLoop::Impl& loop;
  std::uint32_t index;
};

FdWatcher::FdWatcher(EventLoop& loop, std::intptr_t native_socket, std::function<void(FdReadiness)> ready)
    : state_(new State{loop.GetImpl(), 0}) {
  state_->index = state_->loop.watched_fds.Add(static_cast<int>(native_socket), std::move(ready));
}

FdWatcher::~FdWatcher() {
  SetInterest({});
  state_->loop.watched_fds.Remove(state_->index);
}

void FdWatcher::SetInterest(FdReadiness interest) {
  EventLoop::Impl& loop = state_->loop;
  FdTable::Slot& slot = loop.watched_fds.At(state_->index);
  slot.interest = interest;
  const std::uint32_t events =
      (interest.readable ? std::uint32_t{EPOLLIN} : 0U) | (interest.writable ? std::uint32_t{EPOLLOUT} : 0U);
  const EventTarget target{loop.fd_source, state_->index, slot.generation};
  if (events == 0) {
    // Without interest it leaves the set: a hang-up would be reported again and again otherwise.
    if (slot.in_set) loop.Control(EPOLL_CTL_DEL, slot.descriptor, 0, target);
    slot.in_set = false;
    return;
  }
  if (loop.Control(slot.in_set ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, slot.descriptor, events, target) != 0) {
    RaiseDeviceError("FdWatcher.SetInterest");
  }
  slot.in_set = true;
}

}  // namespace trabex

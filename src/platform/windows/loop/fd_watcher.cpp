#include "platform/fd_watcher.h"

#include <utility>

#include "platform/common/call_handler.h"
#include "platform/device_error.h"
#include "platform/windows/loop/event_loop_impl.h"
#include "platform/windows/sockets/ready_sockets.h"

namespace trabex {

namespace {

constexpr long kEvents = FD_READ | FD_WRITE | FD_ACCEPT | FD_CONNECT | FD_CLOSE;

}  // namespace

std::uint32_t FdTable::Add(SOCKET socket, Ready ready) {
  if (free_.empty()) {
    slots_.emplace_back();
    // So that Remove and MakeDue need no memory.
    for (auto* const list : {&free_, &due_, &looked_at_}) list->reserve(slots_.capacity());
    free_.push_back(static_cast<std::uint32_t>(slots_.size() - 1));
  }
  const std::uint32_t index = free_.back();
  free_.pop_back();
  Slot& slot = slots_[index];
  slot.socket = socket;
  slot.interest = {};
  slot.number = 0;
  slot.ready = std::move(ready);
  return index;
}

void FdTable::Remove(std::uint32_t index) {
  Slot& slot = slots_[index];
  slot.socket = INVALID_SOCKET;
  ++slot.generation;
  slot.ready = nullptr;
  free_.push_back(index);
}

bool FdTable::SetInterest(std::uint32_t index, FdReadiness interest) {
  Slot& slot = slots_[index];
  slot.interest = interest;
  if (!interest.readable && !interest.writable) {
    loop_.Deselect(slot.socket, std::exchange(slot.number, 0), true);
    return true;
  }
  if (slot.number == 0) {
    const MessageTarget target{this, slot.socket, index, slot.generation};
    if (loop_.Select(target, kEvents, slot.number) != 0) return false;
  }
  // What it is interested in now may hold already, and the message of it may have come before.
  MakeDue(index);
  return true;
}

void FdTable::MakeDue(std::uint32_t index) {
  if (std::exchange(slots_[index].due, true)) return;
  due_.push_back(index);
}

bool FdTable::OnMessage(std::uint32_t index, std::uint32_t generation, long /*event*/, int /*error*/) {
  if (slots_[index].generation == generation) MakeDue(index);
  return false;
}

// The system tells of changes, but the owner is called as long as a state holds: so each that may be ready is asked.
// When it is not, the next message will tell.
std::size_t FdTable::CallDue() {
  std::size_t calls = 0;
  looked_at_.swap(due_);
  for (const std::uint32_t index : looked_at_) slots_[index].due = false;
  for (const std::uint32_t index : looked_at_) {
    const Slot& slot = slots_[index];
    const std::uint32_t generation = slot.generation;
    if (slot.socket == INVALID_SOCKET || slot.number == 0) continue;
    FdReadiness readiness = AskReadiness(slot.socket);
    readiness.readable = readiness.readable && slot.interest.readable;
    readiness.writable = readiness.writable && slot.interest.writable;
    if (!readiness.readable && !readiness.writable) continue;
    MakeDue(index);
    // Taken out for the call: the watch may be destroyed in it, and the table may grow.
    Ready ready = std::move(slots_[index].ready);
    CallHandler([&] { ready(readiness); });
    ++calls;
    Slot& after = slots_[index];
    if (after.socket != INVALID_SOCKET && after.generation == generation) after.ready = std::move(ready);
  }
  looked_at_.clear();
  return calls;
}

void FdTable::AskAnew() {
  for (std::uint32_t index = 0; index < slots_.size(); ++index) {
    if (slots_[index].number != 0) MakeDue(index);
  }
}

struct FdWatcher::State {
  EventLoop::Impl& loop;
  std::uint32_t index;
};

FdWatcher::FdWatcher(EventLoop& loop, std::intptr_t native_socket, std::function<void(FdReadiness)> ready)
    : state_(new State{loop.GetImpl(), 0}) {
  state_->index = state_->loop.watched_fds.Add(static_cast<SOCKET>(native_socket), std::move(ready));
}

FdWatcher::~FdWatcher() {
  SetInterest({});
  state_->loop.watched_fds.Remove(state_->index);
}

void FdWatcher::SetInterest(FdReadiness interest) {
  if (!state_->loop.watched_fds.SetInterest(state_->index, interest))
    RaiseDeviceError("FdWatcher.SetInterest");
}

}  // namespace trabex

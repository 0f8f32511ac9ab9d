// The table behind the handles of sockets.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <new>

#include "base/endpoint.h"
#include "platform/common/call_handler.h"
#include "platform/sockets.h"

namespace trabex {

inline bool IsOfFamily(const Endpoint& endpoint, AddressFamily family) {
  return family == AddressFamily::kIPv6 ? endpoint.address.IsIPv6() : endpoint.address.IsIPv4();
}

// `Entry` is what a system keeps of a socket. It has at least `native`, which without a value is that of a free entry,
// `generation`, `sink`, `family` and `role`.
template <class Entry>
class SocketTable {
 public:
  // The greatest index. It may be smaller where a system keeps it with other things.
  static constexpr std::size_t kMaxIndex = std::numeric_limits<std::int32_t>::max();

  // nullptr for a stale handle. Valid until it is removed.
  Entry* Find(SocketHandle socket) {
    if (socket.index <= 0 || static_cast<std::size_t>(socket.index) >= entries_.size()) return nullptr;
    Entry& entry = At(static_cast<std::size_t>(socket.index));
    return !IsFree(entry) && entry.generation == socket.generation ? &entry : nullptr;
  }

  // Raises std::bad_alloc; the socket is still the caller's then.
  template <class Native, class Role>
  SocketHandle Add(Native native, AddressFamily family, Role role, std::size_t max_index = kMaxIndex) {
    if (first_free_ == 0) Grow();
    const std::uint32_t index = first_free_;
    assert(index <= max_index);
    static_cast<void>(max_index);
    first_free_ = next_free_[index];
    Entry& entry = At(index);
    const std::uint32_t generation = entry.generation;
    entry = Entry{};
    entry.generation = generation;
    entry.native = native;
    entry.family = family;
    entry.role = role;
    return {static_cast<std::int32_t>(index), generation};
  }

  // Whether the next Add needs no memory; it sees to that, unless there is none.
  bool MakeRoom() {
    try {
      if (first_free_ == 0) Grow();
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  // Its handle is stale from now on. Needs no memory.
  void Remove(SocketHandle socket) {
    Entry& entry = At(static_cast<std::size_t>(socket.index));
    entry.native = Entry{}.native;
    entry.sink = nullptr;
    ++entry.generation;
    AddToFree(static_cast<std::uint32_t>(socket.index));
  }

  // Calls the sink, if there is one still. Returns whether there is.
  bool Notify(SocketHandle socket, SocketEvent event, int error) {
    Entry* const entry = Find(socket);
    if (entry == nullptr || entry->sink == nullptr) return false;
    SocketSink* const sink = entry->sink;
    CallHandler([&] { sink->OnSocketEvent(socket, event, error); });
    return true;
  }

  // --- for those who go through all; the first entry is none
  std::size_t Size() const { return entries_.size(); }
  Entry& At(std::size_t index) { return entries_[index]; }
  static bool IsFree(const Entry& entry) { return entry.native == Entry{}.native; }

 private:
  void Grow() {
    if (next_free_.size() == entries_.size()) next_free_.emplace_back();
    entries_.emplace_back();
    AddToFree(static_cast<std::uint32_t>(entries_.size() - 1));
  }
  void AddToFree(std::uint32_t index) {
    next_free_[index] = first_free_;
    first_free_ = index;
  }

  // It grows by small pieces: where memory is short, one in which thousands of sockets have place is not to be had.
  std::deque<Entry> entries_{1};
  std::deque<std::uint32_t> next_free_{0};  // of each entry that is free; 0: none
  std::uint32_t first_free_ = 0;
};

}  // namespace trabex

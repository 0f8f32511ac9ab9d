// The table behind the handles of sockets.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

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

  // nullptr for a stale handle. Valid until the next Add.
  Entry* Find(SocketHandle socket) {
    if (socket.index <= 0 || static_cast<std::size_t>(socket.index) >= entries_.size()) return nullptr;
    Entry& entry = entries_[static_cast<std::size_t>(socket.index)];
    return !IsFree(entry) && entry.generation == socket.generation ? &entry : nullptr;
  }

  // Raises std::bad_alloc; the socket is still the caller's then.
  template <class Native, class Role>
  SocketHandle Add(Native native, AddressFamily family, Role role, std::size_t max_index = kMaxIndex) {
    if (free_.empty()) {
      assert(entries_.size() <= max_index);
      static_cast<void>(max_index);
      entries_.emplace_back();
      free_.reserve(entries_.capacity());  // so that Remove needs no memory
      free_.push_back(static_cast<std::uint32_t>(entries_.size() - 1));
    }
    const std::uint32_t index = free_.back();
    free_.pop_back();
    Entry& entry = entries_[index];
    const std::uint32_t generation = entry.generation;
    entry = Entry{};
    entry.generation = generation;
    entry.native = native;
    entry.family = family;
    entry.role = role;
    return {static_cast<std::int32_t>(index), generation};
  }

  // Its handle is stale from now on.
  void Remove(SocketHandle socket) {
    Entry& entry = entries_[static_cast<std::size_t>(socket.index)];
    entry.native = Entry{}.native;
    entry.sink = nullptr;
    ++entry.generation;
    free_.push_back(static_cast<std::uint32_t>(socket.index));
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
  std::vector<Entry> entries_{1};
  std::vector<std::uint32_t> free_;
};

}  // namespace trabex

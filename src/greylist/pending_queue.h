// Which records have waited longest: numbers in the order of their arrival, in all and for each network.
//
// Everything but the growth of the index takes the same time whatever the number of entries. An entry takes
// 24 bytes, a network that has one 16 more and its place in the index.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "base/key_index.h"

namespace trabex {

// A network is known by a hash of 64 bits alone, so that its text need not be kept. The hash has to be a
// keyed one (greylist/keyed_hash.h): then no sender can aim at another network's, and two that are equal by
// chance merely count as one network.
class PendingQueue {
 public:
  static constexpr std::uint32_t kNone = KeyIndex::kNone;

  // Adds `number` after all others. Returns the entry, by which it is removed.
  std::uint32_t Add(std::uint64_t network, std::uint32_t number);
  // `entry` was added and not removed since.
  void Remove(std::uint32_t entry);
  void Clear();

  std::size_t Count() const { return count_; }
  // Of the network of `entry`, itself included.
  std::size_t CountBeside(std::uint32_t entry) const { return networks_[entries_[entry].network].count; }
  // The number added first of those that are left; kNone when there is none.
  std::uint32_t Oldest() const { return first_ == kNone ? kNone : entries_[first_].number; }
  // That of the network of `entry`; itself when it is alone.
  std::uint32_t OldestBeside(std::uint32_t entry) const {
    return entries_[networks_[entries_[entry].network].first].number;
  }

 private:
  // The neighbours of an entry in a ring: the one before the first is the last.
  struct Links {
    std::uint32_t before;
    std::uint32_t after;
  };
  struct Entry {
    std::uint32_t number;
    std::uint32_t network;  // where in networks_
    Links in_all;           // of a free entry `after` is the next free one
    Links in_network;
  };
  struct Network {
    std::uint64_t hash;
    std::uint32_t first;  // its first entry; of a free place the next free one
    std::uint32_t count;  // at least 1 while it is in the index
  };
  using Ring = Links Entry::*;

  void Append(Ring ring, std::uint32_t& first, std::uint32_t entry);
  void TakeOut(Ring ring, std::uint32_t& first, std::uint32_t entry);
  std::uint32_t FindNetwork(std::uint64_t hash) const;
  std::uint32_t AddNetwork(std::uint64_t hash);

  // What grows in pieces never holds up the mail to be moved.
  std::deque<Entry> entries_;
  std::deque<Network> networks_;
  KeyIndex index_;
  std::size_t count_ = 0;
  std::uint32_t first_ = kNone;
  std::uint32_t free_entry_ = kNone;
  std::uint32_t free_network_ = kNone;
};

}  // namespace trabex

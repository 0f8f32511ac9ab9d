#include "greylist/pending_queue.h"

namespace trabex {

std::uint32_t PendingQueue::Add(std::uint64_t network, std::uint32_t number) {
  std::uint32_t place = FindNetwork(network);
  if (place == kNone) place = AddNetwork(network);
  std::uint32_t entry = free_entry_;
  if (entry != kNone) {
    free_entry_ = entries_[entry].in_all.after;
  } else {
    entry = static_cast<std::uint32_t>(entries_.size());
    entries_.emplace_back();
  }
  entries_[entry].number = number;
  entries_[entry].network = place;
  Append(&Entry::in_all, first_, entry);
  Append(&Entry::in_network, networks_[place].first, entry);
  ++networks_[place].count;
  ++count_;
  return entry;
}

void PendingQueue::Remove(std::uint32_t entry) {
  const std::uint32_t place = entries_[entry].network;
  Network& network = networks_[place];
  TakeOut(&Entry::in_all, first_, entry);
  TakeOut(&Entry::in_network, network.first, entry);
  --count_;
  if (--network.count == 0) {
    index_.Remove(network.hash, place);
    network.first = free_network_;
    free_network_ = place;
  }
  entries_[entry].in_all.after = free_entry_;
  free_entry_ = entry;
}

void PendingQueue::Clear() {
  *this = PendingQueue();
}

void PendingQueue::Append(Ring ring, std::uint32_t& first, std::uint32_t entry) {
  Links& links = entries_[entry].*ring;
  if (first == kNone) {
    links = {entry, entry};
    first = entry;
    return;
  }
  Links& first_links = entries_[first].*ring;
  links = {first_links.before, first};
  (entries_[first_links.before].*ring).after = entry;
  first_links.before = entry;
}

void PendingQueue::TakeOut(Ring ring, std::uint32_t& first, std::uint32_t entry) {
  const Links links = entries_[entry].*ring;
  (entries_[links.before].*ring).after = links.after;
  (entries_[links.after].*ring).before = links.before;
  if (first == entry) first = links.after == entry ? kNone : links.after;
}

std::uint32_t PendingQueue::FindNetwork(std::uint64_t hash) const {
  return index_.Find(hash, [this, hash](std::uint32_t place) { return networks_[place].hash == hash; });
}

std::uint32_t PendingQueue::AddNetwork(std::uint64_t hash) {
  std::uint32_t place = free_network_;
  if (place != kNone) {
    free_network_ = networks_[place].first;
  } else {
    place = static_cast<std::uint32_t>(networks_.size());
    networks_.emplace_back();
  }
  networks_[place] = {hash, kNone, 0};
  index_.Add(hash, place);
  return place;
}

}  // namespace trabex

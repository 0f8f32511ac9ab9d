#include "proxy/session_collection.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <iterator>
#include <vector>

#include "proxy/cProxy.h"

namespace trabex {

namespace {

// Ids may go on from 0 after the greatest number.
bool IsBefore(SessionId a, SessionId b) {
  return static_cast<std::int64_t>(a - b) < 0;
}

}  // namespace

SessionCollection::SessionCollection() = default;
SessionCollection::~SessionCollection() = default;

cProxy& SessionCollection::Add(std::unique_ptr<cProxy> session) {
  cProxy& added = *session;
  assert(!by_key_.contains(added.Key()));
  assert(sessions_.empty() || IsBefore(sessions_.back()->Id(), added.Id()));
  const bool at_end = last_at_ == sessions_.end();
  sessions_.push_back(std::move(session));
  by_key_.emplace(added.Key(), std::prev(sessions_.end()));
  if (at_end) last_at_ = std::prev(sessions_.end());
  return added;
}

cProxy* SessionCollection::Find(std::string_view key) {
  const auto found = by_key_.find(key);
  return found == by_key_.end() ? nullptr : found->second->get();
}

std::unique_ptr<cProxy> SessionCollection::Remove(std::string_view key) {
  const auto found = by_key_.find(key);
  if (found == by_key_.end()) return nullptr;
  if (last_at_ == found->second) {
    ++last_at_;
  } else if (last_at_ == sessions_.end() || IsBefore((*found->second)->Id(), (*last_at_)->Id())) {
    --last_index_;
  }
  std::unique_ptr<cProxy> session = std::move(*found->second);
  sessions_.erase(found->second);
  by_key_.erase(found);
  return session;
}

cProxy& SessionCollection::At(std::size_t index) {
  assert(index < Count());
  const std::size_t from_last = std::max(index, last_index_) - std::min(index, last_index_);
  if (index < from_last) {
    last_at_ = sessions_.begin();
    last_index_ = 0;
  } else if (Count() - index < from_last) {
    last_at_ = sessions_.end();
    last_index_ = Count();
  }
  std::advance(last_at_, static_cast<std::ptrdiff_t>(index) - static_cast<std::ptrdiff_t>(last_index_));
  last_index_ = index;
  return **last_at_;
}

void SessionCollection::ForEach(const std::function<void(cProxy&)>& action) {
  std::vector<std::string> keys;
  keys.reserve(Count());
  for (const auto& session : sessions_) keys.push_back(session->Key());
  for (const std::string& key : keys) {
    if (cProxy* session = Find(key)) action(*session);
  }
}

}  // namespace trabex

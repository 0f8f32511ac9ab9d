#include "proxy/session_collection.h"

#include <cassert>
#include <vector>

#include "proxy/cProxy.h"

namespace trabex {

SessionCollection::SessionCollection() = default;
SessionCollection::~SessionCollection() = default;

cProxy& SessionCollection::Add(std::unique_ptr<cProxy> session) {
  cProxy& added = *session;
  assert(!by_key_.contains(added.Key()));
  sessions_.push_back(std::move(session));
  by_key_.emplace(added.Key(), std::prev(sessions_.end()));
  return added;
}

cProxy* SessionCollection::Find(std::string_view key) {
  const auto found = by_key_.find(key);
  return found == by_key_.end() ? nullptr : found->second->get();
}

std::unique_ptr<cProxy> SessionCollection::Remove(std::string_view key) {
  const auto found = by_key_.find(key);
  if (found == by_key_.end()) return nullptr;
  std::unique_ptr<cProxy> session = std::move(*found->second);
  sessions_.erase(found->second);
  by_key_.erase(found);
  last_at_ = sessions_.end();
  return session;
}

cProxy& SessionCollection::At(std::size_t index) {
  assert(index < Count());
  if (last_at_ == sessions_.end() || index < last_index_) {
    last_at_ = sessions_.begin();
    last_index_ = 0;
  }
  std::advance(last_at_, static_cast<std::ptrdiff_t>(index - last_index_));
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

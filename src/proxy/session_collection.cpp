#include "proxy/session_collection.h"

#include <algorithm>
#include <cassert>
#include <cstdint>

#include "proxy/cProxy.h"

namespace trabex {

namespace {

// More than these and one for each open session are not kept.
constexpr std::size_t kMaxEmptyPlaces = 64;

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
  assert(places_.empty() || IsBefore(places_.back().id, added.Id()));
  if (places_.size() >= kMaxEmptyPlaces + 2 * Count()) DropEmptyPlaces();
  const auto key = by_key_.emplace(added.Key(), &added).first;
  try {
    places_.push_back({.id = added.Id(), .session = std::move(session)});
  } catch (...) {
    by_key_.erase(key);
    throw;
  }
  return added;
}

cProxy* SessionCollection::Find(std::string_view key) {
  const auto found = by_key_.find(key);
  return found == by_key_.end() ? nullptr : found->second;
}

std::unique_ptr<cProxy> SessionCollection::Remove(std::string_view key) {
  const auto found = by_key_.find(key);
  if (found == by_key_.end()) return nullptr;
  std::unique_ptr<cProxy> session = std::move(From(found->second->Id())->session);
  by_key_.erase(found);
  while (!places_.empty() && !places_.back().session) places_.pop_back();
  return session;
}

std::deque<SessionCollection::Place>::iterator SessionCollection::From(SessionId id) {
  return std::lower_bound(places_.begin(), places_.end(), id, [](const Place& candidate, SessionId wanted) {
    return IsBefore(candidate.id, wanted);
  });
}

void SessionCollection::DropEmptyPlaces() {
  std::erase_if(places_, [](const Place& place) { return !place.session; });
}

cProxy& SessionCollection::At(std::size_t index) {
  assert(index < Count());
  if (places_.size() != Count()) DropEmptyPlaces();
  return *places_[index].session;
}

SessionId SessionCollection::IdAt(std::size_t index) {
  assert(index < Count());
  if (places_.size() != Count()) DropEmptyPlaces();
  return places_[index].id;
}

void SessionCollection::ForEach(const std::function<void(cProxy&)>& action) {
  if (places_.empty()) return;
  const SessionId end = places_.back().id + 1;
  // Places go and come in an action, ids stay.
  for (SessionId next = places_.front().id; IsBefore(next, end);) {
    const auto place = From(next);
    if (place == places_.end()) return;
    next = place->id + 1;
    if (place->session && IsBefore(place->id, end)) action(*place->session);
  }
}

}  // namespace trabex

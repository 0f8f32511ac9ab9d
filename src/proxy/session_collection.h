// The open sessions, in the order in which they came.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string_view>

#include "proxy/session_id.h"

namespace trabex {

class cProxy;

// Owns the sessions. Keys are the sessions' own (cProxy::Key).
class SessionCollection {
 public:
  SessionCollection();
  ~SessionCollection();
  SessionCollection(const SessionCollection&) = delete;
  SessionCollection& operator=(const SessionCollection&) = delete;

  // Sessions are added in the order of their ids.
  cProxy& Add(std::unique_ptr<cProxy> session);
  // nullptr when the key is missing.
  cProxy* Find(std::string_view key);
  // Gives the session away; nullptr when the key is missing.
  std::unique_ptr<cProxy> Remove(std::string_view key);
  std::size_t Count() const { return by_key_.size(); }
  // An id for a session to come, another one with each call.
  SessionId NextId() { return next_id_++; }
  // The session at `index` (0 is the oldest, index < Count()), and its id, which costs no look at the session. The
  // first call after a session was removed takes a short step for each session.
  cProxy& At(std::size_t index);
  SessionId IdAt(std::size_t index);
  // Calls `action` for every session; it may remove any session, those that come meanwhile are not visited. Needs no
  // memory.
  void ForEach(const std::function<void(cProxy&)>& action);

 private:
  struct Place {
    SessionId id = 0;
    std::unique_ptr<cProxy> session;  // none: it was removed, and the place is still to go
  };

  // The place of the session with this id, or the first one behind.
  std::deque<Place>::iterator From(SessionId id);
  void DropEmptyPlaces();

  // Both grow by small pieces: where memory is short, one for thousands of sessions is not to be had. The keys are those
  // that the sessions have.
  std::deque<Place> places_;  // in the order of the ids
  SessionId next_id_ = FirstSessionId();
  std::map<std::string_view, cProxy*> by_key_;
};

}  // namespace trabex

// The open sessions, in the order in which they came.
#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/text.h"
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
  std::size_t Count() const { return sessions_.size(); }
  // An id for a session to come, another one with each call.
  SessionId NextId() { return next_id_++; }
  // The session at `index` (0 is the oldest, index < Count()). Takes a step for each session between it and the
  // nearest of the first, the last and the one that was asked for last.
  cProxy& At(std::size_t index);
  // Calls `action` for every session; it may remove any session, those that come meanwhile are not visited.
  void ForEach(const std::function<void(cProxy&)>& action);

 private:
  using Sessions = std::list<std::unique_ptr<cProxy>>;
  Sessions sessions_;
  SessionId next_id_ = FirstSessionId();
  std::unordered_map<std::string, Sessions::iterator, HashText, std::equal_to<>> by_key_;
  Sessions::iterator last_at_ = sessions_.end();  // where At stopped, for the next one; may be the end
  std::size_t last_index_ = 0;                    // its index; Count() at the end
};

}  // namespace trabex

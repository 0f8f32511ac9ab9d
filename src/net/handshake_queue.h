// The line in which unfinished TLS handshakes wait for their next step.
//
// A step costs up to milliseconds of processor time, far more than anything that a session relays. So steps
// are not made in the notifications of the sockets, but in turns, one in each iteration of the loop and a few
// milliseconds long: however many clients come at once, the other sessions wait no longer than a turn and one
// step.
#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>

#include "base/log.h"
#include "platform/event_loop.h"

namespace trabex {

class HandshakeQueue {
 public:
  // How long a turn takes steps; one is always taken.
  static constexpr Milliseconds kTurn{5};
  // So many unfinished ones at a time are a storm: when the last of them has ended, what they took is given back
  // to the system.
  static constexpr std::size_t kStorm = 256;

  // An unfinished handshake. Destroying it ends its part in the queue.
  class Place {
   public:
    // `queue` outlives the place. `step` is called from the loop for each Ready, `evict` once when there are
    // too many; both may destroy the place. `counts`: it is one of those that SetMax limits.
    Place(HandshakeQueue& queue, bool counts, std::function<void()> step, std::function<void()> evict);
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    // A step can be made. Does nothing while it waits for one already.
    void Ready();

   private:
    friend class HandshakeQueue;
    using Line = std::list<Place*>;

    HandshakeQueue& queue_;
    std::function<void()> step_;
    std::function<void()> evict_;
    std::optional<Line::iterator> counted_;  // in unfinished_
    std::optional<Line::iterator> ready_;    // in ready_
    std::optional<Line::iterator> evicted_;  // in evicted_
  };

  // References outlive this object. `log` gets errors that leave a step.
  HandshakeQueue(EventLoop& loop, Log& log) : loop_(loop), log_(log) {}
  HandshakeQueue(const HandshakeQueue&) = delete;
  HandshakeQueue& operator=(const HandshakeQueue&) = delete;

  // The most unfinished ones that count; one more evicts the oldest. 0: any number. Where there are more already
  // they stay until the next one comes.
  void SetMax(std::size_t max) { max_ = max; }
  std::size_t Unfinished() const { return unfinished_.size(); }

 private:
  void EvictOldest();
  void AskForTurn();
  void TakeTurn();
  void NoteEnd();

  EventLoop& loop_;
  Log& log_;
  std::size_t max_ = 0;
  bool storm_ = false;      // there were so many since there was none
  Place::Line unfinished_;  // the oldest first
  Place::Line ready_;
  Place::Line evicted_;  // until the next turn
  bool turn_posted_ = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace trabex

#include "net/handshake_queue.h"

#include <utility>

#include "platform/memory.h"

namespace trabex {

namespace {

constexpr const char* kTurnSource = "HandshakeQueue.TakeTurn";

}  // namespace

HandshakeQueue::Place::Place(HandshakeQueue& queue, bool counts, std::function<void()> step,
                             std::function<void()> evict)
    : queue_(queue), step_(std::move(step)), evict_(std::move(evict)) {
  if (!counts) return;
  // Before it is in the line, where nobody would take it out again.
  if (queue_.max_ != 0 && queue_.unfinished_.size() >= queue_.max_) queue_.AskForTurn();
  counted_ = queue_.unfinished_.insert(queue_.unfinished_.end(), this);
  if (queue_.unfinished_.size() >= kStorm) queue_.storm_ = true;
  // More than one only when the most has fallen.
  while (queue_.max_ != 0 && queue_.unfinished_.size() > queue_.max_) queue_.EvictOldest();
}

HandshakeQueue::Place::~Place() {
  if (counted_) {
    queue_.unfinished_.erase(*counted_);
    queue_.NoteEnd();
  }
  if (ready_) queue_.ready_.erase(*ready_);
  if (evicted_) queue_.evicted_.erase(*evicted_);
}

void HandshakeQueue::Place::Ready() {
  if (ready_ || evicted_) return;
  queue_.AskForTurn();
  ready_ = queue_.ready_.insert(queue_.ready_.end(), this);
}

// Its owner is notified in the next loop iteration, for which its caller has asked: at the moment the owner of the new
// handshake is being called.
void HandshakeQueue::EvictOldest() {
  Place& oldest = *unfinished_.front();
  evicted_.splice(evicted_.end(), unfinished_, unfinished_.begin());
  oldest.evicted_ = *std::exchange(oldest.counted_, std::nullopt);
  if (oldest.ready_) ready_.erase(*std::exchange(oldest.ready_, std::nullopt));
}

// The memory itself is freed when the owners of the last ones have gone.
void HandshakeQueue::NoteEnd() {
  if (!storm_ || !unfinished_.empty()) return;
  storm_ = false;
  RunLogged(log_, kTurnSource, [this] { loop_.Post([&loop = loop_] { loop.Post(&ReturnFreedMemory); }); });
}

void HandshakeQueue::AskForTurn() {
  if (turn_posted_) return;
  loop_.Post([this, alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) RunLogged(log_, kTurnSource, [this] { TakeTurn(); });
  });
  turn_posted_ = true;
}

void HandshakeQueue::TakeTurn() {
  turn_posted_ = false;
  while (!evicted_.empty()) {
    Place& place = *evicted_.front();
    evicted_.pop_front();
    place.evicted_.reset();
    // What is called may destroy the place and what it calls with it.
    const auto evict = std::move(place.evict_);
    RunLogged(log_, kTurnSource, evict);
  }
  const MonotonicTime begin = loop_.GetClock().Monotonic();
  while (!ready_.empty()) {
    Place& place = *ready_.front();
    ready_.pop_front();
    place.ready_.reset();
    RunLogged(log_, kTurnSource, [&] {
      const auto step = place.step_;
      step();
    });
    if (loop_.GetClock().Monotonic() - begin >= kTurn) break;
  }
  if (!ready_.empty()) AskForTurn();
}

}  // namespace trabex

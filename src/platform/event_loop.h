// The one loop of the program: it waits for sockets, timers and end requests and calls their owners, one
// after the other on one thread. Nothing may wait inside a call from the loop, and the loop must not be run
// from inside one (asserted).
//
// A loop iteration is one wait and what follows from it, in this order: posted actions, events of sockets and
// descriptors, timers, then its end: the actions of OnIterationEnd and the objects of DeferredDelete.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/clock.h"

namespace trabex {

using Milliseconds = std::chrono::milliseconds;

// What the loop can destroy later, see EventLoop::DeferredDelete.
class DeferredDeletable {
 public:
  virtual ~DeferredDeletable() = default;
};

// What a descriptor of the system is watched for (platform/fd_watcher.h); sockets of ours are watched by
// platform/sockets.h.
struct FdReadiness {
  bool readable = false;
  bool writable = false;
};

class EventLoop {
 public:
  // `clock` outlives the loop. Raises 57 "Device I/O error" when the system gives no event queue.
  explicit EventLoop(const Clock& clock);
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Iterates until Quit is called. An exception that leaves a handler is a defect of the handler (asserted).
  void Run();
  // Ends Run after the current iteration; a Quit that comes before Run ends it before its first iteration.
  void Quit();
  // One iteration, which waits `wait` at most for something to happen (0: does not wait). Returns whether
  // anything was called. For tests, and for the wait of a start for a name.
  bool RunOnce(Milliseconds wait);

  // Calls `action` once in the next iteration (never inside this call).
  void Post(std::function<void()> action);
  // Calls `action` once at the end of this iteration, after all events and before the loop waits: for work
  // that is collected over an iteration, such as writing the log.
  void OnIterationEnd(std::function<void()> action);
  // Takes `object` and destroys it at the end of this iteration, so that no call that is still on the stack
  // finds itself in a destroyed object. Outside of an iteration the object is destroyed at the end of the
  // next one, or with the loop.
  void DeferredDelete(std::unique_ptr<DeferredDeletable> object);

  // From now on `observer` is told how long each iteration worked, from the end of its wait to its own end;
  // an empty one: nobody is.
  void ObserveTurns(std::function<void(std::chrono::nanoseconds time)> observer);

  const Clock& GetClock() const;

  // Internal seam to the files of platform/ and to Timer.
  struct Impl;
  Impl& GetImpl() { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
};

// A timer that calls its owner every `interval` while enabled. Destroying it disables it, also inside its own
// call. Ticks that were missed while the loop was busy are not made up for. A timer enabled inside a timer's
// call is not called in the same iteration, so timers cannot starve sockets.
class Timer {
 public:
  // `loop` outlives the timer.
  Timer(EventLoop& loop, Milliseconds interval, std::function<void()> tick);
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Begins a whole new interval, also when it was enabled already. Needs no memory.
  void Enable();
  void Disable();
  bool Enabled() const;
  // Takes effect at once: an enabled timer begins a whole new interval.
  void SetInterval(Milliseconds interval);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace trabex

// The event loop's half that knows windows and messages, for the other files of platform/windows/.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "platform/common/deferred_tasks.h"
#include "platform/common/timer_heap.h"
#include "platform/event_loop.h"
#include "platform/windows/loop/message_numbers.h"
#include "platform/windows/loop/thread_posts.h"
#include "platform/windows/win.h"

namespace trabex {

// An owner of sockets whose messages come to the loop's window, each addressed by its index in the owner's table and
// the generation of that entry. A message is no more than a hint: it may be late, and any program can send one.
class EventSource {
 public:
  virtual ~EventSource() = default;
  // `event` is one of the system's FD_ bits. Returns whether anybody was called. Raises nothing.
  virtual bool OnMessage(std::uint32_t index, std::uint32_t generation, long event, int error) = 0;
  // Whether CallDue has something to look at, so that the loop must not wait.
  virtual bool IsDue() const = 0;
  // Called once in each iteration, for what was found without a message. Returns the number of calls.
  virtual std::size_t CallDue() = 0;
  // Called about once a second. The system drops messages when too many wait, so what is silent is asked anew; what
  // that finds is due.
  virtual void AskAnew() = 0;
  // Called behind a standstill: all that has happened by now is due when this returns.
  virtual void AskAll() = 0;
};

// The sockets of all FdWatchers, which share one source.
class FdTable final : public EventSource {
 public:
  using Ready = std::function<void(FdReadiness)>;

  struct Slot {
    SOCKET socket = INVALID_SOCKET;  // INVALID_SOCKET: free
    std::uint32_t generation = 0;
    UINT number = 0;  // of its messages; 0: none come
    FdReadiness interest;
    bool due = false;
    Ready ready;
  };

  explicit FdTable(EventLoop::Impl& loop) : loop_(loop) {}
  std::uint32_t Add(SOCKET socket, Ready ready);
  void Remove(std::uint32_t index);
  // Returns whether the system can.
  bool SetInterest(std::uint32_t index, FdReadiness interest);

  bool OnMessage(std::uint32_t index, std::uint32_t generation, long event, int error) override;
  bool IsDue() const override { return !due_.empty(); }
  std::size_t CallDue() override;
  void AskAnew() override;
  void AskAll() override { AskAnew(); }

 private:
  void MakeDue(std::uint32_t index);

  EventLoop::Impl& loop_;
  std::vector<Slot> slots_;
  std::vector<std::uint32_t> free_;
  // Those that may be ready. One that was called stays here for the next iteration.
  std::vector<std::uint32_t> due_;
  std::vector<std::uint32_t> looked_at_;
};

struct EventLoop::Impl {
  // The result of a message.
  using MessageHandler = std::function<LRESULT(WPARAM, LPARAM)>;

  explicit Impl(const Clock& the_clock);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // The hidden window; a top-level one, since only such a window gets what is sent to all.
  HWND Window() const { return window_; }
  // Calls `handler` for each message of this number to the window, posted or sent, in an iteration of the loop; an empty
  // one: nobody is called any more.
  void HandleMessage(UINT message, MessageHandler handler);

  // `source` stays until RemoveSource, which also takes its numbers from it.
  void AddSource(EventSource& source);
  void RemoveSource(EventSource& source);
  // From now on the socket's events come as messages to `target`; `events` are FD_ bits. Returns 0 or an error of the
  // system; `number` is that of the messages.
  int Select(const MessageTarget& target, long events, UINT& number);
  // Ends it. The socket is open, or was closed just now.
  void Deselect(SOCKET socket, UINT number, bool open);

  // One iteration; `wait` negative: until something happens. Returns whether anything was called.
  bool Iterate(Milliseconds wait);

  // An iteration takes no more messages than this, so that posts and timers get their turn under any load.
  static constexpr int kMaxMessagesPerIteration = 256;
  // When more messages wait than an iteration takes, due timers wait too: a reply that is among the messages counts
  // before the time-out that it was to come in. After so many such iterations one after the other they are called in
  // any case.
  static constexpr int kMaxPartialIterations = 128;

  const Clock& clock;
  TimerHeap timers;
  DeferredTasks work;
  bool in_iteration = false;
  bool quit = false;
  std::uint32_t iteration = 0;  // counts what follows each wait
  std::function<void(std::chrono::nanoseconds)> turn_observer;
  std::shared_ptr<ThreadPosts> thread_posts;
  FdTable watched_fds{*this};

 private:
  static LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM w, LPARAM l);
  LRESULT OnWindowMessage(UINT message, WPARAM w, LPARAM l);
  // How long the loop may wait; nothing: for ever.
  std::optional<Milliseconds> WaitLimit(Milliseconds wait) const;
  // Whether a source has something to look at.
  bool IsAnyDue() const;
  // Waits until there are messages, unless something is due.
  void AwaitMessages(std::optional<Milliseconds> limit) const;
  // What follows the wait. Returns the number of calls.
  std::size_t WorkOnce();
  // Takes the messages that wait, within the bound of an iteration. Returns the number of calls.
  std::size_t DispatchMessages();
  // Calls the sources' CallDue and then, if it is their turn, the timers that were over at `asked`, which is before the
  // messages were taken. At the end of a standstill much has happened and many times are over; what has happened comes
  // first, such as a reply before the time in which it had to come.
  std::size_t CallDueAndTimers(MonotonicTime asked);
  void AskAnewIfDue();

  HWND window_ = nullptr;
  MessageNumbers numbers_;
  std::vector<EventSource*> sources_;
  // Each is shared with the call of it that is under way.
  std::map<UINT, std::shared_ptr<const MessageHandler>> handlers_;
  std::size_t message_calls_ = 0;  // of the messages in this iteration
  int partial_iterations_ = 0;     // that left messages waiting, one after the other, up to this one
  std::chrono::steady_clock::time_point asked_anew_;
};

}  // namespace trabex

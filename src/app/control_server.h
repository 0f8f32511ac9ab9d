// The running program's end of the control channel: lets callers in, takes one request of each, and gives it the
// answer. Nobody who calls costs the mail anything: a caller that says or takes nothing for 10 seconds is hung
// up on, further callers than 8 wait, and in one turn of the loop one slice of one long answer is made.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <string_view>
#include <vector>

#include "app/control_requests.h"
#include "platform/control_channel.h"
#include "platform/event_loop.h"

namespace trabex {

class ControlServer {
 public:
  static constexpr std::size_t kMaxCallers = 8;
  static constexpr Milliseconds kMaxSilence{10000};

  // Both outlive the server.
  ControlServer(EventLoop& loop, const ControlRequests& requests);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // From now on the channel is that of `name`; those who came by another one keep theirs. False when another
  // process has it: then there is none. Raises 57 "Device I/O error" when the system refuses, with the same
  // result.
  bool Open(std::string_view name);
  // From now on callers are let in; those who came before have waited.
  void Begin();
  // Hangs up on everybody, and there is no channel any more. What was given as an answer still arrives as far as
  // the system takes it at once. May be called from a handler of a request.
  void Close();

  std::size_t CallerCount() const { return callers_.size(); }

 private:
  class Caller;

  void Take(std::unique_ptr<ControlCaller> caller);
  void Remove(Caller& caller);
  void LetInWhileThereIsRoom();
  // The caller wants the next slice of its answer.
  void Enqueue(Caller& caller);
  void PostSlice();
  void MakeSlice();

  EventLoop& loop_;
  const ControlRequests& requests_;
  std::unique_ptr<ControlChannel> channel_;
  bool begun_ = false;
  std::vector<std::unique_ptr<Caller>> callers_;
  std::deque<Caller*> waiting_for_slices_;
  bool slice_is_due_ = false;  // in the next turn
  std::shared_ptr<char> here_ = std::make_shared<char>();
};

}  // namespace trabex

// What other processes can ask of the running program: requests by name, each with its handler. How they come
// and how the answers go back is not known here (control_server.h).
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "app/exit_status.h"
#include "platform/control_channel.h"

namespace trabex {

// What the one who asked is told, as UTF-8.
struct ControlAnswer {
  int status = exit_status::kDone;  // the exit status of the command that asked
  std::string text;                 // for standard output, with its line ends
  std::string error;                // for standard error: one line, without a line end
};

// Makes a long answer, a slice at a time: sets text and error of the empty `slice`, and its status, which
// counts in the last one; returns whether more slices follow. Called at most once in a turn of the loop, and
// only when the slice before has been taken, so each call does what takes 10 milliseconds at most. Destroyed
// early when the one who asked has gone.
using ControlSlices = std::function<bool(ControlAnswer& slice)>;

// An answer that has to wait for something. Whoever gives it keeps this.
class PendingAnswer {
 public:
  // Once at most.
  void Give(ControlAnswer answer);
  // Who takes it, at once if it was given already. An empty one: nobody does.
  void Await(std::function<void(ControlAnswer)> taker);

 private:
  std::function<void(ControlAnswer)> taker_;
  std::unique_ptr<ControlAnswer> given_;
};

// An answer that has no end: who called is handed over, and talks with `take` in both directions from then on.
struct ControlStream {
  std::function<void(std::unique_ptr<ControlCaller> caller)> take;
};

using ControlReply =
    std::variant<ControlAnswer, ControlSlices, std::shared_ptr<PendingAnswer>, ControlStream>;

// Called from the loop with what follows the request's name.
using ControlHandler = std::function<ControlReply(const std::vector<std::string>& arguments)>;

class ControlRequests {
 public:
  // `name` is in capital letters, as on the command line behind the slash: "STATUS". A second handler of a name
  // replaces the first.
  void Add(std::string name, ControlHandler handler);
  // The reply to a request, which is a name and its arguments. One that nobody has added fails.
  // `attached` is the file that came with it.
  ControlReply Answer(const std::vector<std::string>& request, NativeFile attached = {}) const;
  // For the handler that is being called: the file that came with the request, once; none when there was none.
  NativeFile TakeAttached() const { return std::exchange(attached_, {}); }

 private:
  mutable NativeFile attached_;
  std::map<std::string, ControlHandler, std::less<>> handlers_;
};

}  // namespace trabex

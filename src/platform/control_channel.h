// How other processes of this machine ask something of a running instance: a stream of bytes in each direction
// for each caller. It has the name of the instance's lock (instance_lock.h), and its scope. Only root and the
// instance's own user come through.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <variant>

#include "platform/event_loop.h"
#include "platform/native_file.h"

namespace trabex {

enum class ChannelResult {
  kDone,        // at least one byte has passed
  kWouldBlock,  // nothing passes now
  kClosed,      // the other end has gone, or says nothing more
};

// One caller, as the instance sees it.
class ControlCaller {
 public:
  virtual ~ControlCaller() = default;  // hangs up; what was sent still arrives

  // `ready` is called from the loop while what is watched for holds, also when the caller has gone; it may
  // destroy this object. Nothing is watched for at first. Raises 57 "Device I/O error" when the system cannot.
  virtual void Watch(FdReadiness interest, std::function<void()> ready) = 0;
  // `buffer` is not empty.
  virtual ChannelResult Receive(std::span<char> buffer, std::size_t& received) = 0;
  // `bytes` is not empty; `sent` is how many of them the system took.
  virtual ChannelResult Send(std::string_view bytes, std::size_t& sent) = 0;
  // The file that came with what was received; none when there was none.
  virtual NativeFile TakeFile() { return NativeFile(); }
};

// The instance's end.
class ControlChannel {
 public:
  virtual ~ControlChannel() = default;  // callers that came through stay
  // Whether callers are let in; those that come meanwhile wait. They are not at first. Raises 57 when the system
  // cannot watch the channel.
  virtual void LetIn(bool let_in) = 0;
};

// The channel named `name`, or nothing when another process has it. `called` gets each caller from the loop, and
// may stop letting in more, or destroy the channel. Raises 57 "Device I/O error" when the system refuses for
// another reason.
std::unique_ptr<ControlChannel> OpenControlChannel(
    EventLoop& loop, std::string_view name, std::function<void(std::unique_ptr<ControlCaller>)> called);

// The caller's end, for a process that has nothing else to do: each call waits.
class ControlCall {
 public:
  virtual ~ControlCall() = default;
  // Opens the file and sends it along with what is sent next, so that the instance can read what it could not open
  // itself. What cannot be opened or sent so is left to the instance.
  virtual void Attach(const std::string& path) { static_cast<void>(path); }
  // Sends all of it. kWouldBlock: the instance took nothing for too long.
  virtual ChannelResult Send(std::string_view bytes) = 0;
  // kWouldBlock: nothing came for too long.
  virtual ChannelResult Receive(std::span<char> buffer, std::size_t& received) = 0;
  // The system's handle of the stream, for who waits for something else as well; -1 where it cannot be waited for.
  virtual std::intptr_t NativeHandle() const { return -1; }
};

enum class CallFailure {
  kNoInstance,
  kOtherUser,      // the instance is another user's, and we are not root
  kNoChannel,      // the instance lets nobody ask
  kForeignChannel  // the channel is not the instance's own, but of another user's process
};

// Calls the instance that holds the lock named `name`. Each wait ends after `patience`.
std::variant<std::unique_ptr<ControlCall>, CallFailure> CallInstance(std::string_view name,
                                                                     std::chrono::seconds patience);

}  // namespace trabex

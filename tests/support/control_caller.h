// One who calls an instance over its control channel, without waiting: the loop of the instance runs in the same
// process.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace trabex {

class ControlCallerPeer {
 public:
  explicit ControlCallerPeer(std::string_view name);
  ~ControlCallerPeer();
  ControlCallerPeer(const ControlCallerPeer&) = delete;
  ControlCallerPeer& operator=(const ControlCallerPeer&) = delete;

  // Whether there is somebody who may answer, be it after others.
  bool Connected() const;
  // Sends what the system takes now. On Windows the rest is sent as it is taken, and nothing before there is a pipe.
  void Send(std::string_view bytes);
  // Whether all of it was given to the system.
  bool AllSent() const;
  // Ends the sending side only. Not on Windows, whose pipes have one end for both.
  void EndSending();
  // All that was said to it so far.
  const std::string& Heard();
  // Whether the instance has hung up.
  bool Ended();
  // Whether there is something that was not heard yet.
  bool SomethingWaits() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace trabex

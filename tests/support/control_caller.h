// One who calls an instance over its control channel, without waiting: the loop of the instance runs in the same
// process.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <string>
#include <string_view>

#include "platform/linux/descriptor.h"
#include "platform/linux/process/abstract_address.h"

namespace trabex {

class ControlCallerPeer {
 public:
  explicit ControlCallerPeer(std::string_view name)
      : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    const AbstractAddress address(name);
    connected_ = connect(socket_.Get(), address.Get(), address.Length()) == 0;
  }

  bool Connected() const { return connected_; }
  // How much of it the system took.
  std::size_t Send(std::string_view bytes) {
    const ssize_t sent = send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
  }
  void EndSending() { shutdown(socket_.Get(), SHUT_WR); }
  // All that was said to it so far.
  const std::string& Heard() {
    std::array<char, 65536> buffer;
    for (ssize_t got = 1; got > 0;) {
      got = recv(socket_.Get(), buffer.data(), buffer.size(), 0);
      if (got > 0) heard_.append(buffer.data(), static_cast<std::size_t>(got));
      if (got == 0 || (got < 0 && errno != EAGAIN)) ended_ = true;
    }
    return heard_;
  }
  // Whether the instance has hung up.
  bool Ended() {
    Heard();
    return ended_;
  }
  // What is there and was not heard yet.
  bool SomethingWaits() const {
    char byte = 0;
    return recv(socket_.Get(), &byte, 1, MSG_PEEK) > 0;
  }

 private:
  Descriptor socket_;
  bool connected_ = false;
  bool ended_ = false;
  std::string heard_;
};

}  // namespace trabex

#include "support/control_caller.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "platform/linux/descriptor.h"
#include "platform/linux/process/abstract_address.h"

namespace trabex {

struct ControlCallerPeer::Impl {
  Descriptor socket;
  bool connected = false;
  bool ended = false;
  bool all_sent = true;
  std::string heard;
};

ControlCallerPeer::ControlCallerPeer(std::string_view name)
    : impl_(new Impl{.socket = Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
                     .heard = {}}) {
  const AbstractAddress address(name);
  impl_->connected = connect(impl_->socket.Get(), address.Get(), address.Length()) == 0;
}

ControlCallerPeer::~ControlCallerPeer() = default;

bool ControlCallerPeer::Connected() const {
  return impl_->connected;
}

void ControlCallerPeer::Send(std::string_view bytes) {
  const ssize_t sent = send(impl_->socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(bytes.size())) impl_->all_sent = false;
}

bool ControlCallerPeer::AllSent() const {
  return impl_->all_sent;
}

void ControlCallerPeer::EndSending() {
  shutdown(impl_->socket.Get(), SHUT_WR);
}

const std::string& ControlCallerPeer::Heard() {
  std::array<char, 65536> buffer;
  for (ssize_t got = 1; got > 0;) {
    got = recv(impl_->socket.Get(), buffer.data(), buffer.size(), 0);
    if (got > 0) impl_->heard.append(buffer.data(), static_cast<std::size_t>(got));
    if (got == 0 || (got < 0 && errno != EAGAIN)) impl_->ended = true;
  }
  return impl_->heard;
}

bool ControlCallerPeer::Ended() {
  Heard();
  return impl_->ended;
}

bool ControlCallerPeer::SomethingWaits() const {
  char byte = 0;
  return recv(impl_->socket.Get(), &byte, 1, MSG_PEEK) > 0;
}

}  // namespace trabex

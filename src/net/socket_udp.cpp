// Datagrams: sending and receiving of a UDP socket object. Sessions do not use them.
#include <utility>

#include "net/CSocketMaster_impl.h"
#include "net/known_host.h"

namespace trabex {

void CSocketMaster::SendBufferedDataUDP(std::string_view data) {
  constexpr const char* kSource = "CSocketMaster.SendBufferedDataUDP";
  const HostAddress target = LookUpKnownHost(module_.names_, remote_host_);
  if (!BindInternal(std::nullopt, {}, FamilyOf(target.address))) return;
  state_ = SocketState::sckOpen;
  if (target.error == socket_error::kAddressFamily) RaiseSocketError(target.error, kSource);
  if (target.error != 0) RaiseBadAddress(kSource);
  const Endpoint to{target.address, static_cast<std::uint16_t>(remote_port_)};
  if (const int error = module_.sockets_.SendTo(socket_, data, to); error != 0)
    return ReportError(error, kSource);
  bytes_sent_ += static_cast<std::int64_t>(data.size());
}

void CSocketMaster::OnDatagram() {
  if (state_ != SocketState::sckOpen) return;
  const trabex::SocketHandle socket = socket_;
  std::size_t waiting = 0;
  if (module_.sockets_.Available(socket, waiting) == 0 && waiting > 0) {
    Raise(Events.DataArrival, "DataArrival");
  }
  // Reading one byte drops the datagram that the owner left lying.
  char byte = 0;
  std::size_t received = 0;
  module_.sockets_.Receive(socket, {&byte, 1}, received);
}

std::string_view CSocketMaster::PeekDatagram(std::int32_t max_length) {
  std::string datagram;
  RecvData(datagram, true, max_length);
  receive_.Clear();
  receive_.Append(datagram);
  return receive_.View();
}

std::int32_t CSocketMaster::RecvData(std::string& data, bool peek, std::int32_t max_length) {
  std::size_t waiting = 0;
  data.clear();
  if (module_.sockets_.Available(socket_, waiting) != 0 || waiting == 0) return 0;
  data.resize(waiting);
  std::size_t received = 0;
  Endpoint from;
  const int error = module_.sockets_.ReceiveFrom(socket_, data, peek, received, from);
  data.resize(received);
  Check(error, "CSocketMaster.RecvData");
  remote_port_ = from.port;
  remote_address_ = from.address;
  remote_host_.clear();
  if (max_length > 0 && data.size() > static_cast<std::size_t>(max_length)) {
    data.resize(static_cast<std::size_t>(max_length));
  }
  return static_cast<std::int32_t>(data.size());
}

}  // namespace trabex

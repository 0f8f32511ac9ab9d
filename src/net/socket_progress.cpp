// What happens to a socket object from the loop: its five notifications, and the answer of a host look-up.
#include <utility>

#include "net/CSocketMaster_impl.h"
#include "platform/message.h"

namespace trabex {

namespace {

// Names under which errors of this file are reported; they are part of the log's texts.
constexpr const char* kProgressSource = "CSocketMaster.WndProc";
constexpr const char* kNotificationSource = "CSocketMaster.PostSocket";

}  // namespace

void CSocketMaster::LogHandlerError(const char* event) {
  RunLogged(module_.log_, kProgressSource, [&] {
    const std::string source = Events.Owner != nullptr ? std::string(Events.Owner) + "_" + event
                                                       : std::string("CSocketMaster.") + event;
    RunLogged(module_.log_, source, [] { throw; });
  });
}

void CSocketMaster::ReportError(int number, const char* source) {
  if (Handshaking()) EndHandshake();
  state_ = SocketState::sckError;
  std::string description;
  std::string source_text;
  // Without words it fails all the same.
  RunLogged(module_.log_, kProgressSource, [&] {
    description = GetStream().ErrorText(number);
    source_text = source;
  });
  bool cancel_display = true;
  Raise(Events.Error, "Error", number, description, source_text, cancel_display);
  if (!cancel_display) ShowMessage(source_text + ": " + description + "\n");
}

void CSocketMaster::ResolveIfHostname(const std::string& host) {
  state_ = SocketState::sckResolvingHost;
  host_lookup_ = module_.names_.FindAddresses(host, LookupFamily::kIPv4First,
                                              [this](const AddressAnswer& answer) { OnHostAnswer(answer); });
  if (host_lookup_ == 0) ReportError(socket_error::kNoRecovery, "CSocketMaster.ResolveIfHostname");
}

void CSocketMaster::OnHostAnswer(const AddressAnswer& answer) {
  host_lookup_ = 0;
  if (state_ != SocketState::sckResolvingHost) return;
  RunProgress([&] {
    if (answer.error != 0) return ConnectToIP({}, answer.error);
    state_ = SocketState::sckHostResolved;
    try {
      ConnectToIP(answer.addresses.front(), 0);
    } catch (const Error& error) {
      // There is no caller to raise it to any more, and the owner must not wait for ever.
      ReportError(error.Number(), "CSocketMaster.ConnectToIP");
    }
  });
}

// A connection whose local port is left open needs no bind of its own: connecting chooses one, and then one
// port can serve connections to different servers.
bool CSocketMaster::BindForConnect(AddressFamily family) {
  return local_port_ == 0 || BindInternal(std::nullopt, {}, family);
}

void CSocketMaster::ConnectToIP(const IPAddress& address, int error) {
  constexpr const char* kSource = "CSocketMaster.ConnectToIP";
  if (error != 0) return ReportError(error, kSource);
  const AddressFamily family = FamilyOf(address);
  if (!SocketExists(family) || !BindForConnect(family)) return;
  state_ = SocketState::sckConnecting;
  connect_address_ = address;
  const int result = module_.sockets_.Connect(socket_, {address, static_cast<std::uint16_t>(remote_port_)});
  if (result == 0 || result == socket_error::kWouldBlock) return;
  if (result == socket_error::kAddressNotAvailable) RaiseSocketError(result, kSource);
  ReportError(result, kSource);
}

void CSocketMaster::OnSocketEvent(trabex::SocketHandle socket, SocketEvent event, int error) {
  if (socket != socket_) return;
  RunProgress([&] { OnNotification(event, error); });
}

void CSocketMaster::OnNotification(SocketEvent event, int error) {
  if (event == SocketEvent::kClose) return OnClose(error);
  if (error != 0) return ReportError(error, kNotificationSource);
  switch (event) {
    case SocketEvent::kRead:
      return OnRead();
    case SocketEvent::kWrite:
      return OnWrite();
    case SocketEvent::kAccept:
      if (state_ == SocketState::sckListening) OnAccept();
      return;
    case SocketEvent::kConnect:
      if (state_ == SocketState::sckConnecting) OnConnected();
      return;
    case SocketEvent::kClose:
      break;
  }
}

void CSocketMaster::OnRead() {
  if (protocol_ == SocketProtocol::sckUDPProtocol) return OnDatagram();
  if (Handshaking()) return ReadyForHandshake();
  if (state_ == SocketState::sckConnected) Raise(Events.DataArrival, "DataArrival");
}

void CSocketMaster::OnWrite() {
  if (Handshaking()) return ReadyForHandshake();
  FlushPending();
}

void CSocketMaster::OnClose(int error) {
  if (stream_ && stream_->HoldsInput() && state_ == SocketState::sckConnected) {
    HoldClose(error);
    return FollowUp();
  }
  if (error != 0) return ReportError(error, kNotificationSource);
  if (state_ != SocketState::sckConnected) return;
  if (Handshaking()) EndHandshake();
  state_ = SocketState::sckClosing;
  Raise(Events.CloseSck, "CloseSck");
}

void CSocketMaster::OnAccept() {
  module_.reserve_.Renew();
  modSocketMaster::Unclaimed connection;
  const int error = module_.sockets_.Accept(socket_, connection.socket, &connection.peer);
  if (error == socket_error::kWouldBlock) return;  // it has gone again
  if (AcceptPause::IsExhaustion(error)) return module_.pause_.Pause(socket_, error);
  Check(error, kNotificationSource);
  try {
    module_.pause_.Accepted();
    module_.Keep(connection);
  } catch (...) {
    module_.CloseSocket(connection.socket);
    throw;
  }
  // While the event runs, the listener's own properties are those of the caller.
  PeerIdentity before{remote_port_, remote_address_, std::move(remote_host_)};
  remote_port_ = connection.peer.port;
  remote_address_ = connection.peer.address;
  remote_host_.clear();
  Raise(Events.ConnectionRequest, "ConnectionRequest", connection.socket.index);
  if (state_ == SocketState::sckListening) {
    remote_port_ = before.port;
    remote_address_ = before.address;
    remote_host_ = std::move(before.host);
  }
  if (const auto unclaimed = module_.Claim(connection.socket.index)) module_.CloseSocket(unclaimed->socket);
}

void CSocketMaster::OnConnected() {
  remote_address_ = connect_address_;
  established_ = true;
  state_ = SocketState::sckConnected;
  Raise(Events.Connect, "Connect");
}

}  // namespace trabex

// The socket object's properties and methods. socket_progress.cpp has what the loop calls, socket_data.cpp
// sending and receiving, socket_udp.cpp and socket_members.cpp what no session needs.
#include "net/CSocketMaster.h"

#include <new>
#include <utility>

#include "net/CSocketMaster_impl.h"
#include "net/known_host.h"
#include "net/peer_name.h"

namespace trabex {

namespace {

constexpr std::int32_t kMaxPort = 65535;

bool IsPort(std::int32_t port) {
  return port >= 0 && port <= kMaxPort;
}

}  // namespace

CSocketMaster::CSocketMaster(modSocketMaster& module) : module_(module) {
  module_.InitiateProcesses();
}

CSocketMaster::~CSocketMaster() {
  CancelLookups();
  module_.received_->Discard(receive_);
  ReturnPipe();
  if (!socket_.IsNone()) module_.CloseSocket(socket_);
  module_.FinalizeProcesses();
}

CSocketMaster::ColdState& CSocketMaster::GetColdState() {
  if (!cold_) cold_ = std::make_unique<ColdState>();
  return *cold_;
}

std::int32_t CSocketMaster::RemotePort() const {
  return remote_port_;
}

void CSocketMaster::SetRemotePort(std::int32_t lngPort) {
  if (protocol_ == SocketProtocol::sckTCPProtocol && state_ != SocketState::sckClosed) {
    RaiseInvalidState("CSocketMaster.RemotePort");
  }
  if (!IsPort(lngPort)) RaiseBadArgument("CSocketMaster.RemotePort");
  remote_port_ = lngPort;
}

const std::string& CSocketMaster::RemoteHost() const {
  return remote_host_;
}

void CSocketMaster::SetRemoteHost(std::string strHost) {
  if (protocol_ == SocketProtocol::sckTCPProtocol && state_ != SocketState::sckClosed) {
    RaiseInvalidState("CSocketMaster.RemoteHost");
  }
  remote_host_ = std::move(strHost);
}

std::string CSocketMaster::RemoteHostIP() const {
  return FormatIPAddress(remote_address_);
}

const IPAddress& CSocketMaster::RemoteAddress() const {
  return remote_address_;
}

void CSocketMaster::SetPeer(const Endpoint& peer, const Endpoint& called) {
  if (state_ != SocketState::sckConnected) RaiseWrongProtocolOrState("CSocketMaster.SetPeer");
  remote_address_ = peer.address;
  remote_port_ = peer.port;
  GetColdState().called = called;
}

Endpoint CSocketMaster::CalledEndpoint() const {
  if (cold_ && cold_->called) return *cold_->called;
  Endpoint local;
  if (!socket_.IsNone()) module_.sockets_.LocalEndpoint(socket_, local);
  return local;
}

// The port that the system chose is read when it is asked for.
std::int32_t CSocketMaster::LocalPort() const {
  Endpoint local;
  if (!socket_.IsNone() && module_.sockets_.LocalEndpoint(socket_, local) == 0 && local.port != 0) {
    return local.port;
  }
  return local_port_;
}

void CSocketMaster::SetLocalPort(std::int32_t lngPort) {
  if (state_ != SocketState::sckClosed) RaiseInvalidState("CSocketMaster.LocalPort");
  if (!IsPort(lngPort)) RaiseBadArgument("CSocketMaster.LocalPort");
  local_port_ = lngPort;
}

SocketState CSocketMaster::State() const {
  return state_;
}

// Nothing here may wait for a name, so both ways of asking give the answer of the last look-up.
std::string CSocketMaster::RemoteHostName(bool /*bNotCached*/) {
  Check(cold_ ? cold_->remote_host_name_error : socket_error::kTryAgain, "CSocketMaster.GetRemoteHostName");
  return cold_->remote_host_name;
}

bool CSocketMaster::RemoteHostNameFailed() const {
  return cold_ && cold_->remote_host_name_failed;
}

void CSocketMaster::LookUpRemoteHostName(std::function<void()> done, bool blnConfirmed) {
  Endpoint peer{remote_address_, 0};
  if (!established_) Check(module_.sockets_.RemoteEndpoint(socket_, peer), "CSocketMaster.GetRemoteHostName");
  ColdState& cold = GetColdState();
  cold.name_done = std::move(done);
  if (cold.name_lookup != 0) return;
  cold.name_lookup = FindPeerName(module_.names_, peer.address, blnConfirmed,
                                  [this](const PeerName& found) { OnPeerName(found); });
}

void CSocketMaster::OnPeerName(const PeerName& found) {
  ColdState& cold = GetColdState();
  cold.name_lookup = 0;
  cold.remote_host_name_error = found.error;
  cold.remote_host_name_failed = found.failed;
  try {
    cold.remote_host_name = found.name;
  } catch (const std::bad_alloc&) {
    cold.remote_host_name_error = socket_error::kTryAgain;
    cold.remote_host_name_failed = true;
  }
  const auto done = std::exchange(cold.name_done, nullptr);
  Raise(done, "LookUpRemoteHostName");
}

std::int64_t CSocketMaster::BytesReceived() const {
  return bytes_received_;
}

std::int64_t CSocketMaster::BytesSent() const {
  return bytes_sent_;
}

std::int32_t CSocketMaster::SocketHandle() const {
  return socket_.index;
}

SocketProtocol CSocketMaster::Protocol() const {
  return protocol_;
}

void CSocketMaster::SetProtocol(SocketProtocol enmProtocol) {
  if (state_ != SocketState::sckClosed) RaiseInvalidState("CSocketMaster.Protocol");
  protocol_ = enmProtocol;
}

void CSocketMaster::CloseSck() {
  if (socket_.IsNone()) return;
  const SocketState before = std::exchange(state_, SocketState::sckClosing);
  CancelLookups();
  const bool peer_ended = before == SocketState::sckClosing;
  // A connection that failed takes no more bytes, one in its handshake none of SendData. With a stream there
  // may be an end to be said, even to a peer that has ended.
  const bool linger = established_ && before != SocketState::sckError && !Handshaking() &&
                      !(peer_ended && NothingUnsent() && !stream_);
  if (linger) EmptyPipe();
  const trabex::SocketHandle socket = std::exchange(socket_, {});
  if (linger) {
    module_.lingering_.Take(socket, std::move(stream_), std::move(send_), peer_ended);
  } else {
    module_.CloseSocket(socket);
  }
  established_ = false;
  remote_address_ = {};
  if (cold_) cold_->called.reset();
  send_.Clear();
  ReturnPipe();
  write_failed_ = false;
  module_.received_->Discard(receive_);
  DropStream();
  bytes_received_ = 0;
  bytes_sent_ = 0;
  send_chunk_ = 0;
  receive_chunk_ = 0;
  state_ = SocketState::sckClosed;
}

void CSocketMaster::CancelLookups() {
  module_.names_.Cancel(std::exchange(host_lookup_, 0));
  if (!cold_) return;
  module_.names_.Cancel(std::exchange(cold_->name_lookup, 0));
  cold_->name_done = nullptr;
}

void CSocketMaster::ForgetPeerName() {
  if (!cold_) return;
  cold_->remote_host_name.clear();
  cold_->remote_host_name_error = socket_error::kTryAgain;
  cold_->remote_host_name_failed = false;
}

void CSocketMaster::Connect(std::optional<std::string> RemoteHost, std::optional<std::int32_t> RemotePort) {
  constexpr const char* kSource = "CSocketMaster.Connect";
  if (state_ != SocketState::sckClosed) RaiseInvalidState(kSource);
  remote_host_ = std::move(RemoteHost).value_or(std::string());
  if (RemotePort) {
    if (*RemotePort == 0 || !IsPort(*RemotePort)) RaiseBadArgument(kSource);
    remote_port_ = *RemotePort;
  }
  ForgetPeerName();
  // 255.255.255.255 is no server's address, so it is looked up like a name.
  auto address = ParseIPAddress(remote_host_);
  if (address == kIPv4Broadcast) address.reset();
  // Where a name leads is not known yet; mostly it is an IPv4 address.
  const AddressFamily family = address ? FamilyOf(*address) : AddressFamily::kIPv4;
  if (!SocketExists(family)) return;
  if (protocol_ == SocketProtocol::sckUDPProtocol) {
    if (BindInternal(std::nullopt, {}, family)) state_ = SocketState::sckOpen;
    return;
  }
  if (!address) return ResolveIfHostname(remote_host_);
  remote_address_ = *address;
  ConnectToIP(*address, 0);
}

void CSocketMaster::Bind(std::optional<std::int32_t> LocalPort, const std::string& LocalIP) {
  if (state_ != SocketState::sckClosed) RaiseInvalidState("CSocketMaster.Bind");
  if (BindInternal(LocalPort, LocalIP)) state_ = SocketState::sckOpen;
}

bool CSocketMaster::SocketExists(AddressFamily family) {
  if (!socket_.IsNone()) {
    if (family_ == family || state_ == SocketState::sckOpen) return true;
    module_.CloseSocket(std::exchange(socket_, {}));
  }
  const Transport transport = protocol_ == SocketProtocol::sckTCPProtocol ? Transport::kTcp : Transport::kUdp;
  family_ = family;
  if (const int error = module_.sockets_.Open(transport, family, socket_); error != 0) {
    ReportError(error, "CSocketMaster.SocketExists");
    return false;
  }
  ProcessOptions();
  Check(module_.sockets_.Watch(socket_, this), "modSocketMaster.RegisterSocket");
  return true;
}

// The sizes of the buffers are asked for when they are needed: most sockets never need them.
void CSocketMaster::ProcessOptions() {
  if (protocol_ == SocketProtocol::sckTCPProtocol) return;
  Check(module_.sockets_.AllowBroadcast(socket_), "CSocketMaster.ProcessOptions");
}

bool CSocketMaster::BindInternal(std::optional<std::int32_t> port, const std::string& ip,
                                 AddressFamily family) {
  constexpr const char* kSource = "CSocketMaster.BindInternal";
  if (state_ == SocketState::sckOpen) return true;
  const std::int32_t wanted = port.value_or(local_port_);
  if (!IsPort(wanted)) RaiseBadArgument(kSource);
  const HostAddress address =
      ip.empty() ? HostAddress{0, AnyAddress(family)} : LookUpKnownHost(module_.names_, ip);
  if (address.error != 0) RaiseBadAddress(kSource);
  if (!SocketExists(FamilyOf(address.address))) return false;
  const Endpoint local{address.address, static_cast<std::uint16_t>(wanted)};
  const bool tcp = protocol_ == SocketProtocol::sckTCPProtocol;
  Check(tcp ? module_.sockets_.BindExclusively(socket_, local) : module_.sockets_.Bind(socket_, local),
        kSource);
  GetColdState().local_ip = address.address;
  if (wanted != 0) local_port_ = wanted;
  return true;
}

void CSocketMaster::Listen() {
  constexpr const char* kSource = "CSocketMaster.Listen";
  if (state_ != SocketState::sckClosed && state_ != SocketState::sckOpen) RaiseInvalidState(kSource);
  if (!BindInternal(std::nullopt, {})) return;
  module_.pause_.Add(socket_, *this);
  Check(module_.sockets_.Listen(socket_, 0), kSource);
  state_ = SocketState::sckListening;
}

void CSocketMaster::Accept(std::int32_t requestID) {
  constexpr const char* kSource = "CSocketMaster.Accept";
  if (state_ != SocketState::sckClosed) RaiseInvalidState(kSource);
  const auto connection = module_.Claim(requestID);
  if (!connection) RaiseWrongProtocolOrState(kSource);
  int error = 0;
  try {
    error = module_.sockets_.Watch(connection->socket, this);
  } catch (...) {
    module_.CloseSocket(connection->socket);
    throw;
  }
  if (error != 0) {
    module_.CloseSocket(connection->socket);
    RaiseSocketError(error, "modSocketMaster.RegisterSocket");
  }
  if (!socket_.IsNone()) module_.CloseSocket(socket_);  // one that a failed Bind left
  socket_ = connection->socket;
  protocol_ = SocketProtocol::sckTCPProtocol;
  remote_port_ = connection->peer.port;
  remote_address_ = connection->peer.address;
  remote_host_.clear();
  ForgetPeerName();
  established_ = true;
  state_ = SocketState::sckConnected;
}

std::size_t CSocketMaster::PendingBytes() const {
  return send_.Size() + (pipe_ ? pipe_->Size() : 0);
}

}  // namespace trabex

// A stream that is not plain. It may hold input that the socket no longer announces, and the peer's end may
// come through the stream alone; the owner is notified of both from the loop, as if the socket had announced
// them.
#include <utility>

#include "net/CSocketMaster_impl.h"
#include "net/tls_socket_stream.h"

namespace trabex {

std::string CSocketMaster::SetStream(std::unique_ptr<Stream> stream) {
  if (state_ != SocketState::sckConnected || !send_.Empty()) {
    RaiseWrongProtocolOrState("CSocketMaster.SetStream");
  }
  std::string unread(Received());
  module_.received_->Discard(receive_);
  stream_ = std::move(stream);
  return unread;
}

void CSocketMaster::StartTls(TlsRole role, std::shared_ptr<const TlsContext> context,
                             std::string_view last_words) {
  constexpr const char* kSource = "CSocketMaster.StartTls";
  if (!context || context->Role() != role) RaiseBadArgument(kSource);
  if (protocol_ != SocketProtocol::sckTCPProtocol || state_ != SocketState::sckConnected || stream_) {
    RaiseWrongProtocolOrState(kSource);
  }
  int error = 0;
  const std::size_t sent = send_.Empty() ? SendPieces(last_words, error) : 0;
  send_.Append(last_words.substr(sent));
  bytes_sent_ += static_cast<std::int64_t>(sent + send_.Size());
  std::string early(Received());
  module_.received_->Discard(receive_);
  stream_ = std::make_unique<TlsSocketStream>(module_.sockets_, std::move(context), std::move(send_),
                                              std::move(early));
  ColdState& cold = GetColdState();
  if (error != 0) return ReportError(error, kSource);
  cold.handshake = std::make_unique<HandshakeQueue::Place>(
      module_.handshakes_, role == TlsRole::kServer, [this] { OnHandshakeStep(); },
      [this] { ReportError(tls_error::kTooManyHandshakes, "CSocketMaster.StartTls"); });
  // Also to hear what has come already: it was announced before, perhaps, and is not again.
  ReadyForHandshake();
}

void CSocketMaster::ReadyForHandshake() {
  if (cold_->handshake) cold_->handshake->Ready();
}

void CSocketMaster::OnHandshakeStep() {
  if (state_ != SocketState::sckConnected) return;
  const trabex::SocketHandle socket = socket_;
  const int error = stream_->Establish(socket);
  if (error == socket_error::kWouldBlock) return;
  cold_->handshake.reset();
  if (error != 0) return ReportError(error, "CSocketMaster.StartTls");
  if (!stream_->Established()) return OnClose(0);
  Raise(Events.Secured, "Secured");
  if (socket_ == socket) FlushPending();
  if (socket_ == socket && state_ == SocketState::sckConnected) FollowUp();
}

void CSocketMaster::DropStream() {
  stream_.reset();
  if (!cold_) return;
  cold_->handshake.reset();
  cold_->held_close.reset();
  cold_->follow_up.reset();
}

void CSocketMaster::HoldClose(int error) {
  // An error found later counts; an end found later does not hide one.
  std::optional<int>& held = GetColdState().held_close;
  if (!held || error != 0) held = error;
}

void CSocketMaster::FollowUp() {
  if (!stream_->HoldsInput() && !(cold_ && cold_->held_close)) return;
  ColdState& cold = GetColdState();
  if (cold.follow_up) return;
  cold.follow_up = std::make_shared<bool>(true);
  module_.sockets_.Loop().Post([this, posted = std::weak_ptr<bool>(cold.follow_up)] {
    if (!posted.expired()) OnFollowUp();
  });
}

void CSocketMaster::OnFollowUp() {
  cold_->follow_up.reset();
  if (state_ != SocketState::sckConnected) return;
  if (stream_->HoldsInput()) return OnSocketEvent(socket_, SocketEvent::kRead, 0);
  if (const auto error = std::exchange(cold_->held_close, std::nullopt)) {
    OnSocketEvent(socket_, SocketEvent::kClose, *error);
  }
}

}  // namespace trabex

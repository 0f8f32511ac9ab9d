// A stream that is not plain. It may hold input that the socket no longer announces, and the peer's end may
// come through the stream alone; the owner is notified of both from the loop, as if the socket had announced
// them.
#include <utility>

#include "net/CSocketMaster_impl.h"
#include "net/tls_socket_stream.h"

namespace trabex {

std::string CSocketMaster::SetStream(std::unique_ptr<Stream> stream) {
  if (state_ != SocketState::sckConnected || !NothingUnsent()) {
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
  EmptyPipe();
  int error = 0;
  const std::size_t sent = send_.Empty() ? SendPieces(last_words, error) : 0;
  send_.Append(last_words.substr(sent));
  bytes_sent_ += static_cast<std::int64_t>(sent + send_.Size());
  std::string early(Received());
  module_.received_->Discard(receive_);
  stream_ = std::make_unique<TlsSocketStream>(module_.sockets_, std::move(context), std::move(send_),
                                              std::move(early));
  if (error != 0) return ReportError(error, kSource);
  GetStreamWork().handshake = std::make_unique<HandshakeQueue::Place>(
      module_.handshakes_, role == TlsRole::kServer, [this] { RunProgress([this] { OnHandshakeStep(); }); },
      [this] { ReportError(tls_error::kTooManyHandshakes, "CSocketMaster.StartTls"); });
  // Also to hear what has come already: it was announced before, perhaps, and is not again.
  ReadyForHandshake();
}

CSocketMaster::StreamWork& CSocketMaster::GetStreamWork() {
  if (!stream_work_) stream_work_ = std::make_unique<StreamWork>();
  return *stream_work_;
}

void CSocketMaster::ReleaseStreamWork() {
  if (!stream_work_) return;
  const StreamWork& work = *stream_work_;
  if (!work.held_close && !work.follow_up && !work.handshake) stream_work_.reset();
}

void CSocketMaster::ReadyForHandshake() {
  if (stream_work_ && stream_work_->handshake) stream_work_->handshake->Ready();
}

void CSocketMaster::EndHandshake() {
  if (!stream_work_) return;
  stream_work_->handshake.reset();
  ReleaseStreamWork();
}

void CSocketMaster::OnHandshakeStep() {
  if (state_ != SocketState::sckConnected) return;
  const trabex::SocketHandle socket = socket_;
  const int error = stream_->Establish(socket);
  // A step takes longer than a send, and more of them follow in this iteration.
  module_.sockets_.SendCollected();
  if (error == socket_error::kWouldBlock) return;
  EndHandshake();
  if (error != 0) return ReportError(error, "CSocketMaster.StartTls");
  if (!stream_->Established()) return OnClose(0);
  // It is raised once; most connections live long after it.
  const RareHandler<> secured = std::exchange(Events.Secured, {});
  Raise(secured, "Secured");
  if (socket_ == socket) FlushPending();
  if (socket_ == socket && state_ == SocketState::sckConnected) FollowUp();
}

void CSocketMaster::DropStream() {
  stream_.reset();
  stream_work_.reset();
}

void CSocketMaster::HoldClose(int error) {
  // An error found later counts; an end found later does not hide one.
  std::optional<int>& held = GetStreamWork().held_close;
  if (!held || error != 0) held = error;
}

void CSocketMaster::FollowUp() {
  if (!stream_->HoldsInput() && !(stream_work_ && stream_work_->held_close)) return;
  StreamWork& work = GetStreamWork();
  if (work.follow_up) return;
  auto follow_up = std::make_shared<bool>(true);
  module_.sockets_.Loop().Post([this, posted = std::weak_ptr<bool>(follow_up)] {
    if (!posted.expired()) OnFollowUp();
  });
  work.follow_up = std::move(follow_up);
}

void CSocketMaster::OnFollowUp() {
  stream_work_->follow_up.reset();
  if (state_ != SocketState::sckConnected) return;
  if (stream_->HoldsInput()) {
    ReleaseStreamWork();
    return OnSocketEvent(socket_, SocketEvent::kRead, 0);
  }
  const auto error = std::exchange(stream_work_->held_close, std::nullopt);
  ReleaseStreamWork();
  if (error) OnSocketEvent(socket_, SocketEvent::kClose, *error);
}

}  // namespace trabex

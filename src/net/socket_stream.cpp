// A stream that is not plain. It may hold input that the socket no longer announces, and the peer's end may
// come through the stream alone; the owner is notified of both from the loop, as if the socket had announced
// them.
#include <utility>

#include "net/CSocketMaster_impl.h"

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

void CSocketMaster::DropStream() {
  stream_.reset();
  if (!cold_) return;
  cold_->held_close.reset();
  cold_->follow_up.reset();
}

void CSocketMaster::HoldClose(int error) {
  GetColdState().held_close = error;
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
  if (stream_->HoldsInput()) return OnSocketEvent(socket_, SocketEvent::kRead, 0);
  if (const auto error = std::exchange(cold_->held_close, std::nullopt)) {
    OnSocketEvent(socket_, SocketEvent::kClose, *error);
  }
}

}  // namespace trabex

// Sending and receiving of a TCP socket object.
#include <algorithm>
#include <new>
#include <utility>

#include "net/CSocketMaster_impl.h"

namespace trabex {

namespace {

// A send of this size needs no look at the system's send buffer: no system's is smaller unless told so, and then
// the system takes a part.
constexpr std::size_t kAlwaysFits = 16384;

}  // namespace

void CSocketMaster::SendData(std::string_view Data, bool blnMoreFollows) {
  if (protocol_ == SocketProtocol::sckUDPProtocol) return SendBufferedDataUDP(Data);
  if (state_ != SocketState::sckConnected) RaiseWrongProtocolOrState("CSocketMaster.SendData");
  if (write_failed_) return;  // lost with the connection, whose end follows soon
  if (!NothingUnsent() || Handshaking()) return send_.Append(Data);
  // Sent from where it lies; only what the network does not take is kept.
  int error = 0;
  const std::size_t sent = SendPieces(Data, error, blnMoreFollows);
  try {
    send_.Append(Data.substr(sent));
  } catch (const std::bad_alloc&) {
    // The peer may have the beginning of what has no end now: nothing else may follow it.
    write_failed_ = true;
    throw;
  }
  FinishFlush(sent, error);
}

void CSocketMaster::SayLast(std::string_view words) {
  if (state_ != SocketState::sckConnected || write_failed_ || !NothingUnsent() || Handshaking()) return;
  try {
    std::size_t sent = 0;
    GetStream().Write(socket_, words, sent, false);
    bytes_sent_ += static_cast<std::int64_t>(sent);
  } catch (const std::bad_alloc&) {
    // Then the peer sees the end alone.
  }
}

std::size_t CSocketMaster::SendChunk() {
  if (send_chunk_ == 0) {
    int bytes = 0;
    Check(module_.sockets_.SendBufferSize(socket_, bytes), "CSocketMaster.ProcessOptions");
    send_chunk_ = std::max(bytes, 1);
  }
  return static_cast<std::size_t>(send_chunk_);
}

std::size_t CSocketMaster::ReceiveChunk() {
  if (receive_chunk_ == 0) {
    int bytes = 0;
    Check(module_.sockets_.ReceiveBufferSize(socket_, bytes), "CSocketMaster.ProcessOptions");
    receive_chunk_ = std::max(bytes, 1);
  }
  return static_cast<std::size_t>(receive_chunk_);
}

// Returns how much the network took; `error` is 0 when that is everything or the network is full.
std::size_t CSocketMaster::SendPieces(std::string_view data, int& error, bool more_follows) {
  std::size_t total = 0;
  while (total < data.size()) {
    const std::size_t left = data.size() - total;
    const std::size_t piece = left <= kAlwaysFits ? left : std::min(left, SendChunk());
    std::size_t sent = 0;
    const int result = GetStream().Write(socket_, data.substr(total, piece), sent, more_follows);
    total += sent;
    if (result != 0 && result != socket_error::kWouldBlock) error = result;
    if (result != 0 || sent < piece) break;
  }
  return total;
}

void CSocketMaster::FinishFlush(std::size_t sent, int error) {
  bytes_sent_ += static_cast<std::int64_t>(sent);
  if (error != 0) {
    if (drain_before_send_error_ && GetStream().Pending(socket_) > 0) {
      send_.Clear();
      ReturnPipe();
      write_failed_ = true;
      return;
    }
    return ReportError(error, "CSocketMaster.SendBufferedData");
  }
  if (sent == 0) return;
  const trabex::SocketHandle socket = socket_;
  const bool complete = NothingUnsent();
  Raise(Events.SendProgress, "SendProgress", sent, PendingBytes());
  // The handler may have closed, or begun another send that will complete by itself.
  if (complete && socket == socket_ && NothingUnsent()) {
    Raise(Events.SendComplete, "SendComplete");
  }
}

void CSocketMaster::FlushPending() {
  if (state_ != SocketState::sckConnected || NothingUnsent() || Handshaking()) return;
  int error = 0;
  std::size_t sent = SendFromPipe(error);
  if (!pipe_ && error == 0) {
    const std::size_t queued = SendPieces(send_.View(), error);
    send_.RemoveFront(queued);
    sent += queued;
  }
  FinishFlush(sent, error);
}

bool CSocketMaster::TakesPipe() const {
  return state_ == SocketState::sckConnected && protocol_ == SocketProtocol::sckTCPProtocol &&
         NothingUnsent() && !write_failed_ && GetStream().PassesUnseen();
}

std::int32_t CSocketMaster::PassTo(CSocketMaster& to, std::int32_t MaxLen) {
  CheckReadable(MaxLen, "CSocketMaster.PeekData");
  const bool tcp = protocol_ == SocketProtocol::sckTCPProtocol;
  if (!tcp || !GetStream().PassesUnseen() || !Received().empty() || !to.TakesPipe()) return 0;
  std::unique_ptr<SplicePipe> pipe = module_.pipes_.Borrow();
  if (!pipe) return 0;
  std::size_t moved = 0;
  const int error = GetStream().ReadInto(socket_, *pipe, PortionSize(MaxLen), moved);
  if (moved == 0) {
    module_.pipes_.Return(std::move(pipe));
    if (error == 0) return 0;
    state_ = SocketState::sckError;
    RaiseSocketError(error, "CSocketMaster.RecvDataToBuffer");
  }
  bytes_received_ += static_cast<std::int64_t>(moved);
  module_.passed_bytes_ += moved;
  to.pipe_ = std::move(pipe);
  to.FlushPending();
  return static_cast<std::int32_t>(moved);
}

std::size_t CSocketMaster::SendFromPipe(int& error) {
  if (!pipe_) return 0;
  std::size_t sent = 0;
  const int result = GetStream().WriteFrom(socket_, *pipe_, sent);
  if (result != 0 && result != socket_error::kWouldBlock) error = result;
  if (pipe_->IsEmpty()) ReturnPipe();
  return sent;
}

void CSocketMaster::ReturnPipe() {
  module_.pipes_.Return(std::move(pipe_));
}

void CSocketMaster::EmptyPipe() {
  if (!pipe_) return;
  ByteQueue bytes;
  bytes.Append(pipe_->TakeAll());
  bytes.Append(send_.View());
  send_ = std::move(bytes);
  ReturnPipe();
}

void CSocketMaster::CheckReadable(std::int32_t max_length, const char* source) const {
  const auto needed =
      protocol_ == SocketProtocol::sckTCPProtocol ? SocketState::sckConnected : SocketState::sckOpen;
  if (state_ != needed) RaiseWrongProtocolOrState(source);
  if (max_length < 0) RaiseBadArgument(source);
}

std::string_view CSocketMaster::Received() const {
  return module_.received_->View(receive_);
}

// Receives until `wanted` bytes are there or no more come, and returns what is there, at most as much. An
// error counts only when nothing is there.
std::string_view CSocketMaster::ReceiveUpTo(std::size_t wanted) {
  Stream& stream = GetStream();
  std::size_t there = Received().size();
  const bool reads = there < wanted;
  while (there < wanted) {
    const std::span<char> space = module_.received_->Space(receive_, wanted - there);
    std::size_t received = 0;
    const int error = stream.Read(socket_, space, received);
    if (stream_ && error != socket_error::kWouldBlock && received == 0) {
      HoldClose(error);  // reported after what is there has been read
      break;
    }
    if (error != 0 && error != socket_error::kWouldBlock && there == 0) {
      state_ = SocketState::sckError;
      RaiseSocketError(error, "CSocketMaster.RecvDataToBuffer");
    }
    if (error != 0 || received == 0) break;
    module_.received_->Add(receive_, received);
    there += received;
    if (received < space.size() && !stream.HoldsInput()) break;
  }
  // Only then, or who looks at the same bytes again and again would be called for it again and again.
  if (stream_ && reads) FollowUp();
  return Received().substr(0, wanted);
}

std::int64_t CSocketMaster::SendProgressMade() const {
  std::size_t under_way = 0;
  module_.sockets_.Unacknowledged(socket_, under_way);
  return 2 * bytes_sent_ - static_cast<std::int64_t>(under_way);
}

std::size_t CSocketMaster::UnreadBytes() const {
  return Received().size() + GetStream().Pending(socket_);
}

bool CSocketMaster::PeerEnded() const {
  return module_.sockets_.PeerEnded(socket_) || (stream_work_ && stream_work_->held_close);
}

std::size_t CSocketMaster::PortionSize(std::int32_t max_length) {
  return max_length > 0 ? static_cast<std::size_t>(max_length) : ReceiveChunk();
}

std::int32_t CSocketMaster::GetData(std::string& Data, std::int32_t MaxLen) {
  CheckReadable(MaxLen, "CSocketMaster.GetData");
  std::int32_t count = 0;
  if (protocol_ == SocketProtocol::sckUDPProtocol) {
    count = RecvData(Data, false, MaxLen);
  } else {
    Data.assign(ReceiveUpTo(PortionSize(MaxLen)));
    module_.received_->Consume(receive_, Data.size());
    count = static_cast<std::int32_t>(Data.size());
  }
  bytes_received_ += count;
  return count;
}

std::string_view CSocketMaster::PeekView(std::int32_t MaxLen) {
  CheckReadable(MaxLen, "CSocketMaster.PeekData");
  if (protocol_ == SocketProtocol::sckUDPProtocol) return PeekDatagram(MaxLen);
  return ReceiveUpTo(PortionSize(MaxLen));
}

void CSocketMaster::Consume(std::int32_t count) {
  constexpr const char* kSource = "CSocketMaster.Consume";
  if (protocol_ != SocketProtocol::sckTCPProtocol) RaiseWrongProtocolOrState(kSource);
  if (socket_.IsNone()) return;
  if (count < 0 || static_cast<std::size_t>(count) > Received().size()) RaiseBadArgument(kSource);
  module_.received_->Consume(receive_, static_cast<std::size_t>(count));
  bytes_received_ += count;
}

void CSocketMaster::ConsumeUncounted(std::int32_t count) {
  const std::int64_t before = bytes_received_;
  Consume(count);
  bytes_received_ = before;
}

std::int32_t CSocketMaster::PeekData(std::string& Data, std::int32_t MaxLen) {
  Data.assign(PeekView(MaxLen));
  return static_cast<std::int32_t>(Data.size());
}

}  // namespace trabex

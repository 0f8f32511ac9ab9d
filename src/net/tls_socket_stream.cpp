#include "net/tls_socket_stream.h"

#include <algorithm>
#include <utility>

#include "net/socket_errors.h"

namespace trabex {

namespace {

// Of the peer's first words. A client's hello fits mostly; what does not is received by the library.
constexpr std::size_t kFirstBytes = 4096;

static_assert(TlsTransport::kWouldBlock == socket_error::kWouldBlock);

}  // namespace

// The socket; what was received before the stream began is read first.
class TlsSocketStream::Transport final : public TlsTransport {
 public:
  Transport(TlsSocketStream& stream, SocketHandle socket, bool more_follows = false)
      : stream_(stream), socket_(socket), more_follows_(more_follows) {}

  int Receive(std::span<char> space, std::size_t& received) override {
    if (!stream_.HoldsEarly()) return stream_.sockets_.Receive(socket_, space, received);
    std::string& early = stream_.beginning_->early;
    received = early.copy(space.data(), space.size());
    early.erase(0, received);
    if (early.empty()) stream_.beginning_.reset();
    return 0;
  }
  bool Drained() const override { return !stream_.HoldsEarly() && stream_.sockets_.Drained(socket_); }
  int Send(std::span<const char> bytes, std::size_t& sent) override {
    return stream_.sockets_.Send(socket_, bytes, sent, more_follows_);
  }

 private:
  TlsSocketStream& stream_;
  SocketHandle socket_;
  bool more_follows_;
};

TlsSocketStream::TlsSocketStream(Sockets& sockets, std::shared_ptr<const TlsContext> context, ByteQueue clear,
                                 std::string early)
    : sockets_(sockets), beginning_(new Beginning{std::move(context), std::move(clear), std::move(early)}) {}

int TlsSocketStream::ErrorOf(TlsResult result) const {
  switch (result) {
    case TlsResult::kDone:
    case TlsResult::kEnded:
      return 0;
    case TlsResult::kWantsRead:
    case TlsResult::kWantsWrite:
      return socket_error::kWouldBlock;
    case TlsResult::kFailed:
      break;
  }
  return tls_->NetworkError() != 0 ? tls_->NetworkError() : tls_error::kFailed;
}

std::string TlsSocketStream::ErrorText(int number) const {
  if (number != tls_error::kFailed) return Stream::ErrorText(number);
  return "TLS failed: " + (tls_ ? tls_->FailureReason() : std::string());
}

int TlsSocketStream::FlushClear(SocketHandle socket) {
  ByteQueue& clear = beginning_->clear;
  while (!clear.Empty()) {
    std::size_t sent = 0;
    if (const int error = sockets_.Send(socket, clear.View(), sent); error != 0) return error;
    clear.RemoveFront(sent);
  }
  return 0;
}

// A client that connects and says nothing costs no more than its socket.
int TlsSocketStream::AwaitFirstBytes(SocketHandle socket) {
  if (HoldsEarly()) return 0;
  char first[kFirstBytes];
  std::size_t received = 0;
  if (const int error = sockets_.Receive(socket, first, received); error != 0) return error;
  // The end is announced by the socket.
  if (received == 0) return socket_error::kWouldBlock;
  beginning_->early.assign(first, received);
  return 0;
}

int TlsSocketStream::Begin(SocketHandle socket) {
  if (const int error = FlushClear(socket); error != 0) return error;
  if (beginning_->context->Role() == TlsRole::kServer) {
    if (const int error = AwaitFirstBytes(socket); error != 0) return error;
  }
  tls_.emplace(std::move(beginning_->context));
  if (!HoldsEarly()) beginning_.reset();
  return 0;
}

int TlsSocketStream::Establish(SocketHandle socket) {
  if (!tls_) {
    if (const int error = Begin(socket); error != 0) return error;
  }
  Transport transport(*this, socket);
  const TlsResult result = tls_->Handshake(transport);
  established_ = result == TlsResult::kDone;
  return ErrorOf(result);
}

int TlsSocketStream::Read(SocketHandle socket, std::span<char> space, std::size_t& received) {
  received = 0;
  if (!established_) return socket_error::kWouldBlock;
  Transport transport(*this, socket);
  const TlsResult result = tls_->Read(transport, space, received);
  return ErrorOf(result);
}

int TlsSocketStream::Write(SocketHandle socket, std::string_view data, std::size_t& sent, bool more_follows) {
  sent = 0;
  if (!established_) return socket_error::kWouldBlock;
  Transport transport(*this, socket, more_follows);
  const TlsResult result = tls_->Write(transport, data, sent);
  // Less than all counts as 10035 for the rest.
  return sent > 0 && result != TlsResult::kFailed ? 0 : ErrorOf(result);
}

int TlsSocketStream::ShutDownWrite(SocketHandle socket) {
  if (established_) {
    Transport transport(*this, socket);
    if (const int error = ErrorOf(tls_->SayGoodbye(transport)); error != 0) return error;
  }
  return sockets_.ShutDownSending(socket);
}

std::size_t TlsSocketStream::Pending(SocketHandle socket) {
  if (!established_ || tls_->Ended()) return 0;
  std::size_t unreceived = 0;
  sockets_.Available(socket, unreceived);
  const std::size_t early = HoldsEarly() ? beginning_->early.size() : 0;
  return tls_->Pending() + early + unreceived + (HoldsInput() ? 1 : 0);
}

bool TlsSocketStream::HoldsInput() const {
  return established_ && !tls_->Drained();
}

}  // namespace trabex

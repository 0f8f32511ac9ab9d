// The stream of a connection that is encrypted: what the socket objects know of TLS.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "net/byte_queue.h"
#include "net/stream.h"
#include "platform/sockets.h"
#include "tls/tls_stream.h"

namespace trabex {

class TlsSocketStream final : public Stream {
 public:
  // `clear` are bytes that go out as they are, before the handshake; `early` what was received already and is
  // the beginning of what the peer says in TLS. `sockets` outlives the stream.
  TlsSocketStream(Sockets& sockets, std::shared_ptr<const TlsContext> context, ByteQueue clear,
                  std::string early);

  int Read(SocketHandle socket, std::span<char> space, std::size_t& received) override;
  int Write(SocketHandle socket, std::string_view data, std::size_t& sent, bool more_follows) override;
  int ShutDownWrite(SocketHandle socket) override;
  std::size_t Pending(SocketHandle socket) override;
  bool HoldsInput() const override;
  bool Established() const override { return established_; }
  int Establish(SocketHandle socket) override;
  const TlsFacts* Facts() const override { return established_ ? &tls_->Facts() : nullptr; }
  std::string ErrorText(int number) const override;

 private:
  class Transport;

  // What only the begin of a connection needs.
  struct Beginning {
    std::shared_ptr<const TlsContext> context;  // until tls_ has it
    ByteQueue clear;                            // goes out before the handshake
    std::string early;                          // received already, and not read yet
  };

  bool HoldsEarly() const { return beginning_ && !beginning_->early.empty(); }
  int FlushClear(SocketHandle socket);
  int AwaitFirstBytes(SocketHandle socket);
  // Up to where tls_ is there.
  int Begin(SocketHandle socket);
  int ErrorOf(TlsResult result) const;

  Sockets& sockets_;
  std::unique_ptr<Beginning> beginning_;  // until tls_ is there and all of it is used
  std::optional<TlsStream> tls_;
  bool established_ = false;
};

}  // namespace trabex

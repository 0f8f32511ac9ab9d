// One TLS connection, over any transport: plain text on one side, records on the other. No socket, no loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "tls/tls_context.h"
#include "tls/tls_facts.h"
#include "tls/tls_transport.h"

namespace trabex {

enum class TlsResult {
  kDone,
  kWantsRead,   // goes on when the transport has more
  kWantsWrite,  // goes on when the transport takes more
  kEnded,       // the peer has ended what it says: nothing more of it is read
  kFailed,      // for good; FailureReason or NetworkError says why
};

// Each call is given the transport to use, always the same connection. A call that wants something is made
// again when it can be.
class TlsStream {
 public:
  // How much one Read takes from the transport without a byte of plain text coming out of it.
  static constexpr std::size_t kMaxUnproductive = 256 * 1024;
  // In one second; more end the connection.
  static constexpr std::uint32_t kMaxKeyUpdates = 100;

  // Begins with the handshake, in the role of `context`.
  explicit TlsStream(std::shared_ptr<const TlsContext> context);
  ~TlsStream();
  TlsStream(const TlsStream&) = delete;
  TlsStream& operator=(const TlsStream&) = delete;

  // One step. Nothing else may be called before it is done.
  TlsResult Handshake(TlsTransport& transport);
  // Never kWantsWrite. kDone: `received` is 1 or more, at most what one record holds, though more may be
  // there. `space` is not empty.
  TlsResult Read(TlsTransport& transport, std::span<char> space, std::size_t& received);
  // Never kWantsRead. `written` is how much of `bytes` (not empty) is in records that the transport has
  // taken; with kWantsWrite a record of what follows is under way, and the next call must begin with the same
  // bytes, not fewer. They may lie elsewhere.
  TlsResult Write(TlsTransport& transport, std::string_view bytes, std::size_t& written);
  // Says that nothing more is written (RFC 8446, 6.1), once. Does nothing after a failure.
  TlsResult SayGoodbye(TlsTransport& transport);

  // Whether the last Read left nothing and the transport had no more, or found the end: only then is it useless
  // to read again before the transport has more.
  bool Drained() const { return drained_; }
  // Whether the peer has ended.
  bool Ended() const { return ended_; }
  // Bytes of plain text that Read gives without the transport.
  std::size_t Pending() const;
  // Complete when the handshake is done.
  const TlsFacts& Facts() const { return facts_; }
  // After kFailed: the library's reason or that of the verification, not the peer's text; empty when the
  // transport failed.
  const std::string& FailureReason() const { return failure_; }
  // After kFailed: the transport's error, or 0.
  int NetworkError() const { return network_error_; }

 private:
  struct Impl;

  TlsResult Outcome(int result);
  TlsResult Unsent();
  TlsResult Fail(std::string reason);
  void NoteFacts();

  std::shared_ptr<const TlsContext> context_;
  std::unique_ptr<Impl> impl_;
  TlsFacts facts_;
  std::string failure_;
  int network_error_ = 0;
  bool failed_ = false;
  bool write_failed_ = false;
  bool ended_ = false;
  bool drained_ = false;
  bool goodbye_said_ = false;
};

}  // namespace trabex

#include "tls/tls_stream.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <chrono>
#include <utility>

#include "base/error.h"
#include "tls/tls_context_impl.h"

namespace trabex {

// What the library calls back into.
struct TlsStream::Impl {
  using Clock = std::chrono::steady_clock;

  OpenSslPtr<ssl_st> connection;
  TlsTransport* transport = nullptr;  // during a call
  std::size_t received = 0;           // in this call
  bool would_block = false;           // the transport had no more, in this call
  bool at_end = false;                // the transport's input has ended
  int receive_error = 0;
  int send_error = 0;
  std::uint32_t key_updates = 0;  // since `updates_since`
  Clock::time_point updates_since{};
  bool too_many_updates = false;

  static Impl& Of(BIO* bio) { return *static_cast<Impl*>(BIO_get_data(bio)); }

  int Receive(BIO* bio, char* space, std::size_t size, std::size_t* count) {
    *count = 0;
    BIO_clear_retry_flags(bio);
    if (at_end || receive_error != 0) return 0;
    if (received >= kMaxUnproductive || too_many_updates) {
      BIO_set_retry_read(bio);
      return 0;
    }
    const int error = transport->Receive({space, size}, *count);
    if (error == TlsTransport::kWouldBlock) {
      would_block = true;
      BIO_set_retry_read(bio);
      return 0;
    }
    receive_error = error;
    at_end = error == 0 && *count == 0;
    received += *count;
    return error == 0 && *count > 0 ? 1 : 0;
  }

  int Send(BIO* bio, const char* bytes, std::size_t size, std::size_t* count) {
    *count = 0;
    BIO_clear_retry_flags(bio);
    if (send_error != 0) return 0;
    const int error = transport->Send({bytes, size}, *count);
    if (error == 0) return 1;
    if (error == TlsTransport::kWouldBlock) {
      BIO_set_retry_write(bio);
    } else {
      send_error = error;
    }
    return 0;
  }

  void NoteKeyUpdate() {
    const Clock::time_point now = Clock::now();
    if (now - updates_since >= std::chrono::seconds(1)) {
      updates_since = now;
      key_updates = 0;
    }
    if (++key_updates > kMaxKeyUpdates) too_many_updates = true;
  }
};

namespace {

constexpr int kKeyUpdateMessage = SSL3_MT_KEY_UPDATE;

// The library's way to bytes: the transport of the call that is under way.
template <class Impl>
BIO_METHOD* TransportMethod() {
  static BIO_METHOD* const method = [] {
    BIO_METHOD* const made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "transport");
    if (made == nullptr) throw Error(error_number::kOutOfMemory, "TlsStream", TakeOpenSslError());
    BIO_meth_set_read_ex(made, [](BIO* bio, char* space, std::size_t size, std::size_t* count) {
      return Impl::Of(bio).Receive(bio, space, size, count);
    });
    BIO_meth_set_write_ex(made, [](BIO* bio, const char* bytes, std::size_t size, std::size_t* count) {
      return Impl::Of(bio).Send(bio, bytes, size, count);
    });
    BIO_meth_set_ctrl(made, [](BIO* bio, int command, long, void*) -> long {
      if (command == BIO_CTRL_EOF) return Impl::Of(bio).at_end ? 1 : 0;
      return command == BIO_CTRL_FLUSH ? 1 : 0;
    });
    return made;
  }();
  return method;
}

template <class Impl>
void OnMessage(int write, int /*version*/, int type, const void* message, std::size_t size,
               SSL* /*connection*/, void* owner) {
  if (write != 0 || type != SSL3_RT_HANDSHAKE || size == 0) return;
  if (*static_cast<const unsigned char*>(message) == kKeyUpdateMessage) {
    static_cast<Impl*>(owner)->NoteKeyUpdate();
  }
}

}  // namespace

TlsStream::TlsStream(std::shared_ptr<const TlsContext> context)
    : context_(std::move(context)), impl_(std::make_unique<Impl>()) {
  impl_->connection = context_->GetImpl().Connection();
  BIO* const bio = BIO_new(TransportMethod<Impl>());
  if (bio == nullptr) throw Error(error_number::kOutOfMemory, "TlsStream", TakeOpenSslError());
  BIO_set_data(bio, impl_.get());
  BIO_set_init(bio, 1);
  SSL* const connection = impl_->connection.get();
  SSL_set_bio(connection, bio, bio);
  SSL_set_msg_callback(connection, OnMessage<Impl>);
  SSL_set_msg_callback_arg(connection, impl_.get());
}

TlsStream::~TlsStream() = default;

namespace {

// Lends the transport to the library for one call.
template <class Impl>
class Call {
 public:
  Call(Impl& impl, TlsTransport& transport) : impl_(impl) {
    impl_.transport = &transport;
    impl_.received = 0;
    impl_.would_block = false;
    // The queue is the thread's: what another connection left there would count as an error of this call.
    ERR_clear_error();
  }
  ~Call() { impl_.transport = nullptr; }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

 private:
  Impl& impl_;
};

}  // namespace

TlsResult TlsStream::Fail(std::string reason) {
  failed_ = true;
  drained_ = true;
  failure_ = std::move(reason);
  return TlsResult::kFailed;
}

// After a call that returned `result`.
TlsResult TlsStream::Outcome(int result) {
  if (impl_->too_many_updates) return Fail("too many key updates");
  switch (SSL_get_error(impl_->connection.get(), result)) {
    case SSL_ERROR_NONE:
      return TlsResult::kDone;
    case SSL_ERROR_WANT_READ:
      return TlsResult::kWantsRead;
    case SSL_ERROR_WANT_WRITE:
      return TlsResult::kWantsWrite;
    case SSL_ERROR_ZERO_RETURN:
      ended_ = true;
      return TlsResult::kEnded;
    case SSL_ERROR_SYSCALL:
      network_error_ = impl_->send_error != 0 ? impl_->send_error : impl_->receive_error;
      if (network_error_ != 0) return Fail({});
      if (!impl_->at_end) break;
      ended_ = true;
      return TlsResult::kEnded;
    default:
      break;
  }
  const long verification = SSL_get_verify_result(impl_->connection.get());
  const bool certificate = ERR_GET_REASON(ERR_peek_last_error()) == SSL_R_CERTIFICATE_VERIFY_FAILED;
  std::string reason = TakeOpenSslError();
  return Fail(certificate ? X509_verify_cert_error_string(verification) : std::move(reason));
}

TlsResult TlsStream::Handshake(TlsTransport& transport) {
  if (failed_) return TlsResult::kFailed;
  if (ended_) return TlsResult::kEnded;
  const Call<Impl> call(*impl_, transport);
  const TlsResult result = Outcome(SSL_do_handshake(impl_->connection.get()));
  if (result == TlsResult::kDone) NoteFacts();
  return result;
}

void TlsStream::NoteFacts() {
  SSL* const connection = impl_->connection.get();
  facts_.version = SSL_get_version(connection);
  if (const char* const cipher = SSL_CIPHER_standard_name(SSL_get_current_cipher(connection))) {
    facts_.cipher = cipher;
  }
  if (const char* const name = SSL_get_servername(connection, TLSEXT_NAMETYPE_host_name)) {
    facts_.server_name = CleanPeerText(name, kMaxServerName);
  }
  facts_.resumed = SSL_session_reused(connection) == 1;
  const X509* const certificate = SSL_get0_peer_certificate(connection);
  if (certificate == nullptr) return;
  facts_.has_peer_certificate = true;
  facts_.peer_name = CleanPeerText(CommonName(*certificate), kMaxPeerName);
  const long verification = SSL_get_verify_result(connection);
  facts_.peer_verified = verification == X509_V_OK;
  if (!facts_.peer_verified) facts_.peer_failure = X509_verify_cert_error_string(verification);
}

TlsResult TlsStream::Read(TlsTransport& transport, std::span<char> space, std::size_t& received) {
  received = 0;
  if (failed_) return TlsResult::kFailed;
  if (ended_) return TlsResult::kEnded;
  const Call<Impl> call(*impl_, transport);
  const int result = SSL_read_ex(impl_->connection.get(), space.data(), space.size(), &received);
  const TlsResult outcome = Outcome(result);
  drained_ = outcome == TlsResult::kEnded || outcome == TlsResult::kFailed ||
             (outcome == TlsResult::kWantsRead && impl_->would_block);
  if (outcome == TlsResult::kFailed) received = 0;
  return outcome;
}

TlsResult TlsStream::Write(TlsTransport& transport, std::string_view bytes, std::size_t& written) {
  written = 0;
  if (failed_ || write_failed_) return TlsResult::kFailed;
  const Call<Impl> call(*impl_, transport);
  while (written < bytes.size()) {
    std::size_t count = 0;
    const std::string_view rest = bytes.substr(written);
    const int result = SSL_write_ex(impl_->connection.get(), rest.data(), rest.size(), &count);
    written += count;
    if (result == 1) continue;
    const TlsResult outcome = Outcome(result);
    // What the peer has sent can still be read.
    if (outcome == TlsResult::kFailed && impl_->send_error != 0) {
      write_failed_ = true;
      failed_ = false;
      drained_ = false;
    }
    return outcome;
  }
  return TlsResult::kDone;
}

TlsResult TlsStream::SayGoodbye(TlsTransport& transport) {
  if (failed_ || write_failed_ || goodbye_said_ || !SSL_is_init_finished(impl_->connection.get())) {
    return TlsResult::kDone;
  }
  const Call<Impl> call(*impl_, transport);
  const int result = SSL_shutdown(impl_->connection.get());
  if (result >= 0) {
    goodbye_said_ = true;
    return TlsResult::kDone;
  }
  return Outcome(result);
}

std::size_t TlsStream::Pending() const {
  return static_cast<std::size_t>(SSL_pending(impl_->connection.get()));
}

}  // namespace trabex

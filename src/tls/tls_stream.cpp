#include "tls/tls_stream.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cassert>
#include <chrono>
#include <exception>
#include <utility>

#include "base/error.h"
#include "tls/tls_context_impl.h"

namespace trabex {

// What the library calls back into.
//
// To the library the transport always takes everything; what it does not take waits here. Otherwise a record
// that is under way in the library would have to be gone before anything else could be said, but the library
// does not see to that: a key update that comes meanwhile asks for an answer, and ends the connection.
struct TlsStream::Impl {
  using Clock = std::chrono::steady_clock;

  // What a handshake says and one record take far less. Beyond them only answers to key updates come
  // together.
  static constexpr std::size_t kMaxUnsent = 256 * 1024;
  static constexpr std::size_t kSmall = 32;

  // A call of ours into the library.
  struct Loan {
    TlsTransport& transport;
    std::exception_ptr thrown{};  // by what the library called back
  };

  OpenSslPtr<ssl_st> connection;
  Loan* loan = nullptr;      // during a call
  std::size_t received = 0;  // in this call
  bool would_block = false;  // the transport had no more, in this call
  bool at_end = false;       // the transport's input has ended
  int receive_error = 0;
  int send_error = 0;
  bool collects = false;          // what the library sends waits in `unsent`
  bool tickets_wait = false;      // `unsent` is tickets, which nobody waits for
  std::string unsent;             // records that the transport has not taken
  std::size_t under_way = 0;      // how much plain text of Write is in the last of them
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
    const int error = loan->transport.Receive({space, size}, *count);
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
    const std::string_view record(bytes, size);
    // An answer or an alert does not wait with the tickets.
    if (!collects && std::exchange(tickets_wait, false)) Flush();
    const std::size_t sent = unsent.empty() && !collects ? Give(record) : 0;
    if (send_error != 0) return 0;
    unsent.append(record.substr(sent));
    if (unsent.size() > kMaxUnsent) too_many_updates = true;
    *count = size;
    return 1;
  }

  // Calls `action`, which returns 1 for success. The library knows nothing of exceptions: one waits until its call
  // returns, which fails.
  template <class Action>
  int Guarded(BIO* bio, std::size_t* count, const Action& action) noexcept {
    if (!loan->thrown) {
      try {
        return action();
      } catch (...) {
        loan->thrown = std::current_exception();
      }
    }
    *count = 0;
    BIO_clear_retry_flags(bio);
    return 0;
  }

  // Hands `bytes` to the transport as far as it takes them; returns how many.
  std::size_t Give(std::string_view bytes) {
    std::size_t total = 0;
    while (total < bytes.size() && send_error == 0) {
      std::size_t sent = 0;
      const int error = loan->transport.Send(bytes.substr(total), sent);
      if (error == TlsTransport::kWouldBlock) break;
      send_error = error;
      total += sent;
    }
    return total;
  }

  // Whether all has been sent.
  bool Flush() {
    if (!unsent.empty()) unsent.erase(0, Give(unsent));
    if (unsent.empty() && unsent.capacity() > kSmall) unsent.shrink_to_fit();
    return unsent.empty();
  }

  void NoteKeyUpdate() {
    const Clock::time_point now = Clock::now();
    if (now - updates_since >= std::chrono::seconds(1)) {
      updates_since = now;
      key_updates = 0;
    }
    if (++key_updates <= kMaxKeyUpdates) return;
    too_many_updates = true;
    // The library has read ahead, and would work through the hundreds that may be left of that, while all others
    // wait. After what it takes for the peer's end it reads no further.
    SSL_set_shutdown(connection.get(), SSL_get_shutdown(connection.get()) | SSL_RECEIVED_SHUTDOWN);
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
      Impl& impl = Impl::Of(bio);
      return impl.Guarded(bio, count, [&] { return impl.Receive(bio, space, size, count); });
    });
    BIO_meth_set_write_ex(made, [](BIO* bio, const char* bytes, std::size_t size, std::size_t* count) {
      Impl& impl = Impl::Of(bio);
      return impl.Guarded(bio, count, [&] { return impl.Send(bio, bytes, size, count); });
    });
    BIO_meth_set_ctrl(made, [](BIO* bio, int command, long, void*) -> long {
      if (command == BIO_CTRL_EOF) return Impl::Of(bio).at_end ? 1 : 0;
      return command == BIO_CTRL_FLUSH ? 1 : 0;
    });
    return made;
  }();
  return method;
}

// One for all connections of the thread, which belongs to whoever's call is under way: it keeps nothing from
// one call to the next.
template <class Impl>
BIO* SharedBio() {
  thread_local const OpenSslPtr<bio_st> shared = [] {
    OpenSslPtr<bio_st> made(BIO_new(TransportMethod<Impl>()));
    if (!made) throw Error(error_number::kOutOfMemory, "TlsStream", TakeOpenSslError());
    BIO_set_init(made.get(), 1);
    return made;
  }();
  return shared.get();
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
  BIO* const bio = SharedBio<Impl>();
  BIO_up_ref(bio);
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
  Call(Impl& impl, TlsTransport& transport) : impl_(impl), loan_{transport} {
    BIO_set_data(SSL_get_rbio(impl_.connection.get()), &impl_);
    impl_.loan = &loan_;
    impl_.received = 0;
    impl_.would_block = false;
    // The queue is the thread's: what another connection left there would count as an error of this call. To
    // empty it costs more than to find it empty.
    if (ERR_peek_error() != 0) ERR_clear_error();
  }
  ~Call() {
    BIO_set_data(SSL_get_rbio(impl_.connection.get()), nullptr);
    impl_.loan = nullptr;
    impl_.collects = false;
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

 private:
  Impl& impl_;
  typename Impl::Loan loan_;
};

}  // namespace

namespace {

// Releases what the library keeps of a finished handshake without need. The private half of the key exchange
// would otherwise stay until the connection ends, for whoever reads the memory later.
void ReleaseHandshake(SSL* connection) {
  const auto release = [](EVP_PKEY* key) {
    const OpenSslPtr<evp_pkey_st> owner(key);
    // To set the type drops the key itself.
    if (EVP_PKEY_set_type(key, EVP_PKEY_get_id(key)) != 1) ERR_clear_error();
  };
  EVP_PKEY* key = nullptr;
  if (SSL_get_tmp_key(connection, &key) == 1) release(key);
  if (SSL_get_peer_tmp_key(connection, &key) == 1) release(key);
  if (STACK_OF(SSL_CIPHER)* const offered = SSL_get_client_ciphers(connection)) {
    sk_SSL_CIPHER_zero(offered);
    sk_SSL_CIPHER_reserve(offered, 0);
  }
}

}  // namespace

TlsResult TlsStream::Fail(std::string reason) {
  failed_ = true;
  drained_ = true;
  failure_ = std::move(reason);
  return TlsResult::kFailed;
}

// After a call that returned `result`. Raises what was thrown in it; the connection has failed then, since the library
// does not know how far it came.
TlsResult TlsStream::Outcome(int result) {
  if (impl_->loan->thrown) {
    ERR_clear_error();
    Fail("out of memory");
    std::rethrow_exception(impl_->loan->thrown);
  }
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
  if (!impl_->Flush()) return Unsent();
  SSL* const connection = impl_->connection.get();
  impl_->collects = true;
  const TlsResult result = Outcome(SSL_do_handshake(connection));
  // The last words of a server are tickets in TLS 1.3, which no client waits for. They go out together with
  // what is written first.
  impl_->tickets_wait = result == TlsResult::kDone && context_->Role() == TlsRole::kServer &&
                        SSL_version(connection) == TLS1_3_VERSION;
  const bool sent = impl_->tickets_wait || impl_->Flush();
  const bool goes_on = result == TlsResult::kDone || result == TlsResult::kWantsRead;
  if (goes_on && !sent) return Unsent();
  if (result == TlsResult::kDone) {
    NoteFacts();
    ReleaseHandshake(connection);
  }
  return result;
}

// After a Flush that left something.
TlsResult TlsStream::Unsent() {
  if (impl_->send_error == 0) return TlsResult::kWantsWrite;
  // What the peer has sent can still be read.
  write_failed_ = true;
  network_error_ = impl_->send_error;
  return TlsResult::kFailed;
}

void TlsStream::NoteFacts() {
  SSL* const connection = impl_->connection.get();
  facts_.version = SSL_get_version(connection);
  if (const char* const cipher = SSL_CIPHER_standard_name(SSL_get_current_cipher(connection))) {
    facts_.cipher = cipher;
  }
  const char* const name = SSL_get_servername(connection, TLSEXT_NAMETYPE_host_name);
  if (name != nullptr && context_->Role() == TlsRole::kServer) {
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
  drained_ =
      outcome == TlsResult::kEnded || outcome == TlsResult::kFailed ||
      (outcome == TlsResult::kWantsRead && impl_->would_block) ||
      (outcome == TlsResult::kDone && transport.Drained() && SSL_has_pending(impl_->connection.get()) == 0);
  if (outcome == TlsResult::kFailed) received = 0;
  return outcome;
}

TlsResult TlsStream::Write(TlsTransport& transport, std::string_view bytes, std::size_t& written) {
  written = 0;
  if (failed_ || write_failed_) return TlsResult::kFailed;
  const Call<Impl> call(*impl_, transport);
  bool together = std::exchange(impl_->tickets_wait, false);
  if (!together && !impl_->Flush()) return Unsent();
  written = std::exchange(impl_->under_way, 0);
  assert(written <= bytes.size());
  while (written < bytes.size()) {
    std::size_t count = 0;
    const std::string_view rest = bytes.substr(written);
    impl_->collects = together;
    const int result = SSL_write_ex(impl_->connection.get(), rest.data(), rest.size(), &count);
    if (std::exchange(together, false) && !impl_->loan->thrown) impl_->Flush();
    if (impl_->send_error != 0) return Unsent();
    if (const TlsResult outcome = Outcome(result); outcome != TlsResult::kDone) {
      return outcome == TlsResult::kFailed ? outcome : Fail("no record can be written");
    }
    if (!impl_->unsent.empty()) {
      impl_->under_way = count;
      return TlsResult::kWantsWrite;
    }
    written += count;
  }
  return TlsResult::kDone;
}

TlsResult TlsStream::SayGoodbye(TlsTransport& transport) {
  if (failed_ || write_failed_) return TlsResult::kDone;
  const Call<Impl> call(*impl_, transport);
  if (!impl_->Flush()) return Unsent();
  if (goodbye_said_ || SSL_is_init_finished(impl_->connection.get()) != 1) return TlsResult::kDone;
  const int result = SSL_shutdown(impl_->connection.get());
  if (impl_->send_error != 0) return Unsent();
  if (result < 0) return Outcome(result);
  goodbye_said_ = true;
  return impl_->unsent.empty() ? TlsResult::kDone : TlsResult::kWantsWrite;
}

std::size_t TlsStream::Pending() const {
  return static_cast<std::size_t>(SSL_pending(impl_->connection.get()));
}

}  // namespace trabex

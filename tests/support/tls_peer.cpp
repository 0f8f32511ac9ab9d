#include "support/tls_peer.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <stdexcept>

namespace trabex {

namespace {

template <class Object>
using Owner = std::unique_ptr<Object, void (*)(Object*)>;

void Must(bool done, const char* what) {
  if (!done) throw std::runtime_error(std::string("TLS peer: ") + what);
}

Owner<BIO> Reader(const std::string& text) {
  return {BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free_all};
}

int VersionNumber(const std::string& text) {
  if (text.empty()) return 0;
  return text == "1.0"   ? TLS1_VERSION
         : text == "1.1" ? TLS1_1_VERSION
         : text == "1.2" ? TLS1_2_VERSION
                         : TLS1_3_VERSION;
}

}  // namespace

struct TlsPeer::Impl {
  Owner<SSL_CTX> context{nullptr, SSL_CTX_free};
  Owner<SSL> connection{nullptr, SSL_free};
  BIO* input = nullptr;   // of the connection
  BIO* output = nullptr;  // likewise
  bool asked_for_certificate = false;
};

TlsPeer::TlsPeer(const TlsPeerOptions& options) : impl_(std::make_unique<Impl>()) {
  impl_->context.reset(SSL_CTX_new(options.server ? TLS_server_method() : TLS_client_method()));
  SSL_CTX* const context = impl_->context.get();
  Must(context != nullptr, "context");
  SSL_CTX_set_min_proto_version(context, VersionNumber(options.min_version));
  SSL_CTX_set_max_proto_version(context, VersionNumber(options.max_version));
  // Also what nobody should agree to.
  const std::string ciphers = options.ciphers.empty() ? "ALL:!aNULL:@SECLEVEL=0" : options.ciphers;
  Must(SSL_CTX_set_cipher_list(context, ciphers.c_str()) == 1, "ciphers");
  if (!options.groups.empty()) Must(SSL_CTX_set1_groups_list(context, options.groups.c_str()) == 1, "groups");
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
  SSL_CTX_sess_set_new_cb(context, [](SSL* connection, SSL_SESSION*) {
    ++static_cast<TlsPeer*>(SSL_get_app_data(connection))->tickets_;
    return 0;
  });
  SSL_CTX_set_client_cert_cb(context, [](SSL* connection, X509**, EVP_PKEY**) {
    static_cast<TlsPeer*>(SSL_get_app_data(connection))->impl_->asked_for_certificate = true;
    return 0;
  });
  if (!options.certificate.certificate.empty()) {
    const auto certificates = Reader(options.certificate.certificate);
    const Owner<X509> leaf{PEM_read_bio_X509(certificates.get(), nullptr, nullptr, nullptr), X509_free};
    const Owner<EVP_PKEY> key{
        PEM_read_bio_PrivateKey(Reader(options.certificate.key).get(), nullptr, nullptr, nullptr),
        EVP_PKEY_free};
    Must(SSL_CTX_use_certificate(context, leaf.get()) == 1, "certificate");
    Must(SSL_CTX_use_PrivateKey(context, key.get()) == 1, "key");
    while (X509* const link = PEM_read_bio_X509(certificates.get(), nullptr, nullptr, nullptr)) {
      SSL_CTX_add0_chain_cert(context, link);
    }
  }
  if (!options.authority.empty()) {
    const Owner<X509> authority{PEM_read_bio_X509(Reader(options.authority).get(), nullptr, nullptr, nullptr),
                                X509_free};
    Must(X509_STORE_add_cert(SSL_CTX_get_cert_store(context), authority.get()) == 1, "authority");
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  }
  impl_->connection.reset(SSL_new(context));
  SSL* const connection = impl_->connection.get();
  SSL_set_app_data(connection, this);
  if (options.padding > 0) SSL_set_block_padding(connection, options.padding);
  impl_->input = BIO_new(BIO_s_mem());
  impl_->output = BIO_new(BIO_s_mem());
  BIO_set_mem_eof_return(impl_->input, -1);
  SSL_set_bio(connection, impl_->input, impl_->output);
  std::string protocols;
  for (const std::string& name : options.protocols) protocols += static_cast<char>(name.size()) + name;
  if (!protocols.empty()) {
    SSL_set_alpn_protos(connection, reinterpret_cast<const unsigned char*>(protocols.data()),
                        static_cast<unsigned>(protocols.size()));
  }
  if (options.server) {
    SSL_set_accept_state(connection);
  } else {
    SSL_set_connect_state(connection);
    if (!options.server_name.empty()) SSL_set_tlsext_host_name(connection, options.server_name.c_str());
    if (options.session) SSL_set_session(connection, static_cast<SSL_SESSION*>(options.session.get()));
  }
  Proceed();
}

TlsPeer::~TlsPeer() = default;

void TlsPeer::Note(int result) {
  switch (SSL_get_error(impl_->connection.get(), result)) {
    case SSL_ERROR_ZERO_RETURN:
      ended_ = true;
      return;
    case SSL_ERROR_SSL:
      if (const char* const reason = ERR_reason_error_string(ERR_peek_error())) error_ = reason;
      return;
    default:
      return;
  }
}

void TlsPeer::Proceed() {
  ERR_clear_error();
  SSL* const connection = impl_->connection.get();
  if (!error_.empty()) return;
  if (!SSL_is_init_finished(connection)) {
    const int result = SSL_do_handshake(connection);
    if (result != 1) return Note(result);
  }
  char space[16384];
  int count = 0;
  while ((count = SSL_read(connection, space, sizeof space)) > 0) {
    text_.append(space, static_cast<std::size_t>(count));
  }
  Note(count);
}

void TlsPeer::Feed(std::string_view bytes) {
  if (!bytes.empty()) BIO_write(impl_->input, bytes.data(), static_cast<int>(bytes.size()));
  Proceed();
}

std::string TlsPeer::Output() {
  std::string bytes(BIO_ctrl_pending(impl_->output), '\0');
  if (!bytes.empty()) BIO_read(impl_->output, bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

bool TlsPeer::Established() const {
  return SSL_is_init_finished(impl_->connection.get()) == 1;
}

void TlsPeer::Write(std::string_view text) {
  ERR_clear_error();
  if (text.empty()) return;
  const int written = SSL_write(impl_->connection.get(), text.data(), static_cast<int>(text.size()));
  Must(written == static_cast<int>(text.size()), "writing");
}

void TlsPeer::SayGoodbye() {
  ERR_clear_error();
  SSL_shutdown(impl_->connection.get());
}

void TlsPeer::UpdateKeys(bool answered) {
  ERR_clear_error();
  SSL* const connection = impl_->connection.get();
  Must(SSL_key_update(connection, answered ? SSL_KEY_UPDATE_REQUESTED : SSL_KEY_UPDATE_NOT_REQUESTED) == 1 &&
           SSL_do_handshake(connection) == 1,
       "new keys");
}

void TlsPeer::Renegotiate() {
  ERR_clear_error();
  SSL_renegotiate(impl_->connection.get());
  SSL_do_handshake(impl_->connection.get());
}

std::string TlsPeer::Version() const {
  return SSL_get_version(impl_->connection.get());
}

std::string TlsPeer::Cipher() const {
  return SSL_CIPHER_standard_name(SSL_get_current_cipher(impl_->connection.get()));
}

std::string TlsPeer::Group() const {
  return OBJ_nid2sn(static_cast<int>(SSL_get_negotiated_group(impl_->connection.get())) & 0xFFFF);
}

std::string TlsPeer::Protocol() const {
  const unsigned char* name = nullptr;
  unsigned size = 0;
  SSL_get0_alpn_selected(impl_->connection.get(), &name, &size);
  return {reinterpret_cast<const char*>(name), size};
}

std::string TlsPeer::PeerName() const {
  const X509* const certificate = SSL_get0_peer_certificate(impl_->connection.get());
  if (certificate == nullptr) return {};
  char name[256] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name, sizeof name);
  return name;
}

std::size_t TlsPeer::PeerChainLength() const {
  const STACK_OF(X509)* const chain = SSL_get_peer_cert_chain(impl_->connection.get());
  return chain == nullptr ? 0 : static_cast<std::size_t>(sk_X509_num(chain));
}

bool TlsPeer::PeerHasRsaKey() const {
  const X509* const certificate = SSL_get0_peer_certificate(impl_->connection.get());
  return certificate != nullptr && EVP_PKEY_get_base_id(X509_get0_pubkey(certificate)) == EVP_PKEY_RSA;
}

bool TlsPeer::WasAskedForCertificate() const {
  return impl_->asked_for_certificate;
}

bool TlsPeer::Resumed() const {
  return SSL_session_reused(impl_->connection.get()) == 1;
}

std::shared_ptr<void> TlsPeer::Session() const {
  SSL_SESSION* const session = SSL_get1_session(impl_->connection.get());
  if (session == nullptr) return nullptr;
  const std::shared_ptr<void> owner(session,
                                    [](void* kept) { SSL_SESSION_free(static_cast<SSL_SESSION*>(kept)); });
  return SSL_SESSION_is_resumable(session) == 1 ? owner : nullptr;
}

}  // namespace trabex

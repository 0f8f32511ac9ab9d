#include "tls/tls_context.h"

#include <openssl/conf.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <set>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "base/text.h"
#include "tls/tls_context_impl.h"

namespace trabex {

namespace {

using What = TlsLoadReport::Failure::What;

// Of a server, those of everybody: the library's own list has others that cost it far more than the client that
// asks for them, such as finite fields of 8192 bits. As a client there is one server, which may have a key of any.
constexpr const char* kServerGroups = "X25519:P-256:P-384";
// Behind every list of ciphers: where nobody shows a certificate there is none to verify.
constexpr const char* kNotWithoutCertificate = ":!aNULL";

constexpr unsigned char kSessionContext[] = "smtp";
constexpr std::string_view kProtocol = "smtp";
constexpr std::size_t kTicketKeySize = 80;  // name, HMAC and cipher, as the library cuts it

// The library's number.
int VersionNumber(TlsVersion version) {
  switch (version) {
    case TlsVersion::k1_0:
      return TLS1_VERSION;
    case TlsVersion::k1_1:
      return TLS1_1_VERSION;
    case TlsVersion::k1_2:
      return TLS1_2_VERSION;
    case TlsVersion::k1_3:
      break;
  }
  return TLS1_3_VERSION;
}

// A client that offers protocols and not this one wants to speak something else, and must not be led to
// believe that it can (RFC 7301, 3.2).
int ChooseProtocol(SSL* /*connection*/, const unsigned char** chosen, unsigned char* chosen_size,
                   const unsigned char* offered, unsigned int size, void* /*unused*/) {
  for (unsigned int at = 0; at < size; at += 1U + offered[at]) {
    const std::string_view name(reinterpret_cast<const char*>(offered + at + 1), offered[at]);
    if (name != kProtocol) continue;
    *chosen = offered + at + 1;
    *chosen_size = offered[at];
    return SSL_TLSEXT_ERR_OK;
  }
  return SSL_TLSEXT_ERR_ALERT_FATAL;
}

// A name that no certificate has is no error: senders would give up the mail.
int ChooseCertificate(SSL* connection, int* /*alert*/, void* implementation) {
  const auto& context = *static_cast<const TlsContext::Impl*>(implementation);
  const char* const name = SSL_get_servername(connection, TLSEXT_NAMETYPE_host_name);
  if (name == nullptr) return SSL_TLSEXT_ERR_NOACK;
  try {
    const auto found = context.names.Find(name);
    if (!found) return SSL_TLSEXT_ERR_NOACK;
    SSL_set_SSL_CTX(connection, context.contexts[*found].get());
    return SSL_TLSEXT_ERR_OK;
  } catch (const std::bad_alloc&) {
    return SSL_TLSEXT_ERR_NOACK;  // nothing may be thrown through the library
  }
}

// Goes on whatever is wrong with the peer's certificate; the result of the verification stays.
int GoOn(int /*good*/, X509_STORE_CTX* /*verification*/) {
  return 1;
}

OpenSslPtr<ssl_ctx_st> BareContext(TlsRole role, TlsVersion min_version) {
  OpenSslPtr<ssl_ctx_st> context(
      SSL_CTX_new(role == TlsRole::kServer ? TLS_server_method() : TLS_client_method()));
  if (!context) throw Error(error_number::kOutOfMemory, "TlsContext", TakeOpenSslError());
  SSL_CTX* const c = context.get();
  SSL_CTX_set_mode(c, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                          SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_NO_AUTO_CHAIN);
  SSL_CTX_set_options(c, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_IGNORE_UNEXPECTED_EOF);
  // One receive for a record's header and body, and for several records.
  SSL_CTX_set_read_ahead(c, 1);
  SSL_CTX_set_session_cache_mode(c, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_max_early_data(c, 0);
  SSL_CTX_set_min_proto_version(c, VersionNumber(min_version));
  if (role == TlsRole::kServer) SSL_CTX_set1_groups_list(c, kServerGroups);
  return context;
}

bool SetCiphers(SSL_CTX* context, const std::string& list) {
  ERR_clear_error();
  const bool taken = SSL_CTX_set_cipher_list(context, (list + kNotWithoutCertificate).c_str()) == 1;
  ERR_clear_error();
  return taken;
}

bool UseCertificate(SSL_CTX* context, const LoadedCertificate& certificate) {
  const std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> chain(
      sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_free(stack); });
  for (const auto& link : certificate.chain) sk_X509_push(chain.get(), link.get());
  ERR_clear_error();
  // Each connection copies the chain, even an empty one.
  return SSL_CTX_use_cert_and_key(context, certificate.leaf.get(), certificate.key.get(),
                                  certificate.chain.empty() ? nullptr : chain.get(), 1) == 1;
}

std::set<std::string> SetOfNames(const LoadedCertificate& certificate) {
  std::set<std::string> names;
  for (const std::string& name : certificate.names) names.insert(ToLower(name));
  return names;
}

// What the context in force has for the same files; nullptr: none.
std::shared_ptr<const LoadedCertificate> InForce(const TlsContext* context,
                                                 const TlsCertificateFiles& files) {
  if (context == nullptr) return nullptr;
  for (const auto& certificate : context->GetImpl().certificates) {
    if (certificate->files == files) return certificate;
  }
  return nullptr;
}

std::shared_ptr<const Authorities> ReadAuthorities(const std::string& file, What what, TlsLoadReport& report,
                                                   const TlsContext* in_force) {
  LoadFault fault;
  if (auto loaded = LoadAuthorities(file, fault)) return loaded;
  std::shared_ptr<const Authorities> before = in_force != nullptr ? in_force->GetImpl().authorities : nullptr;
  const bool kept = before && before->file == file && !before->certificates.empty();
  report.failures.push_back({what, {}, fault.file, fault.reason, kept});
  return kept ? before : NoAuthorities(file);
}

// The ciphers that are used: those wanted, unless the library refuses them.
std::string ReadCiphers(const std::string& wanted, const char* otherwise, TlsLoadReport& report) {
  if (wanted.empty()) return otherwise;
  if (TlsContext::AcceptsCiphers(wanted)) return wanted;
  report.failures.push_back({What::kCiphers, {}, {}, "no cipher match", false});
  return otherwise;
}

// Whether it can be shown with these options; with `fault` otherwise. The ciphers may hold a level of security
// that the key does not reach.
bool CanBeUsed(const LoadedCertificate& certificate, const TlsServerOptions& options,
               const std::string& ciphers, LoadFault& fault) {
  const auto trial = BareContext(TlsRole::kServer, options.min_version);
  SetCiphers(trial.get(), ciphers);
  if (UseCertificate(trial.get(), certificate)) return true;
  fault = {certificate.files.chain, TakeOpenSslError()};
  return false;
}

// The certificates of the options that can be used.
std::vector<std::shared_ptr<const LoadedCertificate>> ReadCertificates(const TlsServerOptions& options,
                                                                       const std::string& ciphers,
                                                                       TlsLoadReport& report,
                                                                       const TlsContext* in_force) {
  std::vector<std::shared_ptr<const LoadedCertificate>> certificates;
  for (const TlsCertificateFiles& files : options.certificates) {
    LoadFault fault{files.chain, {}};
    auto certificate = LoadCertificate(files, fault);
    bool kept = false;
    if (certificate && !CanBeUsed(*certificate, options, ciphers, fault)) certificate.reset();
    if (!certificate) {
      certificate = InForce(in_force, files);
      LoadFault of_kept;
      if (certificate && !CanBeUsed(*certificate, options, ciphers, of_kept)) certificate.reset();
      kept = certificate != nullptr;
      report.failures.push_back({What::kCertificate, files, fault.file, fault.reason, kept});
    }
    if (!certificate) continue;
    report.certificates.push_back({files, certificate->names, certificate->valid_until, kept});
    certificates.push_back(std::move(certificate));
  }
  return certificates;
}

void AskForCertificate(SSL_CTX* context, TlsClientCertificates mode, const Authorities& authorities) {
  const bool required = mode == TlsClientCertificates::kRequired;
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | (required ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0),
                     required ? nullptr : GoOn);
  SSL_CTX_set1_cert_store(context, authorities.store.get());
  for (const auto& authority : authorities.certificates) SSL_CTX_add_client_CA(context, authority.get());
}

OpenSslPtr<ssl_ctx_st> ServerContext(const TlsServerOptions& options, const std::string& ciphers,
                                     TlsContext::Impl& owner) {
  auto context = BareContext(TlsRole::kServer, options.min_version);
  SSL_CTX* const c = context.get();
  SetCiphers(c, ciphers);
  SSL_CTX_set_session_id_context(c, kSessionContext, sizeof kSessionContext - 1);
  SSL_CTX_set_alpn_select_cb(c, ChooseProtocol, nullptr);
  SSL_CTX_set_tlsext_servername_callback(c, ChooseCertificate);
  SSL_CTX_set_tlsext_servername_arg(c, &owner);
  // A resumed session would not show its certificate again.
  const bool tickets = options.session_tickets && options.client_certificates == TlsClientCertificates::kNone;
  SSL_CTX_set_num_tickets(c, tickets ? 1 : 0);
  if (!tickets) SSL_CTX_set_options(c, SSL_OP_NO_TICKET);
  if (owner.authorities) AskForCertificate(c, options.client_certificates, *owner.authorities);
  return context;
}

}  // namespace

void TlsContext::Impl::RenewTicketKey(std::chrono::steady_clock::time_point now) const {
  if (ticket_key_made && now - *ticket_key_made < kTicketKeyLife) return;
  std::array<unsigned char, kTicketKeySize> key{};
  if (RAND_priv_bytes(key.data(), key.size()) != 1) return;  // the library's own key, or the old one, stays
  for (const auto& context : contexts) {
    SSL_CTX_set_tlsext_ticket_keys(context.get(), key.data(), key.size());
  }
  OPENSSL_cleanse(key.data(), key.size());
  ticket_key_made = now;
}

OpenSslPtr<ssl_st> TlsContext::Impl::Connection() const {
  if (role == TlsRole::kServer) RenewTicketKey(std::chrono::steady_clock::now());
  ERR_clear_error();
  OpenSslPtr<ssl_st> connection(SSL_new(contexts.front().get()));
  if (!connection) throw Error(error_number::kOutOfMemory, "TlsStream", TakeOpenSslError());
  if (role == TlsRole::kServer) {
    SSL_set_accept_state(connection.get());
    return connection;
  }
  SSL_set_connect_state(connection.get());
  if (!peer_is_address && !peer_name.empty()) {
    SSL_set_tlsext_host_name(connection.get(), peer_name.c_str());
  }
  return connection;
}

TlsContext::TlsContext(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

TlsContext::~TlsContext() = default;

TlsRole TlsContext::Role() const {
  return impl_->role;
}

bool TlsContext::AcceptsCiphers(const std::string& list) {
  const auto context = BareContext(TlsRole::kServer, TlsVersion::k1_2);
  return SetCiphers(context.get(), list);
}

std::shared_ptr<const TlsContext> TlsContext::ForServer(const TlsServerOptions& options,
                                                        TlsLoadReport& report, const TlsContext* in_force) {
  const std::string ciphers = ReadCiphers(options.ciphers, kServerCiphers, report);
  auto impl = std::make_unique<Impl>();
  impl->certificates = ReadCertificates(options, ciphers, report, in_force);
  if (options.client_certificates != TlsClientCertificates::kNone) {
    impl->authorities = options.client_ca.empty()
                            ? NoAuthorities({})
                            : ReadAuthorities(options.client_ca, What::kClientCa, report, in_force);
  }
  // Certificates of the same names and different keys are offered together, so that the client gets the kind
  // that it can use.
  struct Group {
    std::set<std::string> names;
    std::set<int> kinds;
  };
  std::vector<Group> groups;
  for (const auto& certificate : impl->certificates) {
    const auto names = SetOfNames(*certificate);
    const auto group = std::find_if(groups.begin(), groups.end(), [&](const Group& g) {
      return g.names == names && !g.kinds.contains(certificate->key_kind);
    });
    const auto index = static_cast<std::size_t>(group - groups.begin());
    if (group == groups.end()) {
      groups.push_back({names, {}});
      impl->contexts.push_back(ServerContext(options, ciphers, *impl));
    }
    groups[index].kinds.insert(certificate->key_kind);
    UseCertificate(impl->contexts[index].get(), *certificate);
    for (const std::string& name : names) impl->names.Add(name, index);
  }
  if (impl->contexts.empty()) return nullptr;
  impl->RenewTicketKey(std::chrono::steady_clock::now());
  return std::shared_ptr<const TlsContext>(new TlsContext(std::move(impl)));
}

std::shared_ptr<const TlsContext> TlsContext::ForClient(const TlsClientOptions& options,
                                                        TlsLoadReport& report, const TlsContext* in_force) {
  auto impl = std::make_unique<Impl>();
  impl->role = TlsRole::kClient;
  impl->peer_name = options.server_name;
  // Neither what is asked for nor what certificates hold has the dot of an absolute name (RFC 6066, 3).
  if (impl->peer_name.ends_with('.')) impl->peer_name.pop_back();
  auto context = BareContext(TlsRole::kClient, options.min_version);
  SSL_CTX* const c = context.get();
  if (const std::string ciphers = ReadCiphers(options.ciphers, "", report); !ciphers.empty()) {
    SetCiphers(c, ciphers);
  }
  const std::string& name = impl->peer_name;
  if (name.empty()) {
    // Without a name any certificate would do, so none is accepted.
    impl->authorities = NoAuthorities({});
  } else if (!options.server_ca.empty()) {
    impl->authorities = ReadAuthorities(options.server_ca, What::kServerCa, report, in_force);
  }
  if (impl->authorities) {
    SSL_CTX_set1_cert_store(c, impl->authorities->store.get());
  } else {
    SSL_CTX_set_default_verify_paths(c);
  }
  SSL_CTX_set_verify(c, SSL_VERIFY_PEER, options.verify ? nullptr : GoOn);
  X509_VERIFY_PARAM* const expected = SSL_CTX_get0_param(c);
  X509_VERIFY_PARAM_set_hostflags(expected, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  if (!name.empty()) {
    impl->peer_is_address = X509_VERIFY_PARAM_set1_ip_asc(expected, name.c_str()) == 1;
    if (!impl->peer_is_address) X509_VERIFY_PARAM_set1_host(expected, name.c_str(), 0);
  }
  ERR_clear_error();
  impl->contexts.push_back(std::move(context));
  return std::shared_ptr<const TlsContext>(new TlsContext(std::move(impl)));
}

std::vector<std::string> TlsSystemFiles() {
  std::vector<std::string> files = {X509_get_default_cert_file(), X509_get_default_cert_dir()};
  const std::unique_ptr<char, void (*)(char*)> configuration(CONF_get1_default_config_file(),
                                                             [](char* path) { OPENSSL_free(path); });
  if (configuration) files.emplace_back(configuration.get());
  return files;
}

}  // namespace trabex

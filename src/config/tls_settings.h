// Section TLS: TLS towards the clients and towards the server.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace trabex {

struct Configuration;

// Bits of Require and RequireForAUTH: whom the requirement holds for.
namespace tls_require {
inline constexpr std::int32_t kLocalClients = 1;
inline constexpr std::int32_t kRemoteClients = 2;
}  // namespace tls_require

// ClientCertificates.
namespace client_certificates {
inline constexpr std::int32_t kNotAsked = 0;
inline constexpr std::int32_t kAsked = 1;     // shown in the log and by macros; nothing depends on it
inline constexpr std::int32_t kRequired = 2;  // no session without one that ClientCA vouches for
}  // namespace client_certificates

// Server: TLS towards the server.
namespace server_tls {
inline constexpr std::int32_t kNone = 0;
inline constexpr std::int32_t kIfOffered = 1;  // STARTTLS when the server offers it
inline constexpr std::int32_t kStartTls = 2;   // STARTTLS or no session
inline constexpr std::int32_t kImplicit = 3;   // from the first byte
}  // namespace server_tls

// One entry of Certificate: resolved paths of PEM files. One file that holds both has the same path twice.
struct CertificateFiles {
  std::string chain;
  std::string key;
  friend bool operator==(const CertificateFiles&, const CertificateFiles&) = default;
};

// Equal settings mean the same contexts, as long as the files stay as they are.
struct TLSSettings {
  std::vector<CertificateFiles> Certificate;
  // Where no entry is of use: the lines of the file, if they say something all the same.
  std::vector<std::string> misspelled_certificates;
  std::string MinVersion;           // 1.0, 1.1, 1.2 or 1.3; both sides
  std::string Ciphers;              // empty: those of the library
  std::int32_t Require;             // bits: tls_require
  std::int32_t RequireForAUTH;      // the same; no effect unless WantsCertificate()
  std::int32_t ClientCertificates;  // client_certificates
  std::string ClientCA;             // resolved path, or empty
  bool SessionTickets;
  std::int32_t HandshakeTimeout;  // seconds
  std::int32_t MaxHandshakes;     // 0: any number
  std::int32_t Server;            // server_tls
  bool ServerVerify;
  std::string ServerName;  // empty: ServerIP
  std::string ServerCA;    // resolved path; empty: the system's

  // Whether clients shall have TLS. Policies go by it: a certificate that is misspelled or can not be loaded
  // must not open in the clear what TLS was to protect.
  bool WantsCertificate() const { return !misspelled_certificates.empty() || !Certificate.empty(); }

  friend bool operator==(const TLSSettings&, const TLSSettings&) = default;

 private:
  TLSSettings() = default;
  friend struct Configuration;
};

}  // namespace trabex

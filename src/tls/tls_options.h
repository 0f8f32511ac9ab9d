// What a TlsContext is built from, and the report on what could be used of it.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace trabex {

enum class TlsRole { kServer, kClient };
enum class TlsVersion { k1_0, k1_1, k1_2, k1_3 };

// PEM files. `key` empty: the key is in the file of the chain.
struct TlsCertificateFiles {
  std::string chain;  // the certificate, then those that vouch for it
  std::string key;
  friend bool operator==(const TlsCertificateFiles&, const TlsCertificateFiles&) = default;
};

enum class TlsClientCertificates {
  kNone,
  kAsked,     // nothing depends on the answer
  kRequired,  // no connection without one that client_ca vouches for
};

struct TlsServerOptions {
  // The first that can be used is the one for clients that name no host, or one that no certificate has.
  std::vector<TlsCertificateFiles> certificates{};
  TlsVersion min_version = TlsVersion::k1_2;
  std::string ciphers{};  // OpenSSL's list for 1.2 and older; empty: kServerCiphers
  TlsClientCertificates client_certificates = TlsClientCertificates::kNone;
  std::string client_ca{};      // PEM file
  bool session_tickets = true;  // never with client certificates
};

struct TlsClientOptions {
  TlsVersion min_version = TlsVersion::k1_2;
  std::string ciphers{};  // empty: the library's
  // No connection unless the server's certificate is good; otherwise the facts only say whether it is.
  bool verify = false;
  std::string server_name{};  // a name, or an address (IPv4, IPv6 without brackets)
  std::string server_ca{};    // PEM file of who may vouch; empty: the system's
};

struct TlsLoadReport {
  // A certificate in use.
  struct Certificate {
    TlsCertificateFiles files;
    std::vector<std::string> names;  // the DNS names, or the common name when there is none; as written
    std::chrono::sys_seconds valid_until;
    bool kept = false;  // it could not be loaded again: the one in force stays
  };
  // What could not be used. If it is client_ca or server_ca, no certificate of a peer is verified; if it is
  // the ciphers, those of an empty list are used; unless what was in force stays.
  struct Failure {
    enum class What { kCertificate, kClientCa, kServerCa, kCiphers };
    What what;
    TlsCertificateFiles files;  // of kCertificate
    std::string file;           // that could not be used: the chain, the key, or the authorities
    std::string reason;         // without a full stop
    bool kept = false;          // what was in force for the same files stays
  };

  std::vector<Certificate> certificates;
  std::vector<Failure> failures;
};

}  // namespace trabex

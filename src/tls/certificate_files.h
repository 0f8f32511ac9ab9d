// Certificates, keys and authorities from PEM files.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tls/openssl_handles.h"
#include "tls/tls_options.h"

namespace trabex {

struct LoadedCertificate {
  TlsCertificateFiles files;
  OpenSslPtr<x509_st> leaf;
  OpenSslPtr<evp_pkey_st> key;
  std::vector<OpenSslPtr<x509_st>> chain;  // after the leaf
  std::vector<std::string> names;
  std::chrono::sys_seconds valid_until;
  int key_kind = 0;  // the library's number
};

struct Authorities {
  std::string file;
  OpenSslPtr<x509_store_st> store;
  std::vector<OpenSslPtr<x509_st>> certificates;
};

struct LoadFault {
  std::string file;
  std::string reason;
};

// nullptr when they cannot be used; `fault` says why.
std::shared_ptr<const LoadedCertificate> LoadCertificate(const TlsCertificateFiles& files, LoadFault& fault);
std::shared_ptr<const Authorities> LoadAuthorities(const std::string& file, LoadFault& fault);
// An empty set: no certificate is verified by it.
std::shared_ptr<const Authorities> NoAuthorities(const std::string& file);

// The common name of a certificate's subject, in UTF-8; empty: none.
std::string CommonName(const x509_st& certificate);

}  // namespace trabex

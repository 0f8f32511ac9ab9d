// What the TLS connections of one kind share: certificates, versions, ciphers, the key of the tickets.
#pragma once

#include <memory>
#include <string>

#include "tls/tls_options.h"

namespace trabex {

// Immutable but for the ticket key. A connection keeps the context that it began with, so a new one can take
// its place at any time.
class TlsContext {
 public:
  // For 1.2, when none are set, towards clients: what a client of today has, all with forward secrecy and
  // authenticated encryption. (The library's own list still has CBC and plain RSA.)
  static constexpr const char* kServerCiphers =
      "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
      "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305";

  // nullptr when not one certificate can be used. What cannot be loaded is taken from `in_force`, when that
  // was made of the same files. Reads files, each a regular one of 1 MB at most. A key with a password cannot
  // be used: the program has no way to ask for it.
  static std::shared_ptr<const TlsContext> ForServer(const TlsServerOptions& options, TlsLoadReport& report,
                                                     const TlsContext* in_force = nullptr);
  // Never nullptr. Where verification is wanted and cannot be (no authorities, no name) every connection
  // fails.
  static std::shared_ptr<const TlsContext> ForClient(const TlsClientOptions& options, TlsLoadReport& report,
                                                     const TlsContext* in_force = nullptr);

  // Whether the library takes `list`, a list of ciphers for 1.2 and older.
  static bool AcceptsCiphers(const std::string& list);

  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  TlsRole Role() const;

  // Internal seam to TlsStream.
  struct Impl;
  const Impl& GetImpl() const { return *impl_; }

 private:
  explicit TlsContext(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// What the library reads by itself, at any time: its configuration, and the system's authorities, which vouch for a
// server where no others are set. Files and folders; some may not be there.
std::vector<std::string> TlsSystemFiles();

}  // namespace trabex

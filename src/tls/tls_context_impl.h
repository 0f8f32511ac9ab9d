// What a TlsContext holds, for the files of this folder.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tls/certificate_files.h"
#include "tls/openssl_handles.h"
#include "tls/server_names.h"
#include "tls/tls_context.h"

namespace trabex {

struct TlsContext::Impl {
  // How long tickets are made with one key.
  static constexpr std::chrono::hours kTicketKeyLife{12};

  TlsRole role = TlsRole::kServer;
  std::vector<std::shared_ptr<const LoadedCertificate>> certificates;
  std::shared_ptr<const Authorities> authorities;  // of the peers; nullptr: none, or the system's
  // One for each set of names (client: one). The first is where every connection begins.
  std::vector<OpenSslPtr<ssl_ctx_st>> contexts;
  ServerNames names;      // indexes of contexts
  std::string peer_name;  // client: the server's name, or its address
  bool peer_is_address = false;
  mutable std::optional<std::chrono::steady_clock::time_point> ticket_key_made;

  // Puts a new key in place of one that has become too old at `now`.
  void RenewTicketKey(std::chrono::steady_clock::time_point now) const;
  // A new connection in its role.
  OpenSslPtr<ssl_st> Connection() const;
};

}  // namespace trabex

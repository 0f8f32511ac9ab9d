// What the two ends of a TLS connection agreed on.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace trabex {

// Names are the peer's text. They hold bytes from 0x20 to 0x7E alone, so they cannot forge a line of a log or
// a reply. The views are of the library's constants, for good.
struct TlsFacts {
  std::string_view version;  // "TLSv1.3"
  std::string_view cipher;   // by IANA's name: "TLS_AES_256_GCM_SHA384"
  std::string server_name;   // that the client asked for (RFC 6066, 3); empty: none
  bool resumed = false;      // a session of before went on, without a full handshake
  bool has_peer_certificate = false;
  bool peer_verified = false;     // the certificate is vouched for, and is the server's that was meant
  std::string peer_name;          // the common name in it, verified or not
  std::string_view peer_failure;  // why it is not verified
};

// At most `max` bytes of `text`, each one outside 0x20 to 0x7E as "?".
std::string CleanPeerText(std::string_view text, std::size_t max);

inline constexpr std::size_t kMaxPeerName = 64;
inline constexpr std::size_t kMaxServerName = 255;

}  // namespace trabex

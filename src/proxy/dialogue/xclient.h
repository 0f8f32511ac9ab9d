// The XCLIENT command, with which a mail server that trusts us learns whose connection it is.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "proxy/dialogue/proxy_header.h"

namespace trabex {

// The client's name, as far as DNS has said.
struct ClientNames {
  enum class Answer {
    kFound,
    kNone,       // there is no such name, or it is not the client's
    kTemporary,  // DNS failed or was silent
  };
  std::string name;                   // of the client's address; "" for none
  Answer by_address = Answer::kNone;  // whether there is one
  Answer confirmed = Answer::kNone;   // whether the client's address is among those of the name
};

// RFC 5321, 4.5.3.1.4: a command line with its CR LF.
inline constexpr std::size_t kMaxXclientLine = 512;

// Whether XCLIENT can hand over the client's address: `offered` is the server's line of EHLO, "XCLIENT" and
// the names of attributes, read without regard to case; "" when there is none.
bool OffersXclient(std::string_view offered);

// The command without its CR LF, of those attributes that `offered` lists. What servers take for a verified
// name (NAME) is only one that is confirmed. When the line gets too long, REVERSE_NAME is left out, then NAME
// is said to be unavailable.
std::string FormatXclient(std::string_view offered, const ProxiedConnection& connection,
                          const ClientNames& names);

}  // namespace trabex

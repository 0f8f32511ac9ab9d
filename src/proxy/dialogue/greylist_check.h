// The greylisting decision as the command filter asks for it.
#pragma once

#include <string_view>

#include "base/ip_address.h"

namespace trabex {

class GreylistCheck {
 public:
  virtual ~GreylistCheck() = default;
  // Counts the attempt; returns whether the recipient is to be deferred (RFC 6647), that is refused for now.
  // `ip` is the client's address; `host_name` is empty when the client has none.
  virtual bool ShouldDefer(std::string_view host_name, const IPAddress& ip, std::string_view sender,
                           std::string_view recipient) = 0;
};

}  // namespace trabex

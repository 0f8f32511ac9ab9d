// The greylisting decision as the command filter asks for it.
#pragma once

#include <string_view>

namespace trabex {

class GreylistCheck {
 public:
  virtual ~GreylistCheck() = default;
  // Counts the attempt; returns whether the recipient is refused for now.
  virtual bool Delays(std::string_view host_name, std::string_view ip, std::string_view sender,
                      std::string_view recipient) = 0;
};

}  // namespace trabex

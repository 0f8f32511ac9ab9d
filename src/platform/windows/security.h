// Who may use what this process makes.
#pragma once

#include <string>

#include "platform/windows/win.h"

namespace trabex {

// The user of this process as the system writes it ("S-1-5-21-…"); empty when it does not say.
std::wstring OwnUser();

// Whether `user` is that user.
bool IsOwnUser(PSID user);

// For files and pipes that are for this process's user alone, and, since they can have everything anyway, for the
// administrators and the system.
class OwnSecurity {
 public:
  OwnSecurity();
  ~OwnSecurity();
  OwnSecurity(const OwnSecurity&) = delete;
  OwnSecurity& operator=(const OwnSecurity&) = delete;

  bool IsValid() const { return attributes_.lpSecurityDescriptor != nullptr; }
  SECURITY_ATTRIBUTES* Get() { return &attributes_; }

 private:
  SECURITY_ATTRIBUTES attributes_{};
};

}  // namespace trabex

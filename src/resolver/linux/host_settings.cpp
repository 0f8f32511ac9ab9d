#include "resolver/host_settings.h"

#include <unistd.h>

#include <array>

namespace trabex {

std::string MachineName() {
  std::array<char, 256> name{};  // the system's own limit is 64
  if (gethostname(name.data(), name.size() - 1) != 0) return "";
  return name.data();
}

std::string DefaultHostsPath() {
  return "/etc/hosts";
}

std::string ResolverSettingsPath() {
  return "/etc/resolv.conf";
}

}  // namespace trabex

#include "platform/sandbox.h"

namespace trabex {

std::optional<std::string> WhyNoSandbox() {
  return "Windows has no such thing";
}

std::optional<std::string> EncloseProcess(const SandboxPaths& /*paths*/) {
  return WhyNoSandbox();
}

bool SandboxForbidsReading(const std::string& /*path*/) {
  return false;
}

bool SandboxForbidsWritingIn(const std::string& /*path*/) {
  return false;
}

}  // namespace trabex

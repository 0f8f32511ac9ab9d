#include "app/instance_name.h"

#include <string_view>

namespace trabex {

namespace {

constexpr std::string_view kInstanceIdentifier = "5B0E7C19D4A24F36A1F863D20C97BE48";

}  // namespace

std::string InstanceName(std::int32_t port) {
  return std::string(kInstanceIdentifier) + std::to_string(port);
}

}  // namespace trabex

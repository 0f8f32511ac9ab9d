// What names an instance within this machine.
#pragma once

#include <cstdint>
#include <string>

namespace trabex {

// The name of the instance that listens on `port`: a fixed identifier and the port.
std::string InstanceName(std::int32_t port);

}  // namespace trabex

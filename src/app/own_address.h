// Which addresses are those of this machine.
#pragma once

#include <vector>

#include "base/ip_address.h"

namespace trabex::mCommon {

// Whether `address` is a loopback address or one of `own_addresses`.
bool IsOwnAddress(const IPAddress& address, const std::vector<IPAddress>& own_addresses);

}  // namespace trabex::mCommon

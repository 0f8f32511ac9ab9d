#include "app/own_address.h"

#include <algorithm>

namespace trabex::mCommon {

bool IsOwnAddress(const IPAddress& address, const std::vector<IPAddress>& own_addresses) {
  return address.IsLoopback() ||
         std::find(own_addresses.begin(), own_addresses.end(), address) != own_addresses.end();
}

}  // namespace trabex::mCommon

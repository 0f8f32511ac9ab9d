// The text of the connection table.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/ip_address.h"

namespace trabex {

inline constexpr std::string_view kConnectionHeader =
    " Handle Received     Sent Duration         Host IP Host Name";

// One row: 51 characters up to the host name as long as every value has its width; a wider one moves the rest
// to the right. `duration` is in days, shown as hours (0 to 23), minutes and seconds.
std::string ConnectionRow(std::int32_t handle, std::int64_t bytes_received, std::int64_t bytes_sent,
                          double duration, const IPAddress& client_ip, std::string_view host_name);

}  // namespace trabex

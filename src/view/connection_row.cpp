#include "view/connection_row.h"

#include "base/date_time.h"
#include "base/text.h"

namespace trabex {

std::string ConnectionRow(std::int32_t handle, std::int64_t bytes_received, std::int64_t bytes_sent,
                          double duration, const IPAddress& client_ip, std::string_view host_name) {
  std::string row = " " + AlignRight(std::to_string(handle), 6);
  row += " " + AlignRight(std::to_string(bytes_received), 8);
  row += " " + AlignRight(std::to_string(bytes_sent), 8);
  row += " " + FormatDuration(duration);
  row += " " + AlignRight(FormatIPAddress(client_ip), 15);
  row.append(" ").append(host_name);
  return row;
}

}  // namespace trabex

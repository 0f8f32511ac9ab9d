#include "proxy/session_log.h"

#include <algorithm>
#include <cstddef>

#include "base/text.h"
#include "base/visible_text.h"
#include "config/configuration.h"

namespace trabex {

namespace {

constexpr std::size_t kHandleWidth = 6;
constexpr std::size_t kAddressWidth = 15;

// `name` with "?" for what a reader of the line would take for its end. Both names are the client's text.
template <class EndsName>
std::string NameInLine(std::string name, EndsName ends_name) {
  std::replace_if(name.begin(), name.end(), ends_name, '?');
  return name;
}

}  // namespace

std::string_view LogMark(std::int32_t level) {
  return level == log_level::kReceived ? "< " : level == log_level::kSent ? "> " : "";
}

std::string DescribeTls(const TlsFacts& facts, bool of_client) {
  std::string line = "TLS: ";
  line.append(facts.version).append(", ").append(facts.cipher);
  // Towards the server the name is the one of our settings.
  if (of_client && !facts.server_name.empty()) {
    line += ", name " + NameInLine(facts.server_name, [](char c) { return c != '.' && !IsHostNameByte(c); });
  }
  if (facts.resumed) line += ", resumed";
  if (facts.has_peer_certificate) {
    const std::string peer = NameInLine(facts.peer_name, [](char c) { return c == '"'; });
    line += of_client ? ", client certificate " + Quoted(peer) : ", certificate";
    line += facts.peer_verified ? " verified" : " not verified";
    if (of_client && !facts.peer_verified) line.append(": ").append(facts.peer_failure);
  }
  return line + ".";
}

std::string FormatSessionLine(std::string_view side_tag, std::int32_t handle, const IPAddress& address,
                              std::string_view text, std::string_view mark) {
  std::string line;
  line.reserve(side_tag.size() + text.size() + 32);
  line.append(side_tag).append("{");
  AppendAlignedRight(line, std::to_string(handle), kHandleWidth);
  line.append("} [");
  AppendAlignedRight(line, address.IsNone() ? "   Undefined   " : FormatIPAddress(address), kAddressWidth);
  line.append("] ").append(mark);
  AppendVisible(line, text);
  return line;
}

}  // namespace trabex

#include "support/system_address.h"

#include "platform/windows/win.h"

namespace trabex {

std::optional<IPAddress::IPv6Bytes> SystemReadsAddress(AddressFamily family, const std::string& text) {
  IPAddress::IPv6Bytes bytes{};
  // The system would read up to a zero byte.
  if (text.find('\0') != std::string::npos) return std::nullopt;
  const int system_family = family == AddressFamily::kIPv6 ? AF_INET6 : AF_INET;
  if (InetPtonW(system_family, Wide(text).c_str(), bytes.data()) != 1) return std::nullopt;
  return bytes;
}

std::string SystemWritesIPv6(const IPAddress::IPv6Bytes& bytes) {
  wchar_t text[INET6_ADDRSTRLEN];
  return Utf8(InetNtopW(AF_INET6, bytes.data(), text, INET6_ADDRSTRLEN));
}

}  // namespace trabex

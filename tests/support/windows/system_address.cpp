#include "support/system_address.h"

#include "platform/windows/win.h"

namespace trabex {

namespace {

// Whether a number of the IPv4 part begins with a zero that is not all of it. The system takes such a one, other systems
// do not.
bool HasLeadingZero(const std::string& text) {
  const std::size_t dot = text.find('.');
  if (dot == std::string::npos) return false;
  const std::size_t colon = text.rfind(':', dot);
  bool begins = true;
  for (std::size_t i = colon == std::string::npos ? 0 : colon + 1; i < text.size(); ++i) {
    if (begins && text[i] == '0' && i + 1 < text.size() && text[i + 1] != '.') return true;
    begins = text[i] == '.';
  }
  return false;
}

}  // namespace

std::optional<IPAddress::IPv6Bytes> SystemReadsAddress(AddressFamily family, const std::string& text) {
  IPAddress::IPv6Bytes bytes{};
  // The system would read up to a zero byte.
  if (text.find('\0') != std::string::npos || HasLeadingZero(text)) return std::nullopt;
  const int system_family = family == AddressFamily::kIPv6 ? AF_INET6 : AF_INET;
  if (InetPtonW(system_family, Wide(text).c_str(), bytes.data()) != 1) return std::nullopt;
  return bytes;
}

std::string SystemWritesIPv6(const IPAddress::IPv6Bytes& bytes) {
  wchar_t text[INET6_ADDRSTRLEN];
  return Utf8(InetNtopW(AF_INET6, bytes.data(), text, INET6_ADDRSTRLEN));
}

}  // namespace trabex

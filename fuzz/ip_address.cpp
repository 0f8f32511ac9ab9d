// Address texts, read and written as the system does; and an address of the input's first bytes.
#include "base/ip_address.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace {

using namespace trabex;

void Require(bool condition) {
  if (!condition) std::abort();
}

// What the system reads in `text`, which has a colon.
std::optional<IPAddress> ReadBySystem(const std::string& text) {
  IPAddress::IPv6Bytes bytes{};
  // It would read up to a zero byte.
  if (text.find('\0') != std::string::npos) return std::nullopt;
  if (inet_pton(AF_INET6, text.c_str(), bytes.data()) != 1) return std::nullopt;
  return IPAddress::IPv6(bytes);
}

void CheckValue(const IPAddress& address) {
  const std::string text = FormatIPAddress(address);
  Require(ParseIPAddress(text) == address);
  Require(text.size() <= (address.IsIPv4() ? 15 : 39));
  const std::string literal = FormatAddressLiteral(address);
  Require(AddressInLiteral(literal) == text);
  for (int bits = 0; bits <= address.BitCount(); ++bits) {
    const IPAddress first = address.Prefix(bits);
    const IPAddress last = address.PrefixEnd(bits);
    Require(first <= address && address <= last);
    Require(first.CommonBits(last) == bits && first.CommonBits(address) >= bits);
  }
}

void CheckText(const std::string& text) {
  const auto address = ParseIPAddress(text);
  if (text.find(':') != std::string::npos) {
    Require(address == ReadBySystem(text));
  } else {
    Require(address == ParseIPv4Address(text));
    // The form of settings reads no less, and the same.
    Require(!address || ParseIPv4Address(text, IPv4Form::kNumbers) == address);
  }
  if (address) CheckValue(*address);
  const std::string_view inside = AddressInLiteral(text);
  Require(inside.empty() || (ParseIPAddress(inside) && text.find(inside) != std::string::npos));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  CheckText(input);
  CheckText("[" + input + "]");
  IPAddress::IPv6Bytes bytes{};
  std::copy_n(data, std::min(size, bytes.size()), bytes.begin());
  CheckValue(IPAddress::IPv6(bytes));
  return 0;
}

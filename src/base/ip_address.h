// IP addresses as values, and the one reader and the one writer of their text.
#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace trabex {

enum class AddressFamily : std::uint8_t { kIPv4, kIPv6 };

// An IPv4 address, an IPv6 address, or none. A plain value of 17 bytes: copied, compared and hashed without
// allocation. None sorts before every address, IPv4 before IPv6, and each family by its number.
//
// An IPv4 address that is written as an IPv6 one (::ffff:192.0.2.1, RFC 4291, 2.5.5.2) is that IPv4 address,
// however the value is made, so no list of IPv4 addresses can be passed by another spelling.
class IPAddress {
 public:
  using IPv6Bytes = std::array<std::uint8_t, 16>;

  // None.
  constexpr IPAddress() = default;
  // a.b.c.d for a*2^24 + b*2^16 + c*2^8 + d: 127.0.0.1 is 0x7F000001.
  static constexpr IPAddress IPv4(std::uint32_t number) {
    IPAddress address;
    address.family_ = Family::kIPv4;
    for (std::size_t i = 0; i < kIPv4Bytes; ++i) {
      address.bytes_[i] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
    }
    return address;
  }
  // `bytes` in network order.
  static constexpr IPAddress IPv6(const IPv6Bytes& bytes) {
    constexpr IPv6Bytes kMapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    constexpr std::size_t kMappedBytes = 12;
    IPAddress address;
    if (std::equal(bytes.begin(), bytes.begin() + kMappedBytes, kMapped.begin())) {
      address.family_ = Family::kIPv4;
      std::copy(bytes.begin() + kMappedBytes, bytes.end(), address.bytes_.begin());
    } else {
      address.family_ = Family::kIPv6;
      address.bytes_ = bytes;
    }
    return address;
  }

  constexpr bool IsNone() const { return family_ == Family::kNone; }
  constexpr bool IsIPv4() const { return family_ == Family::kIPv4; }
  constexpr bool IsIPv6() const { return family_ == Family::kIPv6; }
  // 0.0.0.0 or ::, which stand for any address of this machine.
  bool IsUnspecified() const;
  // In 127.0.0.0/8, or ::1.
  bool IsLoopback() const;

  // The number that IPv4 takes; 0 unless IsIPv4().
  constexpr std::uint32_t Number() const {
    if (!IsIPv4()) return 0;
    return std::uint32_t{bytes_[0]} << 24 | std::uint32_t{bytes_[1]} << 16 | std::uint32_t{bytes_[2]} << 8 |
           bytes_[3];
  }
  // Network order; 4 or 16 of them, 0 for none. Valid as long as this object.
  std::span<const std::uint8_t> Bytes() const;
  // 32 or 128, 0 for none.
  int BitCount() const;

  // The first and the last address with the same first `bits` bits (RFC 4632, 3.1). Fewer than 0 count as 0,
  // more than there are as all. The last address of ::/80, and of each block that ends where that one does,
  // stays an IPv6 address, so that it sorts after the first.
  IPAddress Prefix(int bits) const;
  IPAddress PrefixEnd(int bits) const;
  // How many of the first bits are those of `other`; 0 when the family is another.
  int CommonBits(const IPAddress& other) const;

  friend constexpr bool operator==(const IPAddress&, const IPAddress&) = default;
  friend constexpr auto operator<=>(const IPAddress&, const IPAddress&) = default;

 private:
  enum class Family : std::uint8_t { kNone, kIPv4, kIPv6 };
  static constexpr std::size_t kIPv4Bytes = 4;

  Family family_ = Family::kNone;
  IPv6Bytes bytes_{};  // an IPv4 address has the first four, the rest is 0
};

inline constexpr IPAddress kIPv4Any = IPAddress::IPv4(0);
inline constexpr IPAddress kIPv4Loopback = IPAddress::IPv4(0x7F000001);
inline constexpr IPAddress kIPv4Broadcast = IPAddress::IPv4(0xFFFFFFFF);
// :: and ::1
inline constexpr IPAddress kIPv6Any = IPAddress::IPv6({});
inline constexpr IPAddress kIPv6Loopback = IPAddress::IPv6({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});

// IPv4 for none.
constexpr AddressFamily FamilyOf(const IPAddress& address) {
  return address.IsIPv6() ? AddressFamily::kIPv6 : AddressFamily::kIPv4;
}
// The address of all of this machine's addresses of the family.
constexpr const IPAddress& AnyAddress(AddressFamily family) {
  return family == AddressFamily::kIPv6 ? kIPv6Any : kIPv4Any;
}

// How the four parts of an IPv4 address are written; each is 0 to 255 and decimal in both forms.
enum class IPv4Form {
  // One to three digits. The system's own readers also take "1", "127.1", "0x7f.1" or octal parts; here these
  // are names, since they are never meant as addresses. A leading zero changes nothing.
  kDigits,
  // As ParseInteger reads a number: blanks around it, a sign and any number of leading zeros are allowed. For
  // the entries of settings.
  kNumbers,
};

std::optional<IPAddress> ParseIPv4Address(std::string_view text, IPv4Form form = IPv4Form::kDigits);

// An IPv4 address of the form kDigits, or an IPv6 address (RFC 4291, 2.2) without a zone and without
// brackets, whose last 32 bits may be written as an IPv4 address without leading zeros. Nothing may
// surround it.
std::optional<IPAddress> ParseIPAddress(std::string_view text);

// "192.0.2.1"; "2001:db8::1" (RFC 5952, 4; never with an IPv4 address inside); "" for none. The text of an
// IPv4 address needs no allocation.
std::string FormatIPAddress(const IPAddress& address);

// Writes the text of an IPv4 address, and returns its size; 0 for any other address. What lies behind it in `place` is
// overwritten.
inline constexpr std::size_t kMaxIPv4Text = 15;
std::size_t WriteIPv4Address(const IPAddress& address, std::span<char, kMaxIPv4Text> place);

// "[192.0.2.1]", "[IPv6:2001:db8::1]": the form of SMTP (RFC 5321, 4.1.3); "[]" for none.
std::string FormatAddressLiteral(const IPAddress& address);

// The address in a literal of that form, a part of `text`; empty unless `text` is such a literal, an IPv6
// address with its tag (in any letter case) and an IPv4 address, of the form kDigits, without one.
std::string_view AddressInLiteral(std::string_view text);

// The first `count` (0 to 4) parts of an IPv4 address, "192.0.2" for 3; "" for any other address.
std::string FormatIPv4Parts(const IPAddress& address, int count);

}  // namespace trabex

template <>
struct std::hash<trabex::IPAddress> {
  std::size_t operator()(const trabex::IPAddress& address) const noexcept;
};

#include "base/ip_address.h"

#include <algorithm>
#include <array>
#include <bit>

#include "base/numbers.h"
#include "base/text.h"

namespace trabex {

namespace {

constexpr std::size_t kIPv6Groups = 8;
constexpr int kBitsPerByte = 8;
constexpr std::string_view kIPv6Tag = "IPv6:";

// What is written for a part of an IPv4 address.
struct OctetText {
  std::array<char, 3> digits{};
  std::uint8_t size = 0;
};

constexpr std::array<OctetText, 256> kOctetTexts = [] {
  std::array<OctetText, 256> texts;
  for (std::size_t octet = 0; octet < texts.size(); ++octet) {
    OctetText& text = texts[octet];
    for (std::size_t unit = octet >= 100 ? 100 : octet >= 10 ? 10 : 1; unit > 0; unit /= 10) {
      text.digits[text.size++] = static_cast<char>('0' + octet / unit % 10);
    }
  }
  return texts;
}();

std::optional<std::uint32_t> ReadPart(std::string_view text, IPv4Form form) {
  std::uint32_t value = 0;
  if (form == IPv4Form::kNumbers) {
    const auto number = ParseInteger(text);
    if (!number || *number < 0) return std::nullopt;
    value = static_cast<std::uint32_t>(*number);
  } else {
    if (text.empty() || text.size() > 3) return std::nullopt;
    for (const char digit : text) {
      if (!IsDigit(digit)) return std::nullopt;
      value = value * 10 + static_cast<std::uint32_t>(digit - '0');
    }
  }
  if (value > 255) return std::nullopt;
  return value;
}

std::optional<std::uint32_t> HexDigit(char c) {
  if (IsDigit(c)) return static_cast<std::uint32_t>(c - '0');
  const char letter = ToLower(c);
  if (letter < 'a' || letter > 'f') return std::nullopt;
  return static_cast<std::uint32_t>(letter - 'a' + 10);
}

// Groups of 16 bits as they are written, and where "::" stands for the missing ones.
class IPv6Reader {
 public:
  std::optional<IPAddress> Read(std::string_view text) {
    if (text.starts_with("::")) {
      gap_ = 0;
      text.remove_prefix(2);
    }
    // After "::" there may be nothing, after ":" there must be a group.
    bool group_needed = !gap_;
    while (group_needed || !text.empty()) {
      const std::size_t colon = text.find(':');
      const std::string_view group = text.substr(0, colon);
      if (colon == std::string_view::npos && group.find('.') != std::string_view::npos) {
        if (!AddIPv4(group)) return std::nullopt;
        break;
      }
      if (!AddGroup(group)) return std::nullopt;
      if (colon == std::string_view::npos) break;
      text.remove_prefix(colon + 1);
      group_needed = !text.starts_with(':');
      if (group_needed) continue;
      if (gap_) return std::nullopt;
      gap_ = count_;
      text.remove_prefix(1);
    }
    return Address();
  }

 private:
  bool AddGroup(std::string_view text) {
    if (text.empty() || text.size() > 4 || count_ == kIPv6Groups) return false;
    std::uint32_t value = 0;
    for (const char c : text) {
      const auto digit = HexDigit(c);
      if (!digit) return false;
      value = value << 4 | *digit;
    }
    groups_[count_++] = static_cast<std::uint16_t>(value);
    return true;
  }

  bool AddIPv4(std::string_view text) {
    const auto address = ParseIPv4Address(text);
    // A leading zero is an octal number to some readers; no need to take it here.
    if (!address || FormatIPAddress(*address) != text || count_ > kIPv6Groups - 2) return false;
    groups_[count_++] = static_cast<std::uint16_t>(address->Number() >> 16);
    groups_[count_++] = static_cast<std::uint16_t>(address->Number());
    return true;
  }

  // "::" stands for at least one group.
  std::optional<IPAddress> Address() const {
    if (gap_ ? count_ == kIPv6Groups : count_ != kIPv6Groups) return std::nullopt;
    const std::size_t before_gap = gap_.value_or(count_);
    IPAddress::IPv6Bytes bytes{};
    for (std::size_t i = 0; i < count_; ++i) {
      const std::size_t place = i < before_gap ? i : i + kIPv6Groups - count_;
      bytes[2 * place] = static_cast<std::uint8_t>(groups_[i] >> kBitsPerByte);
      bytes[2 * place + 1] = static_cast<std::uint8_t>(groups_[i]);
    }
    return IPAddress::IPv6(bytes);
  }

  std::array<std::uint16_t, kIPv6Groups> groups_{};
  std::size_t count_ = 0;
  std::optional<std::size_t> gap_;  // the number of groups before it
};

void AppendHexGroup(std::string& text, std::uint32_t group) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  bool begun = false;
  for (int shift = 12; shift >= 0; shift -= 4) {
    const std::uint32_t digit = group >> shift & 0xF;
    if (digit == 0 && !begun && shift > 0) continue;
    begun = true;
    text += kDigits[digit];
  }
}

std::string FormatIPv6(std::span<const std::uint8_t> bytes) {
  std::array<std::uint32_t, kIPv6Groups> groups{};
  for (std::size_t i = 0; i < kIPv6Groups; ++i) {
    groups[i] = std::uint32_t{bytes[2 * i]} << kBitsPerByte | bytes[2 * i + 1];
  }
  // The longest run of two or more zeros is left out, of equal ones the first (RFC 5952, 4.2).
  std::size_t gap = kIPv6Groups;
  std::size_t gap_length = 1;
  for (std::size_t begin = 0; begin < kIPv6Groups; ++begin) {
    std::size_t end = begin;
    while (end < kIPv6Groups && groups[end] == 0) ++end;
    if (end - begin > gap_length) {
      gap = begin;
      gap_length = end - begin;
    }
  }
  std::string text;
  for (std::size_t i = 0; i < kIPv6Groups; ++i) {
    if (i == gap) {
      text += "::";
      i += gap_length - 1;
      continue;
    }
    if (!text.empty() && text.back() != ':') text += ':';
    AppendHexGroup(text, groups[i]);
  }
  return text;
}

}  // namespace

bool IPAddress::IsUnspecified() const {
  return !IsNone() && bytes_ == IPv6Bytes{};
}

bool IPAddress::IsLoopback() const {
  return IsIPv4() ? bytes_[0] == 127 : *this == kIPv6Loopback;
}

std::span<const std::uint8_t> IPAddress::Bytes() const {
  return {bytes_.data(), static_cast<std::size_t>(BitCount() / kBitsPerByte)};
}

int IPAddress::BitCount() const {
  switch (family_) {
    case Family::kNone:
      break;
    case Family::kIPv4:
      return 32;
    case Family::kIPv6:
      return 128;
  }
  return 0;
}

IPAddress IPAddress::Prefix(int bits) const {
  IPAddress address = *this;
  const int total = BitCount();
  for (int bit = std::max(bits, 0); bit < total; bit = (bit / kBitsPerByte + 1) * kBitsPerByte) {
    address.bytes_[static_cast<std::size_t>(bit / kBitsPerByte)] &=
        static_cast<std::uint8_t>(~(0xFFU >> bit % kBitsPerByte));
  }
  return address;
}

IPAddress IPAddress::PrefixEnd(int bits) const {
  IPAddress address = *this;
  const int total = BitCount();
  for (int bit = std::max(bits, 0); bit < total; bit = (bit / kBitsPerByte + 1) * kBitsPerByte) {
    address.bytes_[static_cast<std::size_t>(bit / kBitsPerByte)] |=
        static_cast<std::uint8_t>(0xFFU >> bit % kBitsPerByte);
  }
  return address;
}

int IPAddress::CommonBits(const IPAddress& other) const {
  if (family_ != other.family_) return 0;
  const std::span<const std::uint8_t> bytes = Bytes();
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] == other.bytes_[i]) continue;
    const auto different = static_cast<std::uint8_t>(bytes[i] ^ other.bytes_[i]);
    return static_cast<int>(i) * kBitsPerByte + std::countl_zero(different);
  }
  return BitCount();
}

std::optional<IPAddress> ParseIPv4Address(std::string_view text, IPv4Form form) {
  constexpr int kParts = 4;
  std::uint32_t number = 0;
  for (int part = 1; part <= kParts; ++part) {
    const std::size_t dot = text.find('.');
    if ((dot == std::string_view::npos) != (part == kParts)) return std::nullopt;
    const auto value = ReadPart(text.substr(0, dot), form);
    if (!value) return std::nullopt;
    number = number << kBitsPerByte | *value;
    if (part < kParts) text.remove_prefix(dot + 1);
  }
  return IPAddress::IPv4(number);
}

std::optional<IPAddress> ParseIPAddress(std::string_view text) {
  if (text.find(':') == std::string_view::npos) return ParseIPv4Address(text);
  return IPv6Reader().Read(text);
}

std::string FormatIPAddress(const IPAddress& address) {
  if (address.IsIPv6()) return FormatIPv6(address.Bytes());
  char text[kMaxIPv4Text];
  return {text, WriteIPv4Address(address, text)};
}

std::string FormatAddressLiteral(const IPAddress& address) {
  return std::string("[").append(address.IsIPv6() ? kIPv6Tag : "") + FormatIPAddress(address) + "]";
}

std::string_view AddressInLiteral(std::string_view text) {
  if (text.size() < 2 || text.front() != '[' || text.back() != ']') return {};
  std::string_view inside = text.substr(1, text.size() - 2);
  const bool tagged = StartsWithNoCase(inside, kIPv6Tag);
  if (tagged) inside.remove_prefix(kIPv6Tag.size());
  // The tag tells how the address is written: ::ffff:192.0.2.1 is an IPv6 address in this place.
  const bool is_ipv6_text = inside.find(':') != std::string_view::npos;
  return tagged == is_ipv6_text && ParseIPAddress(inside) ? inside : std::string_view();
}

std::size_t WriteIPv4Address(const IPAddress& address, std::span<char, kMaxIPv4Text> place) {
  if (!address.IsIPv4()) return 0;
  // Each line of a session's log names one, so it is written without appending, and of each part all three
  // digits: that is one move.
  const std::span<const std::uint8_t> parts = address.Bytes();
  char* end = place.data();
  for (std::size_t i = 0; i < 4; ++i) {
    if (i > 0) *end++ = '.';
    const OctetText& octet = kOctetTexts[parts[i]];
    std::copy(octet.digits.begin(), octet.digits.end(), end);
    end += octet.size;
  }
  return static_cast<std::size_t>(end - place.data());
}

std::string FormatIPv4Parts(const IPAddress& address, int count) {
  if (!address.IsIPv4()) return {};
  std::string text;
  for (const std::uint8_t part : address.Bytes().first(static_cast<std::size_t>(count))) {
    if (!text.empty()) text += '.';
    const OctetText& octet = kOctetTexts[part];
    text.append(octet.digits.data(), octet.size);
  }
  return text;
}

}  // namespace trabex

std::size_t std::hash<trabex::IPAddress>::operator()(const trabex::IPAddress& address) const noexcept {
  const std::span<const std::uint8_t> bytes = address.Bytes();
  return std::hash<std::string_view>()({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

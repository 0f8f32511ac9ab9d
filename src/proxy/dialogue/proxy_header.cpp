#include "proxy/dialogue/proxy_header.h"

#include <algorithm>
#include <string>
#include <vector>

#include "base/text.h"

namespace trabex {

namespace {

using State = ProxyHeader::State;

// Version 1.
constexpr std::string_view kName = "PROXY ";
constexpr std::string_view kUnknown = "UNKNOWN";
constexpr std::size_t kMaxLine = 107;

// Version 2: signature, version and command, family and protocol, length of the rest.
constexpr std::string_view kSignature{"\r\n\r\n\0\r\nQUIT\n", 12};
constexpr std::size_t kFixedPart = 16;
constexpr unsigned char kCommandLocal = 0x20;
constexpr unsigned char kCommandProxy = 0x21;
constexpr unsigned char kTcpOverIPv4 = 0x11;
constexpr unsigned char kTcpOverIPv6 = 0x21;

constexpr char kTypeTls = 0x20;
constexpr char kTypeTlsVersion = 0x21;
constexpr char kTypeTlsPeerName = 0x22;
constexpr char kTypeTlsCipher = 0x23;
constexpr unsigned kClientUsesTls = 1;
constexpr unsigned kCertificateOnConnection = 2;
constexpr unsigned kCertificateInSession = 4;
constexpr std::size_t kMaxWritten = 232;

unsigned char ByteAt(std::string_view bytes, std::size_t at) {
  return static_cast<unsigned char>(bytes[at]);
}

// --- version 1

enum class Family { kIPv4, kIPv6 };

std::optional<IPAddress> ParseAddress(std::string_view text, Family family) {
  const auto address = ParseIPAddress(text);
  if (!address) return std::nullopt;
  const bool is_ipv6 = text.find(':') != std::string_view::npos;
  if (is_ipv6 != (family == Family::kIPv6)) return std::nullopt;
  // Some read a part with a leading zero as octal.
  if (family == Family::kIPv4 && FormatIPAddress(*address) != text) return std::nullopt;
  return address;
}

std::optional<std::uint16_t> ParsePort(std::string_view text) {
  if (text.empty() || text.size() > 5 || (text.size() > 1 && text.front() == '0')) return std::nullopt;
  unsigned port = 0;
  for (const char digit : text) {
    if (!IsDigit(digit)) return std::nullopt;
    port = port * 10 + static_cast<unsigned>(digit - '0');
  }
  if (port > 65535) return std::nullopt;
  return static_cast<std::uint16_t>(port);
}

// Whether an address may begin with `text`: one of these makes it whole, whatever of it has come.
bool MayBecomeAddress(std::string_view text, Family family) {
  static const std::vector<std::string> kIPv4Rests = {"",     "0",     ".0",     "0.0",
                                                      ".0.0", "0.0.0", ".0.0.0", "0.0.0.0"};
  static const std::vector<std::string> kIPv6Rests = [] {
    std::vector<std::string> rests = kIPv4Rests;
    for (const char* const begin : {"", ":", "0:", "::"}) {
      std::string rest = begin;
      for (int groups = 0; groups < 8; ++groups) {
        rests.push_back(rest);
        rest += '0';
        rests.push_back(rest);
        rest += ':';
      }
    }
    return rests;
  }();
  std::string whole(text);
  for (const std::string& rest : family == Family::kIPv4 ? kIPv4Rests : kIPv6Rests) {
    whole.resize(text.size());
    if (ParseAddress(whole.append(rest), family)) return true;
  }
  return false;
}

bool MayBecomePort(std::string_view text) {
  return text.empty() || ParsePort(text);
}

// Takes the parts of a line from its front, as far as they have come.
class LineReader {
 public:
  explicit LineReader(std::string_view line) : rest_(line) {}

  State state() const { return state_; }
  bool Failed() const { return state_ != State::kWhole; }
  std::string_view Rest() const { return rest_; }

  // The same bytes.
  void Literal(std::string_view literal) {
    if (Failed()) return;
    const std::size_t there = std::min(literal.size(), rest_.size());
    if (rest_.substr(0, there) != literal.substr(0, there)) return Fail(State::kBad);
    if (there < literal.size()) return Fail(State::kIncomplete);
    rest_.remove_prefix(literal.size());
  }
  // What stands before `end`, which is taken as well. `parse` gives its value or nothing, `may_become` whether
  // it may begin so.
  template <class Parse, class MayBecome>
  auto Field(char end, Parse parse, MayBecome may_become) -> decltype(parse(std::string_view())) {
    if (Failed()) return {};
    const std::size_t size = rest_.find(end);
    const std::string_view text = rest_.substr(0, size);
    if (size == std::string_view::npos) {
      Fail(may_become(text) ? State::kIncomplete : State::kBad);
      return {};
    }
    auto value = parse(text);
    if (!value) Fail(State::kBad);
    rest_.remove_prefix(size + 1);
    return value;
  }
  std::optional<IPAddress> Address(Family family) {
    return Field(
        ' ', [family](std::string_view text) { return ParseAddress(text, family); },
        [family](std::string_view text) { return MayBecomeAddress(text, family); });
  }
  std::optional<std::uint16_t> Port(char end) { return Field(end, ParsePort, MayBecomePort); }
  void Fail(State state) { state_ = state; }

 private:
  std::string_view rest_;
  State state_ = State::kWhole;
};

bool IsOneFamily(const IPAddress& a, const IPAddress& b) {
  return a.IsIPv6() == b.IsIPv6();
}

ProxyHeader ParseConnection(std::string_view bytes, LineReader reader, Family family) {
  reader.Literal(" ");
  const auto client = reader.Address(family);
  const auto called = reader.Address(family);
  if (client && called && !IsOneFamily(*client, *called)) reader.Fail(State::kBad);
  const auto client_port = reader.Port(' ');
  const auto called_port = reader.Port('\r');
  reader.Literal("\n");
  if (reader.Failed()) return {reader.state(), 0, std::nullopt};
  return {State::kWhole, bytes.size() - reader.Rest().size(),
          ProxiedConnection{{*client, *client_port}, {*called, *called_port}}};
}

ProxyHeader ParseUnknown(std::string_view bytes, LineReader reader) {
  reader.Literal(kUnknown);
  const std::string_view rest = reader.Rest();
  if (!reader.Failed() && !rest.empty() && rest.front() != ' ' && rest.front() != '\r') {
    reader.Fail(State::kBad);
  } else if (!reader.Failed() && rest.starts_with('\r') && rest.size() > 1 && rest[1] != '\n') {
    reader.Fail(State::kBad);
  }
  if (reader.Failed()) return {reader.state(), 0, std::nullopt};
  const std::size_t end = bytes.find(kCrLf);
  if (end == std::string_view::npos) return {};
  return {State::kWhole, end + kCrLf.size(), std::nullopt};
}

ProxyHeader ParseLine(std::string_view line) {
  LineReader reader(line);
  reader.Literal(kName);
  if (reader.Rest().starts_with(kUnknown.front())) return ParseUnknown(line, reader);
  reader.Literal("TCP");
  if (!reader.Failed() && reader.Rest().empty()) reader.Fail(State::kIncomplete);
  if (reader.Failed()) return {reader.state(), 0, std::nullopt};
  const bool is_ipv6 = reader.Rest().front() == '6';
  reader.Literal(is_ipv6 ? "6" : "4");
  return ParseConnection(line, reader, is_ipv6 ? Family::kIPv6 : Family::kIPv4);
}

ProxyHeader ParseVersion1(std::string_view bytes) {
  const std::string_view line = bytes.substr(0, kMaxLine);
  ProxyHeader header = ParseLine(line);
  // The last byte but one of the longest line is its CR.
  const bool too_long = line.size() >= kMaxLine - 1 && line[kMaxLine - 2] != '\r';
  if (header.state == State::kIncomplete && (too_long || line.size() == kMaxLine)) header.state = State::kBad;
  return header;
}

// --- version 2

template <std::size_t kSize>
IPAddress AddressAt(std::string_view bytes, std::size_t at) {
  if constexpr (kSize == 4) {
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < kSize; ++i) number = number << 8 | ByteAt(bytes, at + i);
    return IPAddress::IPv4(number);
  } else {
    IPAddress::IPv6Bytes address{};
    for (std::size_t i = 0; i < kSize; ++i) address[i] = ByteAt(bytes, at + i);
    return IPAddress::IPv6(address);
  }
}

std::uint16_t NumberAt(std::string_view bytes, std::size_t at) {
  return static_cast<std::uint16_t>(ByteAt(bytes, at) << 8 | ByteAt(bytes, at + 1));
}

template <std::size_t kAddressSize>
ProxiedConnection ConnectionIn(std::string_view header) {
  constexpr std::size_t kClient = kFixedPart;
  constexpr std::size_t kCalled = kClient + kAddressSize;
  constexpr std::size_t kPorts = kCalled + kAddressSize;
  return {{AddressAt<kAddressSize>(header, kClient), NumberAt(header, kPorts)},
          {AddressAt<kAddressSize>(header, kCalled), NumberAt(header, kPorts + 2)}};
}

// What the byte for family and protocol means.
enum class Carrier { kBad, kNobody, kIPv4, kIPv6 };

Carrier CarrierOf(unsigned char byte) {
  constexpr unsigned kMaxFamily = 3;
  constexpr unsigned kMaxProtocol = 2;
  if (byte == kTcpOverIPv4) return Carrier::kIPv4;
  if (byte == kTcpOverIPv6) return Carrier::kIPv6;
  const unsigned family = byte >> 4;
  const unsigned protocol = byte & 15U;
  const bool unspecified = family == 0 || protocol == 0;
  return unspecified && family <= kMaxFamily && protocol <= kMaxProtocol ? Carrier::kNobody : Carrier::kBad;
}

ProxyHeader ParseVersion2(std::string_view bytes) {
  constexpr ProxyHeader kBadHeader{State::kBad, 0, std::nullopt};
  const std::size_t there = std::min(bytes.size(), kSignature.size());
  if (bytes.substr(0, there) != kSignature.substr(0, there)) return kBadHeader;
  if (bytes.size() < 13) return {};
  const unsigned char command = ByteAt(bytes, 12);
  if (command != kCommandLocal && command != kCommandProxy) return kBadHeader;
  if (bytes.size() < 14) return {};
  const Carrier carrier = command == kCommandLocal ? Carrier::kNobody : CarrierOf(ByteAt(bytes, 13));
  if (carrier == Carrier::kBad) return kBadHeader;
  if (bytes.size() < 15) return {};
  // Decided at the first of the two bytes where that one is enough.
  constexpr std::size_t kMaxRest = kMaxProxyHeader - kFixedPart;
  if (ByteAt(bytes, 14) > kMaxRest >> 8) return kBadHeader;
  if (bytes.size() < kFixedPart) return {};
  const std::size_t rest = NumberAt(bytes, 14);
  const std::size_t least = carrier == Carrier::kIPv4 ? 12 : carrier == Carrier::kIPv6 ? 36 : 0;
  if (rest > kMaxRest || rest < least) return kBadHeader;
  ProxyHeader header{State::kWhole, kFixedPart + rest, std::nullopt};
  if (carrier != Carrier::kNobody && bytes.size() >= kFixedPart + least) {
    header.connection = carrier == Carrier::kIPv4 ? ConnectionIn<4>(bytes) : ConnectionIn<16>(bytes);
    if (!IsOneFamily(header.connection->client.address, header.connection->called.address)) return kBadHeader;
  }
  return bytes.size() < header.size ? ProxyHeader{} : header;
}

// --- writing

void AppendNumber(std::string& header, std::size_t number) {
  header += static_cast<char>(number >> 8 & 0xFF);
  header += static_cast<char>(number & 0xFF);
}

void AppendAddress(std::string& header, const IPAddress& address) {
  for (const std::uint8_t byte : address.Bytes()) header += static_cast<char>(byte);
}

void AppendRecord(std::string& header, char type, std::string_view value) {
  header += type;
  AppendNumber(header, value.size());
  header.append(value);
}

// A record of PP2_TYPE_SSL for `room` bytes.
std::string TlsRecord(const ProxiedTls& tls, std::size_t room) {
  constexpr std::size_t kRecordHead = 3;
  unsigned client = kClientUsesTls;
  if (tls.has_certificate) client |= kCertificateOnConnection | kCertificateInSession;
  std::string value(1, static_cast<char>(client));
  // Four bytes: 0 stands for a certificate that is vouched for.
  value.append(3, '\0').append(1, tls.has_certificate && tls.verified ? '\0' : '\1');
  const auto add = [&](char type, std::string_view text) {
    if (text.empty() || kRecordHead + value.size() + kRecordHead + text.size() > room) return;
    AppendRecord(value, type, text);
  };
  add(kTypeTlsVersion, tls.version);
  add(kTypeTlsCipher, tls.cipher);
  if (tls.has_certificate && tls.verified) add(kTypeTlsPeerName, tls.peer_name);
  std::string record;
  AppendRecord(record, kTypeTls, value);
  return record;
}

std::string FixedPart(unsigned char command, unsigned char carrier, std::size_t rest) {
  std::string header(kSignature);
  header += static_cast<char>(command);
  header += static_cast<char>(carrier);
  AppendNumber(header, rest);
  return header;
}

}  // namespace

ProxyHeader ParseProxyHeader(std::string_view bytes) {
  if (bytes.empty()) return {};
  return bytes.front() == kName.front() ? ParseVersion1(bytes) : ParseVersion2(bytes);
}

std::string FormatProxyLine(const ProxiedConnection& connection) {
  const auto& [client, called] = connection;
  return std::string(kName)
      .append(client.address.IsIPv6() ? "TCP6 " : "TCP4 ")
      .append(FormatIPAddress(client.address) + " " + FormatIPAddress(called.address))
      .append(" " + std::to_string(client.port) + " " + std::to_string(called.port))
      .append(kCrLf);
}

std::string FormatProxyHeader(const ProxiedConnection& connection, const ProxiedTls* tls) {
  std::string rest;
  AppendAddress(rest, connection.client.address);
  AppendAddress(rest, connection.called.address);
  AppendNumber(rest, connection.client.port);
  AppendNumber(rest, connection.called.port);
  if (tls != nullptr) rest.append(TlsRecord(*tls, kMaxWritten - kFixedPart - rest.size()));
  return FixedPart(kCommandProxy, connection.client.address.IsIPv6() ? kTcpOverIPv6 : kTcpOverIPv4,
                   rest.size())
      .append(rest);
}

std::string FormatLocalProxyHeader() {
  return FixedPart(kCommandLocal, 0, 0);
}

}  // namespace trabex

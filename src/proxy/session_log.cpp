#include "proxy/session_log.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/text.h"
#include "base/visible_text.h"
#include "config/configuration.h"

namespace trabex {

namespace {

constexpr std::string_view kLineBreakSign = "\xC2\xB6";
constexpr std::size_t kHandleWidth = 6;
constexpr std::size_t kAddressWidth = 15;

// Most of what a peer sends is this.
bool IsPlain(char c) {
  return c >= ' ' && c <= '~';
}

// The same of eight at once. A borrow or a carry comes only out of a byte that is not plain itself.
bool ArePlain(const char* eight) {
  constexpr std::uint64_t kEach = 0x0101010101010101;
  std::uint64_t bytes = 0;
  std::memcpy(&bytes, eight, sizeof bytes);
  const std::uint64_t below_blank = bytes - kEach * ' ';
  const std::uint64_t from_del = bytes + kEach;
  return ((bytes | below_blank | from_del) & (kEach * 0x80)) == 0;
}

std::size_t PlainSize(std::string_view text) {
  std::size_t size = 0;
  while (text.size() - size >= 8 && ArePlain(text.data() + size)) size += 8;
  while (size < text.size() && IsPlain(text[size])) ++size;
  return size;
}

void AppendVisible(std::string& line, std::string_view text) {
  for (;;) {
    const std::size_t plain = PlainSize(text);
    line.append(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) return;
    const TextPiece piece = FirstPiece(text);
    std::size_t size = piece.size;
    if (piece.visible) {
      line.append(text.substr(0, size));
    } else if (text.starts_with(kCrLf)) {
      line.append(kLineBreakSign);
      size = kCrLf.size();
    } else {
      AppendHex(line, text.substr(0, size));
    }
    text.remove_prefix(size);
  }
}

// `name` with "?" for what a reader of the line would take for its end. Both names are the client's text.
template <class EndsName>
std::string NameInLine(std::string name, EndsName ends_name) {
  std::replace_if(name.begin(), name.end(), ends_name, '?');
  return name;
}

std::string ServerNameInLine(const TlsFacts& facts) {
  return NameInLine(facts.server_name, [](char c) { return c != '.' && !IsHostNameByte(c); });
}

std::string PeerNameInLine(const TlsFacts& facts) {
  return NameInLine(facts.peer_name, [](char c) { return c == '"'; });
}

}  // namespace

std::string_view LogMark(std::int32_t level) {
  return level == log_level::kReceived ? "< " : level == log_level::kSent ? "> " : "";
}

std::string DescribeTls(const TlsFacts& facts, bool of_client) {
  std::string line = "TLS: ";
  line.append(facts.version).append(", ").append(facts.cipher);
  // Towards the server the name is the one of our settings.
  if (of_client && !facts.server_name.empty()) line += ", name " + ServerNameInLine(facts);
  if (facts.resumed) line += ", resumed";
  if (facts.has_peer_certificate) {
    line += of_client ? ", client certificate " + Quoted(PeerNameInLine(facts)) : ", certificate";
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

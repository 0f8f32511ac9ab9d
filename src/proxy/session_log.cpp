#include "proxy/session_log.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <system_error>

#include "base/text.h"
#include "base/visible_text.h"
#include "config/configuration.h"

namespace trabex {

namespace {

// What stands between a line's tag and mark, with blank fields. A session writes dozens of lines, so it is copied as
// a whole and then filled.
constexpr std::string_view kBlankHead = "{      } [               ] ";
constexpr std::size_t kHandleAt = 1;
constexpr std::size_t kHandleWidth = 6;
constexpr std::size_t kAddressAt = 10;
constexpr std::size_t kAddressWidth = 15;
static_assert(kBlankHead.substr(kHandleAt + kHandleWidth, 3) == "} [");
static_assert(kBlankHead.substr(kAddressAt + kAddressWidth) == "] ");

// The head of a line, put together in place.
struct Head {
  std::array<char, kBlankHead.size()> text = [] {
    std::array<char, kBlankHead.size()> blank{};
    std::copy(kBlankHead.begin(), kBlankHead.end(), blank.begin());
    return blank;
  }();

  // Both return false for what is wider than its field, which stays blank then.
  bool SetHandle(std::int32_t handle) {
    std::array<char, kHandleWidth> digits;
    const auto written = std::to_chars(digits.begin(), digits.end(), handle);
    if (written.ec != std::errc()) return false;
    std::copy_backward(digits.data(), written.ptr, text.data() + kHandleAt + kHandleWidth);
    return true;
  }
  bool SetAddress(const IPAddress& address) {
    std::array<char, kMaxIPv4Text> written;
    const std::size_t size = WriteIPv4Address(address, written);
    std::copy_backward(written.begin(), written.begin() + size, text.data() + kAddressAt + kAddressWidth);
    return size > 0;
  }
};
static_assert(kMaxIPv4Text <= kAddressWidth);

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
  FormatSessionLine(line, side_tag, handle, address, text, mark);
  return line;
}

void FormatSessionLine(std::string& line, std::string_view side_tag, std::int32_t handle,
                       const IPAddress& address, std::string_view text, std::string_view mark) {
  Head head;
  const bool handle_fits = head.SetHandle(handle);
  const bool address_fits = head.SetAddress(address);
  line.assign(side_tag).append(head.text.data(), head.text.size()).append(mark);
  // From the back, since a field becomes wider.
  if (!address_fits) {
    std::string shown = address.IsNone() ? "   Undefined   " : FormatIPAddress(address);
    shown.insert(0, kAddressWidth - std::min(kAddressWidth, shown.size()), ' ');
    line.replace(side_tag.size() + kAddressAt, kAddressWidth, shown);
  }
  if (!handle_fits) line.replace(side_tag.size() + kHandleAt, kHandleWidth, std::to_string(handle));
  AppendVisible(line, text);
}

}  // namespace trabex

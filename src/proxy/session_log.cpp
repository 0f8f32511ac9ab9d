#include "proxy/session_log.h"

#include <algorithm>
#include <cstddef>

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

// Puts `text` at the right end of the blanks that `line` has at `at`; a longer one takes more room than they do.
void FillField(std::string& line, std::size_t at, std::size_t width, std::string_view text) {
  if (text.size() > width) {
    line.replace(at, width, text);
  } else {
    text.copy(line.data() + at + width - text.size(), text.size());
  }
}

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
  line.assign(side_tag).append(kBlankHead).append(mark);
  // From the back, since a field may become wider.
  if (address.IsNone()) {
    FillField(line, side_tag.size() + kAddressAt, kAddressWidth, "   Undefined   ");
  } else {
    FillField(line, side_tag.size() + kAddressAt, kAddressWidth, FormatIPAddress(address));
  }
  FillField(line, side_tag.size() + kHandleAt, kHandleWidth, std::to_string(handle));
  AppendVisible(line, text);
}

}  // namespace trabex

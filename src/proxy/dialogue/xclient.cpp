#include "proxy/dialogue/xclient.h"

#include <algorithm>

#include "base/text.h"

namespace trabex {

namespace {

constexpr std::string_view kUnavailable = "[UNAVAILABLE]";
constexpr std::string_view kTemporarilyUnavailable = "[TEMPUNAVAIL]";

bool Lists(std::string_view offered, std::string_view attribute) {
  const auto words = Split(offered, ' ');
  return std::any_of(words.begin() + 1, words.end(),
                     [attribute](std::string_view word) { return EqualNoCase(word, attribute); });
}

// RFC 3461, 4.
std::string Xtext(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string result;
  for (const char c : text) {
    if (c >= '!' && c <= '~' && c != '+' && c != '=') {
      result += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      result.append({'+', kDigits[byte >> 4], kDigits[byte & 15]});
    }
  }
  return result;
}

std::string AddressText(const IPAddress& address) {
  return (address.IsIPv6() ? "IPV6:" : "") + FormatIPAddress(address);
}

std::string NameText(const std::string& name, ClientNames::Answer answer) {
  if (answer == ClientNames::Answer::kTemporary) return std::string(kTemporarilyUnavailable);
  if (answer == ClientNames::Answer::kNone || name.empty()) return std::string(kUnavailable);
  return Xtext(name);
}

}  // namespace

bool OffersXclient(std::string_view offered) {
  return Lists(offered, "ADDR");
}

std::string FormatXclient(std::string_view offered, const ProxiedConnection& connection,
                          const ClientNames& names) {
  const auto line = [&](const std::string& name, bool reverse_name) {
    std::string command = "XCLIENT";
    const auto add = [&](std::string_view attribute, const std::string& value) {
      if (Lists(offered, attribute)) command.append(" ").append(attribute).append("=").append(value);
    };
    add("NAME", name);
    if (reverse_name) add("REVERSE_NAME", NameText(names.name, names.by_address));
    add("PORT", std::to_string(connection.client.port));
    add("DESTADDR", AddressText(connection.called.address));
    add("DESTPORT", std::to_string(connection.called.port));
    add("ADDR", AddressText(connection.client.address));
    return command;
  };
  constexpr std::size_t kMaxCommand = kMaxXclientLine - kCrLf.size();
  const std::string name = NameText(names.name, names.confirmed);
  std::string command = line(name, true);
  if (command.size() > kMaxCommand) command = line(name, false);
  if (command.size() > kMaxCommand) command = line(std::string(kUnavailable), false);
  return command;
}

}  // namespace trabex

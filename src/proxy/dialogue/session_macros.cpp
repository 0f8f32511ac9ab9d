#include "proxy/dialogue/session_macros.h"

#include <algorithm>

#include "base/text.h"

namespace trabex {

std::span<const SessionMacros::Macro> SessionMacros::Table() {
  using M = const SessionMacros&;
  static constexpr Macro kTable[] = {
      {"localhostname", [](M m) { return m.configuration_.LocalHostName; }},
      {"rfctime", [](M m) { return m.clock_.RFCDate(); }},
      {"remotehostname", [](M m) { return m.facts_.ClientHostNameOrUnknown(); }},
      {"remotehostip", [](M m) { return FormatIPAddress(m.facts_.ClientIP()); }},
      {"helodomain", [](M m) { return m.requested_.HeloDomain; }},
      {"bytesreceived", [](M m) { return std::to_string(m.bytes_received_); }},
      {"bytessent", [](M m) { return std::to_string(m.facts_.BytesSent()); }},
      {"from", [](M m) { return m.requested_.Sender; }},
      {"rcpt", [](M m) { return m.requested_.Recipient; }},
      {"fromdomain", [](M m) { return std::string(AddressDomain(m.requested_.Sender)); }},
      {"rcptdomain", [](M m) { return std::string(AddressDomain(m.requested_.Recipient)); }},
      {"maxsize", [](M m) { return FormatWhole(m.offered_.SizeLimit); }},
      {"size", [](M m) { return FormatWhole(m.requested_.DeclaredSize); }},
      {"tls", [](M m) { return m.facts_.TlsText().version; }},
      {"tlscipher", [](M m) { return m.facts_.TlsText().cipher; }},
      {"tlspeer", [](M m) { return m.facts_.TlsText().peer; }},
  };
  return kTable;
}

std::vector<std::string_view> SessionMacros::Names() {
  std::vector<std::string_view> names;
  for (const Macro& macro : Table()) names.push_back(macro.name);
  return names;
}

std::optional<std::string> SessionMacros::Value(std::string_view name) const {
  const auto table = Table();
  const auto macro =
      std::find_if(table.begin(), table.end(), [&](const Macro& one) { return EqualNoCase(one.name, name); });
  if (macro == table.end()) return std::nullopt;
  return macro->value(*this);
}

}  // namespace trabex

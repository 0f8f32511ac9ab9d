#include "proxy/dialogue/session_macros.h"

#include <algorithm>
#include <iterator>

#include "base/text.h"

namespace trabex {

namespace {

struct Macro {
  std::string_view name;
  std::string (*value)(const SessionValues& values);
};

constexpr Macro kMacros[] = {
    {"localhostname", [](const SessionValues& values) { return values.LocalHostName(); }},
    {"rfctime", [](const SessionValues& values) { return values.RFCTime(); }},
    {"remotehostname", [](const SessionValues& values) { return values.RemoteHostName(); }},
    {"remotehostip", [](const SessionValues& values) { return values.RemoteHostIP(); }},
    {"helodomain", [](const SessionValues& values) { return values.HeloDomain(); }},
    {"bytesreceived", [](const SessionValues& values) { return values.BytesReceived(); }},
    {"bytessent", [](const SessionValues& values) { return values.BytesSent(); }},
    {"from", [](const SessionValues& values) { return values.From(); }},
    {"rcpt", [](const SessionValues& values) { return values.Rcpt(); }},
    {"fromdomain", [](const SessionValues& values) { return std::string(AddressDomain(values.From())); }},
    {"rcptdomain", [](const SessionValues& values) { return std::string(AddressDomain(values.Rcpt())); }},
    {"maxsize", [](const SessionValues& values) { return values.MaxSize(); }},
    {"size", [](const SessionValues& values) { return values.Size(); }},
};

}  // namespace

std::optional<std::string> SessionValues::Value(std::string_view name) const {
  const auto macro = std::find_if(std::begin(kMacros), std::end(kMacros),
                                  [name](const Macro& row) { return EqualNoCase(row.name, name); });
  if (macro == std::end(kMacros)) return std::nullopt;
  return macro->value(*this);
}

}  // namespace trabex

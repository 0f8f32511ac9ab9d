#include "proxy/dialogue/session_macros.h"

#include "base/text.h"

namespace trabex {

std::optional<std::string> SessionMacros::Value(std::string_view name) const {
  const std::string macro = ToLower(name);
  if (macro == "localhostname") return configuration_.LocalHostName;
  if (macro == "rfctime") return clock_.RFCDate();
  if (macro == "remotehostname") return facts_.ClientHostNameOrUnknown();
  if (macro == "remotehostip") return FormatIPAddress(facts_.ClientIP());
  if (macro == "helodomain") return requested_.HeloDomain;
  if (macro == "bytesreceived") return std::to_string(bytes_received_);
  if (macro == "bytessent") return std::to_string(facts_.BytesSent());
  if (macro == "from") return requested_.Sender;
  if (macro == "rcpt") return requested_.Recipient;
  if (macro == "fromdomain") return std::string(AddressDomain(requested_.Sender));
  if (macro == "rcptdomain") return std::string(AddressDomain(requested_.Recipient));
  if (macro == "maxsize") return FormatWhole(offered_.SizeLimit);
  if (macro == "size") return FormatWhole(requested_.DeclaredSize);
  if (macro == "tls") return facts_.TlsText().version;
  if (macro == "tlscipher") return facts_.TlsText().cipher;
  if (macro == "tlspeer") return facts_.TlsText().peer;
  return std::nullopt;
}

}  // namespace trabex

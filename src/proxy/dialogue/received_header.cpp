#include "proxy/dialogue/received_header.h"

namespace trabex {

namespace {

// Of what is not named by a client or a setting.
constexpr std::size_t kUsualSize = 160;

}  // namespace

std::string GenerateReceivedHeader(const Configuration& configuration, const Clock& clock,
                                   const SessionFacts& facts, const RequestedState& requested,
                                   const LoginState& login) {
  std::string header;
  header.reserve(kUsualSize + requested.HeloDomain.size() + configuration.LocalHostName.size());
  header.append("Received: from ").append(requested.HeloDomain).append(" (");
  header.append(facts.ClientHostNameOrUnknown()).append(" ").append(FormatAddressLiteral(facts.ClientIP()));
  header.append(") by ").append(configuration.LocalHostName).append("\r\n      with ");
  header += requested.EhloUsed ? "ESMTP" : "SMTP";
  if (facts.TlsActive()) {
    if (requested.EhloUsed) header += login.latest ? "SA" : "S";
    header += " tls " + facts.TlsText().cipher;
  }
  return header.append("; ").append(clock.RFCDate());
}

}  // namespace trabex

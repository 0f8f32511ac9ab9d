#include "proxy/dialogue/received_header.h"

namespace trabex {

std::string GenerateReceivedHeader(const Configuration& configuration, const Clock& clock,
                                   const SessionFacts& facts, const RequestedState& requested,
                                   const LoginState& login) {
  std::string header = "Received: from " + requested.HeloDomain;
  header += " (" + facts.ClientHostNameOrUnknown() + " " + FormatAddressLiteral(facts.ClientIP()) + ") by ";
  header += configuration.LocalHostName + "\r\n      with ";
  header += requested.EhloUsed ? "ESMTP" : "SMTP";
  if (facts.TlsActive()) {
    if (requested.EhloUsed) header += login.latest ? "SA" : "S";
    header += " tls " + facts.TlsText().cipher;
  }
  return header + "; " + clock.RFCDate();
}

}  // namespace trabex

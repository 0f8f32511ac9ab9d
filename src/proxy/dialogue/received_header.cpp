#include "proxy/dialogue/received_header.h"

namespace trabex {

std::string GenerateReceivedHeader(const Configuration& configuration, const Clock& clock,
                                   const SessionFacts& facts, const SessionState& state) {
  std::string header = "Received: from " + state.HeloDomain;
  header += " (" + facts.ClientHostNameOrUnknown() + " " + FormatAddressLiteral(facts.ClientIP()) + ") by ";
  header += configuration.LocalHostName + "\r\n      with ";
  header += state.EhloUsed ? "ESMTP" : "SMTP";
  return header + "; " + clock.RFCDate();
}

}  // namespace trabex

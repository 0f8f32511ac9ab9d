#include "proxy/dialogue/received_header.h"

namespace trabex {

std::string GenerateReceivedHeader(const Configuration& configuration, const Clock& clock,
                                   const SessionFacts& facts, const RequestedState& requested) {
  std::string header = "Received: from " + requested.HeloDomain;
  header += " (" + facts.ClientHostNameOrUnknown() + " " + FormatAddressLiteral(facts.ClientIP()) + ") by ";
  header += configuration.LocalHostName + "\r\n      with ";
  header += requested.EhloUsed ? "ESMTP" : "SMTP";
  return header + "; " + clock.RFCDate();
}

}  // namespace trabex

#include "proxy/dialogue/server_approach.h"

#include "base/text.h"

namespace trabex {

bool NeedsApproach(const Configuration& configuration) {
  return configuration.SendClientIP != send_client_ip::kNot || configuration.TLS.Server != server_tls::kNone;
}

ServerApproach PlanApproach(const Configuration& configuration, const ClientOrigin& origin) {
  ServerApproach approach;
  const std::string line = FormatProxyLine(origin.connection);
  const std::string_view text = WithoutLineEnd(line);
  if (configuration.SendClientIP == send_client_ip::kProxyVersion1) {
    // There "UNKNOWN" would be the word for a connection of nobody: some servers hang up on it, and others take
    // it for one of ours.
    approach.header = line;
    approach.logged_header = text;
  } else if (configuration.SendClientIP == send_client_ip::kProxyVersion2) {
    approach.header =
        origin.is_balancers_own ? FormatLocalProxyHeader() : FormatProxyHeader(origin.connection, origin.tls);
    approach.logged_header = origin.is_balancers_own
                                 ? "PROXY v2 LOCAL"
                                 : std::string("PROXY v2").append(text.substr(text.find(' ')));
  }
  ServerPrefacePlan& preface = approach.preface;
  const std::int32_t server = configuration.TLS.Server;
  preface.local_host_name = configuration.LocalHostName;
  preface.tls_at_once = server == server_tls::kImplicit;
  preface.starttls = server == server_tls::kIfOffered || server == server_tls::kStartTls;
  preface.requires_tls = server == server_tls::kStartTls;
  // A server that expects no header of version 2 reads QUIT out of it and hangs up.
  preface.proves_header = configuration.SendClientIP == send_client_ip::kProxyVersion1;
  preface.xclient = configuration.SendClientIP == send_client_ip::kXCLIENT;
  return approach;
}

}  // namespace trabex

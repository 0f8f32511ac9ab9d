#include "report/session_snapshot.h"

#include "base/date_time.h"
#include "proxy/cProxy.h"

namespace trabex {

SessionSnapshot SnapshotOf(const cProxy& session) {
  const RequestedState& requested = session.Requested();
  SessionSnapshot snapshot{
      .id = session.Id(),
      .client_handle = session.Handle(),
      .server_handle = session.ServerHandle(),
      .client = session.ClientIP(),
      .is_local = session.ClientIsLocal(),
      .client_tls = session.ClientIsSecured(),
      .server_tls = session.ServerIsSecured(),
      .name = session.Name(),
      .helo = requested.HeloDomain,
      .in_transaction = session.InTransaction(),
      .mail_commands = requested.TransactionCount,
      .last_command = requested.CurrentVerb,
      .last_reply = session.LastReply(),
      .state = session.State(),
      .time_in_state = std::chrono::duration_cast<std::chrono::milliseconds>(session.TimeInState()),
      .age = std::chrono::duration_cast<std::chrono::milliseconds>(session.Age()),
      .client_bytes = session.ClientBytes(),
      .server_bytes = session.ServerBytes(),
  };
  if (snapshot.in_transaction) {
    snapshot.sender = requested.Sender;
    snapshot.recipient = requested.Recipient;
    snapshot.rcpt_commands = requested.RecipientCount;
    snapshot.recipients = session.Recipients();
    snapshot.greylisting = session.Greylisting();
  }
  return snapshot;
}

}  // namespace trabex

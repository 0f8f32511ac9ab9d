// The state of a session's dialogue: who may speak next and what the client's next bytes are (Phase), and
// what the server has accepted (Transaction). Both change by the rows of two tables and in no other way;
// docs/design.md shows them, and each row has its test.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "proxy/dialogue/command_table.h"

namespace trabex {

enum class Phase : std::uint8_t {
  kProxyHeader,     // a balancer has to say first whose connection it is
  kTls,             // the client speaks TLS from its first byte on, and it does not stand yet
  kPreface,         // the server and we agree on TLS and on who the client is; what the client sends waits
  kServerGreeting,  // the server has not greeted yet (RFC 5321, 3.1); what the client sends waits
  kCommand,         // the client's next line is a command
  kStartTls,        // STARTTLS was answered (RFC 3207); TLS does not stand yet
  kAsking,          // a command waits for an answer from elsewhere: a name in DNS
  kReply,           // the server owes the reply to a command
  kAuthData,        // the client's next line is authentication data (RFC 4954), no command
  kDotContent,      // message content up to the line with the dot (RFC 5321, 4.1.1.4)
  kChunk,           // the octets of a BDAT (RFC 3030), whose reply the server owes
  kOctets,          // the octets of an XEXCH50
  kAnsweredOctets,  // the rest of such octets, to which the server has replied already
  kContentReply,    // the server owes the reply to the content after DATA or XEXCH50
  kDiscard,         // the octets of a BDAT that was refused
  kTooLarge,  // the rest of a message that has grown too large for the session; it has no server any more
  kFarewell,  // the server has said 221 to QUIT: what the client still sends is dropped
  kEnding,    // nothing more is taken; the session ends when what was said has been sent
};

// What becomes of the client's next bytes.
enum class ClientBytes {
  kWait,       // left where they are
  kHeader,     // the balancer's header
  kLine,       // one line, for the filter
  kContent,    // content for the server
  kDiscarded,  // read and thrown away
};
ClientBytes ExpectedBytes(Phase phase);

// Whether a reply that comes now is to nothing that the server was told. The client may take it for one to its next
// command, or to that about which somebody else is being asked.
bool IsUnasked(Phase phase);

// Whether the server has to say something before the session goes on, or to close behind its farewell.
bool AwaitsServer(Phase phase);

enum class PhaseEvent {
  kHeaderExpected,   // the client's connection is that of a balancer
  kHeaderTaken,      // its header has come whole
  kPrefaceBegins,    // the server is connected, and has to agree on something first
  kPrefaceOver,      // it has
  kTlsExpected,      // the client came to a port where TLS is spoken from the first byte on
  kTlsBegins,        // STARTTLS was accepted
  kSecured,          // TLS with the client stands
  kNoServer,         // the client was refused, and gets replies of the proxy only
  kAnswered,         // a command was answered by the proxy
  kBdatAnswered,     // a BDAT was: its octets follow all the same
  kForwarded,        // a command or authentication data has gone to the server
  kBdatForwarded,    // a BDAT has, and its octets follow
  kAsked,            // a question was asked on behalf of a command
  kReply,            // a complete reply of the server, other than the following
  kAuthDataWanted,   // 334 to AUTH
  kContentWanted,    // 354 to DATA
  kOctetsWanted,     // 354 to XEXCH50
  kQuitAccepted,     // 221 to QUIT
  kSizeExceeded,     // a message has grown too large, or would with the next chunk
  kContentComplete,  // the content's last byte was taken
  kEnd,              // the proxy ends the session, or one of the peers has
};

struct PhaseTransition {
  std::optional<Phase> from;  // nothing: any
  PhaseEvent event;
  Phase to;
};
std::span<const PhaseTransition> PhaseTransitions();
// The phase after `event`. Without a row the phase stays: an unsolicited reply (421) is relayed, without the extensions
// that a reply to EHLO may not offer, and changes nothing.
Phase NextPhase(Phase from, PhaseEvent event);

// What the server has accepted.
enum class Transaction : std::uint8_t {
  kRefused,     // nothing ever: the client was refused, and has no server
  kNoGreeting,  // no EHLO or HELO yet
  kGreeted,     // an EHLO or HELO
  kOpen,        // a MAIL
  kChunks,      // a transaction's content in chunks, of which the last has not come (RFC 3030)
  // The same with a chunk that the server refused. Another one would be in vain, and there are servers that take
  // nothing but RSET then and look for it in the octets of whatever comes.
  kRefusedChunks,
};

// The reply to a command opens, ends or resets a transaction, never the command itself: what the session
// believes is never ahead of the server.
struct TransactionTransition {
  Command command;
  bool last_chunk;        // of a BDAT: whether it was the last one
  std::string_view code;  // of the reply, which has this code in each line that counts; "": any reply
  Transaction to;
  bool greets;  // also from kNoGreeting
};
std::span<const TransactionTransition> TransactionTransitions();
// The transaction after a reply with this code ("": its lines have several codes).
Transaction NextTransaction(Transaction from, Command command, bool last_chunk, std::string_view code);

}  // namespace trabex

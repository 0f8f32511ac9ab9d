#include "proxy/dialogue/dialogue_phase.h"

namespace trabex {

namespace {

using enum Phase;

// clang-format off
constexpr PhaseTransition kPhaseTransitions[] = {
    // from            event                         to
    {kServerGreeting, PhaseEvent::kHeaderExpected,  kProxyHeader},
    {kTls,            PhaseEvent::kHeaderExpected,  kProxyHeader},
    {kProxyHeader,    PhaseEvent::kHeaderTaken,     kServerGreeting},
    {kServerGreeting, PhaseEvent::kTlsExpected,     kTls},
    {kTls,            PhaseEvent::kSecured,         kServerGreeting},
    {kServerGreeting, PhaseEvent::kPrefaceBegins,   kPreface},
    {kPreface,        PhaseEvent::kPrefaceOver,     kServerGreeting},
    {kServerGreeting, PhaseEvent::kReply,           kCommand},
    {kServerGreeting, PhaseEvent::kNoServer,        kCommand},
    {kCommand,        PhaseEvent::kForwarded,       kReply},
    {kCommand,        PhaseEvent::kAnswered,        kCommand},
    {kCommand,        PhaseEvent::kAsked,           kAsking},
    {kCommand,        PhaseEvent::kBdatForwarded,   kChunk},
    {kCommand,        PhaseEvent::kBdatAnswered,    kDiscard},
    {kCommand,        PhaseEvent::kTlsBegins,       kStartTls},
    {kCommand,        PhaseEvent::kSizeExceeded,    kTooLarge},
    {kStartTls,       PhaseEvent::kSecured,         kCommand},
    {kAsking,         PhaseEvent::kForwarded,       kReply},
    {kAsking,         PhaseEvent::kAnswered,        kCommand},
    {kReply,          PhaseEvent::kReply,           kCommand},
    {kReply,          PhaseEvent::kAuthDataWanted,  kAuthData},
    {kReply,          PhaseEvent::kContentWanted,   kDotContent},
    {kReply,          PhaseEvent::kOctetsWanted,    kOctets},
    {kReply,          PhaseEvent::kQuitAccepted,    kFarewell},
    {kAuthData,       PhaseEvent::kForwarded,       kReply},
    // A server that speaks again instead of waiting for the data has given up, and reads commands.
    {kAuthData,       PhaseEvent::kReply,           kCommand},
    {kDotContent,     PhaseEvent::kContentComplete, kContentReply},
    {kDotContent,     PhaseEvent::kSizeExceeded,    kTooLarge},
    // The server spoke before the dot: what the client goes on sending is neither content nor command.
    {kDotContent,     PhaseEvent::kReply,           kEnding},
    {kChunk,          PhaseEvent::kContentComplete, kReply},
    {kChunk,          PhaseEvent::kReply,           kAnsweredOctets},
    {kOctets,         PhaseEvent::kContentComplete, kContentReply},
    {kOctets,         PhaseEvent::kReply,           kAnsweredOctets},
    {kAnsweredOctets, PhaseEvent::kContentComplete, kCommand},
    {kContentReply,   PhaseEvent::kReply,           kCommand},
    {kDiscard,        PhaseEvent::kContentComplete, kCommand},
    {std::nullopt,    PhaseEvent::kEnd,             kEnding},
};

constexpr TransactionTransition kTransactionTransitions[] = {
    // command        last chunk  code   to                     greets
    {Command::kEhlo, false,      "250", Transaction::kGreeted, true},
    {Command::kHelo, false,      "250", Transaction::kGreeted, true},
    {Command::kMail, false,      "250", Transaction::kOpen,    false},
    {Command::kMail, false,      "355", Transaction::kOpen,    false},
    {Command::kSend, false,      "250", Transaction::kOpen,    false},
    {Command::kSoml, false,      "250", Transaction::kOpen,    false},
    {Command::kSaml, false,      "250", Transaction::kOpen,    false},
    {Command::kRset, false,      "250", Transaction::kGreeted, false},
    {Command::kData, false,      "354", Transaction::kGreeted, false},
    {Command::kBdat, false,      "250", Transaction::kChunks,  false},
    // Whatever else it says: the server does not take the message any more, which only RSET ends.
    {Command::kBdat, false,      "",    Transaction::kRefusedChunks, false},
    // Whatever it says: the server has taken the message or thrown it away.
    {Command::kBdat, true,       "",    Transaction::kGreeted, false},
};
// clang-format on

}  // namespace

ClientBytes ExpectedBytes(Phase phase) {
  switch (phase) {
    case kCommand:
    case kAuthData:
      return ClientBytes::kLine;
    case kDotContent:
    case kChunk:
    case kOctets:
    case kAnsweredOctets:
      return ClientBytes::kContent;
    case kDiscard:
    case kTooLarge:
    case kFarewell:
      return ClientBytes::kDiscarded;
    case kProxyHeader:
      return ClientBytes::kHeader;
    case kTls:
    case kPreface:
    case kServerGreeting:
    case kStartTls:
    case kAsking:
    case kReply:
    case kContentReply:
    case kEnding:
      break;
  }
  return ClientBytes::kWait;
}

bool AwaitsServer(Phase phase) {
  switch (phase) {
    case kPreface:
    case kServerGreeting:
    case kReply:
    case kContentReply:
    case kFarewell:
      return true;
    case kProxyHeader:
    case kTls:
    case kCommand:
    case kStartTls:
    case kAsking:
    case kAuthData:
    case kDotContent:
    case kChunk:
    case kOctets:
    case kAnsweredOctets:
    case kDiscard:
    case kTooLarge:
    case kEnding:
      break;
  }
  return false;
}

bool IsUnasked(Phase phase) {
  switch (phase) {
    case kCommand:
    case kStartTls:
    case kAsking:
    case kAnsweredOctets:
    case kDiscard:
      return true;
    case kProxyHeader:
    case kTls:
    case kPreface:
    case kServerGreeting:
    case kReply:
    case kAuthData:
    case kDotContent:
    case kChunk:
    case kOctets:
    case kContentReply:
    case kTooLarge:
    case kFarewell:
    case kEnding:
      break;
  }
  return false;
}

std::span<const PhaseTransition> PhaseTransitions() {
  return kPhaseTransitions;
}

Phase NextPhase(Phase from, PhaseEvent event) {
  for (const PhaseTransition& row : kPhaseTransitions) {
    if (row.event == event && (!row.from || *row.from == from)) return row.to;
  }
  return from;
}

std::span<const TransactionTransition> TransactionTransitions() {
  return kTransactionTransitions;
}

Transaction NextTransaction(Transaction from, Command command, bool last_chunk, std::string_view code) {
  for (const TransactionTransition& row : kTransactionTransitions) {
    if (row.command != command || row.last_chunk != last_chunk) continue;
    if (!row.code.empty() && row.code != code) continue;
    return from == Transaction::kNoGreeting && !row.greets ? from : row.to;
  }
  return from;
}

}  // namespace trabex

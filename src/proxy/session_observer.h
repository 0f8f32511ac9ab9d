// Whoever counts what happens in sessions and keeps records of it.
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

#include "proxy/dialogue/dialogue_events.h"

namespace trabex {

class cProxy;

// Who or what ended a session.
enum class SessionEnd : std::uint8_t {
  kQuit,
  kClient,
  kServer,       // it closed, failed, or could not be reached
  kTimeout,      // a peer was silent, or took nothing, for too long
  kRefused,      // the proxy closed after, or instead of, a reply that refuses
  kBadSequence,  // too many commands out of order
  kClosed,       // on request
  kShutdown,
};

// The bytes of one connection.
struct TransferredBytes {
  std::int64_t in = 0;
  std::int64_t out = 0;
};

// Called while the session goes on, also the last time; its sockets are open then, so that everything about
// it can still be asked. Must not change it. What is handed over is valid during the call only.
class SessionObserver {
 public:
  virtual ~SessionObserver() = default;
  // The client is known: behind a balancer, when that has said who it is.
  virtual void OnBegin(const cProxy& session) = 0;
  virtual void OnCommand(const cProxy& session) = 0;
  virtual void OnOwnReply(const cProxy& session, const OwnReply& reply) = 0;
  virtual void OnGreylisting(const cProxy& session, const GreylistVerdict& verdict, bool callback,
                             const RequestedState& requested) = 0;
  virtual void OnServerReply(const cProxy& session, Command command, std::string_view reply) = 0;
  virtual void OnTransaction(const cProxy& session, const RequestedState& requested) = 0;
  virtual void OnRecipient(const cProxy& session, RecipientResult result, std::string_view mailbox) = 0;
  virtual void OnContent(const cProxy& session, std::size_t octets) = 0;
  virtual void OnMessage(const cProxy& session, std::string_view reply) = 0;
  // The server is connected, after so long.
  virtual void OnServerConnected(const cProxy& session, std::chrono::nanoseconds time) = 0;
  virtual void OnServerNotReached(const cProxy& session, int error, std::string_view description) = 0;
  // A connection has failed that had been made, or something else about the peer, and the session goes on;
  // `with_client` says which one.
  virtual void OnFailure(const cProxy& session, bool with_client, int error,
                         std::string_view description) = 0;
  // The server's connection is about to be closed.
  virtual void OnServerLeft(const cProxy& session, const TransferredBytes& bytes) = 0;
  // After OnBegin, once, and nothing after it. A server's connection that is open has been told of before.
  virtual void OnEnd(const cProxy& session, SessionEnd how, const TransferredBytes& client) = 0;
};

}  // namespace trabex

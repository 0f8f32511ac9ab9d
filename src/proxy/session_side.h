// One peer of a session: its socket, what the session has been notified of and has not dealt with yet, and
// its part of the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "net/CSocketMaster.h"
#include "net/send_stall.h"
#include "platform/event_loop.h"
#include "proxy/dialogue/dialogue.h"
#include "proxy/session_dependencies.h"

namespace trabex {

class SessionSide {
 public:
  enum class Peer : std::uint8_t { kClient, kServer };
  // What the socket notifies its session of. Other: a send is complete, or the connection has ended.
  enum class Event { kConnect, kDataArrival, kSecured, kOther };

  class Owner {
   public:
    virtual ~Owner() = default;
    // The fact is noted already. Errors that leave the call are logged by the socket. Never called from
    // inside Send or StartTls: what happens there is only noted, and its caller checks it.
    virtual void OnSideEvent(SessionSide& side, Event event) = 0;
    // The connection has failed, or could not be made (then IsConnected was never true).
    virtual void OnSideFailure(const SessionSide& /*side*/, int /*error*/, std::string_view /*description*/) {
    }
  };

  // How the peer's connection ended.
  using End = Dialogue::ServerEnd;

  // `dependencies` and `owner` outlive the object.
  SessionSide(Peer peer, SessionDependencies& dependencies, Owner& owner);

  CSocketMaster& Socket() { return socket_; }
  const CSocketMaster& Socket() const { return socket_; }

  // Whether the peer has unread bytes, as far as the session knows.
  bool Readable() const { return readable_; }
  // The next unread bytes, `limit` at most; valid until this side takes or closes, or any socket is read.
  std::string_view Peek(std::int32_t limit) { return socket_.PeekView(limit); }
  // Drops the first `used` of the bytes that Peek gave, of which there were `size`. What is left is readable
  // at once when any were used; otherwise it waits for more. Bytes that are not the peer's own do not count.
  void Take(std::size_t used, std::size_t size, bool peers_own = true);
  // Takes all that is there, one chunk of the socket's receive buffer at most.
  std::string TakeAll();

  // Sends up to `limit` of the next unread bytes to the peer of `to`, unseen; returns how many. 0: not now, and Peek
  // says what there is (see CSocketMaster::PassTo).
  std::size_t PassTo(SessionSide& to, std::uint64_t limit);

  // How long bytes wait for those that follow them, so that they leave within a fifth of a second.
  static constexpr Milliseconds kMaxHold{150};

  // Sends what is held.
  void SendHeld();
  // What CSocketMaster::SayLast does, behind what is held.
  void SayLast(std::string_view words);
  // Whether bytes wait to be sent; held ones do not count.
  bool Sending() const { return sending_; }
  // Sends nothing unless the peer is connected. With `more_follows` the bytes are held, to leave together
  // with those of the next call: after kMaxHold, or when this side is closed, they leave alone.
  void Send(std::string_view bytes, bool more_follows = false);
  // Begins TLS (see CSocketMaster::StartTls), with `last_words` in the clear. When it stands, that is logged,
  // and kSecured follows. Does nothing unless the peer is connected.
  void StartTls(TlsRole role, std::shared_ptr<const TlsContext> context, std::string_view last_words = {});
  // Whether the latest Send that held nothing back was complete when it returned.
  bool SentAtOnce() const { return sent_at_once_; }
  bool IsConnected() const { return socket_.State() == SocketState::sckConnected; }
  // Whether it was connected at any time; of the client that it was accepted.
  bool WasConnected() const { return connected_ || peer_ == Peer::kClient; }

  // Whether the connection has ended, and the end was not taken yet.
  bool HasEnded() const { return end_.has_value(); }
  // Only where HasEnded().
  End TakeEnd() { return *std::exchange(end_, std::nullopt); }
  // Whether the peer has closed its connection.
  bool HasClosed() const { return end_ == End::kClosed; }
  // Whether it is logged why the connection fails; it is at first.
  void LogFailures(bool logged) { logs_failures_ = logged; }
  // Until the peer's first byte that counts it is not logged that it breaks the connection off: it only looks
  // whether we are there.
  void OnlyLooks(bool only_looks) { only_looks_ = only_looks; }
  // Notes that the connection failed, and logs why.
  void NoteFailure(int error, std::string_view description);

  // Whether a send is stuck (see SendStall). The session calls this on a timer while Sending().
  bool IsStuck(MonotonicTime now) { return stall_.Look(socket_, now); }

  // Closes the connection in order, and logs that if there was one. No event follows.
  void Close();

  // A line of this side, if it is logged at `level`; "< " is put before what was received, "> " before what
  // was sent.
  void Log(std::int32_t level, std::string_view text) const;

 private:
  struct Held {
    std::string bytes;
    Timer timer;
  };

  void Hold(std::string_view bytes);
  void SendNow(std::string_view bytes, bool more_follows);

  SessionDependencies& dependencies_;
  Owner& owner_;
  CSocketMaster socket_;
  SendStall stall_;
  std::unique_ptr<Held> held_;
  const Peer peer_;
  std::optional<End> end_;
  bool connected_ = false;  // at least once
  bool readable_ = false;
  bool sending_ = false;
  bool in_send_ = false;
  bool sent_at_once_ = false;
  bool logs_failures_ = true;
  bool only_looks_ = false;
};

}  // namespace trabex

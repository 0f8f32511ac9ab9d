// The machinery under every CSocketMaster: the registry that maps a socket to its object, connections that
// were accepted and not yet claimed, and sockets that are closing in the background.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "base/log.h"
#include "base/memory_reserve.h"
#include "net/accept_pause.h"
#include "net/handshake_queue.h"
#include "net/lingering_sockets.h"
#include "net/receive_buffer.h"
#include "net/splice_pipes.h"
#include "net/stream.h"
#include "platform/sockets.h"
#include "resolver/name_lookup.h"

namespace trabex {

class CSocketMaster;

class modSocketMaster {
 public:
  // All references outlive this object, and it outlives every CSocketMaster. `log` gets errors that leave an
  // event handler, and the line that says that descriptors have run out.
  modSocketMaster(Sockets& sockets, NameLookup& names, Log& log);
  ~modSocketMaster();
  modSocketMaster(const modSocketMaster&) = delete;
  modSocketMaster& operator=(const modSocketMaster&) = delete;

  // How many closed sockets are still being ended in order.
  std::size_t LingeringCount() const;
  // `emptied` is called from the loop when the last lingering socket has gone; at once from the loop when
  // there is none.
  void WhenNoneLingers(std::function<void()> emptied);

  // The most TLS handshakes of clients that may be unfinished; one more ends the oldest (Error 40031). 0, as
  // at first: any number.
  void SetMaxHandshakes(std::size_t max) { handshakes_.SetMax(max); }
  std::size_t UnfinishedHandshakes() const { return handshakes_.Unfinished(); }

  // For what has to be said where there is no memory. Each connection that is accepted finds it there, if it can be.
  MemoryReserve& Reserve() { return reserve_; }

  // The peer of a connection that waits for its owner; nothing when `requestID` names none.
  std::optional<Endpoint> PeerOf(std::int32_t requestID) const;
  // Ends such a connection, with `last_words` before. Needs no memory, and raises nothing.
  void Dismiss(std::int32_t requestID, std::string_view last_words);

  // The service runs from the first socket object's creation to the last one's release; it is what they
  // share: one buffer to receive into.
  bool ServiceStarted() const { return received_ != nullptr; }
  std::size_t ObjectCount() const { return object_count_; }
  // How many received bytes were copied since the service began, because an object had left them unread when
  // another one was read, or wanted more at a time than the buffer takes.
  std::uint64_t CopiedBytes() const { return received_ ? received_->CopiedBytes() : 0; }

  // How many pipes hold bytes that are under way from one object to another, and how many bytes have gone
  // through pipes so far.
  std::size_t LentPipes() const { return pipes_.Lent(); }
  std::uint64_t PassedBytes() const { return passed_bytes_; }

 private:
  friend class CSocketMaster;

  // A connection that was accepted and waits for its owner, as long as its ConnectionRequest is raised.
  struct Unclaimed {
    SocketHandle socket;
    Endpoint peer;
  };

  void InitiateProcesses();
  void FinalizeProcesses();

  void Keep(const Unclaimed& connection) { unclaimed_.push_back(connection); }
  // Takes the connection that `requestID` names out of those kept.
  std::optional<Unclaimed> Claim(std::int32_t requestID);
  // Every socket of this library is closed here, or lingers first.
  void CloseSocket(SocketHandle socket);

  Sockets& sockets_;
  NameLookup& names_;
  Log& log_;
  MemoryReserve reserve_;
  std::vector<Unclaimed> unclaimed_;
  PlainStream plain_;
  AcceptPause pause_;
  LingeringSockets lingering_;
  HandshakeQueue handshakes_;
  SplicePipes pipes_;
  std::uint64_t passed_bytes_ = 0;
  std::size_t object_count_ = 0;
  std::unique_ptr<ReceiveBuffer> received_;
};

}  // namespace trabex

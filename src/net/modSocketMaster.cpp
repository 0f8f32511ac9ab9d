#include "net/modSocketMaster.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <utility>

namespace trabex {

namespace {

constexpr std::size_t kUnclaimedWithoutMemory = 16;

}  // namespace

modSocketMaster::modSocketMaster(Sockets& sockets, NameLookup& names, Log& log)
    : sockets_(sockets),
      names_(names),
      log_(log),
      plain_(sockets),
      pause_(sockets, log),
      lingering_(sockets, plain_, log, [this] { pause_.SocketClosed(); }),
      handshakes_(sockets.Loop(), log) {
  // More than one at a time waits only where an event accepts another one.
  unclaimed_.reserve(kUnclaimedWithoutMemory);
}

modSocketMaster::~modSocketMaster() {
  assert(object_count_ == 0 && "a socket object outlives its module");
}

std::size_t modSocketMaster::LingeringCount() const {
  return lingering_.Count();
}

void modSocketMaster::WhenNoneLingers(std::function<void()> emptied) {
  lingering_.WhenNone(std::move(emptied));
}

void modSocketMaster::InitiateProcesses() {
  ++object_count_;
  if (!received_) received_ = std::make_unique<ReceiveBuffer>();
}

void modSocketMaster::FinalizeProcesses() {
  --object_count_;
  if (object_count_ == 0) received_.reset();
}

std::optional<modSocketMaster::Unclaimed> modSocketMaster::Claim(std::int32_t requestID) {
  const auto found = std::find_if(unclaimed_.begin(), unclaimed_.end(),
                                  [&](const Unclaimed& kept) { return kept.socket.index == requestID; });
  if (found == unclaimed_.end()) return std::nullopt;
  const Unclaimed connection = *found;
  unclaimed_.erase(found);
  return connection;
}

std::optional<Endpoint> modSocketMaster::PeerOf(std::int32_t requestID) const {
  for (const Unclaimed& kept : unclaimed_) {
    if (kept.socket.index == requestID) return kept.peer;
  }
  return std::nullopt;
}

void modSocketMaster::Dismiss(std::int32_t requestID, std::string_view last_words) {
  const auto connection = Claim(requestID);
  if (!connection) return;
  std::size_t sent = 0;
  if (!last_words.empty()) sockets_.Send(connection->socket, last_words, sent);
  lingering_.Take(connection->socket, nullptr, ByteQueue(), false);
}

void modSocketMaster::CloseSocket(SocketHandle socket) {
  pause_.Forget(socket);
  sockets_.Close(socket);
  pause_.SocketClosed();
}

}  // namespace trabex

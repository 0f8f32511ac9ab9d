#include "net/modSocketMaster.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace trabex {

modSocketMaster::modSocketMaster(Sockets& sockets, NameLookup& names, Log& log)
    : sockets_(sockets),
      names_(names),
      log_(log),
      plain_(sockets),
      pause_(sockets, log),
      lingering_(sockets, plain_, log, [this] { pause_.SocketClosed(); }),
      handshakes_(sockets.Loop(), log) {}

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

void modSocketMaster::CloseSocket(SocketHandle socket) {
  sockets_.Close(socket);
  pause_.SocketClosed();
}

}  // namespace trabex

#include "net/lingering_sockets.h"

#include <utility>

namespace trabex {

namespace {

// Read and dropped in one go.
constexpr std::size_t kDropBytes = 16384;

}  // namespace

LingeringSockets::LingeringSockets(Sockets& sockets, Log& log, std::function<void()> socket_closed)
    : sockets_(sockets),
      log_(log),
      socket_closed_(std::move(socket_closed)),
      timer_(sockets.Loop(), kLongest, [this] { CloseOverdue(); }) {}

LingeringSockets::~LingeringSockets() {
  for (const auto& [index, holder] : holders_) sockets_.Close(holder.socket);
}

void LingeringSockets::Take(SocketHandle socket, ByteQueue unsent, bool peer_ended) {
  sockets_.Watch(socket, this);
  Holder& holder = holders_[socket.index];
  holder = {socket, std::move(unsent), false, peer_ended};
  deadlines_.push_back({sockets_.Loop().GetClock().Monotonic() + kLongest, socket});
  if (!timer_.Enabled()) timer_.Enable();
  // Notifications that the former owner was told and did not answer are not told again, so both directions
  // are tried once.
  const bool usable = Flush(holder) && (holder.peer_ended || Drop(holder));
  Proceed(holder, usable);
}

bool LingeringSockets::Flush(Holder& holder) {
  while (!holder.unsent.Empty()) {
    const std::string_view rest = holder.unsent.View();
    std::size_t sent = 0;
    const int error = sockets_.Send(holder.socket, rest, sent);
    if (error == socket_error::kWouldBlock) return true;
    if (error != 0) return false;
    const bool blocked = sent < rest.size();
    holder.unsent.RemoveFront(sent);
    if (blocked) return true;
  }
  return true;
}

bool LingeringSockets::Drop(Holder& holder) {
  char room[kDropBytes];
  std::size_t received = 0;
  const int error = sockets_.Receive(holder.socket, room, received);
  if (error == socket_error::kWouldBlock) return true;
  if (error != 0) return false;
  if (received == 0) holder.peer_ended = true;
  return true;
}

void LingeringSockets::Proceed(Holder& holder, bool usable) {
  if (usable && holder.unsent.Empty() && !holder.peer_ended && !holder.sending_ended) {
    usable = sockets_.ShutDownSending(holder.socket) == 0;
    holder.sending_ended = true;
  }
  if (!usable || (holder.unsent.Empty() && holder.peer_ended)) Close(holder.socket);
}

void LingeringSockets::OnSocketEvent(SocketHandle socket, SocketEvent event, int error) {
  const auto found = holders_.find(socket.index);
  if (found == holders_.end() || found->second.socket != socket) return;
  Holder& holder = found->second;
  bool usable = error == 0;
  if (usable && event == SocketEvent::kWrite) usable = Flush(holder);
  if (usable && event == SocketEvent::kRead) usable = Drop(holder);
  if (event == SocketEvent::kClose) holder.peer_ended = true;
  Proceed(holder, usable);
}

void LingeringSockets::Close(SocketHandle socket) {
  sockets_.Close(socket);
  holders_.erase(socket.index);
  if (holders_.empty() && !waiting_.empty()) WhenNone(nullptr);
  socket_closed_();
}

void LingeringSockets::CloseOverdue() {
  const MonotonicTime now = sockets_.Loop().GetClock().Monotonic();
  while (!deadlines_.empty()) {
    const auto [time, socket] = deadlines_.front();
    const auto found = holders_.find(socket.index);
    const bool there = found != holders_.end() && found->second.socket == socket;
    if (there && time > now) {
      timer_.SetInterval(std::chrono::ceil<Milliseconds>(time - now));
      return;
    }
    deadlines_.pop_front();
    if (there) Close(socket);
  }
  timer_.Disable();
}

void LingeringSockets::WhenNone(std::function<void()> emptied) {
  if (emptied) waiting_.push_back(std::move(emptied));
  if (!holders_.empty()) return;
  sockets_.Loop().Post([this, alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) TellEmpty();
  });
}

void LingeringSockets::TellEmpty() {
  if (!holders_.empty()) return;  // another one has come meanwhile
  for (const auto& emptied : std::exchange(waiting_, {}))
    RunLogged(log_, "modSocketMaster.WhenNoneLingers", emptied);
}

}  // namespace trabex

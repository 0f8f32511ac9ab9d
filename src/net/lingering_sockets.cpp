#include "net/lingering_sockets.h"

#include <new>
#include <utility>

namespace trabex {

namespace {

// Read and dropped in one go.
constexpr std::size_t kDropBytes = 16384;

}  // namespace

LingeringSockets::LingeringSockets(Sockets& sockets, Stream& plain, Log& log,
                                   std::function<void()> socket_closed)
    : sockets_(sockets),
      plain_(plain),
      log_(log),
      socket_closed_(std::move(socket_closed)),
      timer_(sockets.Loop(), kMaxDuration, [this] { CloseOverdue(); }) {}

LingeringSockets::~LingeringSockets() {
  for (const auto& [index, holder] : holders_) sockets_.Close(holder.socket);
}

void LingeringSockets::Take(SocketHandle socket, std::unique_ptr<Stream> stream, ByteQueue unsent,
                            bool peer_ended) {
  try {
    deadlines_.push_back({sockets_.Loop().GetClock().Monotonic() + kMaxDuration, socket});
    if (!timer_.Enabled()) timer_.Enable();
    Holder& holder = holders_[socket.index];
    sockets_.Watch(socket, this);
    holder = {socket, std::move(stream), std::move(unsent), false, peer_ended};
  } catch (const std::bad_alloc&) {
    // Nobody else has it.
    return Close(socket);
  }
  // The previous owner may have had a notification and not acted on it; it is not delivered again. So both
  // directions are tried once.
  Serve(socket, [this](Holder& holder) { return Flush(holder) && (holder.peer_ended || Drop(holder)); });
}

template <class Action>
void LingeringSockets::Serve(SocketHandle socket, const Action& action) {
  const auto found = holders_.find(socket.index);
  if (found == holders_.end() || found->second.socket != socket) return;
  try {
    Proceed(found->second, action(found->second));
  } catch (const std::bad_alloc&) {
    Close(socket);
  }
}

bool LingeringSockets::Flush(Holder& holder) {
  while (!holder.unsent.Empty()) {
    const std::string_view rest = holder.unsent.View();
    std::size_t sent = 0;
    const int error = StreamOf(holder).Write(holder.socket, rest, sent, false);
    if (error == socket_error::kWouldBlock) return true;
    if (error != 0) return false;
    const bool blocked = sent < rest.size();
    holder.unsent.RemoveFront(sent);
    if (blocked) return true;
  }
  return true;
}

bool LingeringSockets::Drop(Holder& holder) {
  char dropped[kDropBytes];
  std::size_t received = 0;
  Stream& stream = StreamOf(holder);
  const int error = stream.Read(holder.socket, dropped, received);
  if (error != 0 && error != socket_error::kWouldBlock) return false;
  if (error == 0 && received == 0) holder.peer_ended = true;
  if (!holder.peer_ended && stream.HoldsInput()) DropAgain(holder.socket);
  return true;
}

// Not at once, so that a peer that goes on sending does not hold up the others.
void LingeringSockets::DropAgain(SocketHandle socket) {
  sockets_.Loop().Post([this, socket, alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) OnSocketEvent(socket, SocketEvent::kRead, 0);
  });
}

void LingeringSockets::Proceed(Holder& holder, bool usable) {
  // The end of an encrypted stream is said even to a peer that has ended.
  const bool end_due = !holder.sending_ended && (!holder.peer_ended || holder.stream != nullptr);
  if (usable && holder.unsent.Empty() && end_due) {
    const int error = StreamOf(holder).ShutDownWrite(holder.socket);
    usable = error == 0 || error == socket_error::kWouldBlock;
    holder.sending_ended = error == 0;
  }
  const bool all_said = holder.unsent.Empty() && (holder.sending_ended || holder.stream == nullptr);
  if (!usable || (all_said && holder.peer_ended)) Close(holder.socket);
}

void LingeringSockets::OnSocketEvent(SocketHandle socket, SocketEvent event, int error) {
  Serve(socket, [&](Holder& holder) {
    bool usable = error == 0;
    if (usable && event == SocketEvent::kWrite) usable = Flush(holder);
    if (usable && event == SocketEvent::kRead) usable = Drop(holder);
    if (event == SocketEvent::kClose) holder.peer_ended = true;
    return usable;
  });
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
    if (!alive.expired()) NotifyEmpty();
  });
}

void LingeringSockets::NotifyEmpty() {
  if (!holders_.empty()) return;  // another one has come meanwhile
  for (const auto& emptied : std::exchange(waiting_, {}))
    RunLogged(log_, "modSocketMaster.WhenNoneLingers", emptied);
}

}  // namespace trabex

// How long a session waits for its server (ServerTimeout).
#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/sockets.h"
#include "proxy/cProxy.h"

namespace trabex {

namespace {

// An interval that is over when more than `time` has passed.
Milliseconds JustOver(std::chrono::nanoseconds time) {
  return std::max(std::chrono::floor<Milliseconds>(time), Milliseconds(0)) + Milliseconds(1);
}

}  // namespace

void cProxy::BeginServerWait() {
  if (!server_wait_) {
    server_wait_.reset(new ServerWait{{}, {}, {dependencies_.loop, Milliseconds(1), [this] {
                                                 RunHandler("cProxy.CheckTimeout",
                                                            [this] { CheckServerWait(); });
                                               }}});
  }
  server_wait_->began = dependencies_.clock.Monotonic();
  server_wait_->progress.reset();
  if (server_wait_->timer.Enabled()) return;
  server_wait_->timer.SetInterval(
      JustOver(std::chrono::seconds(dependencies_.configuration.Service.ServerTimeout)));
  server_wait_->timer.Enable();
}

bool cProxy::IsServerAwaited() const {
  switch (Sender.Socket().State()) {
    case SocketState::sckResolvingHost:
    case SocketState::sckHostResolved:
    case SocketState::sckConnecting:
      return true;
    case SocketState::sckConnected:
      return dialogue_.AwaitsServer();
    default:
      return false;
  }
}

std::chrono::seconds cProxy::ServerPatience() const {
  const std::chrono::seconds time(dependencies_.configuration.Service.ServerTimeout);
  // The server may have to look through the whole message.
  return dialogue_.AwaitsReplyToContent() ? 2 * time : time;
}

void cProxy::CheckServerWait() {
  ServerWait& wait = *server_wait_;
  const std::chrono::seconds patience = ServerPatience();
  if (patience.count() == 0 || !IsServerAwaited()) return wait.timer.Disable();
  const MonotonicTime now = dependencies_.clock.Monotonic();
  const std::int64_t progress = Sender.IsConnected() ? Sender.Socket().SendProgressMade() : 0;
  // A server that still takes what it is to answer is not silent, nor is one whose words wait for the client.
  if (Sender.Readable() || (wait.progress && *wait.progress != progress)) wait.began = now;
  wait.progress = progress;
  const auto left = patience - (now - wait.began);
  if (left < left.zero()) return EndSilentServer();
  // Never longer than the shortest wait, since the next one may begin at any time.
  const std::chrono::nanoseconds most =
      std::chrono::seconds(dependencies_.configuration.Service.ServerTimeout);
  wait.timer.SetInterval(JustOver(std::min<std::chrono::nanoseconds>(left, most)));
}

void cProxy::EndSilentServer() {
  EndsBy(dialogue_.phase() == Phase::kFarewell ? SessionEnd::kQuit : SessionEnd::kTimeout);
  OnSideFailure(Sender, socket_error::kTimedOut, "Server time-out.");
  dialogue_.OnServerSilent(*this);
  Pump();
}

}  // namespace trabex

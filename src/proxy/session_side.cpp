#include "proxy/session_side.h"

#include <algorithm>
#include <utility>

#include "net/socket_errors.h"
#include "proxy/session_log.h"

namespace trabex {

namespace {

// Bytes that were held are copied together with what follows them up to this size, which one TLS record takes.
// Beyond it a send of their own costs no more than the copy.
constexpr std::size_t kMaxJoined = 16384;
// Of a peer's bytes at a time, so that one busy session does not hold up the others.
constexpr std::int32_t kMaxTaken = 65536;
// Of bytes that nobody looks at, which take less time.
constexpr std::uint64_t kMaxPassed = 1 << 20;

struct ClearAtEnd {
  bool& flag;
  ~ClearAtEnd() { flag = false; }
};

}  // namespace

SessionSide::SessionSide(Peer peer, SessionDependencies& dependencies, Owner& owner)
    : dependencies_(dependencies), owner_(owner), socket_(dependencies.sockets), peer_(peer) {
  socket_.Events.Owner = peer == Peer::kClient ? "cProxy.Receiver" : "cProxy.Sender";
  socket_.Events.Connect = [this] {
    connected_ = true;
    owner_.OnSideEvent(*this, Event::kConnect);
  };
  socket_.Events.DataArrival = [this] {
    readable_ = true;
    owner_.OnSideEvent(*this, Event::kDataArrival);
  };
  socket_.Events.SendComplete = [this] {
    sending_ = false;
    sent_at_once_ = in_send_;
    if (!in_send_) owner_.OnSideEvent(*this, Event::kOther);
  };
  socket_.Events.Error = [this](int number, std::string& description, const std::string&, bool&) {
    NoteFailure(number, description);
    if (!in_send_) owner_.OnSideEvent(*this, Event::kOther);
  };
  socket_.Events.CloseSck = [this] {
    end_ = End::kClosed;
    owner_.OnSideEvent(*this, Event::kOther);
  };
}

void SessionSide::Take(std::size_t used, std::size_t size, bool peers_own) {
  readable_ = used > 0 && used < size;
  if (used == 0) return;
  if (peers_own) {
    socket_.Consume(static_cast<std::int32_t>(used));
  } else {
    socket_.ConsumeUncounted(static_cast<std::int32_t>(used));
  }
}

std::size_t SessionSide::PassTo(SessionSide& to, std::uint64_t limit) {
  if (to.held_ || !to.IsConnected()) return 0;
  const ClearAtEnd clear{to.in_send_};
  to.in_send_ = true;
  to.sent_at_once_ = false;
  const auto most = static_cast<std::int32_t>(std::min(limit, kMaxPassed));
  const auto passed = static_cast<std::size_t>(socket_.PassTo(to.socket_, most));
  if (passed == 0) return 0;
  to.sending_ = !to.sent_at_once_;
  readable_ = false;
  return passed;
}

std::string SessionSide::TakeAll() {
  readable_ = false;
  std::string data;
  socket_.GetData(data, kMaxTaken);
  return data;
}

void SessionSide::Send(std::string_view bytes, bool more_follows) {
  if (!IsConnected()) return;
  if (more_follows) return Hold(bytes);
  const auto held = std::exchange(held_, nullptr);
  if (!held) return SendNow(bytes, false);
  if (held->bytes.size() + bytes.size() <= kMaxJoined) return SendNow(held->bytes.append(bytes), false);
  SendNow(held->bytes, true);
  SendNow(bytes, false);
}

void SessionSide::Hold(std::string_view bytes) {
  if (held_) {
    held_->bytes.append(bytes);
    return;
  }
  const auto over = [this] {
    RunLogged(dependencies_.log, socket_.Events.Owner, [this] {
      SendHeld();
      owner_.OnSideEvent(*this, Event::kOther);
    });
  };
  held_.reset(new Held{std::string(bytes), {dependencies_.loop, kMaxHold, over}});
  held_->timer.Enable();
}

void SessionSide::SendHeld() {
  if (const auto held = std::exchange(held_, nullptr)) SendNow(held->bytes, false);
}

void SessionSide::SayLast(std::string_view words) {
  RunLogged(dependencies_.log, socket_.Events.Owner, [this] { SendHeld(); });
  if (!sending_) socket_.SayLast(words);
}

void SessionSide::SendNow(std::string_view bytes, bool more_follows) {
  if (!IsConnected()) return;
  const ClearAtEnd clear{in_send_};
  sending_ = in_send_ = true;
  sent_at_once_ = false;
  socket_.SendData(bytes, more_follows);
}

void SessionSide::StartTls(TlsRole role, std::shared_ptr<const TlsContext> context,
                           std::string_view last_words) {
  if (!IsConnected()) return;
  const ClearAtEnd clear{in_send_};
  in_send_ = true;
  socket_.Events.Secured = [this] {
    Log(log_level::kConnection, DescribeTls(*socket_.Tls(), peer_ == Peer::kClient));
    owner_.OnSideEvent(*this, Event::kSecured);
  };
  socket_.StartTls(role, std::move(context), last_words);
}

void SessionSide::NoteFailure(int error, std::string_view description) {
  end_ = End::kFailed;
  if (!logs_failures_) return;
  if (only_looks_ && error == socket_error::kConnectionReset && socket_.BytesReceived() == 0) return;
  // The end counts, whether or not there is memory to tell of it.
  RunLogged(dependencies_.log, socket_.Events.Owner, [&] {
    owner_.OnSideFailure(*this, error, description);
    if (error == tls_error::kTooManyHandshakes) {
      return Log(log_level::kErrors, "Too many TLS handshakes. Closing connection.");
    }
    Log(log_level::kErrors, "Error " + std::to_string(error) + ". " + std::string(description));
  });
}

void SessionSide::Close() {
  RunLogged(dependencies_.log, socket_.Events.Owner, [this] { SendHeld(); });
  readable_ = false;
  end_.reset();
  if (socket_.State() == SocketState::sckClosed) return;
  if (WasConnected()) {
    RunLogged(dependencies_.log, socket_.Events.Owner, [this] {
      Log(log_level::kConnection,
          "Disconnected. Bytes received/sent: " + std::to_string(socket_.BytesReceived()) + "/" +
              std::to_string(socket_.BytesSent()));
    });
  }
  socket_.CloseSck();
}

void SessionSide::Log(std::int32_t level, std::string_view text) const {
  const Configuration& c = dependencies_.configuration;
  const bool is_client = peer_ == Peer::kClient;
  if (((is_client ? c.LogLevelRemote : c.LogLevelServer) & level) == 0) return;
  FormatSessionLine(dependencies_.log_line, is_client ? "R: " : "S: ", socket_.SocketHandle(),
                    socket_.RemoteAddress(), text, LogMark(level));
  dependencies_.log.LogLine(dependencies_.log_line);
}

}  // namespace trabex

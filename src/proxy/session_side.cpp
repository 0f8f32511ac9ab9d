#include "proxy/session_side.h"

#include <array>
#include <memory>
#include <utility>

#include "proxy/session_log.h"

namespace trabex {

namespace {

// The sources under which the log knows the handlers of both sides, by event.
constexpr std::array<std::array<std::string_view, 5>, 2> kSources = {{
    {"cProxy.Receiver_Connect", "cProxy.Receiver_DataArrival", "cProxy.Receiver_SendComplete",
     "cProxy.Receiver_Error", "cProxy.Receiver_CloseSck"},
    {"cProxy.Sender_Connect", "cProxy.Sender_DataArrival", "cProxy.Sender_SendComplete",
     "cProxy.Sender_Error", "cProxy.Sender_CloseSck"},
}};

}  // namespace

SessionSide::SessionSide(Peer peer, SessionDependencies& dependencies, Owner& owner)
    : peer_(peer), dependencies_(dependencies), owner_(owner), socket_(dependencies.sockets) {
  socket_.Events.Connect = [this] { Notify(Event::kConnect); };
  socket_.Events.DataArrival = [this] {
    readable_ = true;
    Notify(Event::kDataArrival);
  };
  socket_.Events.SendComplete = [this] {
    sending_ = false;
    sent_at_once_ = in_send_;
    if (!in_send_) Notify(Event::kSendComplete);
  };
  socket_.Events.Error = [this](int number, std::string& description, const std::string&, bool&) {
    NoteFailure(number, description);
    if (!in_send_) Notify(Event::kError);
  };
  socket_.Events.CloseSck = [this] {
    end_ = End::kClosed;
    Notify(Event::kCloseSck);
  };
}

void SessionSide::Notify(Event event) {
  if (event == Event::kConnect) connected_ = true;
  RunLogged(dependencies_.log, kSources[static_cast<std::size_t>(peer_)][static_cast<std::size_t>(event)],
            [&] { owner_.OnSideEvent(*this, event); });
}

std::string_view SessionSide::Peek(std::int32_t limit) {
  return socket_.PeekView(limit);
}

void SessionSide::Take(std::size_t used, std::size_t size) {
  readable_ = used > 0 && used < size;
  if (used > 0) socket_.Consume(static_cast<std::int32_t>(used));
}

std::string SessionSide::TakeAll() {
  readable_ = false;
  std::string data;
  socket_.GetData(data);
  return data;
}

void SessionSide::Send(std::string_view bytes, bool more_follows) {
  if (!IsConnected()) return;
  sending_ = true;
  sent_at_once_ = false;
  in_send_ = true;
  const auto leave = [](bool* in_send) { *in_send = false; };
  const std::unique_ptr<bool, decltype(leave)> until_it_returns(&in_send_, leave);
  socket_.SendData(bytes, more_follows);
}

void SessionSide::NoteFailure(int error, std::string_view description) {
  end_ = End::kFailed;
  Log(log_level::kErrors, "Error " + std::to_string(error) + ". " + std::string(description));
}

void SessionSide::Close() {
  readable_ = false;
  end_.reset();
  if (socket_.State() == SocketState::sckClosed) return;
  if (connected_ || peer_ == Peer::kClient) {
    Log(log_level::kConnection,
        "Disconnected. Bytes received/sent: " + std::to_string(socket_.BytesReceived()) + "/" +
            std::to_string(socket_.BytesSent()));
  }
  socket_.CloseSck();
}

bool SessionSide::Logs(std::int32_t level) const {
  const Configuration& c = dependencies_.configuration;
  return ((peer_ == Peer::kClient ? c.LogLevelRemote : c.LogLevelServer) & level) != 0;
}

void SessionSide::Log(std::int32_t level, std::string_view text) const {
  if (!Logs(level)) return;
  dependencies_.log.LogLine(FormatSessionLine(peer_ == Peer::kClient ? "R: " : "S: ", socket_.SocketHandle(),
                                              socket_.RemoteAddress(), text, LogMark(level)));
}

}  // namespace trabex

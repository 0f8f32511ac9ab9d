#include "report/status_http.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "report/http_request.h"

namespace trabex {

// It removes itself when it is done.
class StatusHttp::Connection final : public DeferredDeletable {
 public:
  Connection(StatusHttp& owner, std::int32_t request)
      : owner_(owner), socket_(owner.module_), time_(owner.loop_, kMaxTime, [this] { End(); }) {
    socket_.Events.Owner = "StatusHttp.Connection";
    socket_.Events.DataArrival = [this] { Take(); };
    socket_.Events.SendComplete = [this] {
      sent_ = true;
      if (!in_send_) End();
    };
    socket_.Events.CloseSck = [this] { End(); };
    socket_.Events.Error = [this](int, std::string&, const std::string&, bool&) {
      if (!in_send_) End();
    };
    socket_.Accept(request);
    time_.Enable();
  }

  // What was said still reaches the client, in the background.
  void CloseSocket() {
    time_.Disable();
    socket_.CloseSck();
  }

 private:
  void Take() {
    if (answered_) return;
    std::string bytes;
    socket_.GetData(bytes, static_cast<std::int32_t>(HttpRequest::kMaxSize - received_.size()));
    received_.append(bytes);
    const std::string response = owner_.Respond(received_);
    if (response.empty()) return;
    answered_ = true;
    in_send_ = true;
    socket_.SendData(response);
    in_send_ = false;
    if (sent_ || socket_.State() != SocketState::sckConnected) End();
  }

  void End() { owner_.Remove(*this); }

  StatusHttp& owner_;
  CSocketMaster socket_;
  Timer time_;
  std::string received_;
  bool answered_ = false;
  bool in_send_ = false;
  bool sent_ = false;
};

StatusHttp::StatusHttp(modSocketMaster& module, EventLoop& loop, Answers answers)
    : module_(module), loop_(loop), answers_(std::move(answers)) {}

StatusHttp::~StatusHttp() = default;

std::optional<Error> StatusHttp::Listen(const Endpoint& endpoint) {
  if (listener_ && endpoint_ == endpoint) return std::nullopt;
  Close();
  auto listener = std::make_unique<CSocketMaster>(module_);
  std::optional<Error> failure;
  listener->Events.Error = [&failure](int number, std::string& description, const std::string& source,
                                      bool&) { failure.emplace(number, source, description); };
  try {
    listener->Bind(endpoint.port, FormatIPAddress(endpoint.address));
    if (!failure) listener->Listen();
  } catch (const Error& error) {
    return error;
  }
  if (failure) return failure;
  listener->Events.ConnectionRequest = [this](std::int32_t request) { ConnectionRequest(request); };
  listener->Events.Error = [this](int, std::string& description, const std::string&, bool&) {
    const std::string reason = description;
    CloseListener();
    answers_.failed(reason);
  };
  listener_ = std::move(listener);
  endpoint_ = endpoint;
  return std::nullopt;
}

void StatusHttp::Close() {
  CloseListener();
  for (auto& connection : std::exchange(connections_, {})) {
    connection->CloseSocket();
    loop_.DeferredDelete(std::move(connection));
  }
}

// The listener's own event may be the caller.
void StatusHttp::CloseListener() {
  struct Discarded final : DeferredDeletable {
    std::unique_ptr<CSocketMaster> socket;
  };
  if (!listener_) return;
  listener_->CloseSck();
  auto discarded = std::make_unique<Discarded>();
  discarded->socket = std::move(listener_);
  loop_.DeferredDelete(std::move(discarded));
}

std::uint16_t StatusHttp::Port() const {
  return listener_ ? static_cast<std::uint16_t>(listener_->LocalPort()) : std::uint16_t{0};
}

void StatusHttp::ConnectionRequest(std::int32_t request) {
  if (connections_.size() < kMaxConnections) {
    connections_.push_back(std::make_unique<Connection>(*this, request));
    return;
  }
  CSocketMaster refused(module_);
  refused.Accept(request);
}

// "" as long as the request has not come whole.
std::string StatusHttp::Respond(std::string_view bytes) const {
  const HttpRequest request = ParseHttpRequest(bytes);
  switch (request.state) {
    case HttpRequest::State::kIncomplete:
      return {};
    case HttpRequest::State::kBad:
      return HttpResponse("400 Bad Request", "Bad request.\n");
    case HttpRequest::State::kTooLong:
      return HttpResponse("431 Request Header Fields Too Large", "Request too long.\n");
    case HttpRequest::State::kWhole:
      break;
  }
  const bool only_fields = request.method == "HEAD";
  const bool is_health = request.path == "/healthz";
  if (!is_health && request.path != "/metrics") {
    return HttpResponse("404 Not Found", "Not found.\n", {}, only_fields);
  }
  if (request.method != "GET") {
    return HttpResponse("405 Method Not Allowed", "Method not allowed.\n", "Allow: GET\r\n", only_fields);
  }
  if (!is_health) return HttpResponse("200 OK", answers_.metrics());
  const std::string reason = answers_.why_not_healthy();
  return reason.empty() ? HttpResponse("200 OK", "OK\n")
                        : HttpResponse("503 Service Unavailable", reason + "\n");
}

void StatusHttp::Remove(Connection& connection) {
  const auto found = std::find_if(connections_.begin(), connections_.end(),
                                  [&](const auto& other) { return other.get() == &connection; });
  if (found == connections_.end()) return;
  std::unique_ptr<Connection> removed = std::move(*found);
  connections_.erase(found);
  removed->CloseSocket();
  loop_.DeferredDelete(std::move(removed));
}

}  // namespace trabex

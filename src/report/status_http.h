// A listener for HTTP at which a monitoring system asks how the program does: GET /metrics gives the counters,
// GET /healthz whether mail passes. It takes few connections, each for a short time and one request, so that
// nobody there is a burden to the mail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/endpoint.h"
#include "base/error.h"
#include "net/CSocketMaster.h"
#include "net/modSocketMaster.h"
#include "platform/event_loop.h"

namespace trabex {

class StatusHttp {
 public:
  static constexpr std::size_t kMaxConnections = 8;
  // From its beginning on a connection has so long for everything.
  static constexpr Milliseconds kMaxTime{5000};

  struct Answers {
    std::function<std::string()> metrics;
    // Why mail does not pass; "" when it does.
    std::function<std::string()> why_not_healthy;
    // The listener has failed, and is closed.
    std::function<void(const std::string& description)> failed;
  };

  // `module` and `loop` outlive the object.
  StatusHttp(modSocketMaster& module, EventLoop& loop, Answers answers);
  ~StatusHttp();
  StatusHttp(const StatusHttp&) = delete;
  StatusHttp& operator=(const StatusHttp&) = delete;

  // Listens there and nowhere else; where it listens already, that goes on. Returns why it cannot.
  std::optional<Error> Listen(const Endpoint& endpoint);
  // Listens nowhere; connections that are there are broken off.
  void Close();
  bool Listening() const { return listener_ != nullptr; }
  // The port that it listens on, also when the system has chosen it; 0: it does not.
  std::uint16_t Port() const;
  std::size_t Connections() const { return connections_.size(); }

 private:
  class Connection;

  void ConnectionRequest(std::int32_t request);
  std::string Respond(std::string_view bytes) const;
  void Remove(Connection& connection);
  void CloseListener();

  modSocketMaster& module_;
  EventLoop& loop_;
  Answers answers_;
  Endpoint endpoint_;
  std::unique_ptr<CSocketMaster> listener_;
  std::vector<std::unique_ptr<Connection>> connections_;
};

}  // namespace trabex

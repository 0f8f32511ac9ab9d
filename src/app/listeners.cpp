#include "app/listeners.h"

#include <algorithm>
#include <utility>

#include "platform/bind_errors.h"

namespace trabex {

namespace {

// What has no address is bound anew each time, and fails each time.
bool SameSocket(const ListenEndpoint& a, const ListenEndpoint& b) {
  return !a.address.IsNone() && a.address == b.address && a.port == b.port;
}

bool Contains(const std::vector<ListenEndpoint>& endpoints, const ListenEndpoint& wanted) {
  return std::any_of(endpoints.begin(), endpoints.end(),
                     [&](const ListenEndpoint& endpoint) { return SameSocket(endpoint, wanted); });
}

}  // namespace

Listeners::Listeners(modSocketMaster& module, Events events) : module_(module), events_(std::move(events)) {}

std::optional<ListenFailure> Listeners::Listen(const std::vector<ListenEndpoint>& endpoints) {
  std::erase_if(listeners_, [&](const std::unique_ptr<Listener>& listener) {
    return !Contains(endpoints, listener->endpoint);
  });
  for (const ListenEndpoint& endpoint : endpoints) {
    if (Listener* const listener = Find(endpoint)) {
      listener->endpoint = endpoint;  // it may be one of TLS now
      continue;
    }
    try {
      Open(endpoint);
    } catch (const Error& error) {
      listeners_.clear();
      return ListenFailure{endpoint, error};
    }
  }
  return std::nullopt;
}

std::optional<ListenFailure> Listeners::WhyNot(const std::vector<ListenEndpoint>& endpoints) const {
  // One of our own that is in the way, but closes before.
  const auto makes_room = [&](const ListenEndpoint& endpoint) {
    return std::any_of(listeners_.begin(), listeners_.end(), [&](const auto& listener) {
      return listener->endpoint.port == endpoint.port && !Contains(endpoints, listener->endpoint);
    });
  };
  std::vector<std::unique_ptr<CSocketMaster>> tried;  // they may be in each other's way
  for (const ListenEndpoint& endpoint : endpoints) {
    if (Find(endpoint) != nullptr) continue;
    try {
      tried.push_back(std::make_unique<CSocketMaster>(module_));
      Bind(*tried.back(), endpoint);
      tried.back()->Listen();
    } catch (const Error& error) {
      if (!MayBeTaken(error.Number()) || !makes_room(endpoint)) {
        return ListenFailure{endpoint, error};
      }
    }
  }
  return std::nullopt;
}

void Listeners::Close() {
  for (const auto& listener : listeners_) listener->socket.CloseSck();
}

Listeners::Listener* Listeners::Find(const ListenEndpoint& endpoint) const {
  const auto found = std::find_if(listeners_.begin(), listeners_.end(), [&](const auto& listener) {
    return SameSocket(endpoint, listener->endpoint);
  });
  return found == listeners_.end() ? nullptr : found->get();
}

void Listeners::Open(const ListenEndpoint& endpoint) {
  auto listener = std::make_unique<Listener>(module_, endpoint);
  CSocketMaster& socket = listener->socket;
  socket.Events.ConnectionRequest = [this, &known = *listener](std::int32_t requestID) {
    events_.ConnectionRequest(requestID, known.endpoint.tls);
  };
  Bind(socket, endpoint);
  socket.Listen();
  socket.Events.Error = [this](int number, std::string& description, const std::string&, bool&) {
    events_.Error(number, description);
  };
  listeners_.push_back(std::move(listener));
}

void Listeners::Bind(CSocketMaster& socket, const ListenEndpoint& endpoint) {
  // A socket that cannot even be opened, as where the system has no IPv6, is told by the event.
  std::optional<Error> failure;
  socket.Events.Error = [&failure](int number, std::string& description, const std::string& source, bool&) {
    failure.emplace(number, source, description);
  };
  socket.Bind(endpoint.port, endpoint.host);
  socket.Events.Error = nullptr;
  if (failure) throw Error(*failure);
}

}  // namespace trabex

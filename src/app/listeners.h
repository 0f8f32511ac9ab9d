// The listening sockets of the program, one for each address and port.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/listen_endpoints.h"
#include "base/error.h"
#include "net/CSocketMaster.h"
#include "net/modSocketMaster.h"

namespace trabex {

struct ListenFailure {
  ListenEndpoint endpoint;
  Error error;
};

class Listeners {
 public:
  struct Events {
    // A connection waits on a listener; `tls`: on one of TLS. The number is for CSocketMaster::Accept.
    std::function<void(std::int32_t requestID, bool tls)> ConnectionRequest;
    // A listener has failed.
    std::function<void(int number, const std::string& description)> Error;
  };

  // `module` outlives the object.
  Listeners(modSocketMaster& module, Events events);
  Listeners(const Listeners&) = delete;
  Listeners& operator=(const Listeners&) = delete;

  // Listens on `endpoints` and nowhere else. A listener that is there already stays, so that nobody who waits
  // to be accepted is turned away; those that are not wanted any more close before new ones open, since these
  // may need their ports. Returns the first endpoint that could not be listened on and why; then nothing
  // listens any more. Not called from a listener's event.
  std::optional<ListenFailure> Listen(const std::vector<ListenEndpoint>& endpoints);
  // What would keep Listen from success, as far as it can be told while the present listeners are there; changes
  // nothing.
  std::optional<ListenFailure> WhyNot(const std::vector<ListenEndpoint>& endpoints) const;
  // Nothing listens any more. May be called from a listener's event.
  void Close();

 private:
  struct Listener {
    Listener(modSocketMaster& module, const ListenEndpoint& the_endpoint)
        : endpoint(the_endpoint), socket(module) {}
    ListenEndpoint endpoint;
    CSocketMaster socket;
  };

  Listener* Find(const ListenEndpoint& endpoint) const;
  void Open(const ListenEndpoint& endpoint);
  static void Bind(CSocketMaster& socket, const ListenEndpoint& endpoint);

  modSocketMaster& module_;
  Events events_;
  std::vector<std::unique_ptr<Listener>> listeners_;
};

}  // namespace trabex

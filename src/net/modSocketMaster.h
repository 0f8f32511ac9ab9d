// The machinery under every CSocketMaster: the registry that maps a socket to its object, connections that
// were accepted and not yet claimed, sockets that are closing in the background, and the error texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "base/log.h"
#include "platform/name_lookup.h"
#include "platform/sockets.h"

namespace trabex {

class CSocketMaster;

// The text of a socket error number; "Unknown error." for any other.
std::string_view SocketErrorText(int number);

class modSocketMaster {
 public:
  // All references outlive this object. `log` gets errors that leave an event handler, and the line that says
  // that descriptors have run out.
  modSocketMaster(Sockets& sockets, NameLookup& names, Log& log);
  ~modSocketMaster();
  modSocketMaster(const modSocketMaster&) = delete;
  modSocketMaster& operator=(const modSocketMaster&) = delete;

  // How many closed sockets are still being ended in order.
  std::size_t LingeringCount() const;
  // `emptied` is called from the loop when the last lingering socket has gone; at once from the loop when
  // there is none.
  void WhenNoneLingers(std::function<void()> emptied);

 private:
  friend class CSocketMaster;
  // (filled in by the implementation)
};

}  // namespace trabex

// What the files of CSocketMaster share.
#pragma once

#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/log.h"
#include "net/CSocketMaster.h"
#include "net/handshake_queue.h"
#include "net/socket_errors.h"

namespace trabex {

struct CSocketMaster::ColdState {
  std::string tag;
  IPAddress local_ip;              // that the socket was bound to
  std::optional<Endpoint> called;  // SetPeer
  std::string local_host_name;
  bool local_host_name_valid = false;
  // The peer's name: the answer of the last look-up, or its error.
  std::string remote_host_name;
  int remote_host_name_error = socket_error::kTryAgain;
  bool remote_host_name_failed = false;
  LookupId name_lookup = 0;
  std::function<void()> name_done;
};

struct CSocketMaster::StreamWork {
  std::optional<int> held_close;    // FD_CLOSE with this error, which waits until the input was read
  std::shared_ptr<bool> follow_up;  // while a posted follow-up is under way
  std::unique_ptr<HandshakeQueue::Place> handshake;  // while one is
};

template <class Action>
void CSocketMaster::RunProgress(const Action& action) {
  RunLogged(module_.log_, "CSocketMaster.WndProc", [&] {
    try {
      action();
    } catch (const std::bad_alloc&) {
      // A listener goes on listening.
      if (state_ != SocketState::sckResolvingHost && state_ != SocketState::sckHostResolved &&
          state_ != SocketState::sckConnecting && state_ != SocketState::sckConnected) {
        throw;
      }
      ReportError(socket_error::kNoBufferSpace, "CSocketMaster.WndProc");
    } catch (const Error& error) {
      // So says the TLS library that it has no memory.
      if (!Handshaking()) throw;
      module_.log_.LogError(error);
      ReportError(tls_error::kFailed, "CSocketMaster.WndProc");
    }
  });
}

// Every event is a border: an error of the owner's handler is logged, and this object goes on.
template <class Handler, class... Arguments>
void CSocketMaster::Raise(const Handler& handler, const char* event, Arguments&&... arguments) {
  if (!handler) return;
  try {
    handler(std::forward<Arguments>(arguments)...);
  } catch (...) {
    LogHandlerError(event);
  }
}

}  // namespace trabex

// One SMTP session: a client's connection and the one that the proxy opens to the real server on its behalf.
// (The interface that the main window uses; the session's own members follow with its implementation.)
#pragma once

#include <cstdint>
#include <string>

#include "platform/event_loop.h"
#include "proxy/session_host.h"

namespace trabex {

class cProxy final : public Retired {
 public:
  explicit cProxy(SessionHost& host);
  ~cProxy() override;

  // Takes the connection request of the listener: admission, then the connection to the server. The session
  // is in the collection before; it may have left it when this returns.
  void Init(std::int32_t requestID);
  // Ends the session when it was silent too long before its server connection stood.
  void CheckTimeout();
  // Tells the client that the service stops, then closes.
  void Shutdown();
  void Close();

  // The key in the collection.
  const std::string& Key() const;
  // For the connection table.
  std::int32_t Handle() const;
  std::int64_t BytesReceived() const;
  std::int64_t BytesSent() const;
  double Duration() const;  // days
  std::string ClientIP() const;
  std::string HostNameOrUnknown() const;
};

}  // namespace trabex

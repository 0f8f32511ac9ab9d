// What the targets of the filters put around them: a clock that does not move, and a client.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/clock.h"
#include "proxy/dialogue/session_facts.h"

namespace trabex {

// Ends the run, as a finding, where the condition does not hold.
inline void Require(bool condition) {
  if (!condition) std::abort();
}

class StandingClock final : public Clock {
 public:
  DateTime Now() const override { return 46341.70444; }
  int TimeZoneBias() const override { return -180; }
  MonotonicTime Monotonic() const override { return {}; }
};

inline constexpr IPAddress kClientAddress = IPAddress::IPv4(0xC0000207);  // 192.0.2.7

class Facts final : public SessionFacts {
 public:
  IPAddress ClientIP() const override { return kClientAddress; }
  bool IsLocalClient() const override { return local; }
  std::string ClientHostName() const override { return "mail.client.test"; }
  std::int64_t BytesSent() const override { return 0; }
  bool TlsConfigured() const override { return tls_configured; }
  bool TlsReady() const override { return tls_configured; }
  bool TlsActive() const override { return tls_active; }
  TlsTexts TlsText() const override { return {"TLSv1.3", "TLS_AES_256_GCM_SHA384", ""}; }
  bool ServerTlsActive() const override { return server_tls_active; }

  bool local = false;
  bool tls_configured = false;
  bool tls_active = false;
  bool server_tls_active = false;
};

}  // namespace trabex

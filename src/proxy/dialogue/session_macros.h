// The values of a session that replies and their changes name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "config/configuration.h"
#include "match/cReplaces.h"

#include "proxy/dialogue/dialogue_state.h"
#include "proxy/dialogue/session_facts.h"

namespace trabex {

// By the names of the macros: those of the functions, in any case, and FromDomain and RcptDomain.
class SessionValues : public MacroSource {
 public:
  virtual std::string LocalHostName() const = 0;
  virtual std::string RFCTime() const = 0;
  virtual std::string RemoteHostName() const = 0;
  virtual std::string RemoteHostIP() const = 0;
  virtual std::string HeloDomain() const = 0;
  virtual std::string BytesReceived() const = 0;
  virtual std::string BytesSent() const = 0;
  virtual std::string From() const = 0;
  virtual std::string Rcpt() const = 0;
  virtual std::string MaxSize() const = 0;
  virtual std::string Size() const = 0;

  std::optional<std::string> Value(std::string_view name) const final;
};

// All references outlive it; it holds nothing itself.
class SessionMacros final : public SessionValues {
 public:
  SessionMacros(const Configuration& configuration, const Clock& clock, const SessionFacts& facts,
                const RequestedState& requested, const OfferedState& offered, std::int64_t bytes_received)
      : configuration_(configuration),
        clock_(clock),
        facts_(facts),
        requested_(requested),
        offered_(offered),
        bytes_received_(bytes_received) {}

  std::string LocalHostName() const override { return configuration_.LocalHostName; }
  std::string RFCTime() const override { return clock_.RFCDate(); }
  std::string RemoteHostName() const override { return facts_.ClientHostNameOrUnknown(); }
  std::string RemoteHostIP() const override { return FormatIPAddress(facts_.ClientIP()); }
  std::string HeloDomain() const override { return requested_.HeloDomain; }
  std::string BytesReceived() const override { return std::to_string(bytes_received_); }
  std::string BytesSent() const override { return std::to_string(facts_.BytesSent()); }
  std::string From() const override { return requested_.Sender; }
  std::string Rcpt() const override { return requested_.Recipient; }
  std::string MaxSize() const override { return FormatWhole(offered_.SizeLimit); }
  std::string Size() const override { return FormatWhole(requested_.DeclaredSize); }

 private:
  const Configuration& configuration_;
  const Clock& clock_;
  const SessionFacts& facts_;
  const RequestedState& requested_;
  const OfferedState& offered_;
  std::int64_t bytes_received_;
};

}  // namespace trabex

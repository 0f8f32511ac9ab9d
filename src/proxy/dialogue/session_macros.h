// The values of a session that replies and their changes name.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "config/configuration.h"
#include "match/cReplaces.h"
#include "platform/clock.h"
#include "proxy/dialogue/session_facts.h"
#include "proxy/dialogue/session_state.h"

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
                const SessionState& state)
      : configuration_(configuration), clock_(clock), facts_(facts), state_(state) {}

  std::string LocalHostName() const override { return configuration_.LocalHostName; }
  std::string RFCTime() const override { return clock_.RFCDate(); }
  std::string RemoteHostName() const override { return facts_.ClientHostNameOrUnknown(); }
  std::string RemoteHostIP() const override { return FormatIPAddress(facts_.ClientIP()); }
  std::string HeloDomain() const override { return state_.HeloDomain; }
  std::string BytesReceived() const override { return std::to_string(facts_.BytesReceived()); }
  std::string BytesSent() const override { return std::to_string(facts_.BytesSent()); }
  std::string From() const override { return state_.Sender; }
  std::string Rcpt() const override { return state_.Recipient; }
  std::string MaxSize() const override { return FormatWhole(state_.SizeLimit); }
  std::string Size() const override { return FormatWhole(state_.DeclaredSize); }

 private:
  const Configuration& configuration_;
  const Clock& clock_;
  const SessionFacts& facts_;
  const SessionState& state_;
};

}  // namespace trabex

// A program to be looked at, made of what a test says.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/ip_address.h"
#include "view/connection_row.h"
#include "view/view_source.h"

namespace trabex {

struct FakeSession {
  SessionId id = 0;
  std::int32_t handle = 1;
  std::int64_t received = 0;
  std::int64_t sent = 0;
  std::string address = "192.0.2.1";
  std::string name = {};
  std::string helo = {};
  std::string sender = {};
  std::string recipient = {};
  SessionState state = SessionState::kIdle;
  std::vector<std::string> accepted = {};
};

class FakeSource final : public ViewSource {
 public:
  std::string Status() const override { return "0.0.0.0:25 --> 127.0.0.1:2525"; }
  std::string Version() const override { return "v. 3.04.012"; }
  std::string Header() const override { return std::string(kConnectionHeader); }
  std::size_t SessionCount() const override { return sessions.size(); }
  SessionId SessionAt(std::size_t index) const override { return sessions.at(index).id; }
  SessionSnapshot SnapshotAt(std::size_t index) const override {
    ++looked_at;
    const FakeSession& session = sessions.at(index);
    SessionSnapshot snapshot;
    snapshot.id = session.id;
    snapshot.client_handle = session.handle;
    snapshot.client = IP(session.address);
    snapshot.name = session.name;
    snapshot.helo = session.helo;
    snapshot.in_transaction = !session.sender.empty();
    snapshot.sender = session.sender;
    snapshot.recipient = session.recipient;
    snapshot.state = session.state;
    snapshot.client_bytes = {.in = session.received, .out = session.sent};
    snapshot.last_command = "RCPT";
    snapshot.last_reply = "250 2.1.5 Ok";
    snapshot.time_in_state = std::chrono::seconds(12);
    snapshot.age = std::chrono::seconds(75);
    accepted_.first.Clear();
    for (const std::string& mailbox : session.accepted) accepted_.first.Add(mailbox);
    accepted_.count = static_cast<std::int64_t>(session.accepted.size());
    if (!session.accepted.empty()) snapshot.recipients = &accepted_;
    return snapshot;
  }
  std::string RowText(std::size_t index) const override {
    ++rows_made;
    const FakeSession& session = sessions.at(index);
    return ConnectionRow(session.handle, session.received, session.sent, 0, IP(session.address),
                         session.name.empty() ? "Unknown" : session.name);
  }
  Totals CurrentTotals() const override {
    Totals now = totals;
    now.open = sessions.size();
    return now;
  }
  MinuteCounts Minutes() const override { return minutes; }
  const RecentRefusals& Refusals() const override { return refusals; }
  int TimeZoneBias() const override { return -180; }
  bool CloseSession(SessionId id) override {
    const auto found = std::find_if(sessions.begin(), sessions.end(),
                                    [id](const FakeSession& session) { return session.id == id; });
    if (found == sessions.end()) return false;
    sessions.erase(found);
    return true;
  }

  // With the ids `first` and on; the handles are the same numbers.
  void AddSessions(std::size_t count, SessionId first = 1) {
    for (std::size_t i = 0; i < count; ++i) {
      FakeSession& session = sessions.emplace_back();
      session.id = first + i;
      session.handle = static_cast<std::int32_t>(session.id);
    }
  }

  std::vector<FakeSession> sessions;
  Totals totals;
  MinuteCounts minutes{};
  RecentRefusals refusals;
  mutable std::size_t looked_at = 0;
  mutable std::size_t rows_made = 0;

 private:
  mutable AcceptedRecipients accepted_;
};

}  // namespace trabex

// Counts what happens in sessions, and writes it into the JSON log.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/text_list.h"
#include "platform/clock.h"
#include "proxy/session_id.h"
#include "proxy/session_observer.h"
#include "report/counters.h"
#include "report/json_line.h"
#include "report/json_log.h"
#include "report/recent_refusals.h"

namespace trabex {

class SessionReport final : public SessionObserver {
 public:
  // So many recipients are listed of a message; the others are counted.
  static constexpr std::size_t kMaxListed = 1000;

  // All outlive it.
  SessionReport(Counters& counters, JsonLog& json, const Clock& clock)
      : counters_(counters), json_(json), clock_(clock) {}

  // Why the latest attempt to reach the server failed; "" when it succeeded, or there was none yet.
  const std::string& ServerFailure() const { return server_failure_; }

  // The latest refusals, of all sessions.
  const RecentRefusals& Refusals() const { return refusals_; }

  void OnBegin(const cProxy& session) override;
  void OnCommand(const cProxy& session) override;
  void OnOwnReply(const cProxy& session, const OwnReply& reply) override;
  void OnGreylisting(const cProxy& session, const GreylistVerdict& verdict, bool callback,
                     const RequestedState& requested) override;
  void OnServerReply(const cProxy& session, Command command, std::string_view reply) override;
  void OnTransaction(const cProxy& session, const RequestedState& requested) override;
  void OnRecipient(const cProxy& session, RecipientResult result, std::string_view mailbox) override;
  void OnContent(const cProxy& session, std::size_t octets) override;
  void OnMessage(const cProxy& session, std::string_view reply) override;
  void OnServerConnected(const cProxy& session, std::chrono::nanoseconds time) override;
  void OnServerNotReached(const cProxy& session, int error, std::string_view description) override;
  void OnFailure(const cProxy& session, bool with_client, int error, std::string_view description) override;
  void OnServerLeft(const cProxy& session, const TransferredBytes& bytes) override;
  void OnEnd(const cProxy& session, SessionEnd how, const TransferredBytes& client) override;

 private:
  // What the JSON log tells of a session in the end, kept only while there is such a log. Its texts keep their
  // memory for the next session.
  struct Record {
    std::string head;  // what all lines of the session have, as a line of its own; "": not written yet
    std::int64_t commands = 0;
    std::int64_t messages = 0;
    TransferredBytes server;
    std::int32_t server_handle = -1;
    // Of the message under way.
    MonotonicTime began{};
    std::string from;
    TextList recipients;
    TextList refused;
    std::int64_t recipients_count = 0;
    std::int64_t refused_count = 0;
    std::int64_t octets = 0;

    void BeginSession();
    // -1 leaves the one before.
    void SetServerHandle(std::int32_t handle);
    void BeginMessage(std::string_view sender, MonotonicTime now);
    // Of its texts, in bytes.
    std::size_t Memory() const { return from.capacity() + recipients.Memory() + refused.Memory(); }
  };
  using Records = std::unordered_map<SessionId, Record>;

  // nullptr when there is no JSON log.
  Record* RecordOf(const cProxy& session);
  Record& NewRecord(SessionId session);
  void EndRecord(SessionId session);
  JsonLine& BeginLine(std::string_view event, const cProxy& session);
  struct RefusedAddresses;
  static RefusedAddresses AddressesOf(const OwnReply& reply, std::string_view stage);
  void KeepRefusal(const cProxy& session, const OwnReply& reply, const RefusedAddresses& addresses);
  void WriteRefusal(const cProxy& session, const OwnReply& reply, std::string_view stage,
                    const RefusedAddresses& addresses);
  void WriteFailure(const cProxy& session, std::string_view side, int error, std::string_view description);

  Counters& counters_;
  JsonLog& json_;
  const Clock& clock_;
  std::string server_failure_;
  RecentRefusals refusals_;
  Records records_;
  std::vector<Records::node_type> spare_records_;
  SessionId latest_id_ = 0;  // whose record latest_ is
  Record* latest_ = nullptr;
  // Used again for each line.
  std::string entry_;
  JsonTime delayed_until_;
  JsonTime expires_;
};

}  // namespace trabex

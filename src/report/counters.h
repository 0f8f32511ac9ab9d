// What the program counts while it runs. Counting is an increment of one of these; the texts are made when
// somebody asks (report/status_text.h).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "proxy/dialogue/command_table.h"
#include "proxy/dialogue/policy_replies.h"
#include "report/histogram.h"

namespace trabex {

// A reply of the proxy's own as it is counted: by its response key, a member of a family by its own.
struct CountedReply {
  ReplyKind kind;
  std::string_view key;
  std::string_view code;  // of the table; what the settings change of it is not counted apart
};

// Each of them once. Replies without a key are not counted.
const std::vector<CountedReply>& CountedReplies();
// The place in CountedReplies of a reply of `kind`; `key` is its response key, "" the kind's own. The size of
// CountedReplies for one that is not counted.
std::size_t CountedReplyIndex(ReplyKind kind, std::string_view key);

template <std::size_t size>
using CountArray = std::array<std::uint64_t, size>;

struct Counters {
  static constexpr std::size_t kCommands = static_cast<std::size_t>(Command::kXforward) + 1;

  // The first index of those with two is the origin: 0 local, 1 remote.
  CountArray<2> sessions{};
  CountArray<8> sessions_ended{};  // by SessionEnd
  std::uint64_t sessions_peak = 0;
  std::vector<std::uint64_t> replies = std::vector<std::uint64_t>(CountedReplies().size());
  std::array<CountArray<4>, kCommands> server_replies{};  // by command, and class less 2
  CountArray<2> messages{};
  std::array<CountArray<5>, 2> recipients{};  // by RecipientResult
  std::array<CountArray<2>, 2> bytes{};       // of connections that have ended: client, server; in, out
  CountArray<7> greylisting{};                // by GreylistingResult
  CountArray<2> greylisting_saves{};          // ok, error
  std::int64_t greylisting_last_save = 0;     // seconds since 1970, universal; 0: none yet
  std::array<CountArray<4>, 2> lookups{};     // name, address; by LookupResult
  Histogram lookup_time;
  Histogram server_connect_time;
  std::uint64_t server_connect_failures = 0;
  Histogram turn_time;
  CountArray<2> reloads{};     // ok, error
  bool last_reload_ok = true;  // true before the first one
  std::int64_t configuration_errors = 0;
};

enum class LookupResult : std::uint8_t { kFound, kNone, kFailed, kTimedOut };

// What is asked for when the text is made.
struct StatusNow {
  std::string_view version;
  std::int64_t start_time = 0;  // seconds since 1970, universal
  std::size_t sessions_open = 0;
  std::array<CountArray<2>, 2> bytes_open{};  // of the connections that are open; as Counters::bytes
  std::size_t greylisting_records = 0;
  CountArray<2> log_lines_lost{};  // text, json
  std::int64_t descriptors_open = 0;
  std::int64_t descriptors_limit = 0;
};

}  // namespace trabex

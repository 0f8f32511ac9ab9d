// Which sessions the table shows, and in which order. With thousands of them most of the work of an update is left
// to the next ones: as long as there is neither a filter nor a sort key nothing is looked at, and otherwise so many
// sessions are looked at anew in each update, in turn.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "proxy/session_id.h"
#include "report/session_snapshot.h"
#include "view/view_source.h"

namespace trabex {

enum class SortColumn : std::uint8_t {
  kArrival,  // the order in which the sessions came
  kHandle,
  kReceived,
  kSent,
  kDuration,
  kAddress,
  kName,
  kState,
  kHelo,
  kSender,
  kRecipient,
};
inline constexpr std::size_t kSortColumns = 11;

// As people read it: "bytes received".
std::string_view SortColumnName(SortColumn column);

class SessionOrder {
 public:
  // So many sessions at most are looked at in an update: those that were never looked at, or as many as this again. Of
  // thousands of them most lie in no cache, and each look costs close to a microsecond.
  static constexpr std::size_t kMaxLookedAt = 700;
  static constexpr std::size_t kMaxLookedAtAgain = 600;

  // `text` is looked for, without regard to ASCII case, in address, name, HELO, sender and recipients; "": all
  // sessions are shown.
  void SetFilter(std::string_view text);
  const std::string& Filter() const { return filter_; }
  void SetSort(SortColumn column, bool reversed);
  SortColumn Sort() const { return sort_; }
  bool Reversed() const { return reversed_; }
  // While frozen the sessions and their order stay, also those that have ended. Takes the order of the latest update.
  void Freeze(bool frozen, const ViewSource& source);
  bool Frozen() const { return frozen_; }

  // Follows the sessions of `source`. The indices of the order are good until the next update.
  void Update(const ViewSource& source);
  // Whether sessions are left that no update has looked at since the filter or the sort key was set, or since they
  // came.
  bool IsUnfinished() const { return not_looked_at_ > 0; }

  std::size_t Count() const { return count_; }
  // `index` is below Count(); `source` is that of the latest update, and unchanged.
  SessionId IdAt(std::size_t index, const ViewSource& source) const;
  // Its place in the source; nothing for a session that has ended.
  std::optional<std::size_t> SourceIndex(std::size_t index, const ViewSource& source) const;
  std::optional<std::size_t> IndexOf(SessionId id, const ViewSource& source) const;

 private:
  // Enough of what is sorted by, so that whole bytes compare as it does.
  using SortKey = std::array<std::uint64_t, 4>;
  struct Entry {
    SessionId id = 0;
    SortKey key{};
    bool looked_at = false;
    bool matches = false;
    bool in_order = false;  // at its place in order_
  };

  bool LooksAtSessions() const;
  void BeginAnew();
  void Follow(const ViewSource& source);
  void LookAtSome(const ViewSource& source);
  void LookAt(Entry& entry, const SessionSnapshot& snapshot);
  void PutInOrder();
  bool IsBefore(std::uint32_t a, std::uint32_t b) const;
  bool Matches(const SessionSnapshot& snapshot) const;
  SortKey KeyOf(const SessionSnapshot& snapshot) const;
  // The place in order_ or in the source that the row `index` has; the other way round it is the same.
  std::size_t Unreversed(std::size_t index) const;

  std::string filter_;
  bool filter_may_be_address_ = false;
  SortColumn sort_ = SortColumn::kArrival;
  bool reversed_ = false;
  bool frozen_ = false;
  std::size_t count_ = 0;
  // Where sessions are looked at: one for each session of the source, at the same index.
  std::vector<Entry> entries_;
  std::vector<std::uint32_t> order_;  // indices of entries_
  std::vector<std::uint32_t> moved_;  // of entries before the latest update to after it, or kGone
  std::size_t next_ = 0;              // the entry whose turn it is
  std::size_t not_looked_at_ = 0;
  std::vector<SessionId> frozen_ids_;  // in the order of the rows
};

// The place in `source` of the session with this id.
std::optional<std::size_t> FindSession(SessionId id, const ViewSource& source);

}  // namespace trabex

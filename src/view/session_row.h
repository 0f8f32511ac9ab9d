// One row of the table, as the view shows it: the row of the connection table, and where there is room what else is
// known of the session behind its host name.
#pragma once

#include <cstddef>
#include <string>

#include "console/screen.h"
#include "report/session_snapshot.h"

namespace trabex {

struct SessionRow {
  std::string row;          // of the connection table
  std::size_t name_at = 0;  // where the host name begins in it
  std::string_view state;   // its name; "" of a session that nothing is known of
  SessionStateGroup group = SessionStateGroup::kOther;
  std::string helo;
  std::string sender;
  std::string recipient;
};

SessionRow MakeSessionRow(std::string row, const SessionSnapshot& snapshot);
// Of a session that has ended before anything was shown of it.
SessionRow EndedSessionRow(SessionId id);

// Where the fields are on a screen of so many columns.
class RowLayout {
 public:
  // From so many columns on the fields stand behind the host name. Below, one letter at the right end says what
  // colours say: what a session waits for, or does.
  static constexpr std::size_t kWideColumns = 100;

  explicit RowLayout(std::size_t columns);

  bool IsWide() const { return wide_; }
  ScreenLine Header(std::string_view header) const;
  ScreenLine Row(const SessionRow& row, bool selected) const;

 private:
  std::size_t columns_;
  bool wide_;
  std::size_t state_ = 0;  // the columns where they begin
  std::size_t helo_ = 0;
  std::size_t sender_ = 0;
  std::size_t recipient_ = 0;
};

// The look of a row; its sign, a letter, says the same where there are no colours. ' ': nothing to say.
Look LookOf(SessionStateGroup group);
char SignOf(SessionStateGroup group);

}  // namespace trabex

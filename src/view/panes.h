// What can stand in the place of the table: all that is known of one session, the latest refusals, the keys.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "console/screen.h"
#include "report/recent_refusals.h"
#include "report/session_snapshot.h"

namespace trabex {

// A pane's title and its lines, as many as there are.
struct Pane {
  std::string title;
  std::vector<std::string> lines;
};

Pane DetailPane(const SessionSnapshot& snapshot);

Pane KeysPane();

// The latest refusals that hold `filter` (without regard to ASCII case) in address, key, sender or recipient; "": all.
// Their indices, the latest first.
std::vector<std::size_t> MatchingRefusals(const RecentRefusals& refusals, std::string_view filter);

// The table of refusals on a screen of so many columns.
class RefusalLayout {
 public:
  explicit RefusalLayout(std::size_t columns);

  ScreenLine Header() const;
  // `bias`: universal minus local time in minutes.
  ScreenLine Row(const RefusalRecord& refusal, int bias) const;

 private:
  void PutFields(ScreenLine& line, std::string_view time, std::string_view client, std::string_view key,
                 std::string_view from, std::string_view to, Look look) const;

  std::size_t columns_;
  std::size_t client_;
  std::size_t key_;
  std::size_t from_;
  std::size_t to_;
};

}  // namespace trabex

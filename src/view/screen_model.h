// The screen of one viewer of the program: the status line, the table of sessions, and where there is room for them
// the totals, the graph of the last hour and the panes. Knows no terminal: keys and sizes go in, pictures come out.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "console/view_screen.h"
#include "view/panes.h"
#include "view/session_order.h"
#include "view/session_row.h"
#include "view/view_source.h"

namespace trabex {

class ScreenModel final : public ViewScreen {
 public:
  // From this size on there is more than the table. Below it there are no keys but those that scroll, fold and close.
  static constexpr std::size_t kMinColumns = 80;
  static constexpr std::size_t kMinRows = 24;

  // `source` outlives the screen. What a key asks of it, it asks at once.
  ScreenModel(ViewSource& source, bool folded) : source_(source), folded_(folded) {}

  void SetSize(const ViewerSize& size) override { size_ = size; }
  void TakeKey(Key key) override;
  Screen Make() override;
  bool IsUnfinished() const override { return IsRoomy() && !folded_ && !frozen_ && order_.IsUnfinished(); }
  bool Closed() const override { return closed_; }
  bool Folded() const override { return folded_; }

 private:
  enum class Shown { kTable, kDetail, kRefusals, kKeys };
  enum class Asking { kNothing, kFilter, kClose };

  bool IsRoomy() const { return size_.columns >= kMinColumns && size_.rows >= kMinRows; }
  // Of the table, or of the pane in its place.
  std::size_t VisibleRows() const;
  bool HasNote() const;

  // Keys.
  void TakeFilterKey(Key key);
  void TakeCommand(Key key);
  void TakeEscape();
  void Scroll(Key key);
  void ScrollTable(Key key);
  void ScrollPane(Key key);
  void SetSort(std::size_t column, bool reversed);
  void ToggleFrozen();
  void Unfreeze();
  void FreezeIfFinished();
  void OpenDetail();
  void AskForClose();
  void CloseAsked(Key key);
  void Show(Shown shown);
  // The session that a command is about: the selected one, or the first visible one, which is selected then.
  std::optional<SessionId> Target();

  // The order and the selection, as of now.
  void Follow();
  void FollowSelection();
  void Select(std::size_t index) { selection_ = {.index = index}; }

  // The picture.
  ScreenLine StatusLine() const;
  void AppendSmallTable(Screen& screen);
  void AppendTable(Screen& screen);
  void AppendDetail(Screen& screen);
  void AppendPane(Screen& screen, const Pane& pane);
  void AppendRefusals(Screen& screen);
  void AppendFoot(Screen& screen);
  std::string Note() const;
  SessionRow RowAt(std::size_t index);

  ViewSource& source_;
  ViewerSize size_;
  bool folded_;
  bool closed_ = false;
  Shown shown_ = Shown::kTable;
  Asking asking_ = Asking::kNothing;

  SessionOrder order_;
  std::size_t top_ = 0;  // the first visible row of the table
  struct Selection {
    std::size_t index = 0;                  // its row, which is visible
    std::optional<SessionId> session = {};  // nothing: the one that is there with the next picture
    bool not_looked_at = false;  // it is not in the order, but may come to be; then its row is another's
  };
  std::optional<Selection> selection_;
  bool freezing_ = false;  // as soon as the order is finished
  // While frozen, of the moment it began: rows that have been seen, and what stands below the table.
  bool frozen_ = false;
  std::map<SessionId, SessionRow> frozen_rows_;
  Totals frozen_totals_;
  MinuteCounts frozen_minutes_{};

  SessionId detail_ = 0;
  Pane detail_pane_;  // as it was shown last
  std::size_t pane_top_ = 0;
  std::size_t pane_lines_ = 0;       // as of the latest picture
  std::uint64_t refusals_seen_ = 0;  // likewise, all that there had been

  SessionId closing_ = 0;
  bool question_shown_ = false;  // in a picture
  std::string closing_client_;
  std::string said_;  // about the latest command, until the next key
};

}  // namespace trabex

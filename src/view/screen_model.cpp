#include "view/screen_model.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/ip_address.h"
#include "base/utf8.h"
#include "view/minute_graph.h"
#include "view/totals_line.h"

namespace trabex {

namespace {

constexpr std::size_t kStatusLines = 1;
constexpr std::size_t kHeaderLines = 1;
constexpr std::size_t kTotalsLines = 1;
constexpr std::size_t kMaxFilterBytes = 200;
constexpr Look kReverse{.reverse = true};
constexpr Look kBold{.bold = true};

// `text` with the character, if it writes one.
void AppendCharacter(Key key, std::string& text) {
  if (key < ' ' || key == key::kBackspace || key > 0x10FFFF) return;
  if (key < 0x80) {
    text += static_cast<char>(key);
  } else if (key < 0x800) {
    text += static_cast<char>(0xC0 | key >> 6);
    text += static_cast<char>(0x80 | (key & 0x3F));
  } else if (key < 0x10000) {
    text += static_cast<char>(0xE0 | key >> 12);
    text += static_cast<char>(0x80 | (key >> 6 & 0x3F));
    text += static_cast<char>(0x80 | (key & 0x3F));
  } else {
    text += static_cast<char>(0xF0 | key >> 18);
    text += static_cast<char>(0x80 | (key >> 12 & 0x3F));
    text += static_cast<char>(0x80 | (key >> 6 & 0x3F));
    text += static_cast<char>(0x80 | (key & 0x3F));
  }
}

void DropCharacter(std::string& text) {
  while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80) text.pop_back();
  if (!text.empty()) text.pop_back();
}

// Where a list with `all` lines, `visible` of them at a time, is scrolled to by `key`.
std::size_t Scrolled(Key key, std::size_t top, std::size_t visible, std::size_t all) {
  const std::size_t last = all > visible ? all - visible : 0;
  const std::size_t page = std::max<std::size_t>(visible, 1);
  switch (key) {
    case key::kUp:
      return std::min(top - std::min<std::size_t>(top, 1), last);
    case key::kDown:
      return std::min(top + 1, last);
    case key::kPageUp:
      return std::min(top - std::min(top, page), last);
    case key::kPageDown:
      return std::min(top + page, last);
    case key::kHome:
      return 0;
    case key::kEnd:
      return last;
    default:
      return std::min(top, last);
  }
}

}  // namespace

bool ScreenModel::HasNote() const {
  return asking_ != Asking::kNothing || !said_.empty() || frozen_ || !order_.Filter().empty() ||
         order_.Sort() != SortColumn::kArrival || order_.Reversed();
}

std::size_t ScreenModel::VisibleRows() const {
  if (folded_) return 0;
  std::size_t taken = kStatusLines + kHeaderLines;
  if (IsRoomy()) {
    taken += kTotalsLines + GraphLines(size_.columns, size_.rows) + (HasNote() ? 1 : 0);
  }
  return size_.rows - std::min(taken, size_.rows);
}

void ScreenModel::TakeKey(Key key) {
  if (key == key::kCtrlC) {
    closed_ = true;
    return;
  }
  if (closed_) return;
  const bool commands = IsRoomy() && !folded_;
  said_.clear();
  if (commands && asking_ == Asking::kFilter) return TakeFilterKey(key);
  if (commands && asking_ == Asking::kClose) return CloseAsked(key);
  switch (key) {
    case 'q':
      closed_ = true;
      return;
    case 'm':
      folded_ = !folded_;
      return;
    case key::kUp:
    case key::kDown:
    case key::kPageUp:
    case key::kPageDown:
    case key::kHome:
    case key::kEnd:
      return Scroll(key);
    default:
      if (commands) TakeCommand(key);
  }
}

void ScreenModel::TakeCommand(Key key) {
  switch (key) {
    case '/':
      Unfreeze();
      asking_ = Asking::kFilter;
      break;
    case 's':
      SetSort((static_cast<std::size_t>(order_.Sort()) + 1) % kSortColumns, order_.Reversed());
      break;
    case 'r':
      SetSort(static_cast<std::size_t>(order_.Sort()), !order_.Reversed());
      break;
    case ' ':
      ToggleFrozen();
      break;
    case key::kEnter:
      OpenDetail();
      break;
    case key::kTab:
      Show(Shown::kRefusals);
      break;
    case '?':
      Show(Shown::kKeys);
      break;
    case 'c':
      AskForClose();
      break;
    case key::kEscape:
      TakeEscape();
      break;
    default:
      break;
  }
}

void ScreenModel::TakeEscape() {
  if (shown_ != Shown::kTable) {
    Show(Shown::kTable);
  } else if (!order_.Filter().empty()) {
    Unfreeze();
    order_.SetFilter("");
  } else {
    selection_.reset();
  }
}

void ScreenModel::TakeFilterKey(Key key) {
  std::string text = order_.Filter();
  switch (key) {
    case key::kEnter:
      asking_ = Asking::kNothing;
      return;
    case key::kEscape:
      asking_ = Asking::kNothing;
      text.clear();
      break;
    case key::kCtrlU:
      text.clear();
      break;
    case key::kBackspace:
      DropCharacter(text);
      break;
    case key::kUp:
    case key::kDown:
    case key::kPageUp:
    case key::kPageDown:
    case key::kHome:
    case key::kEnd:
      return Scroll(key);
    default:
      if (text.size() < kMaxFilterBytes) AppendCharacter(key, text);
  }
  if (text != order_.Filter()) order_.SetFilter(text);
}

void ScreenModel::SetSort(std::size_t column, bool reversed) {
  if (shown_ != Shown::kTable) return;
  Unfreeze();
  order_.SetSort(static_cast<SortColumn>(column), reversed);
}

void ScreenModel::ToggleFrozen() {
  if (frozen_ || freezing_) return Unfreeze();
  freezing_ = true;
  FreezeIfFinished();
}

void ScreenModel::Unfreeze() {
  freezing_ = false;
  if (!std::exchange(frozen_, false)) return;
  frozen_rows_.clear();
  order_.Freeze(false, source_);
}

// Of many sessions some may not have been looked at yet; a table that stands still would never show these.
void ScreenModel::FreezeIfFinished() {
  order_.Update(source_);
  if (order_.IsUnfinished()) return;
  freezing_ = false;
  frozen_ = true;
  order_.Freeze(true, source_);
  frozen_totals_ = source_.CurrentTotals();
  frozen_totals_.server_failure = {};
  frozen_minutes_ = source_.Minutes();
  const std::size_t end = std::min(top_ + VisibleRows(), order_.Count());
  for (std::size_t i = std::min(top_, end); i < end; ++i) RowAt(i);
}

std::optional<SessionId> ScreenModel::Target() {
  if (!selection_) Select(top_);
  Follow();
  return selection_ ? selection_->session : std::nullopt;
}

void ScreenModel::OpenDetail() {
  if (shown_ == Shown::kDetail) return Show(Shown::kTable);
  if (shown_ != Shown::kTable) return;
  const std::optional<SessionId> target = Target();
  if (!target) return;
  detail_ = *target;
  detail_pane_ = {.title = "Session " + FormatSessionId(detail_), .lines = {}};
  Show(Shown::kDetail);
}

void ScreenModel::AskForClose() {
  if (shown_ != Shown::kTable && shown_ != Shown::kDetail) return;
  // The session that is seen to be selected, also when it has just ended, and not the next one.
  const std::optional<SessionId> seen = selection_ ? selection_->session : std::nullopt;
  const std::optional<SessionId> target = shown_ == Shown::kDetail ? detail_ : seen ? seen : Target();
  if (!target) return;
  const std::optional<std::size_t> index = FindSession(*target, source_);
  if (!index) {
    said_ = "Session " + FormatSessionId(*target) + " has ended.";
    return;
  }
  closing_ = *target;
  closing_client_ = FormatIPAddress(source_.SnapshotAt(*index).client);
  asking_ = Asking::kClose;
  question_shown_ = false;
}

void ScreenModel::CloseAsked(Key key) {
  // Who has not been shown which session it is has not agreed to its end.
  if (key == 'y' && !question_shown_) return;
  asking_ = Asking::kNothing;
  if (key != 'y') return;
  const std::string session = "Session " + FormatSessionId(closing_);
  said_ = session + (source_.CloseSession(closing_) ? " is closed." : " has ended.");
}

// What is shown already gives way to the table.
void ScreenModel::Show(Shown shown) {
  shown_ = shown_ == shown ? Shown::kTable : shown;
  refusals_seen_ = source_.Refusals().Count();
  pane_top_ = 0;
  pane_lines_ = 0;
}

void ScreenModel::Scroll(Key key) {
  shown_ == Shown::kTable || !IsRoomy() ? ScrollTable(key) : ScrollPane(key);
}

void ScreenModel::ScrollPane(Key key) {
  pane_top_ = Scrolled(key, pane_top_, VisibleRows(), pane_lines_);
}

// The table scrolls as far as it goes; the selection goes with it, and on to the ends. What it is about is looked at
// with the next picture only, so that many keys at once cost little.
void ScreenModel::ScrollTable(Key key) {
  const std::size_t count = IsRoomy() ? order_.Count() : source_.SessionCount();
  const std::size_t visible = VisibleRows();
  top_ = Scrolled(key, top_, visible, count);
  if (!IsRoomy() || folded_ || count == 0) return;
  const std::size_t last = count - 1;
  if (!selection_) return Select(key == key::kEnd ? last : top_);
  const std::size_t page = std::max<std::size_t>(visible, 1);
  std::size_t index = selection_->index;
  switch (key) {
    case key::kUp:
      index -= std::min<std::size_t>(index, 1);
      break;
    case key::kDown:
      index = std::min(index + 1, last);
      break;
    case key::kPageUp:
      index -= std::min(index, page);
      break;
    case key::kPageDown:
      index = std::min(index + page, last);
      break;
    case key::kHome:
      index = 0;
      break;
    default:
      index = last;
  }
  Select(std::clamp(index, top_, top_ + page - 1));
}

void ScreenModel::Follow() {
  order_.Update(source_);
  if (selection_) FollowSelection();
  const std::size_t visible = VisibleRows();
  top_ = std::min(top_, order_.Count() > visible ? order_.Count() - visible : 0);
}

// The selected session stays at its place on the screen while others come and go. When it ends, or is no longer among
// what is looked for, the one that takes its place in the table is selected.
void ScreenModel::FollowSelection() {
  Selection& selection = *selection_;
  const std::size_t line = selection.index - std::min(selection.index, top_);
  const std::optional<std::size_t> index =
      selection.session ? order_.IndexOf(*selection.session, source_) : std::nullopt;
  selection.not_looked_at =
      !index && selection.session && order_.IsUnfinished() && FindSession(*selection.session, source_);
  if (order_.Count() == 0) {
    if (!selection.not_looked_at) selection_.reset();
    return;
  }
  selection.index = index ? *index : std::min(selection.index, order_.Count() - 1);
  if (!selection.not_looked_at) selection.session = order_.IdAt(selection.index, source_);
  const std::size_t visible = std::max<std::size_t>(VisibleRows(), 1);
  top_ = selection.index - std::min({selection.index, line, visible - 1});
}

Screen ScreenModel::Make() {
  Screen screen;
  screen.lines.push_back(StatusLine());
  if (folded_) return screen;
  if (!IsRoomy()) {
    AppendSmallTable(screen);
    return screen;
  }
  // Also at a question: "q" is one of its answers.
  screen.takes_text = asking_ != Asking::kNothing;
  question_shown_ = asking_ == Asking::kClose;
  if (freezing_) FreezeIfFinished();
  Follow();
  switch (shown_) {
    case Shown::kTable:
      AppendTable(screen);
      break;
    case Shown::kDetail:
      AppendDetail(screen);
      break;
    case Shown::kRefusals:
      AppendRefusals(screen);
      break;
    case Shown::kKeys:
      AppendPane(screen, KeysPane());
      break;
  }
  AppendFoot(screen);
  return screen;
}

ScreenLine ScreenModel::StatusLine() const {
  std::string text;
  std::size_t used = AppendColumns(text, source_.Status(), size_.columns);
  std::string version;
  const std::size_t version_columns = AppendColumns(version, source_.Version(), size_.columns);
  // On a narrow terminal the status says more than the version.
  if (used + 1 + version_columns <= size_.columns) {
    text.append(size_.columns - used - version_columns, ' ').append(version);
    used = size_.columns;
  }
  text.append(size_.columns - used, ' ');
  return {{.column = 0, .look = kReverse, .text = std::move(text)}};
}

void ScreenModel::AppendSmallTable(Screen& screen) {
  const std::size_t count = source_.SessionCount();
  const std::size_t visible = VisibleRows();
  top_ = std::min(top_, count > visible ? count - visible : 0);
  Put(screen.lines.emplace_back(), 0, source_.Header(), size_.columns, kBold);
  for (std::size_t i = top_; i < std::min(top_ + visible, count); ++i) {
    Put(screen.lines.emplace_back(), 0, source_.RowText(i), size_.columns);
  }
  screen.lines.resize(std::min(screen.lines.size(), size_.rows));
}

SessionRow ScreenModel::RowAt(std::size_t index) {
  const SessionId id = order_.IdAt(index, source_);
  if (frozen_) {
    if (const auto seen = frozen_rows_.find(id); seen != frozen_rows_.end()) return seen->second;
  }
  const std::optional<std::size_t> place = order_.SourceIndex(index, source_);
  SessionRow row =
      place ? MakeSessionRow(source_.RowText(*place), source_.SnapshotAt(*place)) : EndedSessionRow(id);
  if (frozen_) frozen_rows_.emplace(id, row);
  return row;
}

void ScreenModel::AppendTable(Screen& screen) {
  const RowLayout layout(size_.columns);
  screen.lines.push_back(layout.Header(source_.Header()));
  const std::size_t visible = VisibleRows();
  for (std::size_t i = top_; i < top_ + visible; ++i) {
    ScreenLine& line = screen.lines.emplace_back();
    if (i >= order_.Count()) continue;
    const bool selected = selection_ && !selection_->not_looked_at && i == selection_->index;
    line = layout.Row(RowAt(i), selected);
  }
}

void ScreenModel::AppendDetail(Screen& screen) {
  if (!frozen_ || detail_pane_.lines.empty()) {
    if (const std::optional<std::size_t> index = FindSession(detail_, source_)) {
      detail_pane_ = DetailPane(source_.SnapshotAt(*index));
    } else {
      detail_pane_.title = "Session " + FormatSessionId(detail_) + " has ended";
    }
  }
  AppendPane(screen, detail_pane_);
}

void ScreenModel::AppendPane(Screen& screen, const Pane& pane) {
  Put(screen.lines.emplace_back(), 0, " " + pane.title, size_.columns, kBold);
  const std::size_t visible = VisibleRows();
  pane_lines_ = pane.lines.size();
  pane_top_ = std::min(pane_top_, pane_lines_ > visible ? pane_lines_ - visible : 0);
  for (std::size_t i = pane_top_; i < pane_top_ + visible; ++i) {
    ScreenLine& line = screen.lines.emplace_back();
    if (i < pane_lines_) Put(line, 0, pane.lines[i], size_.columns, {}, CutSign::kEllipsis);
  }
}

void ScreenModel::AppendRefusals(Screen& screen) {
  const RefusalLayout layout(size_.columns);
  screen.lines.push_back(layout.Header());
  const RecentRefusals& refusals = source_.Refusals();
  const std::vector<std::size_t> matching = MatchingRefusals(refusals, order_.Filter());
  // What is looked at stays where it is while new ones come above it.
  const std::uint64_t come = refusals.Count() - std::exchange(refusals_seen_, refusals.Count());
  if (pane_top_ > 0 || frozen_) {
    const auto above = std::lower_bound(matching.begin(), matching.end(), come);
    pane_top_ += static_cast<std::size_t>(above - matching.begin());
  }
  const std::size_t visible = VisibleRows();
  pane_lines_ = matching.size();
  pane_top_ = std::min(pane_top_, pane_lines_ > visible ? pane_lines_ - visible : 0);
  for (std::size_t i = pane_top_; i < pane_top_ + visible; ++i) {
    ScreenLine& line = screen.lines.emplace_back();
    if (i < pane_lines_) line = layout.Row(refusals[matching[i]], source_.TimeZoneBias());
  }
}

std::string ScreenModel::Note() const {
  if (asking_ == Asking::kFilter) return "Filter: " + order_.Filter() + "_";
  if (asking_ == Asking::kClose) {
    return "Close session " + FormatSessionId(closing_) + " of " + closing_client_ +
           "? y: yes, any other key: no";
  }
  if (!said_.empty()) return said_;
  std::string note;
  const auto add = [&note](const std::string& text) { note += (note.empty() ? "" : " | ") + text; };
  if (frozen_) add("Frozen");
  if (!order_.Filter().empty()) add("Filter: " + order_.Filter());
  if (order_.Sort() != SortColumn::kArrival || order_.Reversed()) {
    add("Sorted by " + std::string(SortColumnName(order_.Sort())) + (order_.Reversed() ? ", reversed" : ""));
  }
  return note;
}

void ScreenModel::AppendFoot(Screen& screen) {
  const MinuteCounts minutes = frozen_ ? frozen_minutes_ : source_.Minutes();
  for (ScreenLine& line : MinuteGraph(minutes, size_.columns, size_.rows, size_.plain)) {
    screen.lines.push_back(std::move(line));
  }
  if (HasNote()) Put(screen.lines.emplace_back(), 0, Note(), size_.columns, kBold, CutSign::kEllipsis);
  ShownRows shown{.all = order_.Count()};
  if (shown_ == Shown::kTable && shown.all > 0) {
    shown.first = top_ + 1;
    shown.last = std::min(top_ + VisibleRows(), shown.all);
  }
  const Totals totals = frozen_ ? frozen_totals_ : source_.CurrentTotals();
  std::string text;
  std::size_t used = AppendColumns(text, TotalsLine(totals, shown, size_.columns), size_.columns);
  constexpr std::string_view kHint = "?: keys";
  if (used + 2 + kHint.size() <= size_.columns) {
    text.append(size_.columns - used - kHint.size(), ' ').append(kHint);
    used = size_.columns;
  }
  text.append(size_.columns - used, ' ');
  screen.lines.push_back({{.column = 0, .look = kReverse, .text = std::move(text)}});
}

}  // namespace trabex

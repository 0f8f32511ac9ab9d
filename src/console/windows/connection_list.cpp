#include "console/windows/connection_list.h"

#include <algorithm>
#include <utility>

#include "console/windows/shown_text.h"

namespace trabex {

namespace {

constexpr int kPoints = 10;
constexpr int kPointsPerInch = 72;
constexpr int kMarginCells = 1;  // right of the longest row

// Nothing of what is typed is looked for: there are no names here that rows begin with.
bool IsTyped(UINT message) {
  return message == WM_CHAR || message == WM_UNICHAR || message == WM_DEADCHAR;
}

int ToInt(std::size_t number) {
  return static_cast<int>(std::min<std::size_t>(number, 100'000'000));
}

void Fill(HDC context, const RECT& area, int colour) {
  FillRect(context, &area, GetSysColorBrush(colour));
}

}  // namespace

ConnectionList::ConnectionList(HWND parent, WindowLink& link) : link_(link) {
  list_ = CreateWindowExW(0, WC_LISTVIEWW, L"Connections",
                          WS_CHILD | WS_VISIBLE | WS_TABSTOP | LVS_REPORT | LVS_OWNERDATA | LVS_SINGLESEL |
                              LVS_NOSORTHEADER | LVS_SHOWSELALWAYS,
                          0, 0, 0, 0, parent, nullptr, GetModuleHandleW(nullptr), nullptr);
  if (list_ == nullptr) return;
  SendMessageW(list_, LVM_SETEXTENDEDLISTVIEWSTYLE, 0, LVS_EX_DOUBLEBUFFER | LVS_EX_FULLROWSELECT);
  // Its only column takes whatever width the rows need.
  const HWND header = reinterpret_cast<HWND>(SendMessageW(list_, LVM_GETHEADER, 0, 0));
  SetWindowLongPtrW(header, GWL_STYLE, GetWindowLongPtrW(header, GWL_STYLE) | HDS_NOSIZING);
  LVCOLUMNW column{};
  SendMessageW(list_, LVM_INSERTCOLUMNW, 0, reinterpret_cast<LPARAM>(&column));
  SetWindowLongPtrW(list_, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
  inherited_ = reinterpret_cast<WNDPROC>(
      SetWindowLongPtrW(list_, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&ListProcedure)));
  TakeColours();
}

ConnectionList::~ConnectionList() {
  if (list_ != nullptr) DestroyWindow(list_);
}

void ConnectionList::SetFont(int dots_per_inch) {
  decltype(font_) font(CreateFontW(-MulDiv(kPoints, dots_per_inch, kPointsPerInch), 0, 0, 0, FW_NORMAL, FALSE,
                                   FALSE, FALSE, DEFAULT_CHARSET, OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS,
                                   DEFAULT_QUALITY, FIXED_PITCH | FF_MODERN, L"Courier New"));
  if (!font) return;
  const HDC context = GetDC(list_);
  const HGDIOBJ before = SelectObject(context, font.get());
  TEXTMETRICW metrics{};
  GetTextMetricsW(context, &metrics);
  SIZE extent{};
  // The average of the metrics is rounded differently from what a text takes.
  constexpr std::wstring_view kSample = L"0000000000";
  GetTextExtentPoint32W(context, kSample.data(), static_cast<int>(kSample.size()), &extent);
  SelectObject(context, before);
  ReleaseDC(list_, context);
  cell_ = {std::max(extent.cx / static_cast<int>(kSample.size()), 1L), std::max(metrics.tmHeight, 1L)};
  SendMessageW(list_, WM_SETFONT, reinterpret_cast<WPARAM>(font.get()), TRUE);
  font_ = std::move(font);
  FitColumn();
}

void ConnectionList::TakeColours() {
  SendMessageW(list_, LVM_SETBKCOLOR, 0, static_cast<LPARAM>(GetSysColor(COLOR_WINDOW)));
  InvalidateRect(list_, nullptr, TRUE);
}

void ConnectionList::Show(const WindowFrame& frame) {
  if (raw_header_ != frame.header) {
    raw_header_ = frame.header;
    SetHeader(ShownText(frame.header));
  }
  const std::size_t rows_before = std::exchange(total_rows_, frame.total_rows);
  const RowRange range_before{first_row_, rows_.size()};
  std::vector<std::wstring> rows;
  rows.reserve(frame.rows.size());
  for (const std::string& row : frame.rows) rows.push_back(ShownText(row));
  first_row_ = frame.first_row;
  const std::vector<std::wstring> before = std::exchange(rows_, std::move(rows));
  if (rows_before != total_rows_) {
    SendMessageW(list_, LVM_SETITEMCOUNT, static_cast<WPARAM>(ToInt(total_rows_)),
                 LVSICF_NOINVALIDATEALL | LVSICF_NOSCROLL);
  }
  FitColumn();
  RedrawChanges(rows_before, range_before, before);
  TellVisibleRows();
}

void ConnectionList::SetVisible(bool visible) {
  visible_ = visible;
  TellVisibleRows();
}

LRESULT ConnectionList::HandleNotification(NMHDR& notification) {
  switch (notification.code) {
    case LVN_GETDISPINFOW:
      GiveText(reinterpret_cast<NMLVDISPINFOW&>(notification));
      return 0;
    case LVN_ODFINDITEMW:
      return -1;
    case NM_CUSTOMDRAW:
      return DrawRow(reinterpret_cast<NMLVCUSTOMDRAW&>(notification));
    default:
      return 0;
  }
}

LRESULT CALLBACK ConnectionList::ListProcedure(HWND window, UINT message, WPARAM wide, LPARAM longer) {
  auto* const list = reinterpret_cast<ConnectionList*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  return list->HandleMessage(message, wide, longer);
}

LRESULT ConnectionList::HandleMessage(UINT message, WPARAM wide, LPARAM longer) {
  if (IsTyped(message)) return 0;
  if (message == WM_NOTIFY) {
    // Of the header, which is a child of the list.
    const auto& notification = *reinterpret_cast<const NMHDR*>(longer);
    if (notification.code == NM_CUSTOMDRAW) {
      return DrawHeader(reinterpret_cast<const NMCUSTOMDRAW&>(notification));
    }
  }
  const LRESULT result = CallWindowProcW(inherited_, list_, message, wide, longer);
  if (message == WM_SIZE) FitColumn();
  // Whatever scrolls, or changes the size, is followed by one.
  if (message == WM_PAINT) TellVisibleRows();
  return result;
}

LRESULT ConnectionList::DrawHeader(const NMCUSTOMDRAW& draw) {
  switch (draw.dwDrawStage) {
    case CDDS_PREPAINT:
      return CDRF_NOTIFYITEMDRAW;
    case CDDS_ITEMPREPAINT: {
      RECT area = draw.rc;
      Fill(draw.hdc, area, COLOR_BTNFACE);
      DrawEdge(draw.hdc, &area, EDGE_ETCHED, BF_BOTTOM);
      SetTextColor(draw.hdc, GetSysColor(COLOR_BTNTEXT));
      DrawFieldBounds(draw.hdc, area);
      DrawTextAt(draw.hdc, area, header_);
      return CDRF_SKIPDEFAULT;
    }
    default:
      return CDRF_DODEFAULT;
  }
}

LRESULT ConnectionList::DrawRow(const NMLVCUSTOMDRAW& draw) {
  if (draw.nmcd.dwDrawStage == CDDS_PREPAINT) return CDRF_NOTIFYITEMDRAW;
  if (draw.nmcd.dwDrawStage != CDDS_ITEMPREPAINT) return CDRF_DODEFAULT;
  const std::size_t row = static_cast<std::size_t>(draw.nmcd.dwItemSpec);
  RECT area{LVIR_BOUNDS, 0, 0, 0};
  if (SendMessageW(list_, LVM_GETITEMRECT, row, reinterpret_cast<LPARAM>(&area)) == FALSE) {
    return CDRF_SKIPDEFAULT;
  }
  const auto state =
      static_cast<UINT>(SendMessageW(list_, LVM_GETITEMSTATE, row, LVIS_SELECTED | LVIS_FOCUSED));
  const bool selected = (state & LVIS_SELECTED) != 0;
  const bool has_focus = GetFocus() == list_;
  const int back = !selected ? COLOR_WINDOW : has_focus ? COLOR_HIGHLIGHT : COLOR_BTNFACE;
  const int front = !selected ? COLOR_WINDOWTEXT : has_focus ? COLOR_HIGHLIGHTTEXT : COLOR_BTNTEXT;
  const HDC context = draw.nmcd.hdc;
  Fill(context, area, back);
  DrawFieldBounds(context, area);
  if (row + 1 == total_rows_)
    Fill(context, {area.left, area.bottom - 1, area.right, area.bottom}, COLOR_BTNSHADOW);
  SetTextColor(context, GetSysColor(front));
  DrawTextAt(context, area, RowText(row));
  if ((state & LVIS_FOCUSED) != 0 && has_focus) DrawFocusRect(context, &area);
  return CDRF_SKIPDEFAULT;
}

void ConnectionList::DrawFieldBounds(HDC context, const RECT& area) const {
  for (const int bound : kFieldBounds) {
    const LONG left = area.left + bound * cell_.cx + cell_.cx / 2;
    Fill(context, {left, area.top, left + 1, area.bottom}, COLOR_BTNSHADOW);
  }
}

void ConnectionList::DrawTextAt(HDC context, const RECT& area, std::wstring_view text) const {
  const HGDIOBJ before = SelectObject(context, font_.get());
  SetBkMode(context, TRANSPARENT);
  ExtTextOutW(context, area.left, area.top + (area.bottom - area.top - cell_.cy) / 2, ETO_CLIPPED, &area,
              text.data(), static_cast<UINT>(text.size()), nullptr);
  SelectObject(context, before);
}

void ConnectionList::GiveText(NMLVDISPINFOW& info) const {
  if ((info.item.mask & LVIF_TEXT) == 0 || info.item.pszText == nullptr || info.item.cchTextMax <= 0) return;
  const bool ours = info.item.iItem >= 0 && info.item.iSubItem == 0;
  const std::wstring_view text =
      ours ? RowText(static_cast<std::size_t>(info.item.iItem)) : std::wstring_view();
  const std::size_t size = std::min(text.size(), static_cast<std::size_t>(info.item.cchTextMax) - 1);
  std::copy_n(text.data(), size, info.item.pszText);
  info.item.pszText[size] = L'\0';
}

// Of a row that has just come into view it is empty until the next frame, which has been asked for.
const std::wstring& ConnectionList::RowText(std::size_t row) const {
  static const std::wstring kNone;
  return row >= first_row_ && row - first_row_ < rows_.size() ? rows_[row - first_row_] : kNone;
}

void ConnectionList::SetHeader(std::wstring text) {
  header_ = std::move(text);
  LVCOLUMNW column{};
  column.mask = LVCF_TEXT;
  column.pszText = header_.data();
  SendMessageW(list_, LVM_SETCOLUMNW, 0, reinterpret_cast<LPARAM>(&column));
}

// As wide as the control at least, and as the longest row that is visible. It does not become smaller while
// somebody looks at its right end.
void ConnectionList::FitColumn() {
  std::size_t longest = header_.size();
  for (const std::wstring& row : rows_) longest = std::max(longest, row.size());
  int width = (ToInt(longest) + kMarginCells) * cell_.cx;
  RECT inside{};
  GetClientRect(list_, &inside);
  width = std::max(width, static_cast<int>(inside.right));
  if (GetScrollPos(list_, SB_HORZ) > 0) width = std::max(width, column_width_);
  if (width == column_width_) return;
  column_width_ = width;
  SendMessageW(list_, LVM_SETCOLUMNWIDTH, 0, width);
}

void ConnectionList::RedrawChanges(std::size_t rows_before, const RowRange& range_before,
                                   const std::vector<std::wstring>& before) {
  static const std::wstring kNone;
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    const std::size_t row = first_row_ + i;
    const bool known = row >= range_before.first && row - range_before.first < range_before.count;
    if (rows_[i] == (known ? before[row - range_before.first] : kNone)) continue;
    SendMessageW(list_, LVM_REDRAWITEMS, row, static_cast<LPARAM>(row));
  }
  if (rows_before == total_rows_) return;
  // From the row with the line below it on, before or now, all is different.
  const std::size_t last = std::max<std::size_t>(std::min(rows_before, total_rows_), 1) - 1;
  RECT changed{};
  GetClientRect(list_, &changed);
  RECT area{LVIR_BOUNDS, 0, 0, 0};
  if (total_rows_ > 0 &&
      SendMessageW(list_, LVM_GETITEMRECT, last, reinterpret_cast<LPARAM>(&area)) != FALSE) {
    changed.top = std::max(changed.top, area.top);
  }
  InvalidateRect(list_, &changed, TRUE);
}

void ConnectionList::TellVisibleRows() {
  RowRange rows;
  if (visible_) {
    rows.first = static_cast<std::size_t>(std::max<LRESULT>(SendMessageW(list_, LVM_GETTOPINDEX, 0, 0), 0));
    // One more may be seen in part.
    rows.count =
        static_cast<std::size_t>(std::max<LRESULT>(SendMessageW(list_, LVM_GETCOUNTPERPAGE, 0, 0), 0)) + 1;
  }
  link_.SetVisibleRows(rows);
}

}  // namespace trabex

// The table of the window: a list view of one column, whose header and rows are the program's texts as they are,
// in a font in which they stand in line. The texts are kept here; the control asks for them, and so can screen
// readers.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "console/windows/window_link.h"
#include "platform/windows/win.h"
// Only after the system's own header.
#include <commctrl.h>

namespace trabex {

// The blanks between the six fields of a row, counted in characters: each has a vertical line through it.
inline constexpr std::array<int, 5> kFieldBounds{7, 16, 25, 34, 50};

class ConnectionList {
 public:
  // Makes the control as a child of `parent`, which outlives this object and passes on what HandleNotification
  // wants. Window() is null when the system refused.
  ConnectionList(HWND parent, WindowLink& link);
  ~ConnectionList();
  ConnectionList(const ConnectionList&) = delete;
  ConnectionList& operator=(const ConnectionList&) = delete;

  HWND Window() const { return list_; }
  // Of one character.
  SIZE Cell() const { return cell_; }

  // `dots_per_inch` is the display's.
  void SetFont(int dots_per_inch);
  // The system's colours have changed.
  void TakeColours();
  void Show(const WindowFrame& frame);
  // Nothing of it can be seen (the window is minimized), or it can again.
  void SetVisible(bool visible);

  // The answer to a WM_NOTIFY of the control.
  LRESULT HandleNotification(NMHDR& notification);

 private:
  static LRESULT CALLBACK ListProcedure(HWND window, UINT message, WPARAM wide, LPARAM longer);
  LRESULT HandleMessage(UINT message, WPARAM wide, LPARAM longer);
  LRESULT DrawHeader(const NMCUSTOMDRAW& draw);
  LRESULT DrawRow(const NMLVCUSTOMDRAW& draw);
  void DrawFieldBounds(HDC context, const RECT& area) const;
  void DrawTextAt(HDC context, const RECT& area, std::wstring_view text) const;
  void GiveText(NMLVDISPINFOW& info) const;
  const std::wstring& RowText(std::size_t row) const;
  void SetHeader(std::wstring text);
  void FitColumn();
  void RedrawChanges(std::size_t rows_before, const RowRange& range_before,
                     const std::vector<std::wstring>& before);
  void TellVisibleRows();

  struct DeleteFont {
    void operator()(HFONT font) const { DeleteObject(font); }
  };

  WindowLink& link_;
  HWND list_ = nullptr;
  WNDPROC inherited_ = nullptr;
  std::unique_ptr<std::remove_pointer_t<HFONT>, DeleteFont> font_;
  SIZE cell_{8, 16};
  std::string raw_header_;
  std::wstring header_;
  std::size_t total_rows_ = 0;
  std::size_t first_row_ = 0;
  std::vector<std::wstring> rows_;
  int column_width_ = 0;
  bool visible_ = true;
};

}  // namespace trabex

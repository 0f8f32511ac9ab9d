// The parts of the window, in this process.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "console/windows/connection_list.h"
#include "console/windows/shown_text.h"
#include "console/windows/window_link.h"
#include "platform/windows/win.h"

namespace trabex {
namespace {

constexpr std::string_view kHeader = " Handle Received     Sent Duration         Host IP Host Name";

TEST(ShownText, HasNoControlCharacterAndNoBrokenOne) {
  struct Row {
    std::string_view text;
    std::wstring_view shown;
  };
  const Row rows[] = {
      {"", L""},
      {"127.0.0.1 a.example", L"127.0.0.1 a.example"},
      {"m\xC3\xB6rder \xE6\x97\xA5", L"m\u00F6rder \u65E5"},
      {"\xF0\x9F\x98\x80", L"\xD83D\xDE00"},
      {std::string_view("a\0b\r\n\x1B\x7F", 7), L"a?b????"},
      {"\xC2\x9B\xE2\x80\xAE\xE2\x80\xA8", L"???"},
      {"\xFF\xC3(", L"\uFFFD\uFFFD("},
      {"\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},
  };
  for (const Row& row : rows) EXPECT_EQ(ShownText(row.text), row.shown) << row.text;
}

struct Told {
  int scrolled = 0;
  int closed = 0;
  int folded = 0;
  int lost = 0;

  WindowEvents Events() {
    return {.scrolled = [this] { ++scrolled; },
            .closed = [this] { ++closed; },
            .folded = [this](bool) { ++folded; },
            .lost = [this] { ++lost; }};
  }
};

TEST(WindowLink, KeepsTheLatestFrameForTheWindow) {
  Told told;
  WindowLink link(told.Events());
  EXPECT_EQ(link.TakeFrame()->total_rows, 0u);
  link.Show({.status = "a", .version = {}, .header = {}, .total_rows = 1, .first_row = 0, .rows = {"x"}});
  link.Show({.status = "b", .version = {}, .header = {}, .total_rows = 2, .first_row = 1, .rows = {"y"}});
  const auto frame = link.TakeFrame();
  EXPECT_EQ(frame->status, "b");
  EXPECT_EQ(frame->rows, std::vector<std::string>{"y"});
}

TEST(WindowLink, TellsOnlyOfOtherRows) {
  Told told;
  WindowLink link(told.Events());
  link.SetVisibleRows({0, 10});
  link.SetVisibleRows({0, 10});
  EXPECT_EQ(told.scrolled, 1);
  link.SetVisibleRows({5, 10});
  EXPECT_EQ(told.scrolled, 2);
  EXPECT_EQ(link.VisibleRows(), (RowRange{5, 10}));
}

TEST(WindowLink, TellsNothingToAViewThatHasGone) {
  Told told;
  WindowLink link(told.Events());
  link.End();
  link.SetVisibleRows({1, 1});
  link.TellClosed();
  link.TellFolded(true);
  EXPECT_FALSE(link.WaitForEnd(std::chrono::milliseconds(0)));
  link.TellEnded();
  EXPECT_TRUE(link.WaitForEnd(std::chrono::milliseconds(0)));
  EXPECT_EQ(told.scrolled + told.closed + told.folded + told.lost, 0);
}

TEST(WindowLink, TellsThatAWindowIsLostThatNobodyEnded) {
  Told told;
  WindowLink link(told.Events());
  link.TellEnded();
  EXPECT_EQ(told.lost, 1);
}

class ConnectionListTest : public testing::Test {
 protected:
  ConnectionListTest()
      : link_(told_.Events()),
        parent_(
            CreateWindowExW(0, L"Static", L"", WS_POPUP, 0, 0, 800, 400, nullptr, nullptr, nullptr, nullptr)),
        list_(parent_, link_) {
    SetWindowLongPtrW(parent_, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(&list_));
    SetWindowLongPtrW(parent_, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&PassOn));
    list_.SetFont(USER_DEFAULT_SCREEN_DPI);
    MoveWindow(list_.Window(), 0, 0, 800, 400, FALSE);
  }
  ~ConnectionListTest() override { DestroyWindow(parent_); }

  // What the list asks its parent for.
  static LRESULT CALLBACK PassOn(HWND window, UINT message, WPARAM wide, LPARAM longer) {
    auto* const list = reinterpret_cast<ConnectionList*>(GetWindowLongPtrW(window, GWLP_USERDATA));
    auto* const notification = reinterpret_cast<NMHDR*>(longer);
    if (message == WM_NOTIFY && notification->hwndFrom == list->Window()) {
      return list->HandleNotification(*notification);
    }
    return DefWindowProcW(window, message, wide, longer);
  }

  LRESULT Ask(UINT message, WPARAM wide = 0) { return SendMessageW(list_.Window(), message, wide, 0); }

  void Show(std::size_t total, std::size_t first, std::vector<std::string> rows) {
    list_.Show({.status = {},
                .version = {},
                .header = std::string(kHeader),
                .total_rows = total,
                .first_row = first,
                .rows = std::move(rows)});
  }

  // As the control asks for it, of which the parent would pass on the question.
  std::wstring Text(int row) {
    std::array<wchar_t, 300> text{L'-', L'\0'};
    NMLVDISPINFOW question{};
    question.hdr.code = LVN_GETDISPINFOW;
    question.item.mask = LVIF_TEXT;
    question.item.iItem = row;
    question.item.pszText = text.data();
    question.item.cchTextMax = static_cast<int>(text.size());
    list_.HandleNotification(question.hdr);
    return text.data();
  }

  Told told_;
  WindowLink link_;
  HWND parent_;
  ConnectionList list_;
};

TEST_F(ConnectionListTest, IsInCourierNewAtTheSizeOfTheDisplay) {
  LOGFONTW font{};
  GetObjectW(reinterpret_cast<HFONT>(Ask(WM_GETFONT)), sizeof font, &font);
  EXPECT_EQ(std::wstring(font.lfFaceName), L"Courier New");
  const SIZE before = list_.Cell();
  list_.SetFont(2 * USER_DEFAULT_SCREEN_DPI);
  EXPECT_NEAR(static_cast<double>(list_.Cell().cx), 2.0 * static_cast<double>(before.cx), 1.0);
}

TEST_F(ConnectionListTest, HasTheTextsOfTheFrameAndNoOthers) {
  Show(1000, 10, {"ten", "eleven\x01"});
  EXPECT_EQ(Ask(LVM_GETITEMCOUNT), 1000);
  EXPECT_EQ(Text(10), L"ten");
  EXPECT_EQ(Text(11), L"eleven?");
  for (const int row : {-1, 0, 9, 12, 999, 5000}) EXPECT_EQ(Text(row), L"") << row;
  Show(0, 0, {});
  EXPECT_EQ(Ask(LVM_GETITEMCOUNT), 0);
  EXPECT_EQ(Text(0), L"");
}

TEST_F(ConnectionListTest, IsAsWideAsItsLongestRow) {
  Show(1, 0, {"short"});
  EXPECT_LE(Ask(LVM_GETCOLUMNWIDTH), 800);
  Show(1, 0, {std::string(300, 'x')});
  EXPECT_GE(Ask(LVM_GETCOLUMNWIDTH), 300 * list_.Cell().cx);
  Show(1, 0, {"short"});
  EXPECT_LE(Ask(LVM_GETCOLUMNWIDTH), 800);
}

TEST_F(ConnectionListTest, TellsWhichRowsCanBeSeen) {
  Show(10'000, 0, {});
  const RowRange rows = link_.VisibleRows();
  EXPECT_EQ(rows.first, 0u);
  EXPECT_GT(rows.count, 5u);
  EXPECT_LT(rows.count, 60u);
  SendMessageW(list_.Window(), LVM_ENSUREVISIBLE, 9999, FALSE);
  Show(10'000, 0, {});
  EXPECT_EQ(link_.VisibleRows().first + link_.VisibleRows().count - 1, 10'000u);
  list_.SetVisible(false);
  EXPECT_EQ(link_.VisibleRows().count, 0u);
}

// A colour of the system's, changed for the time of a test.
class ChangedColour {
 public:
  ChangedColour(int index, COLORREF colour) : index_(index), before_(GetSysColor(index)) {
    SetSysColors(1, &index_, &colour);
  }
  ~ChangedColour() { SetSysColors(1, &index_, &before_); }
  ChangedColour(const ChangedColour&) = delete;
  ChangedColour& operator=(const ChangedColour&) = delete;

 private:
  int index_;
  COLORREF before_;
};

// What a control draws.
class Picture {
 public:
  explicit Picture(HWND control) : context_(CreateCompatibleDC(nullptr)) {
    RECT inside{};
    GetClientRect(control, &inside);
    BITMAPINFO form{};
    form.bmiHeader.biSize = sizeof form.bmiHeader;
    form.bmiHeader.biWidth = inside.right;
    form.bmiHeader.biHeight = inside.bottom;
    form.bmiHeader.biPlanes = 1;
    form.bmiHeader.biBitCount = 32;
    void* bits = nullptr;
    bitmap_ = CreateDIBSection(context_, &form, DIB_RGB_COLORS, &bits, nullptr, 0);
    before_ = SelectObject(context_, bitmap_);
    SendMessageW(control, WM_PRINTCLIENT, reinterpret_cast<WPARAM>(context_), PRF_CLIENT | PRF_ERASEBKGND);
  }
  ~Picture() {
    SelectObject(context_, before_);
    DeleteObject(bitmap_);
    DeleteDC(context_);
  }
  Picture(const Picture&) = delete;
  Picture& operator=(const Picture&) = delete;

  COLORREF At(LONG x, LONG y) const { return GetPixel(context_, static_cast<int>(x), static_cast<int>(y)); }

 private:
  HDC context_;
  HBITMAP bitmap_ = nullptr;
  HGDIOBJ before_ = nullptr;
};

TEST_F(ConnectionListTest, DrawsItsLinesInTheColoursOfTheSystem) {
  const ChangedColour ground(COLOR_WINDOW, RGB(10, 20, 30));
  const ChangedColour lines(COLOR_BTNSHADOW, RGB(200, 100, 50));
  list_.TakeColours();
  EXPECT_EQ(Ask(LVM_GETBKCOLOR), static_cast<LRESULT>(RGB(10, 20, 30)));
  // Without characters, which might lie where a pixel is looked at.
  Show(3, 0, {"", "", ""});
  const Picture picture(list_.Window());
  RECT last{LVIR_BOUNDS, 0, 0, 0};
  ASSERT_TRUE(SendMessageW(list_.Window(), LVM_GETITEMRECT, 2, reinterpret_cast<LPARAM>(&last)));
  const LONG middle = (last.top + last.bottom) / 2;
  for (const int bound : kFieldBounds) {
    const LONG line = last.left + bound * list_.Cell().cx + list_.Cell().cx / 2;
    EXPECT_EQ(picture.At(line, middle), RGB(200, 100, 50)) << bound;
    EXPECT_EQ(picture.At(line + 1, middle), RGB(10, 20, 30)) << bound;
    EXPECT_NE(picture.At(line, last.bottom + 2), RGB(200, 100, 50)) << "below the last row, " << bound;
  }
  const LONG between = last.left + kFieldBounds[0] * list_.Cell().cx / 2;
  EXPECT_EQ(picture.At(between, last.bottom - 1), RGB(200, 100, 50));
  EXPECT_EQ(picture.At(between, last.top - 1), RGB(10, 20, 30)) << "not below the others";
}

// The columns of the header, and thereby of the rows below.
TEST_F(ConnectionListTest, HasALineThroughEachBlankBetweenTwoFields) {
  for (const int bound : kFieldBounds) {
    const auto at = static_cast<std::size_t>(bound);
    EXPECT_EQ(kHeader[at], ' ') << bound;
    EXPECT_NE(kHeader[at - 1], ' ') << bound;
  }
}

}  // namespace
}  // namespace trabex

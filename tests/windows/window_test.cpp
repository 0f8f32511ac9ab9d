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
    list_.SetFont(USER_DEFAULT_SCREEN_DPI);
    MoveWindow(list_.Window(), 0, 0, 800, 400, FALSE);
  }
  ~ConnectionListTest() override { DestroyWindow(parent_); }

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

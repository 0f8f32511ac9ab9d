// The view as the program sees it, with the real window beside it.
#include "console/main_view.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/windows/win.h"
// Only after the system's own header.
#include <commctrl.h>

namespace trabex {
namespace {

constexpr const wchar_t* kClassName = L"TrabexMainWindow";
constexpr std::size_t kRows = 10'000;

// Counts the texts that it is asked for.
class CountedContent final : public ViewContent {
 public:
  std::string Status() const override { return "0.0.0.0:25 --> 127.0.0.1:2526"; }
  std::string Version() const override { return "v. 1"; }
  // Asked for once at each refresh.
  std::string Header() const override {
    most_at_a_time = std::max(most_at_a_time, std::exchange(texts_, 0));
    ++refreshes;
    return " Handle Received     Sent Duration         Host IP Host Name";
  }
  std::size_t RowCount() const override { return kRows; }
  std::string RowText(std::size_t index) const override {
    ++texts_;
    return "row " + std::to_string(index);
  }

  mutable std::size_t most_at_a_time = 0;
  mutable int refreshes = 0;

 private:
  mutable std::size_t texts_ = 0;
};

LRESULT CALLBACK RefuseToBeMade(HWND window, UINT message, WPARAM wide, LPARAM longer) {
  return message == WM_NCCREATE ? FALSE : DefWindowProcW(window, message, wide, longer);
}

class MainViewTest : public testing::Test {
 protected:
  // The window has a thread of its own, which may be slow.
  void TearDown() override {
    view_.reset();
    EXPECT_TRUE(RunUntil([this] { return FindOwn() == nullptr; }));
  }

  void Open(bool folded) {
    auto opened = OpenView(
        loop_, content_, folded,
        {.closed = [this] { ++closed_; }, .folded = {}, .lost = [this] { ++lost_; }, .screen_gone = {}});
    ASSERT_TRUE(std::holds_alternative<std::unique_ptr<MainView>>(opened));
    view_ = std::get<std::unique_ptr<MainView>>(std::move(opened));
  }

  // The window of this process.
  static HWND FindOwn() {
    HWND found = nullptr;
    while ((found = FindWindowExW(nullptr, found, kClassName, nullptr)) != nullptr) {
      DWORD process = 0;
      GetWindowThreadProcessId(found, &process);
      if (process == GetCurrentProcessId()) return found;
    }
    return nullptr;
  }

  // The same, once it has its list.
  static HWND Window() {
    const HWND found = FindOwn();
    return found != nullptr && ListOf(found) != nullptr ? found : nullptr;
  }

  static HWND ListOf(HWND window) { return FindWindowExW(window, nullptr, WC_LISTVIEWW, nullptr); }
  static HWND List() {
    const HWND window = Window();
    return window != nullptr ? ListOf(window) : nullptr;
  }

  template <class Condition>
  bool RunUntil(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) return false;
      loop_.RunOnce(Milliseconds(20));
    }
    return true;
  }

  std::wstring RowText(int row) const {
    std::array<wchar_t, 64> text{};
    LVITEMW item{};
    item.mask = LVIF_TEXT;
    item.pszText = text.data();
    item.cchTextMax = static_cast<int>(text.size());
    SendMessageW(List(), LVM_GETITEMTEXTW, static_cast<WPARAM>(row), reinterpret_cast<LPARAM>(&item));
    return text.data();
  }

  SystemClock clock_;
  EventLoop loop_{clock_};
  CountedContent content_;
  int closed_ = 0;
  int lost_ = 0;
  std::unique_ptr<MainView> view_;
};

TEST_F(MainViewTest, MakesTheTextsOfVisibleRowsOnly) {
  Open(false);
  ASSERT_TRUE(RunUntil([&] { return List() != nullptr && RowText(0) == L"row 0"; }));
  const auto page = static_cast<std::size_t>(SendMessageW(List(), LVM_GETCOUNTPERPAGE, 0, 0));
  ASSERT_GT(page, 5u);
  ASSERT_LT(page, 200u);
  content_.Header();
  content_.most_at_a_time = 0;
  content_.refreshes = 0;
  constexpr int kSteps = 50;
  for (int step = 1; step <= kSteps; ++step) {
    const int row = step * static_cast<int>(kRows) / kSteps - 1;
    SendMessageW(List(), LVM_ENSUREVISIBLE, static_cast<WPARAM>(row), FALSE);
    ASSERT_TRUE(RunUntil([&] { return RowText(row) == L"row " + std::to_wstring(row); })) << row;
  }
  EXPECT_GE(content_.refreshes, kSteps);
  content_.Header();
  // One more can be seen in part.
  EXPECT_LE(content_.most_at_a_time, page + 1);
}

TEST_F(MainViewTest, MakesNoTextWhileItIsMinimized) {
  Open(true);
  ASSERT_TRUE(RunUntil([&] { return List() != nullptr && IsIconic(Window()) != FALSE; }));
  const auto count_is_shown = [&] {
    return SendMessageW(List(), LVM_GETITEMCOUNT, 0, 0) == static_cast<LRESULT>(kRows);
  };
  ASSERT_TRUE(RunUntil(count_is_shown));
  content_.Header();
  content_.most_at_a_time = 0;
  view_->Refresh();
  content_.Header();
  EXPECT_EQ(content_.most_at_a_time, 0u);
}

TEST_F(MainViewTest, IsClosedByTheSystemMenuAndByARequest) {
  Open(false);
  ASSERT_TRUE(RunUntil([&] { return List() != nullptr; }));
  SendMessageW(Window(), WM_SYSCOMMAND, SC_CLOSE, 0);
  ASSERT_TRUE(RunUntil([&] { return closed_ == 1; }));
  SendMessageW(Window(), WM_CLOSE, 0, 0);
  ASSERT_TRUE(RunUntil([&] { return closed_ == 2; }));
  view_.reset();
  EXPECT_TRUE(RunUntil([&] { return FindOwn() == nullptr; }));
  EXPECT_EQ(lost_, 0);
}

TEST_F(MainViewTest, IsLostWhenNoWindowCanBeMade) {
  UnregisterClassW(kClassName, GetModuleHandleW(nullptr));
  WNDCLASSEXW refusing{};
  refusing.cbSize = sizeof refusing;
  refusing.lpfnWndProc = &RefuseToBeMade;
  refusing.hInstance = GetModuleHandleW(nullptr);
  refusing.lpszClassName = kClassName;
  ASSERT_NE(RegisterClassExW(&refusing), 0);
  Open(false);
  EXPECT_TRUE(RunUntil([&] { return lost_ == 1; }));
  view_->Refresh();
  view_.reset();
  UnregisterClassW(kClassName, GetModuleHandleW(nullptr));
}

TEST_F(MainViewTest, FollowsTheScalingOfItsDisplay) {
  Open(false);
  ASSERT_TRUE(RunUntil([&] { return List() != nullptr; }));
  const HWND window = Window();
  const HWND bar = FindWindowExW(window, nullptr, STATUSCLASSNAMEW, nullptr);
  const auto font_height = [](HWND control) {
    LOGFONTW font{};
    GetObjectW(reinterpret_cast<HFONT>(SendMessageW(control, WM_GETFONT, 0, 0)), sizeof font, &font);
    return font.lfHeight;
  };
  const LONG list_before = font_height(ListOf(window));
  const LONG bar_before = font_height(bar);
  RECT wanted{30, 40, 930, 740};
  SendMessageW(window, WM_DPICHANGED, MAKEWPARAM(192, 192), reinterpret_cast<LPARAM>(&wanted));
  EXPECT_NEAR(font_height(ListOf(window)), 2 * list_before, 1);
  EXPECT_NEAR(font_height(bar), 2 * bar_before, 1);
  RECT place{};
  GetWindowRect(window, &place);
  EXPECT_EQ(place.right - place.left, 900);
  EXPECT_EQ(place.bottom - place.top, 700);
  // The list has all that the status line leaves.
  RECT inside{};
  RECT list_place{};
  RECT bar_place{};
  GetClientRect(window, &inside);
  GetWindowRect(ListOf(window), &list_place);
  GetWindowRect(bar, &bar_place);
  EXPECT_EQ(list_place.right - list_place.left, inside.right);
  EXPECT_EQ(list_place.bottom - list_place.top + bar_place.bottom - bar_place.top, inside.bottom);
}

}  // namespace
}  // namespace trabex

#include "console/windows/main_window.h"

#include <shellscalingapi.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "console/windows/connection_list.h"
#include "console/windows/shown_text.h"

namespace trabex {

namespace {

constexpr const wchar_t* kClassName = L"TrabexMainWindow";
constexpr const wchar_t* kCaption = L"Trabex";
// What is shown at first: with scroll bar, some host names without scrolling.
constexpr int kColumns = 84;
constexpr int kRows = 26;
// The system's own IDI_APPLICATION and IDC_ARROW, whose macros are for the other form of its functions.
constexpr int kPlainIcon = 32512;
constexpr int kArrow = 32512;

enum class StatusPart { kStatus, kVersion };

class MainWindow {
 public:
  explicit MainWindow(WindowLink& link) : link_(link) {}
  MainWindow(const MainWindow&) = delete;
  MainWindow& operator=(const MainWindow&) = delete;

  // Returns whether there is a window now.
  bool Open(bool minimized);
  // Runs until it has gone.
  static void Run();

 private:
  static LRESULT CALLBACK Procedure(HWND window, UINT message, WPARAM wide, LPARAM longer);
  LRESULT HandleMessage(UINT message, WPARAM wide, LPARAM longer);
  bool MakeControls();
  void Lay();
  void SizeChanged(WPARAM how);
  void DisplayChanged(int dots_per_inch, const RECT& place);
  void SetFonts();
  void ShowFrame();
  void ShowStatus(StatusPart part, std::string& shown, const std::string& text);
  int DotsPerInch() const;
  int VersionWidth() const;

  struct DeleteFont {
    void operator()(HFONT font) const { DeleteObject(font); }
  };

  WindowLink& link_;
  HWND window_ = nullptr;
  HWND status_ = nullptr;
  std::optional<ConnectionList> list_;
  std::unique_ptr<std::remove_pointer_t<HFONT>, DeleteFont> status_font_;
  int dots_per_inch_ = USER_DEFAULT_SCREEN_DPI;
  std::string status_text_;
  std::string version_text_;
  bool folded_ = false;
};

HICON Icon(int width, int height) {
  const HANDLE icon = LoadImageW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(kIconResource), IMAGE_ICON,
                                 GetSystemMetrics(width), GetSystemMetrics(height), LR_SHARED);
  return icon != nullptr ? static_cast<HICON>(icon) : LoadIconW(nullptr, MAKEINTRESOURCEW(kPlainIcon));
}

bool RegisterWindowClass(WNDPROC procedure) {
  WNDCLASSEXW window_class{};
  window_class.cbSize = sizeof window_class;
  window_class.lpfnWndProc = procedure;
  window_class.hInstance = GetModuleHandleW(nullptr);
  window_class.hIcon = Icon(SM_CXICON, SM_CYICON);
  window_class.hIconSm = Icon(SM_CXSMICON, SM_CYSMICON);
  window_class.hCursor = LoadCursorW(nullptr, MAKEINTRESOURCEW(kArrow));
  window_class.hbrBackground = GetSysColorBrush(COLOR_BTNFACE);
  window_class.lpszClassName = kClassName;
  return RegisterClassExW(&window_class) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
}

bool MainWindow::Open(bool minimized) {
  const INITCOMMONCONTROLSEX controls{sizeof controls, ICC_LISTVIEW_CLASSES | ICC_BAR_CLASSES};
  InitCommonControlsEx(&controls);
  if (!RegisterWindowClass(&Procedure)) return false;
  window_ = CreateWindowExW(0, kClassName, kCaption, WS_OVERLAPPEDWINDOW | WS_CLIPCHILDREN, CW_USEDEFAULT,
                            CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT, nullptr, nullptr,
                            GetModuleHandleW(nullptr), this);
  if (window_ == nullptr) return false;
  RECT place{};
  GetWindowRect(window_, &place);
  const SIZE cell = list_->Cell();
  SetWindowPos(window_, nullptr, 0, 0, cell.cx * kColumns, cell.cy * kRows,
               SWP_NOMOVE | SWP_NOZORDER | SWP_NOACTIVATE);
  link_.Attach(window_);
  // What a shortcut says of a normal window holds.
  ShowWindow(window_, minimized ? SW_SHOWMINNOACTIVE : SW_SHOWDEFAULT);
  return true;
}

void MainWindow::Run() {
  MSG message;
  while (GetMessageW(&message, nullptr, 0, 0) > 0) {
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
}

LRESULT CALLBACK MainWindow::Procedure(HWND window, UINT message, WPARAM wide, LPARAM longer) {
  if (message == WM_NCCREATE) {
    auto* const created = static_cast<MainWindow*>(reinterpret_cast<CREATESTRUCTW*>(longer)->lpCreateParams);
    created->window_ = window;
    SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(created));
  }
  auto* const main_window = reinterpret_cast<MainWindow*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  if (main_window == nullptr) return DefWindowProcW(window, message, wide, longer);
  return main_window->HandleMessage(message, wide, longer);
}

LRESULT MainWindow::HandleMessage(UINT message, WPARAM wide, LPARAM longer) {
  switch (message) {
    case WM_CREATE:
      return MakeControls() ? 0 : -1;
    case WM_SIZE:
      SizeChanged(wide);
      return 0;
    case WM_SETFOCUS:
      if (list_) SetFocus(list_->Window());
      return 0;
    case WM_NOTIFY: {
      auto& notification = *reinterpret_cast<NMHDR*>(longer);
      if (list_ && notification.hwndFrom == list_->Window()) return list_->HandleNotification(notification);
      break;
    }
    case WM_DPICHANGED:
      DisplayChanged(HIWORD(wide), *reinterpret_cast<const RECT*>(longer));
      return 0;
    case WM_SYSCOLORCHANGE:
    case WM_THEMECHANGED:
    case WM_SETTINGCHANGE:
      // The controls hear of it from their parent only.
      if (list_) {
        SendMessageW(list_->Window(), message, wide, longer);
        SendMessageW(status_, message, wide, longer);
        list_->TakeColours();
      }
      break;
    case WM_CLOSE:
      // The program ends in order, and the window with it.
      link_.TellClosed();
      return 0;
    case kNewFrameMessage:
      ShowFrame();
      return 0;
    case kEndMessage:
      DestroyWindow(window_);
      return 0;
    case WM_DESTROY:
      link_.Detach();
      list_.reset();
      PostQuitMessage(0);
      return 0;
    default:
      break;
  }
  return DefWindowProcW(window_, message, wide, longer);
}

bool MainWindow::MakeControls() {
  dots_per_inch_ = DotsPerInch();
  status_ = CreateWindowExW(0, STATUSCLASSNAMEW, nullptr, WS_CHILD | WS_VISIBLE | SBARS_SIZEGRIP, 0, 0, 0, 0,
                            window_, nullptr, GetModuleHandleW(nullptr), nullptr);
  if (status_ == nullptr) return false;
  list_.emplace(window_, link_);
  if (list_->Window() == nullptr) {
    list_.reset();
    return false;
  }
  SetFonts();
  return true;
}

void MainWindow::SizeChanged(WPARAM how) {
  const bool folded = how == SIZE_MINIMIZED;
  if (!folded) Lay();
  if (list_) list_->SetVisible(!folded);
  if (std::exchange(folded_, folded) == folded) return;
  // A minimized window has no focus to give.
  if (!folded && list_ && GetActiveWindow() == window_) SetFocus(list_->Window());
  link_.TellFolded(folded);
}

// The status line at the bottom, the list in all the rest.
void MainWindow::Lay() {
  if (!list_) return;
  SendMessageW(status_, WM_SIZE, 0, 0);
  RECT inside{};
  RECT bar{};
  GetClientRect(window_, &inside);
  GetWindowRect(status_, &bar);
  const int bar_height = static_cast<int>(bar.bottom - bar.top);
  const int version_left = std::max(static_cast<int>(inside.right) - VersionWidth(), 0);
  // The last part reaches to the right end, where the grip is.
  const std::array<int, 2> right_ends{version_left, -1};
  SendMessageW(status_, SB_SETPARTS, right_ends.size(), reinterpret_cast<LPARAM>(right_ends.data()));
  MoveWindow(list_->Window(), 0, 0, static_cast<int>(inside.right),
             std::max(static_cast<int>(inside.bottom) - bar_height, 0), TRUE);
}

void MainWindow::DisplayChanged(int dots_per_inch, const RECT& place) {
  dots_per_inch_ = dots_per_inch;
  SetFonts();
  SetWindowPos(window_, nullptr, static_cast<int>(place.left), static_cast<int>(place.top),
               static_cast<int>(place.right - place.left), static_cast<int>(place.bottom - place.top),
               SWP_NOZORDER | SWP_NOACTIVATE);
  Lay();
}

void MainWindow::SetFonts() {
  list_->SetFont(dots_per_inch_);
  NONCLIENTMETRICSW metrics{};
  metrics.cbSize = sizeof metrics;
  if (SystemParametersInfoW(SPI_GETNONCLIENTMETRICS, sizeof metrics, &metrics, 0) == FALSE) return;
  // The metrics are for the display that the session began with.
  const HDC screen = GetDC(nullptr);
  const int metrics_dots = GetDeviceCaps(screen, LOGPIXELSY);
  ReleaseDC(nullptr, screen);
  metrics.lfStatusFont.lfHeight =
      MulDiv(static_cast<int>(metrics.lfStatusFont.lfHeight), dots_per_inch_, metrics_dots);
  decltype(status_font_) font(CreateFontIndirectW(&metrics.lfStatusFont));
  if (!font) return;
  SendMessageW(status_, WM_SETFONT, reinterpret_cast<WPARAM>(font.get()), TRUE);
  status_font_ = std::move(font);
}

void MainWindow::ShowFrame() {
  const auto frame = link_.TakeFrame();
  if (!list_) return;
  ShowStatus(StatusPart::kStatus, status_text_, frame->status);
  ShowStatus(StatusPart::kVersion, version_text_, frame->version);
  list_->Show(*frame);
}

void MainWindow::ShowStatus(StatusPart part, std::string& shown, const std::string& text) {
  if (shown == text) return;
  shown = text;
  if (part == StatusPart::kVersion) Lay();
  SendMessageW(status_, SB_SETTEXTW, static_cast<WPARAM>(part),
               reinterpret_cast<LPARAM>(ShownText(text).c_str()));
}

// Of the display where most of the window is.
int MainWindow::DotsPerInch() const {
  UINT horizontal = 0;
  UINT vertical = 0;
  const HMONITOR display = MonitorFromWindow(window_, MONITOR_DEFAULTTONEAREST);
  if (FAILED(GetDpiForMonitor(display, MDT_EFFECTIVE_DPI, &horizontal, &vertical)) || vertical == 0) {
    return USER_DEFAULT_SCREEN_DPI;
  }
  return static_cast<int>(vertical);
}

// With the grip.
int MainWindow::VersionWidth() const {
  const std::wstring text = ShownText(version_text_);
  const HDC context = GetDC(status_);
  const HGDIOBJ before =
      SelectObject(context, status_font_ ? status_font_.get() : GetStockObject(DEFAULT_GUI_FONT));
  SIZE extent{};
  GetTextExtentPoint32W(context, text.data(), static_cast<int>(text.size()), &extent);
  SelectObject(context, before);
  ReleaseDC(status_, context);
  constexpr int kMargin = 12;  // at 96 dots per inch
  return static_cast<int>(extent.cx) + GetSystemMetrics(SM_CXVSCROLL) +
         MulDiv(kMargin, dots_per_inch_, USER_DEFAULT_SCREEN_DPI);
}

}  // namespace

bool StartMainWindow(std::shared_ptr<WindowLink> link, bool minimized) {
  try {
    std::thread([link = std::move(link), minimized] {
      {
        MainWindow window(*link);
        if (window.Open(minimized)) MainWindow::Run();
      }
      link->TellEnded();
    }).detach();
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

}  // namespace trabex

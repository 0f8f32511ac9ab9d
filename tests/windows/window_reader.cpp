// Tells what windows of other programs show, as the windows themselves answer: those of Trabex, and message
// boxes. Each line of standard input is a request, each line of standard output its answer as JSON:
//
//   windows             every main window: caption, what its parts hold, the rows that can be seen
//   row STATUS NUMBER   the text of a row (0 is the first) of the window with this status line
//   boxes               every message box: caption and text
//   start COMMAND       runs a command line on a desktop that nobody sees; whether it could be started
#include <algorithm>
#include <charconv>
#include <cstddef>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/windows/win.h"
// Only after the system's own header.
#include <commctrl.h>

namespace trabex {
namespace {

constexpr std::size_t kMaxText = 1024;

// A piece of another process's memory, where its controls put what they are asked for.
class RemoteMemory {
 public:
  RemoteMemory(HWND window, std::size_t size) {
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    process_ = OpenProcess(PROCESS_VM_OPERATION | PROCESS_VM_READ | PROCESS_VM_WRITE, FALSE, process);
    if (process_ != nullptr) memory_ = VirtualAllocEx(process_, nullptr, size, MEM_COMMIT, PAGE_READWRITE);
  }
  ~RemoteMemory() {
    if (memory_ != nullptr) VirtualFreeEx(process_, memory_, 0, MEM_RELEASE);
    if (process_ != nullptr) CloseHandle(process_);
  }
  RemoteMemory(const RemoteMemory&) = delete;
  RemoteMemory& operator=(const RemoteMemory&) = delete;

  std::byte* At(std::size_t offset) const { return static_cast<std::byte*>(memory_) + offset; }
  bool Write(std::size_t offset, const void* data, std::size_t size) const {
    return memory_ != nullptr && WriteProcessMemory(process_, At(offset), data, size, nullptr) != FALSE;
  }
  bool Read(std::size_t offset, void* data, std::size_t size) const {
    return memory_ != nullptr && ReadProcessMemory(process_, At(offset), data, size, nullptr) != FALSE;
  }

 private:
  HANDLE process_ = nullptr;
  void* memory_ = nullptr;
};

std::wstring ReadText(const RemoteMemory& memory, std::size_t offset) {
  std::wstring text(kMaxText, L'\0');
  if (!memory.Read(offset, text.data(), kMaxText * sizeof(wchar_t))) return {};
  return text.substr(0, text.find(L'\0'));
}

// What `message` puts into an item that has a pointer to a text and a size, both set by `point`.
template <class Item>
std::wstring TextOfItem(HWND control, UINT message, WPARAM number, Item item, wchar_t* Item::*text) {
  const RemoteMemory memory(control, sizeof item + kMaxText * sizeof(wchar_t));
  item.*text = reinterpret_cast<wchar_t*>(memory.At(sizeof item));
  item.cchTextMax = static_cast<int>(kMaxText);
  const wchar_t nothing = L'\0';
  if (!memory.Write(0, &item, sizeof item) || !memory.Write(sizeof item, &nothing, sizeof nothing)) return {};
  SendMessageW(control, message, number, reinterpret_cast<LPARAM>(memory.At(0)));
  return ReadText(memory, sizeof item);
}

std::wstring RowText(HWND list, int row) {
  LVITEMW item{};
  item.mask = LVIF_TEXT;
  item.iItem = row;
  return TextOfItem(list, LVM_GETITEMTEXTW, static_cast<WPARAM>(row), item, &LVITEMW::pszText);
}

std::wstring HeaderText(HWND list) {
  HDITEMW item{};
  item.mask = HDI_TEXT;
  const auto header = reinterpret_cast<HWND>(SendMessageW(list, LVM_GETHEADER, 0, 0));
  return TextOfItem(header, HDM_GETITEMW, 0, item, &HDITEMW::pszText);
}

std::wstring StatusText(HWND bar, int part) {
  const RemoteMemory memory(bar, kMaxText * sizeof(wchar_t));
  SendMessageW(bar, SB_GETTEXTW, static_cast<WPARAM>(part), reinterpret_cast<LPARAM>(memory.At(0)));
  return ReadText(memory, 0);
}

std::wstring Caption(HWND window) {
  std::wstring text(kMaxText, L'\0');
  text.resize(static_cast<std::size_t>(GetWindowTextW(window, text.data(), static_cast<int>(kMaxText))));
  return text;
}

// Of a control of another process GetWindowText knows nothing.
std::wstring ControlText(HWND control) {
  std::wstring text(kMaxText, L'\0');
  text.resize(static_cast<std::size_t>(
      SendMessageW(control, WM_GETTEXT, kMaxText, reinterpret_cast<LPARAM>(text.data()))));
  return text;
}

std::string Json(std::wstring_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string json = "\"";
  for (const wchar_t unit : text) {
    if (unit >= 0x20 && unit < 0x7F && unit != L'"' && unit != L'\\') {
      json.push_back(static_cast<char>(unit));
      continue;
    }
    json += "\\u";
    for (int shift = 12; shift >= 0; shift -= 4) json.push_back(kDigits[(unit >> shift) & 0xF]);
  }
  return json + "\"";
}

std::string Json(bool value) {
  return value ? "true" : "false";
}

std::string Json(std::string_view name, LRESULT number) {
  return ",\"" + std::string(name) + "\":" + std::to_string(number);
}

LRESULT Ask(HWND window, UINT message) {
  return SendMessageW(window, message, 0, 0);
}

struct MainWindow {
  explicit MainWindow(HWND found)
      : window(found),
        list(FindWindowExW(found, nullptr, WC_LISTVIEWW, nullptr)),
        bar(FindWindowExW(found, nullptr, STATUSCLASSNAMEW, nullptr)) {}
  HWND window;
  HWND list;
  HWND bar;
};

std::vector<MainWindow> MainWindows() {
  std::vector<MainWindow> windows;
  HWND found = nullptr;
  while ((found = FindWindowExW(nullptr, found, L"TrabexMainWindow", nullptr)) != nullptr) {
    windows.emplace_back(found);
  }
  return windows;
}

std::string Description(const MainWindow& main_window) {
  const HWND list = main_window.list;
  const LRESULT count = Ask(list, LVM_GETITEMCOUNT);
  const LRESULT top = Ask(list, LVM_GETTOPINDEX);
  const LRESULT page = Ask(list, LVM_GETCOUNTPERPAGE);
  RECT client{};
  RECT list_place{};
  RECT bar_place{};
  GetClientRect(main_window.window, &client);
  GetWindowRect(list, &list_place);
  GetWindowRect(main_window.bar, &bar_place);
  std::string rows;
  for (LRESULT row = top; row < std::min(top + page, count); ++row) {
    rows += (rows.empty() ? "" : ",") + Json(RowText(list, static_cast<int>(row)));
  }
  return "{\"caption\":" + Json(Caption(main_window.window)) +
         ",\"visible\":" + Json(IsWindowVisible(main_window.window) != FALSE) +
         ",\"minimized\":" + Json(IsIconic(main_window.window) != FALSE) +
         ",\"grip\":" + Json((GetWindowLongPtrW(main_window.bar, GWL_STYLE) & SBARS_SIZEGRIP) != 0) +
         ",\"status\":" + Json(StatusText(main_window.bar, 0)) +
         ",\"version\":" + Json(StatusText(main_window.bar, 1)) + ",\"header\":" + Json(HeaderText(list)) +
         Json("count", count) + Json("top", top) + Json("page", page) + Json("width", client.right) +
         Json("height", client.bottom) + Json("list_width", list_place.right - list_place.left) +
         Json("list_height", list_place.bottom - list_place.top) +
         Json("bar_height", bar_place.bottom - bar_place.top) + ",\"rows\":[" + rows + "]}";
}

std::string Array(const std::vector<std::string>& elements) {
  std::string json;
  for (const std::string& element : elements) json += (json.empty() ? "" : ",") + element;
  return "[" + json + "]";
}

std::string Windows() {
  std::vector<std::string> windows;
  for (const MainWindow& main_window : MainWindows()) windows.push_back(Description(main_window));
  return Array(windows);
}

// `arguments` are the status line and the number, which has no blank in it.
std::string Row(std::string_view arguments) {
  const std::size_t blank = arguments.rfind(' ');
  if (blank == std::string_view::npos) return "null";
  int row = 0;
  const std::string_view number = arguments.substr(blank + 1);
  std::from_chars(number.data(), number.data() + number.size(), row);
  for (const MainWindow& main_window : MainWindows()) {
    if (StatusText(main_window.bar, 0) == Wide(arguments.substr(0, blank))) {
      return Json(RowText(main_window.list, row));
    }
  }
  return "null";
}

std::string Boxes() {
  std::vector<std::string> boxes;
  HWND box = nullptr;
  while ((box = FindWindowExW(nullptr, box, L"#32770", nullptr)) != nullptr) {
    std::wstring text;
    HWND part = nullptr;
    while ((part = FindWindowExW(box, part, L"Static", nullptr)) != nullptr) {
      // The other one holds the icon.
      if (const std::wstring said = ControlText(part); said.size() > text.size()) text = said;
    }
    boxes.push_back("{\"caption\":" + Json(Caption(box)) + ",\"text\":" + Json(text) + "}");
  }
  return Array(boxes);
}

// A desktop that nobody sees, as a task has that runs whether its user is logged on or not. It is there as long as this
// program.
bool StartUnseen(std::string_view command) {
  static const HWINSTA kOwn = GetProcessWindowStation();
  static const HWINSTA kUnseen = CreateWindowStationW(L"TrabexUnseen", 0, GENERIC_ALL, nullptr);
  if (kUnseen == nullptr || SetProcessWindowStation(kUnseen) == FALSE) return false;
  static const HDESK kDesktop = CreateDesktopW(L"Default", nullptr, nullptr, 0, GENERIC_ALL, nullptr);
  SetProcessWindowStation(kOwn);
  if (kDesktop == nullptr) return false;
  std::wstring desktop = L"TrabexUnseen\\Default";
  std::wstring line = Wide(command);
  STARTUPINFOW start{};
  start.cb = sizeof start;
  start.lpDesktop = desktop.data();
  PROCESS_INFORMATION started{};
  if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start, &started) ==
      FALSE) {
    return false;
  }
  CloseHandle(started.hThread);
  CloseHandle(started.hProcess);
  return true;
}

std::string Answer(std::string_view request) {
  if (request == "windows") return Windows();
  if (request == "boxes") return Boxes();
  if (request.starts_with("start ")) return Json(StartUnseen(request.substr(6)));
  if (request.starts_with("row ")) return Row(request.substr(4));
  return "null";
}

}  // namespace
}  // namespace trabex

int main() {
  std::string request;
  while (std::getline(std::cin, request)) {
    if (request.ends_with('\r')) request.pop_back();
    std::cout << trabex::Answer(request) << std::endl;
  }
}

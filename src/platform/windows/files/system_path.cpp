#include "platform/windows/files/system_path.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "base/text.h"
#include "platform/files.h"

namespace trabex {

namespace {

constexpr std::array<std::string_view, 6> kDevices = {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"};
// These go with a digit, for which the system also takes the superscript ones.
constexpr std::array<std::string_view, 2> kNumberedDevices = {"COM", "LPT"};
constexpr std::array<std::string_view, 3> kSuperscripts = {"\xC2\xB9", "\xC2\xB2", "\xC2\xB3"};
// What says that a path is taken as it is.
constexpr std::wstring_view kFormMark = L"\\\\?\\";
constexpr std::wstring_view kServerMark = L"UNC\\";

bool IsNumber(std::string_view text) {
  if (text.size() == 1) return IsDigit(text[0]);
  return std::find(kSuperscripts.begin(), kSuperscripts.end(), text) != kSuperscripts.end();
}

// Whatever follows the first dot, and blanks before it, the system takes the name for the device.
bool NamesDevice(std::string_view name) {
  name = Trim(name.substr(0, name.find('.')));
  const auto is_name = [name](std::string_view device) { return EqualNoCase(name, device); };
  if (std::any_of(kDevices.begin(), kDevices.end(), is_name)) return true;
  const auto begins_it = [name](std::string_view device) { return StartsWithNoCase(name, device); };
  return std::any_of(kNumberedDevices.begin(), kNumberedDevices.end(), begins_it) && IsNumber(name.substr(3));
}

// In units of UTF-16.
constexpr std::size_t kMaxName = 255;
constexpr std::string_view kForbidden = "<>\"|?*:";

bool IsName(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return true;
  const bool clean = std::none_of(name.begin(), name.end(), [](char c) {
    return (c >= 0 && c < ' ') || kForbidden.find(c) != std::string_view::npos;
  });
  return clean && name.back() != '.' && name.back() != ' ' && !NamesDevice(name) &&
         Wide(name).size() <= kMaxName;
}

bool IsFilePath(std::string_view path) {
  const bool from_server = path.size() >= 2 && IsPathSeparator(path[0]) && IsPathSeparator(path[1]);
  if (from_server) {
    path.remove_prefix(2);
    if (path.starts_with('.')) return false;  // "\\.\" is where devices are
  } else if (IsAbsolutePath(path)) {
    path.remove_prefix(3);  // the drive
  }
  while (!path.empty()) {
    const auto end =
        static_cast<std::size_t>(std::find_if(path.begin(), path.end(), IsPathSeparator) - path.begin());
    if (!IsName(path.substr(0, end))) return false;
    path.remove_prefix(std::min(path.size(), end + 1));
  }
  return true;
}

// Empty when the system cannot say.
std::wstring FullPath(const std::wstring& path) {
  std::wstring full(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length =
        GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    const bool fits = length < full.size();
    full.resize(length);
    if (fits) return full;
  }
}

}  // namespace

SystemPath::SystemPath(const std::string& path) {
  if (path.empty()) {
    code_ = ERROR_FILE_NOT_FOUND;
    return;
  }
  const auto wide = StrictWide(path);
  std::wstring full = wide && IsFilePath(path) ? FullPath(*wide) : std::wstring();
  if (full.empty()) {
    code_ = ERROR_INVALID_NAME;
    return;
  }
  path_ = kFormMark;
  if (full.starts_with(L"\\\\")) {
    full.erase(0, 2);
    path_ += kServerMark;
  }
  path_ += full;
}

std::wstring WithoutFormMark(std::wstring path) {
  if (!path.starts_with(kFormMark)) return path;
  path.erase(0, kFormMark.size());
  if (path.starts_with(kServerMark)) path.replace(0, kServerMark.size(), L"\\\\");
  return path;
}

}  // namespace trabex

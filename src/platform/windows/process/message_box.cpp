#include "platform/windows/process/message_box.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/windows/win.h"

namespace trabex {

namespace {

constexpr std::string_view kCaption = "Trabex";
constexpr std::size_t kMaxLines = 40;
constexpr std::size_t kMaxBytes = 6000;
constexpr std::string_view kLeftOut = "\n\n(There is more. Send the output to a file to see all of it.)";
// Of messages that wait for a box. What is too much is in the log.
constexpr std::size_t kMaxWaiting = std::size_t{16} * 1024;

// Shared with the thread, which the end of the program does not wait for.
struct Boxes {
  std::mutex mutex;
  std::string waiting;
  bool is_open = false;

  void Run() {
    for (;;) {
      std::string text;
      {
        const std::scoped_lock lock(mutex);
        text = std::exchange(waiting, {});
        is_open = !text.empty();
      }
      if (text.empty()) return;
      ShowBox(text);
    }
  }
};

}  // namespace

std::string BoxText(std::string_view text) {
  std::string shown;
  std::size_t lines = 0;
  while (!text.empty()) {
    const std::string prefix = std::string(kCaption) + ": ";
    if (text.starts_with(prefix)) text.remove_prefix(prefix.size());
    const std::string_view line = text.substr(0, std::min(text.find('\n'), text.size() - 1) + 1);
    if (++lines > kMaxLines || shown.size() + line.size() > kMaxBytes) {
      while (shown.ends_with('\n') || shown.ends_with('\r')) shown.pop_back();
      return shown.append(kLeftOut);
    }
    shown += line;
    text.remove_prefix(line.size());
  }
  while (shown.ends_with('\n') || shown.ends_with('\r')) shown.pop_back();
  return shown;
}

void ShowBox(std::string_view text) {
  MessageBoxW(nullptr, Wide(BoxText(text)).c_str(), Wide(kCaption).c_str(),
              MB_OK | MB_ICONINFORMATION | MB_SETFOREGROUND);
}

void ShowBoxBeside(std::string_view text) {
  static const auto boxes = std::make_shared<Boxes>();
  const std::scoped_lock lock(boxes->mutex);
  if (boxes->waiting.size() + text.size() > kMaxWaiting) return;
  boxes->waiting += text;
  if (boxes->is_open) return;
  try {
    std::thread([shared = boxes] { shared->Run(); }).detach();
    boxes->is_open = true;
  } catch (const std::system_error&) {
    boxes->waiting.clear();  // there is no thread to be had, and the log has the text
  }
}

}  // namespace trabex

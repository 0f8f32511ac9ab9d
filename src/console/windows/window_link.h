// What the loop's thread and the window's thread tell each other. Neither ever waits for the other one, except
// that the end of a view waits a bounded time for its window to go.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/windows/win.h"

namespace trabex {

// Posted to the window, and to nothing else: a new frame is there; the window is to go.
inline constexpr UINT kNewFrameMessage = WM_APP + 1;
inline constexpr UINT kEndMessage = WM_APP + 2;

struct RowRange {
  std::size_t first = 0;
  std::size_t count = 0;
  friend bool operator==(const RowRange&, const RowRange&) = default;
};

// What the window shows, as the loop's thread made it: UTF-8, as it came.
struct WindowFrame {
  std::string status;
  std::string version;
  std::string header;
  std::size_t total_rows = 0;
  std::size_t first_row = 0;  // that of rows[0]
  std::vector<std::string> rows;
  friend bool operator==(const WindowFrame&, const WindowFrame&) = default;
};

// What the window tells the view. Each is called on the window's thread and must not wait.
struct WindowEvents {
  std::function<void()> scrolled;  // other rows are visible now
  std::function<void()> closed;
  std::function<void(bool folded)> folded;
  std::function<void()> lost;  // the window could not be made, or went though nobody asked for it
};

class WindowLink {
 public:
  explicit WindowLink(WindowEvents events) : events_(std::move(events)) {}

  // --- the loop's thread ---
  // The window shows this frame next, instead of one that it has not come to yet.
  void Show(WindowFrame frame);
  // The rows that can be seen now; none while the window is minimized.
  RowRange VisibleRows() const;
  // The window goes, now or as soon as it is there; nothing is told any more.
  void End();
  // Waits until the window's thread has nothing left to do with this object, `limit` at most.
  bool WaitForEnd(std::chrono::milliseconds limit);

  // --- the window's thread ---
  // From now on messages go to `window`, from Detach on to nobody.
  void Attach(HWND window);
  void Detach();
  // Never nothing.
  std::shared_ptr<const WindowFrame> TakeFrame();
  void SetVisibleRows(RowRange rows);
  void TellClosed();
  void TellFolded(bool folded);
  // The last call of the thread. Tells that the window is lost, unless it was asked to end.
  void TellEnded();

 private:
  bool Ending() const;

  const WindowEvents events_;
  mutable std::mutex mutex_;
  std::condition_variable ended_condition_;
  HWND window_ = nullptr;
  std::shared_ptr<const WindowFrame> frame_ = std::make_shared<WindowFrame>();
  bool frame_message_waits_ = false;
  RowRange visible_;
  bool ending_ = false;
  bool ended_ = false;
};

}  // namespace trabex

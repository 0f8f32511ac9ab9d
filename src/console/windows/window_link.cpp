#include "console/windows/window_link.h"

#include <utility>

namespace trabex {

void WindowLink::Show(WindowFrame frame) {
  const std::lock_guard lock(mutex_);
  if (frame == *frame_) return;
  frame_ = std::make_shared<const WindowFrame>(std::move(frame));
  if (window_ == nullptr || frame_message_waits_) return;
  frame_message_waits_ = PostMessageW(window_, kNewFrameMessage, 0, 0) != FALSE;
}

RowRange WindowLink::VisibleRows() const {
  const std::lock_guard lock(mutex_);
  return visible_;
}

void WindowLink::End() {
  const std::lock_guard lock(mutex_);
  ending_ = true;
  if (window_ != nullptr) PostMessageW(window_, kEndMessage, 0, 0);
}

bool WindowLink::WaitForEnd(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return ended_condition_.wait_for(lock, limit, [this] { return ended_; });
}

void WindowLink::Attach(HWND window) {
  const std::lock_guard lock(mutex_);
  window_ = window;
  frame_message_waits_ = PostMessageW(window, kNewFrameMessage, 0, 0) != FALSE;
  if (ending_) PostMessageW(window, kEndMessage, 0, 0);
}

void WindowLink::Detach() {
  const std::lock_guard lock(mutex_);
  window_ = nullptr;
}

std::shared_ptr<const WindowFrame> WindowLink::TakeFrame() {
  const std::lock_guard lock(mutex_);
  frame_message_waits_ = false;
  return frame_;
}

void WindowLink::SetVisibleRows(RowRange rows) {
  {
    const std::lock_guard lock(mutex_);
    if (rows == visible_) return;
    visible_ = rows;
    if (ending_) return;
  }
  events_.scrolled();
}

void WindowLink::TellClosed() {
  if (!Ending()) events_.closed();
}

void WindowLink::TellFolded(bool folded) {
  if (!Ending()) events_.folded(folded);
}

void WindowLink::TellEnded() {
  {
    const std::lock_guard lock(mutex_);
    window_ = nullptr;
    ended_ = true;
    if (ending_) {
      ended_condition_.notify_all();
      return;
    }
  }
  events_.lost();
}

bool WindowLink::Ending() const {
  const std::lock_guard lock(mutex_);
  return ending_;
}

}  // namespace trabex

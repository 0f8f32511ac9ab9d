#include "console/linux/viewer_process.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <string>
#include <utility>

#include "platform/linux/process/signals.h"

namespace trabex {

namespace {

// How long a program may take to close the view.
constexpr std::chrono::milliseconds kClosePatience{1000};

volatile std::sig_atomic_t end_is_requested = 0;

void RequestEnd(int) {
  end_is_requested = 1;
}

}  // namespace

void WaitForNewSizes() {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigaction(SIGWINCH, &action, nullptr);  // ncurses takes it over
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGWINCH);
  sigprocmask(SIG_SETMASK, &blocked, nullptr);
}

void EndByRequestSignals() {
  WaitForNewSizes();
  const sigset_t blocked = RequestSignals();
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  struct sigaction action {};
  action.sa_handler = RequestEnd;
  for (const int number : kRequestSignals) sigaction(number, &action, nullptr);
}

ViewerProcess::End ViewerProcess::Run() {
  bool goes_on = Report({.kind = ViewerMessage::Kind::kSize, .size = drawer_.Size()}) && DrawFrames();
  while (goes_on) goes_on = Wait();
  // A program that closes the view for a "q" takes nothing more, and so a report may be what finds it gone.
  return end_ == End::kProgram && latest_key_ == 'q' ? End::kUser : end_;
}

// Handles what comes next; returns whether to go on.
bool ViewerProcess::Wait() {
  sigset_t nothing_blocked;
  sigemptyset(&nothing_blocked);
  pollfd watched[] = {{STDIN_FILENO, POLLIN, 0}, {socket_, POLLIN, 0}};
  timespec limit{};
  if (patience_) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*patience_ - std::chrono::steady_clock::now());
    if (left.count() <= 0) return EndsBy(End::kUser);
    limit = {.tv_sec = left.count() / 1000, .tv_nsec = left.count() % 1000 * 1000000};
  }
  const int ready = ppoll(watched, 2, patience_ ? &limit : nullptr, &nothing_blocked);
  if (end_is_requested != 0) return EndsBy(End::kSignal);
  if (ready < 0) return errno == EINTR ? TakeKeys() : EndsBy(End::kTerminal);
  if (watched[1].revents != 0 && !TakeFrames()) return false;
  if ((watched[0].revents & POLLIN) != 0) {
    return TakeKeys() && (drawer_.TerminalIsOurs() || EndsBy(End::kTerminal));
  }
  return watched[0].revents == 0 || EndsBy(End::kTerminal);
}

bool ViewerProcess::TakeFrames() {
  std::array<char, std::size_t{16} * 1024> bytes;
  const ssize_t count = recv(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (count == 0) return EndsBy(End::kProgram);
  if (count < 0) return errno == EAGAIN || errno == EINTR || EndsBy(End::kProgram);
  frames_.Append({bytes.data(), static_cast<std::size_t>(count)});
  return DrawFrames();
}

bool ViewerProcess::DrawFrames() {
  while (std::optional<Screen> screen = frames_.Take()) {
    screen_ = std::move(*screen);
    if (screen_.takes_text) patience_.reset();
    drawer_.Draw(screen_);
    if (!Report({.kind = ViewerMessage::Kind::kDrawn})) return false;
  }
  return !frames_.Broken() || EndsBy(End::kBroken);
}

bool ViewerProcess::TakeKeys() {
  bool goes_on = true;
  const bool resized = drawer_.TakeKeys([&](Key pressed) { goes_on = goes_on && TakeKey(pressed); });
  if (resized && goes_on) {
    drawer_.Draw(screen_);
    goes_on = Report({.kind = ViewerMessage::Kind::kSize, .size = drawer_.Size()});
  }
  return goes_on;
}

bool ViewerProcess::TakeKey(Key pressed) {
  latest_key_ = pressed;
  if (leaves_by_key_ && pressed == key::kCtrlC) return EndsBy(End::kUser);
  if (leaves_by_key_ && pressed == 'q' && !screen_.takes_text) {
    patience_ = std::chrono::steady_clock::now() + kClosePatience;
  }
  return Report({.kind = ViewerMessage::Kind::kKey, .key = pressed});
}

// A program that stands still takes nothing either: then the keys are lost rather than this process stuck.
bool ViewerProcess::Report(const ViewerMessage& message) const {
  std::string bytes;
  AppendMessage(message, bytes);
  const int flags = MSG_NOSIGNAL | (leaves_by_key_ ? MSG_DONTWAIT : 0);
  return send(socket_, bytes.data(), bytes.size(), flags) == static_cast<ssize_t>(bytes.size()) ||
         (leaves_by_key_ && errno == EAGAIN);
}

}  // namespace trabex

// The program's side of the view: it sends pictures to the process that draws, and takes its keys (view_wire.h).
#include "console/main_view.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <optional>
#include <utility>

#include "base/error.h"
#include "console/linux/terminal_renderer.h"
#include "console/linux/terminal_state.h"
#include "console/screen_feed.h"
#include "platform/device_error.h"
#include "platform/fd_watcher.h"
#include "platform/linux/process/signals.h"

namespace trabex {

namespace {

// How long the end of a view waits for a terminal to take the last frame.
constexpr std::chrono::milliseconds kEndLimit{500};

// So many keys at most are taken at a time.
constexpr std::size_t kMaxReadBytes = 512;

constexpr const char* kSource = "MainView.OpenView";

// Signals of the terminal that would stop the program, ignored for a while. SIGCHLD gets its usual meaning:
// where it was ignored, the number of an ended renderer could be given out again unnoticed.
class SignalGuard {
 public:
  SignalGuard() {
    for (Saved& saved : saved_) {
      struct sigaction action {};
      action.sa_handler = saved.number == SIGCHLD ? SIG_DFL : SIG_IGN;
      sigaction(saved.number, &action, &saved.before);
    }
  }
  ~SignalGuard() {
    for (const Saved& saved : saved_) sigaction(saved.number, &saved.before, nullptr);
  }
  SignalGuard(const SignalGuard&) = delete;
  SignalGuard& operator=(const SignalGuard&) = delete;

 private:
  struct Saved {
    int number;
    struct sigaction before {};
  };
  std::array<Saved, 4> saved_{{{SIGTSTP}, {SIGTTIN}, {SIGTTOU}, {SIGCHLD}}};
};

// The process that draws, and our end of the socket pair to it.
class RendererProcess {
 public:
  RendererProcess() {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) RaiseDeviceError(kSource);
    {
      // The child must not run our handlers before it has its own.
      const BlockedSignals blocked(AllSignals());
      process_ = fork();
      if (process_ == 0) BecomeTerminalRenderer(pair[1]);
    }
    close(pair[1]);
    socket_ = pair[0];
    if (process_ < 0) {
      close(socket_);
      RaiseDeviceError(kSource);
    }
  }
  ~RendererProcess() {
    close(socket_);
    kill(process_, SIGKILL);
    while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  RendererProcess(const RendererProcess&) = delete;
  RendererProcess& operator=(const RendererProcess&) = delete;

  int Socket() const { return socket_; }

  // Gives what the renderer has said to `feed`, a bounded part of it. Returns whether more may come.
  bool Read(ScreenFeed& feed) const {
    std::array<char, kMaxReadBytes> bytes;
    ssize_t count = -1;
    do count = recv(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    while (count < 0 && errno == EINTR);
    if (count <= 0) return count < 0 && errno == EAGAIN;
    feed.Take({bytes.data(), static_cast<std::size_t>(count)});
    return true;
  }

  // Asks the renderer to end and waits `limit` at most until it has restored the terminal.
  void End(ScreenFeed& feed, std::chrono::milliseconds limit) const {
    const auto end = std::chrono::steady_clock::now() + limit;
    shutdown(socket_, SHUT_WR);
    while (Read(feed) && !feed.Restored()) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return;
      pollfd watched{socket_, POLLIN, 0};
      poll(&watched, 1, static_cast<int>(left.count()));
    }
  }

 private:
  pid_t process_ = -1;
  int socket_ = -1;
};

class TerminalView final : public MainView {
 public:
  TerminalView(EventLoop& loop, std::unique_ptr<ViewScreen> screen, MainViewEvents events)
      : events_(std::move(events)),
        renderer_(std::in_place),
        feed_(loop, std::move(screen), [this] { SendOutput(); }) {
    watch_.emplace(loop, renderer_->Socket(), [this](FdReadiness) { OnReady(); });
    watch_->SetInterest({.readable = true, .writable = false});
  }
  ~TerminalView() override { EndRenderer(kEndLimit); }
  TerminalView(const TerminalView&) = delete;
  TerminalView& operator=(const TerminalView&) = delete;

  void Refresh() override {
    if (!renderer_) return;
    feed_.Refresh();
    SendOutput();
  }

 private:
  void OnReady() {
    const State before = StateNow();
    const bool alive = renderer_->Read(feed_);
    if (alive) {
      if (!before.begun && feed_.Begun()) terminal_.NoteDrawing();
      SendOutput();
    } else {
      EndRenderer(std::chrono::milliseconds(0));
    }
    RaiseEvents(before, alive);
  }

  struct State {
    bool begun;
    bool folded;
    bool closed;
  };
  State StateNow() const {
    return {.begun = feed_.Begun(), .folded = feed_.Shown().Folded(), .closed = feed_.Shown().Closed()};
  }

  // The handlers may destroy this object, so they are the last that is done here, and only copies are used.
  void RaiseEvents(const State& before, bool alive) {
    const MainViewEvents events = events_;
    const State now = StateNow();
    const auto gone = terminal_.HungUp() ? events.screen_gone : events.lost;
    const std::weak_ptr<char> still_here = here_;
    if (now.folded != before.folded && events.folded) events.folded(now.folded);
    if (now.closed != before.closed && events.closed && !still_here.expired()) events.closed();
    if (!alive && gone && !still_here.expired()) gone();
  }

  void SendOutput() {
    while (renderer_ && !feed_.Output().empty()) {
      const std::string_view output = feed_.Output();
      const ssize_t sent =
          send(renderer_->Socket(), output.data(), output.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0) break;  // it would block, or the renderer has gone: the socket's next event tells which
      feed_.Sent(static_cast<std::size_t>(sent));
    }
    if (watch_) watch_->SetInterest({.readable = true, .writable = !feed_.Output().empty()});
  }

  void EndRenderer(std::chrono::milliseconds limit) {
    if (!renderer_) return;
    watch_.reset();
    renderer_->End(feed_, limit);
    renderer_.reset();
    if (!feed_.Restored()) terminal_.Restore();
  }

  MainViewEvents events_;
  SignalGuard signals_;
  TerminalState terminal_;
  std::optional<RendererProcess> renderer_;  // nothing once it has ended
  ScreenFeed feed_;
  std::optional<FdWatcher> watch_;
  std::shared_ptr<char> here_ = std::make_shared<char>();
};

bool StandardOutputIsTerminal() {
  return isatty(STDOUT_FILENO) != 0;
}

// Of a standard output that is a terminal.
std::string WhyTerminalUnusable() {
  const pid_t foreground = tcgetpgrp(STDOUT_FILENO);
  if (foreground < 0) return "The terminal is not the one that controls the program.";
  if (foreground != getpgrp()) return "The program runs in the background.";
  return WhyTerminalTypeUnusable();
}

NoView Unusable(std::string why) {
  return {StandardOutputIsTerminal() ? NoView::Kind::kUnusable : NoView::Kind::kScreenGone, std::move(why)};
}

}  // namespace

std::optional<NoView> WhyNoView() {
  if (!StandardOutputIsTerminal()) return NoView{NoView::Kind::kNoScreen, "Standard output is no terminal."};
  std::string why = WhyTerminalUnusable();
  if (why.empty()) return std::nullopt;
  return Unusable(std::move(why));
}

std::variant<std::unique_ptr<MainView>, NoView> OpenView(EventLoop& loop, const ViewContent& content,
                                                         bool folded, MainViewEvents events) {
  if (std::optional<NoView> why_not = WhyNoView()) return *std::move(why_not);
  std::unique_ptr<ViewScreen> screen = content.MakeScreen(folded);
  if (!screen) return Unusable("There is nothing to be shown as text.");
  try {
    return std::make_unique<TerminalView>(loop, std::move(screen), std::move(events));
  } catch (const Error& error) {
    return Unusable(error.Description());
  }
}

std::string_view LostViewText() {
  return "The window has gone with its terminal or the process that drew it";
}

}  // namespace trabex

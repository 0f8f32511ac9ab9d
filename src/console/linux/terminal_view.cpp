// The program's side of the view: it sends frames to the process that draws and receives its reports
// (terminal_wire.h).
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
#include "console/linux/terminal_wire.h"
#include "platform/device_error.h"
#include "platform/fd_watcher.h"
#include "platform/linux/process/signals.h"

namespace trabex {

namespace {

// How long the end of a view waits for a terminal to take the last frame.
constexpr std::chrono::milliseconds kEndLimit{500};
// A character takes no more bytes than this in UTF-8.
constexpr std::size_t kMaxBytesPerColumn = 4;

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
  explicit RendererProcess(bool folded) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) RaiseDeviceError(kSource);
    {
      // The child must not run our handlers before it has its own.
      const BlockedSignals blocked(AllSignals());
      process_ = fork();
      if (process_ == 0) BecomeTerminalRenderer(pair[1], folded);
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

  // Reads the renderer's latest report into `report`, which stays as it was when there is no new one.
  // Returns whether more may come.
  bool Read(RendererReport& report) {
    for (;;) {
      char* const rest = reinterpret_cast<char*>(&partial_) + partial_bytes_;
      const ssize_t count = recv(socket_, rest, sizeof partial_ - partial_bytes_, MSG_DONTWAIT);
      if (count == 0) return false;
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return errno == EAGAIN;
      partial_bytes_ += static_cast<std::size_t>(count);
      if (partial_bytes_ < sizeof partial_) continue;
      report = partial_;
      partial_bytes_ = 0;
    }
  }

  // Asks the renderer to end and waits `limit` at most until it has restored the terminal.
  void End(RendererReport& report, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    shutdown(socket_, SHUT_WR);
    while (Read(report) && report.restored == 0) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return;
      pollfd watched{socket_, POLLIN, 0};
      poll(&watched, 1, static_cast<int>(left.count()));
    }
  }

 private:
  pid_t process_ = -1;
  int socket_ = -1;
  RendererReport partial_;
  std::size_t partial_bytes_ = 0;
};

class TerminalView final : public MainView {
 public:
  TerminalView(EventLoop& loop, const ViewContent& content, bool folded, MainViewEvents events)
      : content_(content), events_(std::move(events)), renderer_(std::in_place, folded) {
    report_.folded = folded ? 1 : 0;
    watch_.emplace(loop, renderer_->Socket(), [this](FdReadiness) { OnReady(); });
    watch_->SetInterest({.readable = true, .writable = false});
  }
  ~TerminalView() override { EndRenderer(kEndLimit); }
  TerminalView(const TerminalView&) = delete;
  TerminalView& operator=(const TerminalView&) = delete;

  void Refresh() override {
    stale_ = true;
    SendFrame();
  }

 private:
  struct Viewport {
    std::uint32_t columns = 0;
    std::uint32_t visible_rows = 0;
    std::uint32_t top = 0;
    friend bool operator==(const Viewport&, const Viewport&) = default;
  };

  static Viewport ViewportOf(const RendererReport& report) {
    return {report.columns, report.visible_rows, report.top};
  }

  void OnReady() {
    const RendererReport before = report_;
    const bool alive = renderer_->Read(report_);
    if (alive) {
      if (before.columns == 0) terminal_.NoteDrawing();
      stale_ = stale_ || ViewportOf(report_) != shown_;
      SendPending();
      SendFrame();
    } else {
      EndRenderer(std::chrono::milliseconds(0));
    }
    RaiseEvents(before, alive);
  }

  // The handlers may destroy this object, so they are the last that is done here, and only copies are used.
  void RaiseEvents(const RendererReport& before, bool alive) {
    const MainViewEvents events = events_;
    const RendererReport now = report_;
    const auto gone = terminal_.HungUp() ? events.screen_gone : events.lost;
    const std::weak_ptr<char> still_here = here_;
    if (now.folded != before.folded && events.folded) events.folded(now.folded != 0);
    if (now.closed != before.closed && events.closed && !still_here.expired()) events.closed();
    if (!alive && gone && !still_here.expired()) gone();
  }

  void SendFrame() {
    if (!stale_ || !renderer_ || report_.columns == 0 || report_.frames_drawn != frames_sent_) return;
    AppendFrame(MakeFrame(), pending_);
    ++frames_sent_;
    stale_ = false;
    SendPending();
  }

  ViewFrame MakeFrame() {
    ViewFrame frame;
    const std::size_t total = content_.RowCount();
    const std::size_t visible = std::min<std::size_t>(report_.visible_rows, total);
    const std::size_t top = std::min<std::size_t>(report_.top, total - visible);
    frame.total_rows = static_cast<std::uint32_t>(total);
    frame.top = static_cast<std::uint32_t>(top);
    frame.status = Cut(content_.Status());
    frame.version = Cut(content_.Version());
    if (report_.folded == 0) {
      frame.header = Cut(content_.Header());
      frame.rows.reserve(visible);
      for (std::size_t i = 0; i < visible; ++i) frame.rows.push_back(Cut(content_.RowText(top + i)));
    }
    shown_ = {report_.columns, report_.visible_rows, frame.top};
    return frame;
  }

  std::string Cut(std::string text) const {
    text.resize(std::min<std::size_t>(text.size(), report_.columns * kMaxBytesPerColumn));
    return text;
  }

  void SendPending() {
    while (!pending_.empty()) {
      const ssize_t sent =
          send(renderer_->Socket(), pending_.data(), pending_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0) break;  // it would block, or the renderer has gone: the socket's next event tells which
      pending_.erase(0, static_cast<std::size_t>(sent));
    }
    watch_->SetInterest({.readable = true, .writable = !pending_.empty()});
  }

  void EndRenderer(std::chrono::milliseconds limit) {
    if (!renderer_) return;
    watch_.reset();
    renderer_->End(report_, limit);
    renderer_.reset();
    if (report_.restored == 0) terminal_.Restore();
  }

  const ViewContent& content_;
  MainViewEvents events_;
  SignalGuard signals_;
  TerminalState terminal_;
  std::optional<RendererProcess> renderer_;  // nothing once it has ended
  std::optional<FdWatcher> watch_;
  RendererReport report_;
  Viewport shown_;  // as the last frame has it
  std::uint32_t frames_sent_ = 0;
  bool stale_ = true;  // something has changed since the last frame was made
  std::string pending_;
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
  try {
    return std::make_unique<TerminalView>(loop, content, folded, std::move(events));
  } catch (const Error& error) {
    return Unusable(error.Description());
  }
}

std::string_view LostViewText() {
  return "The window has gone with its terminal or the process that drew it";
}

}  // namespace trabex

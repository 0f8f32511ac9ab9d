// The renderer: a process that waits for a key, a frame or a new size, and draws. It may be blocked in a
// write as long as the terminal does; nothing but what is shown depends on it.
#define NCURSES_NOMACROS 1
#define NCURSES_WIDECHAR 1

#include "console/linux/terminal_renderer.h"

#include <curses.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "console/linux/terminal_state.h"
#include "console/linux/terminal_wire.h"
#include "console/main_view.h"
#include "platform/linux/process/signals.h"
#include "platform/process.h"

namespace trabex {

namespace {

// The process's name and its one argument, on its command line.
constexpr const char* kRendererName = "Trabex-view";
constexpr const char* kFolded = "folded";
constexpr const char* kUnfolded = "unfolded";
// Where it finds the socket pair's end.
constexpr int kSocket = 3;
constexpr int kStatusLines = 1;
constexpr int kHeaderLines = 1;
constexpr int kCtrlC = 3;
// How long after an ESC the rest of a key's sequence may come.
constexpr std::chrono::milliseconds kEscapeDelay{25};

class Renderer {
 public:
  explicit Renderer(bool folded) { report_.folded = folded ? 1 : 0; }

  void Run() {
    Measure();
    Draw();
    Report();
    while (Wait()) {
    }
  }

  // Tells the program that the terminal is its own again.
  void ReportRestored() {
    report_.restored = 1;
    Report();
  }

 private:
  // Handles what comes next; returns whether to go on.
  bool Wait() {
    // Only a new size interrupts the wait (SIGWINCH is blocked elsewhere), so none is missed between two
    // waits.
    sigset_t nothing_blocked;
    sigemptyset(&nothing_blocked);
    pollfd watched[] = {{STDIN_FILENO, POLLIN, 0}, {kSocket, POLLIN, 0}};
    const int ready = ppoll(watched, 2, nullptr, &nothing_blocked);
    if (ready < 0) return errno == EINTR && TakeKeys();
    if (watched[1].revents != 0 && !TakeFrames()) return false;
    if ((watched[0].revents & POLLIN) != 0) return TakeKeys() && TerminalIsOurs();
    return watched[0].revents == 0;
  }

  // After a key could be read: false when the terminal has hung up, or when the program has been moved to the
  // background, where nothing can be read.
  bool TerminalIsOurs() const {
    int unread = 0;
    const bool hung_up = !any_key_ && ioctl(STDIN_FILENO, FIONREAD, &unread) == 0 && unread == 0;
    return !hung_up && tcgetpgrp(STDIN_FILENO) == getpgrp();
  }

  bool TakeFrames() {
    char bytes[16 * 1024];
    const ssize_t count = recv(kSocket, bytes, sizeof bytes, MSG_DONTWAIT);
    if (count == 0) return false;
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    frames_.Append({bytes, static_cast<std::size_t>(count)});
    if (std::optional<ViewFrame> frame = frames_.TakeLatest()) {
      frame_ = std::move(*frame);
      report_.frames_drawn = frames_.Taken();
      MoveTo(report_.top);
      Draw();
      return Report();
    }
    return true;
  }

  bool TakeKeys() {
    any_key_ = false;
    bool changed = false;
    for (int key = getch(); key != ERR; key = getch()) {
      any_key_ = any_key_ || key != KEY_RESIZE;
      changed = TakeKey(key) || changed;
    }
    if (!changed) return true;
    Draw();
    return Report();
  }

  // Returns whether the state has changed.
  bool TakeKey(int key) {
    const auto page = static_cast<std::int64_t>(std::max<std::uint32_t>(report_.visible_rows, 1));
    const auto top = static_cast<std::int64_t>(report_.top);
    switch (key) {
      case KEY_UP:
        return MoveTo(top - 1);
      case KEY_DOWN:
        return MoveTo(top + 1);
      case KEY_PPAGE:
        return MoveTo(top - page);
      case KEY_NPAGE:
        return MoveTo(top + page);
      case KEY_HOME:
        return MoveTo(0);
      case KEY_END:
        return MoveTo(frame_.total_rows);
      case KEY_RESIZE:
        clearok(curscr, TRUE);
        Measure();
        return true;
      case 'm':
        report_.folded = 1 - report_.folded;
        Measure();
        return true;
      case 'q':
      case kCtrlC:
        report_.closed = 1;
        return true;
      default:
        return false;
    }
  }

  // Scrolls as far towards `top` as there are rows.
  bool MoveTo(std::int64_t top) {
    const std::int64_t last =
        std::max<std::int64_t>(std::int64_t{frame_.total_rows} - report_.visible_rows, 0);
    const auto reached = static_cast<std::uint32_t>(std::clamp<std::int64_t>(top, 0, last));
    return std::exchange(report_.top, reached) != reached;
  }

  void Measure() {
    report_.columns = static_cast<std::uint32_t>(std::max(getmaxx(stdscr), 1));
    const int rows = report_.folded != 0 ? 0 : getmaxy(stdscr) - kStatusLines - kHeaderLines;
    report_.visible_rows = static_cast<std::uint32_t>(std::max(rows, 0));
  }

  void Draw() {
    erase();
    DrawStatus();
    if (report_.folded == 0) {
      attr_on(A_BOLD, nullptr);
      DrawText(kStatusLines, 0, PrintableText(frame_.header, report_.columns));
      attr_off(A_BOLD, nullptr);
      int line = kStatusLines + kHeaderLines;
      for (const std::string& row : frame_.rows) {
        if (line >= getmaxy(stdscr)) break;
        DrawText(line++, 0, PrintableText(row, report_.columns));
      }
    }
    refresh();
  }

  void DrawStatus() {
    attr_on(A_REVERSE, nullptr);
    mvhline(0, 0, ' ', static_cast<int>(report_.columns));
    const std::wstring status = PrintableText(frame_.status, report_.columns);
    DrawText(0, 0, status);
    const std::wstring version = PrintableText(frame_.version, report_.columns);
    // On a narrow terminal the status says more than the version.
    if (ColumnsOf(status) + 1 + ColumnsOf(version) <= report_.columns) {
      DrawText(0, static_cast<int>(report_.columns - ColumnsOf(version)), version);
    }
    attr_off(A_REVERSE, nullptr);
  }

  static void DrawText(int line, int column, const std::wstring& text) {
    mvaddnwstr(line, column, text.data(), static_cast<int>(text.size()));
  }

  bool Report() const {
    return send(kSocket, &report_, sizeof report_, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof report_);
  }

  RendererReport report_;
  FrameReader frames_;
  ViewFrame frame_;
  bool any_key_ = false;
};

// The signals that end or stop a program reach this process too, since it shares terminal and process group
// with its parent. It ignores them and ends when the parent does, so that the terminal is always restored.
void SetSignals() {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  for (const int number : kRequestSignals) sigaction(number, &action, nullptr);
  for (const int number : kSignalsWithoutMeaning) sigaction(number, &action, nullptr);
  for (const int number : kStopSignals) sigaction(number, &action, nullptr);
  action.sa_handler = SIG_DFL;
  sigaction(SIGWINCH, &action, nullptr);  // ncurses takes it over
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGWINCH);
  sigprocmask(SIG_SETMASK, &blocked, nullptr);
}

// Leaves the terminal as standard input and output, and the socket.
bool SetDescriptors() {
  const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (terminal < 0 || nowhere < 0) return false;
  // Above those that they are copied to, so that no copy overwrites another one's source.
  const int terminal_copy = fcntl(terminal, F_DUPFD, kSocket + 1);
  const int nowhere_copy = fcntl(nowhere, F_DUPFD, kSocket + 1);
  return terminal_copy >= 0 && nowhere_copy >= 0 && dup2(terminal_copy, STDIN_FILENO) >= 0 &&
         dup2(terminal_copy, STDOUT_FILENO) >= 0 && dup2(nowhere_copy, STDERR_FILENO) >= 0 &&
         close_range(kSocket + 1, ~0U, 0) == 0;
}

bool BeginDrawing() {
  // The terminal is taken to be a UTF-8 one, whatever the locale of the environment says.
  if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) std::setlocale(LC_CTYPE, "");
  if (newterm(nullptr, stdout, stdin) == nullptr) return false;
  raw();  // Ctrl-C and Ctrl-Z are keys
  noecho();
  nonl();
  nodelay(stdscr, TRUE);
  keypad(stdscr, TRUE);
  leaveok(stdscr, TRUE);
  set_escdelay(static_cast<int>(kEscapeDelay.count()));
  curs_set(0);
  return true;
}

[[noreturn]] void DrawUntilTheEnd(bool folded) try {
  SetSignals();
  prctl(PR_SET_NAME, kRendererName);
  if (!SetDescriptors()) _exit(1);
  TerminalState terminal;
  if (!BeginDrawing()) _exit(1);
  terminal.NoteDrawing();
  Renderer renderer(folded);
  renderer.Run();
  if (terminal.IsDrawing()) {
    endwin();
  } else {
    terminal.Restore();
  }
  renderer.ReportRestored();
  _exit(0);
} catch (const std::exception&) {
  // Nothing of the program must run on in this process.
  _exit(1);
}

}  // namespace

void BecomeTerminalRenderer(int socket, bool folded) {
  // By way of another number, because a copy onto itself would stay closed for the new program.
  const int copy = fcntl(socket, F_DUPFD_CLOEXEC, kSocket + 1);
  if (copy < 0 || dup2(copy, kSocket) < 0) _exit(1);
  std::string name = kRendererName;
  std::string state = folded ? kFolded : kUnfolded;
  char* const arguments[] = {name.data(), state.data(), nullptr};
  execv("/proc/self/exe", arguments);
  // A copy of the memory then, better than no window.
  DrawUntilTheEnd(folded);
}

void PrepareProcess(int argc, char* const* argv) {
  if (argc == 2 && std::string_view(argv[0]) == kRendererName) {
    DrawUntilTheEnd(std::string_view(argv[1]) == kFolded);
  }
  PrepareStreamsAndRequests();
}

}  // namespace trabex

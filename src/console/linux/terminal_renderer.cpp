// The renderer: a process that waits for a key, a picture or a new size, and draws. It may be blocked in a write as
// long as the terminal does; nothing but what is shown depends on it.
#include "console/linux/terminal_renderer.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "console/linux/terminal_drawer.h"
#include "console/linux/terminal_state.h"
#include "console/linux/viewer_process.h"
#include "console/main_view.h"
#include "platform/linux/process/signals.h"
#include "platform/process.h"

namespace trabex {

namespace {

// The process's name on its command line.
constexpr const char* kRendererName = "Trabex-view";
// Where it finds the socket pair's end.
constexpr int kSocket = 3;

// The signals that end or stop a program reach this process too, since it shares terminal and process group
// with its parent. It ignores them and ends when the parent does, so that the terminal is always restored.
void SetSignals() {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  for (const int number : kRequestSignals) sigaction(number, &action, nullptr);
  for (const int number : kSignalsWithoutMeaning) sigaction(number, &action, nullptr);
  for (const int number : kStopSignals) sigaction(number, &action, nullptr);
  WaitForNewSizes();
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

[[noreturn]] void DrawUntilTheEnd() try {
  SetSignals();
  prctl(PR_SET_NAME, kRendererName);
  if (!SetDescriptors()) _exit(1);
  TerminalState terminal;
  TerminalDrawer drawer;
  if (!drawer.Begin()) _exit(1);
  terminal.NoteDrawing();
  ViewerProcess viewer(drawer, kSocket);
  viewer.Run();
  if (terminal.IsDrawing()) {
    drawer.End();
  } else {
    terminal.Restore();
  }
  viewer.ReportRestored();
  _exit(0);
} catch (const std::exception&) {
  // Nothing of the program must run on in this process.
  _exit(1);
}

}  // namespace

void BecomeTerminalRenderer(int socket) {
  // By way of another number, because a copy onto itself would stay closed for the new program.
  const int copy = fcntl(socket, F_DUPFD_CLOEXEC, kSocket + 1);
  if (copy < 0 || dup2(copy, kSocket) < 0) _exit(1);
  std::string name = kRendererName;
  char* const arguments[] = {name.data(), nullptr};
  execv("/proc/self/exe", arguments);
  // A copy of the memory then, better than no window.
  DrawUntilTheEnd();
}

void PrepareProcess(int argc, char* const* argv) {
  if (argc == 1 && std::string_view(argv[0]) == kRendererName) DrawUntilTheEnd();
  PrepareStreamsAndRequests();
}

}  // namespace trabex

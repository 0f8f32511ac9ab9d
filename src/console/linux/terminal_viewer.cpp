#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <utility>

#include "base/error.h"
#include "console/linux/terminal_drawer.h"
#include "console/linux/terminal_state.h"
#include "console/linux/viewer_process.h"
#include "console/viewer.h"
#include "platform/linux/process/signals.h"

namespace trabex {

namespace {

ViewerEnd EndOf(ViewerProcess::End end) {
  switch (end) {
    case ViewerProcess::End::kProgram:
      return ViewerEnd::kInstance;
    case ViewerProcess::End::kTerminal:
      return ViewerEnd::kTerminal;
    case ViewerProcess::End::kUser:
      return ViewerEnd::kUser;
    case ViewerProcess::End::kBroken:
      return ViewerEnd::kBroken;
    case ViewerProcess::End::kSignal:
      return ViewerEnd::kSignal;
  }
  return ViewerEnd::kInstance;
}

// The controlling terminal is where the keys come from, whatever standard input is.
bool TakeTerminal() {
  const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
  if (terminal < 0) return false;
  const bool taken = dup2(terminal, STDIN_FILENO) >= 0 && dup2(terminal, STDOUT_FILENO) >= 0;
  close(terminal);
  return taken;
}

NoView Unusable(std::string why) {
  return {NoView::Kind::kUnusable, std::move(why)};
}

}  // namespace

std::variant<ViewerEnd, NoView> ShowViewOf(std::intptr_t connection, std::string_view received) {
  if (std::optional<NoView> why_not = WhyNoView()) return *std::move(why_not);
  if (!TakeTerminal()) return Unusable("The terminal cannot be opened.");
  // Nobody else would go on for it, and a stopped one leaves a terminal that takes no line.
  for (const int number : kStopSignals) std::signal(number, SIG_IGN);
  EndByRequestSignals();
  try {
    TerminalState terminal;
    TerminalDrawer drawer;
    if (!drawer.Begin()) return Unusable("The terminal cannot be drawn on.");
    terminal.NoteDrawing();
    ViewerProcess viewer(drawer, static_cast<int>(connection));
    viewer.LeaveByKey(true);
    viewer.Append(received);
    const ViewerProcess::End end = viewer.Run();
    if (terminal.IsDrawing()) {
      drawer.End();
    } else {
      terminal.Restore();
    }
    return EndOf(end);
  } catch (const Error& error) {
    return Unusable(error.Description());
  }
}

}  // namespace trabex

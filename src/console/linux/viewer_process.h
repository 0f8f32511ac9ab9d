// The work of a process that draws a view on its terminal: it waits for a key, a picture or a new size.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

#include "console/linux/terminal_drawer.h"
#include "console/view_wire.h"

namespace trabex {

// A new size of the terminal interrupts waits of ViewerProcess only, so that none is missed between two of them. To
// be called before TerminalDrawer::Begin.
void WaitForNewSizes();

class ViewerProcess {
 public:
  enum class End {
    kProgram,   // the program says nothing more
    kTerminal,  // the terminal has gone, or another process has it
    kUser,      // the user leaves
    kBroken,    // what the program says is no picture
    kSignal,    // a signal that ends a process
  };

  // `drawer` has begun; `socket` is the connection to the program. Both outlive this object.
  ViewerProcess(TerminalDrawer& drawer, int socket) : drawer_(drawer), socket_(socket) {}

  // Whether Ctrl-C ends this process at once, and "q" soon, whatever the program does; otherwise the program decides.
  void LeaveByKey(bool leaves) { leaves_by_key_ = leaves; }
  // Bytes of the program that came before.
  void Append(std::string_view bytes) { frames_.Append(bytes); }
  End Run();
  // Tells the program that the terminal is its own again.
  void ReportRestored() { Report({.kind = ViewerMessage::Kind::kRestored}); }

 private:
  bool Wait();
  bool TakeFrames();
  bool DrawFrames();
  bool TakeKeys();
  bool TakeKey(Key pressed);
  bool Report(const ViewerMessage& message) const;
  bool EndsBy(End end) {
    end_ = end;
    return false;
  }

  TerminalDrawer& drawer_;
  int socket_;
  bool leaves_by_key_ = false;
  Key latest_key_ = 0;
  // After a "q" that is hardly part of a text: until then the program may close the view, or turn out to take text.
  std::optional<std::chrono::steady_clock::time_point> patience_;
  FrameReader frames_;
  Screen screen_;
  End end_ = End::kProgram;
};

// From now on SIGTERM, SIGINT, SIGQUIT and SIGHUP end ViewerProcess::Run instead of the process, so that its terminal
// is restored.
void EndByRequestSignals();

}  // namespace trabex

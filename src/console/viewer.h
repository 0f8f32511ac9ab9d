// Shows the view of another process, a running instance, on this process's terminal.
#pragma once

#include <cstdint>
#include <string_view>
#include <variant>

#include "console/main_view.h"

namespace trabex {

enum class ViewerEnd {
  kUser,      // the user has left it
  kSignal,    // a signal asked this process to end
  kInstance,  // the instance says nothing more
  kTerminal,  // the terminal has gone
  kBroken,    // the instance has said what cannot be understood
};

// Draws what comes on `connection` (view_wire.h), the system's handle of a stream, and says what the user does, until
// one of these ends; then the terminal is as it was. `received` is what has come already. Ctrl-C leaves
// at once, and "q" within a second, whatever the instance does. The text of NoView says why nothing could be shown.
std::variant<ViewerEnd, NoView> ShowViewOf(std::intptr_t connection, std::string_view received);

}  // namespace trabex

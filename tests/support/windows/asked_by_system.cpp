#include "support/asked_by_system.h"

#include <iterator>
#include <optional>

#include "platform/windows/loop/event_loop_impl.h"

namespace trabex {

namespace {

// As the end of the session is told, and as taskkill asks.
constexpr struct {
  UINT message;
  WPARAM w;
} kEndingMessages[] = {{WM_ENDSESSION, TRUE}, {WM_CLOSE, 0}};

// Of the programs that are to be started.
std::optional<int> way_from_the_start;

}  // namespace

int WaysToAskForEnd() {
  return static_cast<int>(std::size(kEndingMessages));
}

void AskForEnd(EventLoop& loop, int way) {
  PostMessageW(loop.GetImpl().Window(), kEndingMessages[way].message, kEndingMessages[way].w, 0);
}

EndFromTheStart::EndFromTheStart(int way)
    : waiting_(&(way_from_the_start = way), [](std::optional<int>* kept) { kept->reset(); }) {}

// The message waits in the queue until the loop runs.
void EndFromTheStart::TellLoop(EventLoop& loop) {
  if (way_from_the_start) AskForEnd(loop, *way_from_the_start);
}

ReloadsOfTheSystem::ReloadsOfTheSystem() = default;

bool ReloadsOfTheSystem::Ask() {
  return false;
}

}  // namespace trabex

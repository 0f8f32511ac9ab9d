#include "support/asked_by_system.h"

#include <iterator>

#include "platform/windows/loop/event_loop_impl.h"

namespace trabex {

namespace {

// As the end of the session is told, and as taskkill asks.
constexpr struct {
  UINT message;
  WPARAM w;
} kEndingMessages[] = {{WM_ENDSESSION, TRUE}, {WM_CLOSE, 0}};

int starts_to_end = 0;

}  // namespace

int WaysToAskForEnd() {
  return static_cast<int>(std::size(kEndingMessages));
}

void AskForEnd(EventLoop& loop, int way) {
  PostMessageW(loop.GetImpl().Window(), kEndingMessages[way].message, kEndingMessages[way].w, 0);
}

EndFromTheStart::EndFromTheStart() : waiting_(&++starts_to_end, [](int* count) { --*count; }) {}

// The message waits in the queue until the loop runs.
void EndFromTheStart::TellLoop(EventLoop& loop) {
  if (starts_to_end > 0) AskForEnd(loop);
}

ReloadsOfTheSystem::ReloadsOfTheSystem() = default;

bool ReloadsOfTheSystem::Ask() {
  return false;
}

}  // namespace trabex

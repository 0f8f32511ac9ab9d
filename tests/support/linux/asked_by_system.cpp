#include "support/asked_by_system.h"

#include <signal.h>

#include <iterator>

#include "support/linux/default_hang_up.h"
#include "support/linux/waiting_signals.h"

namespace trabex {

namespace {

constexpr int kEndingSignals[] = {SIGTERM, SIGINT, SIGQUIT};

}  // namespace

int WaysToAskForEnd() {
  return static_cast<int>(std::size(kEndingSignals));
}

void AskForEnd(EventLoop& /*loop*/, int way) {
  raise(kEndingSignals[way]);
}

EndFromTheStart::EndFromTheStart(int way)
    : waiting_(std::make_shared<WaitingSignals>(std::initializer_list<int>{kEndingSignals[way]})) {}

// The signal waits for it.
void EndFromTheStart::TellLoop(EventLoop& /*loop*/) {}

ReloadsOfTheSystem::ReloadsOfTheSystem() : before_(std::make_shared<DefaultHangUp>()) {}

bool ReloadsOfTheSystem::Ask() {
  return raise(SIGHUP) == 0;
}

}  // namespace trabex

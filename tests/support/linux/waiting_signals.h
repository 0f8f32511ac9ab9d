// Signals for a program that is yet to be started.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <ctime>
#include <initializer_list>

namespace trabex {

// Signals that stay pending until they are taken.
class WaitingSignals {
 public:
  explicit WaitingSignals(std::initializer_list<int> numbers) {
    sigemptyset(&signals_);
    for (const int number : numbers) sigaddset(&signals_, number);
    pthread_sigmask(SIG_BLOCK, &signals_, &before_);
    for (const int number : numbers) raise(number);
  }
  ~WaitingSignals() {
    const timespec at_once{};
    while (sigtimedwait(&signals_, nullptr, &at_once) > 0) continue;
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  WaitingSignals(const WaitingSignals&) = delete;
  WaitingSignals& operator=(const WaitingSignals&) = delete;

 private:
  sigset_t signals_{};
  sigset_t before_{};
};

}  // namespace trabex

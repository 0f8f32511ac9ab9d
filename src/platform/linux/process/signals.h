// The signals of this program, each kind in one place.
#pragma once

#include <signal.h>

#include <array>

namespace trabex {

// They ask the program for something, and wait until it has time for them (system_requests.h): the first three for its
// end, SIGHUP for a reload or because the terminal has gone (nohup has the program ignore that), SIGUSR1 for a new log
// file.
inline constexpr std::array kRequestSignals = {SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGUSR1};

// They mean nothing here, but by default end a process on the spot.
inline constexpr std::array kSignalsWithoutMeaning = {SIGUSR2, SIGALRM, SIGVTALRM, SIGIO, SIGPIPE};

// A terminal must not stop the program with them: that would stop the mail.
inline constexpr std::array kStopSignals = {SIGTSTP, SIGTTIN, SIGTTOU};

inline sigset_t RequestSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : kRequestSignals) sigaddset(&signals, number);
  return signals;
}

inline sigset_t AllSignals() {
  sigset_t signals;
  sigfillset(&signals);
  return signals;
}

// Keeps signals from taking effect while it lives; those that come meanwhile take it afterwards.
class BlockedSignals {
 public:
  explicit BlockedSignals(const sigset_t& signals) { pthread_sigmask(SIG_BLOCK, &signals, &before_); }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace trabex

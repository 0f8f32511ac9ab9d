// SIGHUP for tests that send it.
#pragma once

#include <signal.h>

namespace trabex {

// As long as it lives SIGHUP acts as it does by default, also in a run under nohup, which ignores it.
class DefaultHangUp {
 public:
  DefaultHangUp() : before_(signal(SIGHUP, SIG_DFL)) {}
  ~DefaultHangUp() { signal(SIGHUP, before_); }
  DefaultHangUp(const DefaultHangUp&) = delete;
  DefaultHangUp& operator=(const DefaultHangUp&) = delete;

 private:
  void (*before_)(int);
};

}  // namespace trabex

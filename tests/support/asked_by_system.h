// What the system asks of the program (platform/system_requests.h), asked by a test.
#pragma once

#include <memory>

#include "platform/event_loop.h"

namespace trabex {

// In how many ways the system asks for the end.
int WaysToAskForEnd();

// Asks for the end in one of these ways, counted from 0. `loop` is that of the program, which watches for requests already.
void AskForEnd(EventLoop& loop, int way = 0);

// Asks for the end, in one of these ways, of a program that is to be started as long as the object lives.
class EndFromTheStart {
 public:
  explicit EndFromTheStart(int way = 0);
  // To be called with the program's loop before it runs.
  static void TellLoop(EventLoop& loop);

 private:
  std::shared_ptr<void> waiting_;
};

// Whether the system can ask for a reload. As long as the object lives such a request acts as it does by default.
class ReloadsOfTheSystem {
 public:
  ReloadsOfTheSystem();
  // Asks for it; false where the system cannot.
  static bool Ask();

 private:
  std::shared_ptr<void> before_;
};

}  // namespace trabex

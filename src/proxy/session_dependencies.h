// What a session needs of the program.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "base/log.h"
#include "config/configuration.h"
#include "net/modSocketMaster.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "proxy/accepted_recipients.h"
#include "proxy/dialogue/greylist_check.h"
#include "proxy/session_collection.h"
#include "proxy/session_observer.h"
#include "proxy/tls_contexts.h"
#include "resolver/name_lookup.h"

namespace trabex {

// References that outlive every session.
struct SessionDependencies {
  const Configuration& configuration;
  Log& log;
  const Clock& clock;
  EventLoop& loop;
  modSocketMaster& sockets;
  NameLookup& names;
  SessionCollection& sessions;
  TlsContexts& tls;
  GreylistCheck* greylisting = nullptr;  // nullptr: nothing is greylisted
  SessionObserver* observer = nullptr;   // nullptr: nobody counts or records what happens
  std::string log_line = {};             // the place where a session makes its line for the log
  SpareRecipients spare_recipients = {};
  // Given back for what is said to a client whose session has got no memory.
  static constexpr std::size_t kMemoryReserve = 8192;
  std::unique_ptr<char[]> memory_reserve = std::make_unique<char[]>(kMemoryReserve);
  // Raises nothing: where there is no memory for it, the next session to begin tries again.
  void RenewMemoryReserve() {
    if (!memory_reserve) memory_reserve.reset(new (std::nothrow) char[kMemoryReserve]);
  }
  // A time not long ago, which costs sessions nothing to ask for: whoever runs them sets it twice a second.
  MonotonicTime moment = {};
};

}  // namespace trabex

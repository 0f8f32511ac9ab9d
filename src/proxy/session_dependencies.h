// What a session needs of the program.
#pragma once

#include <string>

#include "base/log.h"
#include "config/configuration.h"
#include "net/modSocketMaster.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
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
};

}  // namespace trabex

// What a session needs of the program.
#pragma once

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
  // A time not long ago, which costs sessions nothing to ask for: whoever runs them sets it twice a second.
  MonotonicTime moment = {};
};

}  // namespace trabex

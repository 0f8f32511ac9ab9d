// What a session needs of the program.
#pragma once

#include <string_view>

#include "base/log.h"
#include "config/configuration.h"
#include "net/modSocketMaster.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "proxy/dialogue/greylist_check.h"
#include "proxy/session_collection.h"
#include "resolver/name_lookup.h"

namespace trabex {

class cProxy;

// The connection table, as sessions see it.
class ConnectionTable {
 public:
  virtual ~ConnectionTable() = default;
  // The row of a session that is in the collection from now on.
  virtual void AddRow(cProxy& session) = 0;
  virtual void RemoveRow(std::string_view key) = 0;
};

// References that outlive every session.
struct SessionDependencies {
  const Configuration& configuration;
  Log& log;
  const Clock& clock;
  EventLoop& loop;
  modSocketMaster& sockets;
  NameLookup& names;
  SessionCollection& sessions;
  ConnectionTable& table;
  GreylistCheck* greylisting = nullptr;  // nullptr: nothing is greylisted
};

}  // namespace trabex

// Plays a session of a client with a server in memory, on the objects that decide in a real one.
#pragma once

#include "app/explain_arguments.h"
#include "app/explain_greylisting.h"
#include "app/explanation.h"
#include "app/setting_places.h"
#include "config/configuration.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "resolver/name_lookup.h"

namespace trabex {

struct ExplainInputs {
  const SettingPlaces& places;
  const Clock& clock;
  EventLoop& loop;  // runs while a name is asked for
  NameLookup& names;
  ExplainedGreylisting::FindRecord find_record;
};

// The server accepts all and offers what `client` says. Checks whose input is not given are passed. A client that
// has to use TLS counts as under TLS. Raises what `find_record` raises.
Explanation ExplainClient(const ExplainedClient& client, Configuration configuration,
                          const ExplainInputs& inputs);

}  // namespace trabex

// The greylisting of this program: the records in memory, who judges by them, and who keeps them in the file.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "base/log.h"
#include "config/configuration.h"
#include "greylist/greylisting_database.h"
#include "greylist/greylisting_store.h"
#include "greylist/mGreyListing.h"
#include "greylist/pending_warning.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "proxy/dialogue/greylist_check.h"

namespace trabex {

// When the program loads, saves and forgets the records; how is the store's matter. A test puts its own in
// place. They log their own failures.
struct GreyListingHooks {
  std::function<void()> load;
  std::function<void()> clear;
  // Complete when it returns.
  std::function<GreyListingSaveResult()> save;
  // The loop goes on meanwhile; `saved` is called after a success, with the universal time of what was saved.
  // False when there is nothing to save.
  std::function<bool(std::function<void(DateTime time)> saved)> save_in_background;
  // The database that the records in memory are saved to; empty when there are none because greylisting is
  // off. While a reload could not save them it is another one than the setting's, or greylisting is off.
  std::function<std::string()> database;
};

class GreyListing final : public GreylistCheck {
 public:
  // All outlive this object.
  GreyListing(const GreyListingSettings& settings, Log& log, const Clock& clock, EventLoop& loop);

  bool ShouldDefer(std::string_view host_name, const IPAddress& ip, std::string_view sender,
                   std::string_view recipient) override;

  // They refer to this object.
  GreyListingHooks MakeHooks();

 private:
  GreyListingDatabase database_;
  PendingWarning warning_;
  mGreyListing decision_;
  GreyListingStore store_;
};

}  // namespace trabex

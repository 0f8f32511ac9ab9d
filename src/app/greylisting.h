// The greylisting of this program: the records in memory, who judges by them, and who keeps them in the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
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

// The records between memory and the database: the program says when they are loaded, saved and forgotten,
// and how is the store's matter. Failures are logged, not raised. A test puts its own in place.
class GreyListingRecords {
 public:
  virtual ~GreyListingRecords() = default;
  virtual void Load() = 0;
  virtual void Clear() = 0;
  // Complete when it returns.
  virtual GreyListingSaveResult Save() = 0;
  // As Save where the disk is known not to answer: it is not touched.
  virtual GreyListingSaveResult FailToSave() = 0;
  // The loop goes on meanwhile; `saved` is called after a success, with the universal time of what was saved.
  // False when there is nothing to save.
  virtual bool SaveInBackground(std::function<void(DateTime time)> saved) = 0;
  // The database that the records in memory are saved to; empty when there are none because greylisting is
  // off. When a reload that moves them or switches greylisting off could not save them, it is still the one
  // from before.
  virtual std::string Database() const = 0;
};

// A verdict as sessions take it.
GreylistVerdict ForSession(const GreyListingVerdict& verdict);

class GreyListing final : public GreylistCheck, public GreyListingRecords {
 public:
  // All outlive this object.
  GreyListing(const GreyListingSettings& settings, Log& log, const Clock& clock, EventLoop& loop);

  GreylistVerdict ShouldDefer(std::optional<std::string_view> host_name, const IPAddress& ip,
                              std::string_view sender, std::string_view recipient) override;

  void Load() override;
  void Clear() override;
  GreyListingSaveResult Save() override;
  GreyListingSaveResult FailToSave() override;
  bool SaveInBackground(std::function<void(DateTime time)> saved) override;
  std::string Database() const override;

  std::size_t Count() const { return database_.Count(); }
  // `observer` sees the result of every save that had something to do; empty: none.
  void ObserveSaves(std::function<void(const GreyListingSaveResult&)> observer) {
    save_observer_ = std::move(observer);
  }
  // The records themselves; see GreyListingDatabase for what their changes need.
  GreyListingDatabase& RecordsInMemory() { return database_; }
  // How often they were loaded or dropped.
  std::uint64_t Loads() const { return loads_; }
  // Until ReleaseSaves no save in the background begins, and Save calls `complete`, which releases, before it saves.
  // False, without any effect, when they are held already.
  bool HoldSaves(std::function<void()> complete);
  void ReleaseSaves() { complete_ = nullptr; }

 private:
  void Observe(const GreyListingSaveResult& result) const;

  GreyListingDatabase database_;
  PendingWarning warning_;
  mGreyListing decision_;
  GreyListingStore store_;
  std::function<void(const GreyListingSaveResult&)> save_observer_;
  std::function<void()> complete_;  // empty: saves are not held
  std::uint64_t loads_ = 0;
};

}  // namespace trabex

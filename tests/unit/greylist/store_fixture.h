// A store of greylisting records for tests.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "greylist/database_file.h"
#include "greylist/greylisting_store.h"
#include "support/fake_clock.h"
#include "support/loop_runner.h"
#include "support/recorded_log.h"
#include "support/temp_folder.h"
#include "unit/greylist/greylist_support.h"

namespace trabex {

// A program with its database in a folder of its own, at kSomeNow.
class Store : public testing::Test {
 protected:
  Store() {
    settings_.Database = path_;
    clock_.SetNow(kSomeNow);
  }

  void Have(const std::vector<PlainRecord>& records) {
    database_.Clear();
    AddAll(database_, records);
    database_.SetChanged(true);
  }
  std::vector<PlainRecord> InFile(const std::string& path) const { return Plain(LoadDatabaseFile(path)); }
  // Log lines and what was loaded, as text.
  std::string LoadAndReport() {
    store_.LoadGreyListingDatabase();
    std::string text;
    for (const std::string& line : log_.Take()) text += line + "\n";
    return text + std::to_string(database_.Count()) + " records";
  }
  std::string SaveAndReport() {
    const GreyListingSaveResult result = store_.SaveGreyListingDatabase();
    std::string text = result.kind == GreyListingSaveResult::Kind::kSaved    ? "saved"
                       : result.kind == GreyListingSaveResult::Kind::kFailed ? "failed"
                                                                             : "unchanged";
    for (const std::string& line : log_.Take()) text += "\n" + line;
    return text;
  }
  // Starts a background save and runs the loop until it is over.
  GreyListingSaveResult SaveBeside() {
    std::optional<GreyListingSaveResult> result;
    EXPECT_TRUE(store_.SaveInBackground([&](const GreyListingSaveResult& r) { result = r; }));
    EXPECT_TRUE(store_.SavingInBackground());
    EXPECT_FALSE(result.has_value());
    EXPECT_TRUE(RunUntil(loop_, [&] { return result.has_value(); }));
    EXPECT_FALSE(store_.SavingInBackground());
    return result.value_or(GreyListingSaveResult{});
  }

  const TempFolder folder_;
  const std::string path_ = folder_ / "GreyListing.gldb";
  const std::string backup_ = path_ + "bak";
  GreyListingSettings settings_ = DefaultConfiguration().GreyListing;
  RecordedLog log_;
  FakeClock clock_;
  SystemClock system_clock_;
  EventLoop loop_{system_clock_};
  GreyListingDatabase database_;
  PendingWarning warning_{log_, loop_};
  GreyListingStore store_{settings_, log_, clock_, loop_, database_, warning_};
};

// The lines of the log about files that cannot be loaded.
inline const std::string kNoMain =
    "Unable to load GreyListing database. Error 53. File not found. Backup GreyListing "
    "database will be loaded.\n";
inline const std::string kNoBackup =
    "Unable to load Backup GreyListing database. Error 53. File not found. New database "
    "file will be created.\n";
inline const std::string kBadMain =
    "Unable to load GreyListing database. Error 321. The file is corrupted. Backup "
    "GreyListing database will be loaded.\n";
inline const std::string kBadBackup =
    "Unable to load Backup GreyListing database. Error 321. The file is corrupted. New "
    "database file will be created.\n";

inline const std::string kTooManyPending = "Greylisting: Too many pending records. Dropped: ";

}  // namespace trabex

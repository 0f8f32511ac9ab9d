#include "greylist/greylisting_store.h"

#include <charconv>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "greylist/database_file.h"

namespace trabex {

namespace {

// Looked at in one turn of the loop: well below a millisecond.
constexpr std::size_t kSweptPerTurn = 2000;

std::string ErrorText(std::string_view action, int number, std::string_view description) {
  std::string text = "Unable to ";
  text.append(action).append(". Error ").append(std::to_string(number)).append(". ");
  return text.append(description).append(".");
}

// What a background save returns: nothing when it succeeded, otherwise the error's number, a blank and its
// description.
std::string SaveAndReport(const std::string& path, const GreyListingDatabase& database, DateTime now) {
  try {
    SaveDatabaseFile(path, database, now);
    return "";
  } catch (const Error& error) {
    return std::to_string(error.Number()) + " " + error.Description();
  }
}

}  // namespace

GreyListingStore::GreyListingStore(const GreyListingSettings& settings, Log& log, const Clock& clock,
                                   EventLoop& loop, GreyListingDatabase& database)
    : settings_(settings),
      log_(log),
      clock_(clock),
      database_(database),
      sweep_timer_(loop, Milliseconds{0}, [this] { SweepSome(); }),
      job_(loop) {}

void GreyListingStore::LoadGreyListingDatabase(bool from_backup) {
  job_.Wait();
  // The old records go first, so that never both are in memory.
  Drop();
  path_ = settings_.Database;
  try {
    database_ = LoadDatabaseFile(from_backup ? BackupPath(*path_) : *path_);
  } catch (const Error& error) {
    if (!from_backup) {
      log_.LogLine(ErrorText("load GreyListing database", error.Number(), error.Description()) +
                   " Backup GreyListing database will be loaded.");
      LoadGreyListingDatabase(true);
    } else {
      log_.LogLine(ErrorText("load Backup GreyListing database", error.Number(), error.Description()) +
                   " New database file will be created.");
    }
  }
}

GreyListingSaveResult GreyListingStore::SaveGreyListingDatabase() {
  if (job_.Running()) {
    job_.Cancel();
    database_.SetChanged(true);
  }
  if (!database_.Changed()) return {};
  const DateTime now = clock_.UniversalNow();
  sweep_timer_.Disable();
  database_.RemoveExpired(now);
  try {
    SaveDatabaseFile(Path(), database_, now);
  } catch (const Error& error) {
    return Failed(now, error.Number(), error.Description());
  }
  database_.SetChanged(false);
  return {GreyListingSaveResult::Kind::kSaved, now};
}

bool GreyListingStore::SaveInBackground(std::function<void(const GreyListingSaveResult&)> done) {
  if (!database_.Changed() || job_.Running()) return false;
  const DateTime now = clock_.UniversalNow();
  const bool started =
      job_.Start([&] { return SaveAndReport(Path(), database_, now); },
                 [this, now, done](const JobResult& result) { done(Conclude(now, result)); });
  if (!started) {
    done(SaveGreyListingDatabase());
    return true;
  }
  // From here on it tells what the save does not hold.
  database_.SetChanged(false);
  return true;
}

void GreyListingStore::ClearGreyListingDatabase() {
  job_.Wait();
  Drop();
  path_.reset();
}

void GreyListingStore::Drop() {
  sweep_timer_.Disable();
  database_.Clear();
  database_.SetChanged(false);
}

GreyListingSaveResult GreyListingStore::Failed(DateTime now, int number, std::string_view description) {
  log_.LogLine(ErrorText("save GreyListing database", number, description));
  database_.SetChanged(true);
  return {GreyListingSaveResult::Kind::kFailed, now};
}

GreyListingSaveResult GreyListingStore::Conclude(DateTime now, const JobResult& result) {
  BeginSweep(now);
  if (!result.ended) return Failed(now, error_number::kDeviceIo, "The process that saves it was ended");
  if (result.text.empty()) return {GreyListingSaveResult::Kind::kSaved, now};
  int number = 0;
  const std::string_view text = result.text;
  const auto number_end = std::from_chars(text.data(), text.data() + text.size(), number).ptr;
  std::string_view description = text.substr(static_cast<std::size_t>(number_end - text.data()));
  if (description.starts_with(' ')) description.remove_prefix(1);
  return Failed(now, number, description);
}

void GreyListingStore::BeginSweep(DateTime now) {
  database_.BeginSweep(now);
  sweep_timer_.Enable();
}

void GreyListingStore::SweepSome() {
  if (!database_.SweepSome(kSweptPerTurn)) sweep_timer_.Disable();
}

}  // namespace trabex

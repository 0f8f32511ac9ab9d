#include "greylist/greylisting_store.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "base/text.h"
#include "greylist/database_file.h"
#include "platform/disk.h"
#include "platform/files.h"

namespace trabex {

namespace {

// Records that a sweep checks in one loop iteration: well below a millisecond.
constexpr std::size_t kSweptPerIteration = 2000;
// How long a save in place may take on a disk that may hang.
constexpr Milliseconds kMaxSaveTime{10000};
constexpr std::string_view kNoAnswer = "The disk does not answer";

std::string ErrorText(std::string_view action, int number, std::string_view description) {
  std::string text = "Unable to ";
  text.append(action).append(". Error ").append(std::to_string(number)).append(". ");
  return text.append(description).append(".");
}

template <class Number>
Number NumberOf(std::string_view digits) {
  Number number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

// What a background save reports to the program. It comes as a text: the numbers and the description, with a
// blank between each two.
struct SaveReport {
  int error = 0;             // 0: saved
  std::size_t left_out = 0;  // records that the file format cannot hold
  std::string description;   // of the error

  std::string Text() const {
    return std::to_string(error) + " " + std::to_string(left_out) + " " + description;
  }
  static SaveReport Read(std::string_view text) {
    const auto take_word = [&] {
      const std::string_view word = FirstWord(text);
      text.remove_prefix(std::min(word.size() + 1, text.size()));
      return word;
    };
    SaveReport report;
    report.error = NumberOf<int>(take_word());
    report.left_out = NumberOf<std::size_t>(take_word());
    report.description = text;
    return report;
  }
};

// The work of a background save. Its content returns how many records it left out.
std::string ReplaceAndReport(const std::string& path, const TaskContent& content) {
  SaveReport report;
  try {
    ReplaceDatabaseFile(path,
                        [&](const BytesOut& out) { report.left_out = NumberOf<std::size_t>(content(out)); });
  } catch (const Error& error) {
    report = {error.Number(), 0, error.Description()};
  }
  return report.Text();
}

}  // namespace

GreyListingStore::GreyListingStore(const GreyListingSettings& settings, Log& log, const Clock& clock,
                                   EventLoop& loop, GreyListingDatabase& database, PendingWarning& warning,
                                   std::uint64_t max_payload)
    : settings_(settings),
      log_(log),
      clock_(clock),
      database_(database),
      warning_(warning),
      max_payload_(max_payload),
      sweep_timer_(loop, Milliseconds{0}, [this] { SweepSome(); }),
      task_(loop) {}

void GreyListingStore::LoadGreyListingDatabase(bool from_backup) {
  task_.Wait();
  // The old records go first, so that never both are in memory.
  Drop();
  path_ = settings_.Database;
  try {
    database_ = LoadDatabaseFile(from_backup ? BackupPath(*path_) : *path_, PendingLimitsOf(settings_));
    // The file may hold anything as a network, which is nothing for the log.
    warning_.Dropped(database_.TakeDropped(), "");
  } catch (const Error& error) {
    if (!from_backup) {
      LogNotLoaded(error, ErrorText("load GreyListing database", error.Number(), error.Description()) +
                              " Backup GreyListing database will be loaded.");
      LoadGreyListingDatabase(true);
    } else {
      LogNotLoaded(error, ErrorText("load Backup GreyListing database", error.Number(), error.Description()) +
                              " New database file will be created.");
    }
  }
}

// A file that is not there yet is nothing out of order.
void GreyListingStore::LogNotLoaded(const Error& error, const std::string& line) {
  if (error.Number() == error_number::kFileNotFound) {
    log_.LogLine(line);
  } else {
    log_.LogProblem(line);
  }
}

GreyListingSaveResult GreyListingStore::SaveGreyListingDatabase() {
  if (task_.Running()) {
    task_.Cancel();
    database_.SetChanged(true);
  }
  if (!database_.Changed()) return {};
  const DateTime now = clock_.UniversalNow();
  sweep_timer_.Disable();
  database_.RemoveExpired(now);
  if (DiskThatMayHang(NativePath(Path()))) {
    if (const auto result = SaveWithinBound(now)) return *result;
  }
  try {
    const std::size_t left_out = SaveDatabaseFile(Path(), database_, now, max_payload_);
    database_.SetChanged(false);
    return Saved(now, left_out);
  } catch (const Error& error) {
    return Failed(now, error.Number(), error.Description());
  }
}

GreyListingSaveResult GreyListingStore::FailToSave() {
  if (!task_.Running() && !database_.Changed()) return {};
  return Failed(clock_.UniversalNow(), error_number::kDeviceIo, kNoAnswer);
}

// Nothing when the system gives no process for it.
std::optional<GreyListingSaveResult> GreyListingStore::SaveWithinBound(DateTime now) {
  std::optional<GreyListingSaveResult> result;
  const bool started = Start(now, [&](const TaskResult& said) { result = ResultOf(now, said); });
  if (!started) return std::nullopt;
  database_.SetChanged(false);
  if (task_.WaitFor(kMaxSaveTime)) return result;
  task_.Cancel();
  return Failed(now, error_number::kDeviceIo, kNoAnswer);
}

bool GreyListingStore::Start(DateTime now, std::function<void(const TaskResult&)> done) {
  return task_.Start(
      [&, now](const BytesOut& out) {
        return std::to_string(WriteDatabase(database_, now, out, max_payload_));
      },
      ReplaceAndReport, Path(), std::move(done));
}

bool GreyListingStore::SaveInBackground(std::function<void(const GreyListingSaveResult&)> done) {
  if (!database_.Changed() || task_.Running()) return false;
  const DateTime now = clock_.UniversalNow();
  const bool started =
      Start(now, [this, now, done](const TaskResult& result) { done(Conclude(now, result)); });
  if (!started) {
    done(SaveGreyListingDatabase());
    return true;
  }
  // From here on the flag means changes that the save does not hold.
  database_.SetChanged(false);
  return true;
}

void GreyListingStore::ClearGreyListingDatabase() {
  task_.Wait();
  Drop();
  path_.reset();
}

void GreyListingStore::Drop() {
  sweep_timer_.Disable();
  database_.Clear();
  database_.SetChanged(false);
}

GreyListingSaveResult GreyListingStore::Saved(DateTime now, std::size_t left_out) {
  const MonotonicTime moment = clock_.Monotonic();
  if (left_out > 0 && (!left_out_logged_ || moment - *left_out_logged_ >= std::chrono::hours(1))) {
    log_.LogLine(
        "Greylisting: Too many records for the database file. Left out: " + std::to_string(left_out) + ".");
    left_out_logged_ = moment;
  }
  return {GreyListingSaveResult::Kind::kSaved, now};
}

GreyListingSaveResult GreyListingStore::Failed(DateTime now, int number, std::string_view description) {
  log_.LogProblem(ErrorText("save GreyListing database", number, description));
  database_.SetChanged(true);
  return {GreyListingSaveResult::Kind::kFailed, now};
}

GreyListingSaveResult GreyListingStore::Conclude(DateTime now, const TaskResult& result) {
  BeginSweep(now);
  return ResultOf(now, result);
}

GreyListingSaveResult GreyListingStore::ResultOf(DateTime now, const TaskResult& result) {
  if (!result.ended) return Failed(now, error_number::kDeviceIo, "The process that saves it was ended");
  const SaveReport report = SaveReport::Read(result.text);
  if (report.error != 0) return Failed(now, report.error, report.description);
  return Saved(now, report.left_out);
}

void GreyListingStore::BeginSweep(DateTime now) {
  database_.BeginSweep(now);
  sweep_timer_.Enable();
}

void GreyListingStore::SweepSome() {
  if (!database_.SweepSome(kSweptPerIteration)) sweep_timer_.Disable();
}

}  // namespace trabex

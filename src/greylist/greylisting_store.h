// When the greylisting database is loaded and saved, and what the log says about it.
//
// The mail must not wait for a save, and a million records take about a second to write and, on a slow disk,
// longer still to sync. So the periodic save is made by a forked copy of the process
// (platform/background_task.h). Writing a slice in each loop iteration was the other choice; it cannot keep
// its promise, because a sync, and a write once the system's buffers are full, takes as long as the disk
// likes, and the file would mix records of different moments. The copy sees all records as they were at one
// moment. The costs are bounded: forking takes a few milliseconds for a million records, memory is doubled
// only for what changes during the save, and the copy drops every socket at once and dies with the program.
// (Where there is no fork, the part of a save that looks at the records has to come first, as a whole: half a
// second and 120 MB for a million of them.)
// What the check changes meanwhile sets the changed flag anew and is for the next save. Expired records leave
// our own memory after the save, some in each iteration.
//
// A save never fails for the number of records: what the file format cannot hold is left out, the oldest
// pending ones first. It stays in memory, where it is of use until the program ends; the log says so once an
// hour at most. It takes some 30 million records to get there.
//
// At the program's end and before a reload the save has to be complete, so there it is made in place. A
// background save under way is then given up, as it would only write older records to the same place first. On a disk that
// may hang (platform/disk.h) a process writes then too, and it has failed when that takes more than 10 seconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "base/log.h"
#include "config/configuration.h"
#include "greylist/database_format.h"
#include "greylist/greylisting_database.h"
#include "greylist/pending_warning.h"
#include "platform/background_task.h"
#include "platform/clock.h"
#include "platform/event_loop.h"

namespace trabex {

struct GreyListingSaveResult {
  enum class Kind {
    kUnchanged,  // nothing to save, nothing written
    kSaved,
    kFailed,  // logged; the old files are in place and the changed flag is set
  };
  Kind kind = Kind::kUnchanged;
  DateTime time = 0;  // universal; the moment whose records were, or were to be, saved
};

class GreyListingStore {
 public:
  // All outlive this object. Settings are read at each use. `max_payload` is the file format's; a test
  // sets another.
  GreyListingStore(const GreyListingSettings& settings, Log& log, const Clock& clock, EventLoop& loop,
                   GreyListingDatabase& database, PendingWarning& warning,
                   std::uint64_t max_payload = kMaxPayload);
  // Gives up a save in the background.
  ~GreyListingStore() = default;
  GreyListingStore(const GreyListingStore&) = delete;
  GreyListingStore& operator=(const GreyListingStore&) = delete;

  // Replaces the records by those of the file at the Database setting, or with `from_backup` of its backup.
  // Of pending ones beyond MaxPending and MaxPendingPerNetwork the oldest are dropped while the file is read,
  // and the warning is given. When the load fails the reason is logged and the backup is loaded, after that
  // an empty database begun. That path is the one that later saves go to, even when the setting changes.
  // Waits for a save in the background first.
  void LoadGreyListingDatabase(bool from_backup = false);

  // Removes the expired records and writes the others, if something has changed. On return the files are on
  // the disk, or the reason is logged. A save in the background is given up; its `done` is not called.
  GreyListingSaveResult SaveGreyListingDatabase();

  // What that comes to where the disk is known not to answer: nothing is tried, and a save in the background goes on.
  GreyListingSaveResult FailToSave();

  // As SaveGreyListingDatabase, but the loop goes on meanwhile; expired records leave the memory in the
  // iterations after the save. `done` is called from the loop with kSaved or kFailed. When the system gives
  // no process for it, the save is made in place after all (better a held-up loop than lost records), and
  // `done` called before this returns. False when nothing has changed or such a save is under way already;
  // `done` is not called then.
  bool SaveInBackground(std::function<void(const GreyListingSaveResult&)> done);
  bool SavingInBackground() const { return task_.Running(); }

  // Drops all records, for greylisting disabled. Waits for a save in the background first.
  void ClearGreyListingDatabase();

  // Where the records are saved to; nothing before the first load and after they were dropped.
  const std::optional<std::string>& LoadedPath() const { return path_; }

 private:
  const std::string& Path() const { return path_ ? *path_ : settings_.Database; }
  void Drop();
  GreyListingSaveResult Saved(DateTime now, std::size_t left_out);
  GreyListingSaveResult Failed(DateTime now, int number, std::string_view description);
  void LogNotLoaded(const Error& error, const std::string& line);
  std::optional<GreyListingSaveResult> SaveWithinBound(DateTime now);
  bool Start(DateTime now, std::function<void(const TaskResult&)> done);
  GreyListingSaveResult ResultOf(DateTime now, const TaskResult& result);
  GreyListingSaveResult Conclude(DateTime now, const TaskResult& result);
  void BeginSweep(DateTime now);
  void SweepSome();

  const GreyListingSettings& settings_;
  Log& log_;
  const Clock& clock_;
  GreyListingDatabase& database_;
  PendingWarning& warning_;
  const std::uint64_t max_payload_;
  std::optional<MonotonicTime> left_out_logged_;  // when that was last logged
  std::optional<std::string> path_;               // that of the last load
  Timer sweep_timer_;
  BackgroundTask task_;
};

}  // namespace trabex

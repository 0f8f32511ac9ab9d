// Saves that are killed, or whose system calls fail, at every point there is.
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "greylist/database_file.h"
#include "greylist/greylisting_store.h"
#include "support/fake_clock.h"
#include "support/recorded_log.h"
#include "support/temp_folder.h"
#include "unit/greylist/greylist_support.h"
#include "unit/greylist/linux/traced_process.h"

namespace trabex {
namespace {

// Large enough that the payload is written in more than one piece.
constexpr int kNewRecords = 1800;

// A folder with a database and its backup, and newer records to be saved over them.
class InterruptedSave : public testing::Test {
 protected:
  InterruptedSave() {
    AddAll(records_, new_);
    EXPECT_GT(new_content_.size(), 128 * 1024);
  }

  // Both files as a save before would have left them.
  void PrepareFiles() {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.Path())) {
      std::filesystem::remove_all(entry.path());
    }
    WriteFile(path_, old_content_);
    WriteFile(path_ + "bak", older_content_);
  }

  // The content at `path` as the name it has here; "missing", or "damaged" for anything else.
  std::string At(const std::string& path) const {
    if (!std::filesystem::exists(path)) return "missing";
    const std::string content = ReadFile(path);
    if (content == old_content_) return "old";
    if (content == older_content_) return "older";
    if (content == new_content_) return "new";
    return "damaged";
  }
  std::string Files() const { return At(path_) + ", " + At(path_ + "bak"); }

  // What a start finds.
  std::string Loaded() const {
    GreyListingSettings settings = DefaultConfiguration().GreyListing;
    settings.Database = path_;
    RecordedLog log;
    FakeClock clock;
    EventLoop loop(clock);
    GreyListingDatabase database;
    PendingWarning warning(log, loop);
    GreyListingStore(settings, log, clock, loop, database, warning).LoadGreyListingDatabase();
    const std::vector<PlainRecord> records = Plain(database);
    return records == old_ ? "old" : records == older_ ? "older" : records == new_ ? "new" : "neither";
  }

  int Save() const {
    try {
      SaveDatabaseFile(path_, records_, kSomeNow);
      return 0;
    } catch (const Error& error) {
      return error.Number();
    }
  }

  const TempFolder folder_;
  const std::string path_ = folder_ / "GreyListing.gldb";
  const std::vector<PlainRecord> older_ = SomeRecords("older", 1);
  const std::vector<PlainRecord> old_ = SomeRecords("old", 2);
  const std::vector<PlainRecord> new_ = SomeRecords("new", kNewRecords);
  const std::string older_content_ = ContentOf(older_);
  const std::string old_content_ = ContentOf(old_);
  const std::string new_content_ = ContentOf(new_);
  GreyListingDatabase records_;
};

// The calls that have to do with files. Those for memory come and go from run to run.
bool IsFileCall(long call) {
  constexpr std::array kCalls = {SYS_openat, SYS_open,   SYS_write,      SYS_fsync, SYS_rename, SYS_link,
                                 SYS_unlink, SYS_mkdir,  SYS_newfstatat, SYS_fstat, SYS_lstat,  SYS_stat,
                                 SYS_close,  SYS_access, SYS_flock,      SYS_statx};
  return std::find(kCalls.begin(), kCalls.end(), call) != kCalls.end();
}

// Lets the hard link fail, as file systems without them do.
int NoLinks(const TraceStop& stop) {
  return stop.before && stop.call == SYS_link ? EPERM : 0;
}

// Runs a save to its end or to stop number `last` at a call for files, where it is killed. Returns whether it
// was.
template <class Save>
bool KillAtStop(const Save& save, int last, bool links, TraceResult& result) {
  int stops = 0;
  result = RunTraced(save, [&](const TraceStop& stop) {
    TraceAction action;
    action.kill = IsFileCall(stop.call) && ++stops > last;
    if (!links) action.fail = NoLinks(stop);
    return action;
  });
  return result.killed;
}

TEST_F(InterruptedSave, KilledAtAnyCallLeavesOldOrNew) {
  for (const bool links : {true, false}) {
    std::vector<std::string> seen;
    bool killed = true;
    int stop = 0;
    for (; killed; ++stop) {
      PrepareFiles();
      TraceResult result;
      killed = KillAtStop([this] { return Save(); }, stop, links, result);
      if (!result.permitted) GTEST_SKIP() << "this system does not permit tracing a process";
      const std::string files = Files();
      if (seen.empty() || seen.back() != files) seen.push_back(files);
      const std::string loaded = Loaded();
      ASSERT_TRUE(loaded == "old" || loaded == "new") << "stop " << stop << ": " << files;
      if (!killed) {
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(files, "new, old");
      }
      // Whatever was left over does not disturb the next save.
      ASSERT_EQ(Save(), 0) << "stop " << stop;
      ASSERT_EQ(At(path_), "new") << "stop " << stop;
      for (const char* left : {"new", "old"}) {
        ASSERT_EQ(At(path_ + left), "missing") << "stop " << stop;
      }
    }
    // Every state on the way was seen, and with links neither file is ever missing.
    const std::vector<std::string> expected =
        links ? std::vector<std::string>{"old, older", "new, older", "new, old"}
              : std::vector<std::string>{"old, older", "old, missing", "missing, old", "new, old"};
    EXPECT_EQ(seen, expected) << (links ? "with" : "without") << " links";
    EXPECT_GT(stop, 30);
  }
}

// What is moved into place is on the disk before, and the names are at the end.
TEST_F(InterruptedSave, SyncsBeforeAndAfterMoving) {
  PrepareFiles();
  std::string calls;
  const TraceResult result = RunTraced([this] { return Save(); },
                                       [&calls](const TraceStop& stop) {
                                         if (!stop.before) return TraceAction();
                                         if (stop.call == SYS_write && !calls.ends_with("write "))
                                           calls += "write ";
                                         if (stop.call == SYS_fsync) calls += "fsync ";
                                         if (stop.call == SYS_link) calls += "link ";
                                         if (stop.call == SYS_rename) calls += "rename ";
                                         return TraceAction();
                                       });
  if (!result.permitted) GTEST_SKIP() << "this system does not permit tracing a process";
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(calls, "write fsync link rename rename fsync ");
}

// The file was damaged, so the records come from the backup. Until the new file is in place nothing may touch
// that.
TEST_F(InterruptedSave, TheOnlyGoodCopyIsNeverLost) {
  bool killed = true;
  for (int stop = 0; killed; ++stop) {
    PrepareFiles();
    WriteFile(path_, "damaged");
    TraceResult result;
    killed = KillAtStop([this] { return Save(); }, stop, true, result);
    if (!result.permitted) GTEST_SKIP() << "this system does not permit tracing a process";
    const std::string loaded = Loaded();
    ASSERT_TRUE(loaded == "older" || loaded == "new") << "stop " << stop << ": " << Files();
  }
}

TEST_F(InterruptedSave, KilledOnAFirstSaveLeavesNothingOrAll) {
  bool killed = true;
  for (int stop = 0; killed; ++stop) {
    PrepareFiles();
    std::filesystem::remove(path_);
    std::filesystem::remove(path_ + "bak");
    TraceResult result;
    killed = KillAtStop([this] { return Save(); }, stop, true, result);
    if (!result.permitted) GTEST_SKIP() << "this system does not permit tracing a process";
    const std::string files = Files();
    ASSERT_TRUE(files == "missing, missing" || files == "new, missing") << "stop " << stop << ": " << files;
    if (!killed) {
      EXPECT_EQ(files, "new, missing");
    }
  }
}

TEST_F(InterruptedSave, AnyFailingCallLeavesOldOrSavesNew) {
  for (const bool links : {true, false}) {
    int failures = 0;
    bool reached = true;
    for (int last = 0; reached; ++last) {
      PrepareFiles();
      reached = false;
      int calls = 0;
      long failed_call = 0;
      const TraceResult result = RunTraced([this] { return Save(); },
                                           [&](const TraceStop& stop) {
                                             TraceAction action;
                                             if (!links) action.fail = NoLinks(stop);
                                             if (stop.before && IsFileCall(stop.call) && calls++ == last) {
                                               reached = true;
                                               failed_call = stop.call;
                                               action.fail = EIO;
                                             }
                                             return action;
                                           });
      if (!result.permitted) GTEST_SKIP() << "this system does not permit tracing a process";
      const std::string files = Files();
      const std::string where = "call " + std::to_string(last) + ", number " + std::to_string(failed_call) +
                                ", error " + std::to_string(result.exit_status) + ": " + files;
      if (result.exit_status == 0) {
        // The failure did not matter, or cost the backup only.
        ASSERT_EQ(At(path_), "new") << where;
        ASSERT_TRUE(At(path_ + "bak") == "old" || At(path_ + "bak") == "older") << where;
      } else if (At(path_) == "new") {
        // Only the folder's sync comes after the moves.
        ASSERT_TRUE(failed_call == SYS_fsync || failed_call == SYS_openat) << where;
        ASSERT_EQ(files, "new, old");
      } else {
        ++failures;
        ASSERT_EQ(files, "old, older") << where;
      }
      ASSERT_EQ(Loaded(), At(path_)) << where;
    }
    EXPECT_GT(failures, 4);
  }
}

}  // namespace
}  // namespace trabex

#include "greylist/greylisting_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "greylist/crc32.h"
#include "greylist/database_file.h"
#include "platform/file_stream.h"
#include "unit/greylist/store_fixture.h"

namespace trabex {
namespace {

using Kind = GreyListingSaveResult::Kind;
using Lines = std::vector<std::string>;
namespace fs = std::filesystem;

TEST_F(Store, AFirstStartFindsNothing) {
  EXPECT_EQ(LoadAndReport(), kNoMain + kNoBackup + "0 records");
  EXPECT_FALSE(database_.Changed());
}

TEST_F(Store, LoadsTheFile) {
  WriteFile(path_, ContentOf(SomeRecords("s", 3)));
  Have(SomeRecords("before", 2));
  EXPECT_EQ(LoadAndReport(), "3 records");
  EXPECT_EQ(Plain(database_), SomeRecords("s", 3));
  EXPECT_FALSE(database_.Changed());
}

TEST_F(Store, FallsBackToTheBackup) {
  WriteFile(backup_, ContentOf(SomeRecords("backup", 2)));
  EXPECT_EQ(LoadAndReport(), kNoMain + "2 records");
  std::string wrong_magic = ContentOf(SomeRecords("s", 3));
  wrong_magic[0] = '\x3E';
  WriteFile(path_, wrong_magic);
  Have(SomeRecords("before", 1));
  EXPECT_EQ(LoadAndReport(), kBadMain + "2 records");
  EXPECT_EQ(Plain(database_), SomeRecords("backup", 2));
  EXPECT_FALSE(database_.Changed());
  WriteFile(backup_, "damaged");
  Have(SomeRecords("before", 1));
  EXPECT_EQ(LoadAndReport(), kBadMain + kBadBackup + "0 records");
  EXPECT_FALSE(database_.Changed());
}

TEST_F(Store, LoadsTheBackupAlone) {
  WriteFile(path_, ContentOf(SomeRecords("s", 3)));
  WriteFile(backup_, ContentOf(SomeRecords("backup", 2)));
  store_.LoadGreyListingDatabase(true);
  EXPECT_EQ(Plain(database_), SomeRecords("backup", 2));
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(Store, NothingOfADamagedFileStays) {
  // The damage comes after good records.
  std::string content = ContentOf(SomeRecords("s", 50));
  content.back() = static_cast<char>(content.back() ^ 1);
  WriteFile(path_, content);
  EXPECT_EQ(LoadAndReport(), kBadMain + kNoBackup + "0 records");
}

TEST_F(Store, LogsWhyAFileCannotBeRead) {
  fs::create_directory(path_);
  fs::create_directory(backup_);
  EXPECT_EQ(
      LoadAndReport(),
      "Unable to load GreyListing database. Error 75. Path/File access error. Backup GreyListing database "
      "will be loaded.\n"
      "Unable to load Backup GreyListing database. Error 75. Path/File access error. New database file will "
      "be created.\n"
      "0 records");
  settings_.Database = folder_ / "no/such/db";
  EXPECT_EQ(
      LoadAndReport(),
      "Unable to load GreyListing database. Error 76. Path not found. Backup GreyListing database will be "
      "loaded.\n"
      "Unable to load Backup GreyListing database. Error 76. Path not found. New database file will be "
      "created.\n"
      "0 records");
}

TEST_F(Store, LogsADuplicateKey) {
  const std::vector<PlainRecord> records = {{"same", kSomeNow + 1, kSomeNow, -1}};
  const std::string one = ContentOf(records);
  GreyListingDatabase two;
  AddAll(two, {{"same", kSomeNow + 1, kSomeNow, -1}, {"sama", kSomeNow + 1, kSomeNow, -1}});
  std::string content = ContentOf(two);
  // The second key becomes the first, and the checksum that of the new content.
  content[content.rfind("sama") + 3] = 'e';
  Crc32 crc;
  crc.Add(std::string_view(content).substr(8, content.size() - 12));
  for (std::size_t i = 0; i < 4; ++i) {
    content[content.size() - 4 + i] = static_cast<char>((crc.Value() >> (8 * i)) & 0xFF);
  }
  WriteFile(path_, content);
  WriteFile(backup_, one);
  EXPECT_EQ(
      LoadAndReport(),
      "Unable to load GreyListing database. Error 457. This key is already associated with an element of "
      "this collection. Backup GreyListing database will be loaded.\n1 records");
}

TEST_F(Store, SavesOnlyChanges) {
  Have(SomeRecords("s", 3));
  database_.SetChanged(false);
  EXPECT_EQ(SaveAndReport(), "unchanged");
  EXPECT_FALSE(fs::exists(path_));
  database_.SetChanged(true);
  EXPECT_EQ(SaveAndReport(), "saved");
  EXPECT_FALSE(database_.Changed());
  EXPECT_EQ(InFile(path_), SomeRecords("s", 3));
  EXPECT_FALSE(fs::exists(backup_));
  EXPECT_EQ(SaveAndReport(), "unchanged");
}

TEST_F(Store, TheFileBeforeBecomesTheBackup) {
  for (int round = 1; round <= 3; ++round) {
    Have(SomeRecords("s", round));
    EXPECT_EQ(SaveAndReport(), "saved");
    EXPECT_EQ(InFile(path_), SomeRecords("s", round));
    if (round > 1) {
      EXPECT_EQ(InFile(backup_), SomeRecords("s", round - 1));
    }
  }
  Lines names;
  for (const auto& entry : fs::directory_iterator(folder_.Path()))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (Lines{"GreyListing.gldb", "GreyListing.gldbbak"}));
}

TEST_F(Store, SavingRemovesTheExpired) {
  Have({{"past", kSomeNow - 1, 1, 5},
        {"a", kSomeNow + 1, 1, 5},
        {"now", kSomeNow, 1, 5},
        {"b", kSomeNow + 2, 1, 5}});
  EXPECT_EQ(SaveAndReport(), "saved");
  const std::vector<PlainRecord> left = {{"a", kSomeNow + 1, 1, 5}, {"b", kSomeNow + 2, 1, 5}};
  EXPECT_EQ(InFile(path_), left);
  EXPECT_EQ(Plain(database_), left);
}

TEST_F(Store, ASaveReportsItsTime) {
  Have(SomeRecords("s", 1));
  clock_.SetBias(-60);
  clock_.SetNow(kSomeNow + 1.0 / 24);
  const GreyListingSaveResult result = store_.SaveGreyListingDatabase();
  EXPECT_EQ(result.kind, Kind::kSaved);
  EXPECT_NEAR(result.time, kSomeNow, 1e-9);
}

TEST_F(Store, CreatesTheLastFolderOnly) {
  settings_.Database = folder_ / "GreyListing/db";
  Have(SomeRecords("s", 1));
  EXPECT_EQ(SaveAndReport(), "saved");
  EXPECT_EQ(InFile(settings_.Database), SomeRecords("s", 1));
  settings_.Database = folder_ / "a/b/db";
  Have(SomeRecords("s", 1));
  EXPECT_EQ(SaveAndReport(), "failed\nUnable to save GreyListing database. Error 76. Path not found.");
  EXPECT_TRUE(database_.Changed());
}

TEST_F(Store, TakesBothSeparators) {
  fs::create_directory(folder_ / "sub");
  settings_.Database = folder_.Path() + "\\sub\\db";
  Have(SomeRecords("s", 1));
  EXPECT_EQ(SaveAndReport(), "saved");
  EXPECT_EQ(InFile(folder_ / "sub/db"), SomeRecords("s", 1));
  EXPECT_EQ(LoadAndReport(), "1 records");
}

// The path that the records were loaded from stays in force until the next load.
TEST_F(Store, SavesToWhereItWasLoadedFrom) {
  WriteFile(path_, ContentOf(SomeRecords("s", 1)));
  EXPECT_EQ(LoadAndReport(), "1 records");
  settings_.Database = folder_ / "other";
  Have(SomeRecords("new", 2));
  EXPECT_EQ(SaveAndReport(), "saved");
  EXPECT_EQ(InFile(path_), SomeRecords("new", 2));
  EXPECT_FALSE(fs::exists(settings_.Database));
  EXPECT_EQ(LoadAndReport(), kNoMain + kNoBackup + "0 records");
  Have(SomeRecords("other", 1));
  EXPECT_EQ(SaveAndReport(), "saved");
  EXPECT_EQ(InFile(settings_.Database), SomeRecords("other", 1));
  EXPECT_EQ(InFile(path_), SomeRecords("new", 2));
}

TEST_F(Store, ClearedHasNothingToSave) {
  Have(SomeRecords("s", 3));
  store_.ClearGreyListingDatabase();
  EXPECT_EQ(database_.Count(), 0U);
  EXPECT_EQ(SaveAndReport(), "unchanged");
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(Store, AFolderInPlaceOfTheBackupCostsTheBackupOnly) {
  fs::create_directories(backup_ + "/inside");
  for (int round = 1; round <= 2; ++round) {
    Have(SomeRecords("s", round));
    EXPECT_EQ(SaveAndReport(), "saved");
    EXPECT_EQ(InFile(path_), SomeRecords("s", round));
  }
  EXPECT_TRUE(fs::is_directory(backup_ + "/inside"));
  EXPECT_FALSE(fs::exists(path_ + "old"));
}

TEST_F(Store, AFolderInPlaceOfTheFileStays) {
  fs::create_directories(path_ + "/inside");
  Have(SomeRecords("s", 1));
  EXPECT_EQ(SaveAndReport(),
            "failed\nUnable to save GreyListing database. Error 75. Path/File access error.");
  EXPECT_TRUE(fs::is_directory(path_ + "/inside"));
  EXPECT_TRUE(database_.Changed());
}

// Two programs that were given the same file do not write into each other's.
TEST_F(Store, AFileThatAnotherProcessWritesIsLeftAlone) {
  Have(SomeRecords("s", 1));
  EXPECT_EQ(SaveAndReport(), "saved");
  {
    const NewFile other(path_ + "new", "test");
    Have(SomeRecords("s", 2));
    EXPECT_EQ(SaveAndReport(), "failed\nUnable to save GreyListing database. Error 70. Permission denied.");
    EXPECT_TRUE(fs::exists(path_ + "new"));
    EXPECT_EQ(InFile(path_), SomeRecords("s", 1));
  }
  EXPECT_EQ(SaveAndReport(), "saved");
}

TEST_F(Store, SavesInTheBackground) {
  EXPECT_EQ(LoadAndReport(), kNoMain + kNoBackup + "0 records");
  Have(SomeRecords("s", 1000));
  const GreyListingSaveResult result = SaveBeside();
  EXPECT_EQ(result.kind, Kind::kSaved);
  EXPECT_EQ(result.time, kSomeNow);
  EXPECT_FALSE(database_.Changed());
  EXPECT_EQ(InFile(path_), SomeRecords("s", 1000));
  EXPECT_TRUE(log_.Lines().empty());
  // Nothing has changed since.
  EXPECT_FALSE(store_.SaveInBackground([](const GreyListingSaveResult&) { ADD_FAILURE(); }));
  Have(SomeRecords("s", 2));
  EXPECT_EQ(SaveBeside().kind, Kind::kSaved);
  EXPECT_EQ(InFile(backup_), SomeRecords("s", 1000));
}

TEST_F(Store, ABackgroundSaveHoldsOneMoment) {
  Have(SomeRecords("s", 1000));
  std::optional<GreyListingSaveResult> result;
  ASSERT_TRUE(store_.SaveInBackground([&](const GreyListingSaveResult& r) { result = r; }));
  // One at a time.
  EXPECT_FALSE(store_.SaveInBackground([](const GreyListingSaveResult&) { ADD_FAILURE(); }));
  // What changes now is for the next save, and the flag says so.
  for (const PlainRecord& record : SomeRecords("s", 1000)) database_.Find(std::get<0>(record))->SetCount(99);
  AddAll(database_, SomeRecords("more", 10));
  database_.SetChanged(true);
  ASSERT_TRUE(RunUntil(loop_, [&] { return result.has_value(); }));
  EXPECT_EQ(result->kind, Kind::kSaved);
  EXPECT_EQ(InFile(path_), SomeRecords("s", 1000));
  EXPECT_TRUE(database_.Changed());
  EXPECT_EQ(SaveBeside().kind, Kind::kSaved);
  EXPECT_EQ(InFile(path_), Plain(database_));
}

TEST_F(Store, ExpiredRecordsLeaveTheMemoryAfterABackgroundSave) {
  std::vector<PlainRecord> records;
  std::vector<PlainRecord> left;
  for (int i = 0; i < 10000; ++i) {
    const bool expired = i % 3 != 0;
    records.emplace_back("key" + std::to_string(i), kSomeNow + (expired ? -1 : 1), 1, 5);
    if (!expired) left.push_back(records.back());
  }
  Have(records);
  EXPECT_EQ(SaveBeside().kind, Kind::kSaved);
  EXPECT_EQ(InFile(path_), left);
  // Not all at once: that would hold up the loop.
  EXPECT_GT(database_.Count(), left.size());
  // One that comes back meanwhile is no longer expired and stays.
  database_.Find("key9998")->SetExpireAt(kSomeNow + 5);
  left.insert(left.end() - 1, {"key9998", kSomeNow + 5, 1, 5});
  EXPECT_TRUE(RunUntil(loop_, [&] { return database_.Count() == left.size(); }));
  EXPECT_EQ(Plain(database_), left);
}

TEST_F(Store, TheSweepEndsWithTheRecordsItWalks) {
  Have(SomeRecords("s", 10000));
  EXPECT_EQ(SaveBeside().kind, Kind::kSaved);
  store_.ClearGreyListingDatabase();
  RunUntilIdle(loop_);
  Have(SomeRecords("t", 10000));
  EXPECT_EQ(SaveBeside().kind, Kind::kSaved);
  EXPECT_EQ(LoadAndReport(), "10000 records");
  RunUntilIdle(loop_);
  Have(SomeRecords("u", 10000));
  EXPECT_EQ(SaveBeside().kind, Kind::kSaved);
  database_.SetChanged(true);
  clock_.SetNow(kSomeNow + 20000);
  EXPECT_EQ(SaveAndReport(), "saved");
  EXPECT_EQ(database_.Count(), 0U);
  RunUntilIdle(loop_);
}

TEST_F(Store, AFailedBackgroundSaveIsTriedAgain) {
  settings_.Database = folder_ / "a/b/db";
  Have(SomeRecords("s", 2));
  const GreyListingSaveResult result = SaveBeside();
  EXPECT_EQ(result.kind, Kind::kFailed);
  EXPECT_EQ(log_.Take(), (Lines{"Unable to save GreyListing database. Error 76. Path not found."}));
  EXPECT_TRUE(database_.Changed());
  fs::create_directories(folder_ / "a");
  EXPECT_EQ(SaveBeside().kind, Kind::kSaved);
  EXPECT_EQ(InFile(folder_ / "a/b/db"), SomeRecords("s", 2));
}

TEST_F(Store, ACompleteSaveOvertakesOneInTheBackground) {
  Have(SomeRecords("s", 1000));
  ASSERT_TRUE(store_.SaveInBackground([](const GreyListingSaveResult&) { ADD_FAILURE(); }));
  // Even when nothing changed since: that save is given up.
  EXPECT_EQ(SaveAndReport(), "saved");
  EXPECT_FALSE(store_.SavingInBackground());
  EXPECT_EQ(InFile(path_), SomeRecords("s", 1000));
  RunUntilIdle(loop_);
  EXPECT_FALSE(fs::exists(path_ + "new"));
  EXPECT_FALSE(database_.Changed());
}

TEST_F(Store, ALoadWaitsForTheSaveInTheBackground) {
  Have(SomeRecords("s", 1000));
  bool done = false;
  ASSERT_TRUE(store_.SaveInBackground([&](const GreyListingSaveResult&) { done = true; }));
  EXPECT_EQ(LoadAndReport(), "1000 records");
  EXPECT_TRUE(done);
  EXPECT_FALSE(database_.Changed());
}

TEST_F(Store, ClearingWaitsForTheSaveInTheBackground) {
  Have(SomeRecords("s", 1000));
  ASSERT_TRUE(store_.SaveInBackground([](const GreyListingSaveResult&) {}));
  store_.ClearGreyListingDatabase();
  EXPECT_EQ(database_.Count(), 0U);
  EXPECT_EQ(InFile(path_), SomeRecords("s", 1000));
}

// --- more than there is room for

const std::string kLeftOut = "Greylisting: Too many records for the database file. Left out: ";

// A store whose file holds some 14 of SomeRecords.
class CrampedStore : public Store {
 protected:
  GreyListingStore cramped_{settings_, log_, clock_, loop_, database_, warning_, 1000};

  // The log after a save in place or in the background.
  Lines LinesOfSave(bool background) {
    database_.SetChanged(true);
    std::optional<GreyListingSaveResult> result;
    if (background) {
      EXPECT_TRUE(cramped_.SaveInBackground([&](const GreyListingSaveResult& r) { result = r; }));
      EXPECT_TRUE(cramped_.SavingInBackground());
      EXPECT_TRUE(RunUntil(loop_, [&] { return result.has_value(); }));
    } else {
      result = cramped_.SaveGreyListingDatabase();
    }
    EXPECT_EQ(result->kind, Kind::kSaved);
    EXPECT_FALSE(database_.Changed());
    return log_.Take();
  }
};

TEST_F(CrampedStore, ASaveNeverFailsForTheNumberOfRecords) {
  for (const bool background : {false, true}) {
    std::vector<PlainRecord> records = SomeRecords("s", 30);
    std::get<3>(records[2]) = 4;
    Have(records);
    EXPECT_EQ(LinesOfSave(background), Lines{kLeftOut + "16."});
    EXPECT_LE(fs::file_size(path_), 1008U);
    const std::vector<PlainRecord> kept = InFile(path_);
    EXPECT_EQ(kept.size(), 14U);
    EXPECT_EQ(kept.front(), records[2]);
    EXPECT_EQ(kept.back(), records[29]);
    // They are of use until the program ends.
    EXPECT_EQ(Plain(database_), records);
    clock_.Advance(std::chrono::hours(1));
  }
}

TEST_F(CrampedStore, LogsWhatIsLeftOutOnceAnHour) {
  Have(SomeRecords("s", 30));
  EXPECT_EQ(LinesOfSave(false).size(), 1U);
  EXPECT_EQ(LinesOfSave(true), Lines{});
  clock_.Advance(std::chrono::minutes(59));
  EXPECT_EQ(LinesOfSave(false), Lines{});
  // Only the time that has really passed counts.
  for (const double days : {0.1, -0.1}) {
    clock_.SetNow(clock_.Now() + days);
    EXPECT_EQ(LinesOfSave(false), Lines{});
  }
  clock_.Advance(std::chrono::minutes(1));
  EXPECT_EQ(LinesOfSave(true), Lines{kLeftOut + "16."});
  // What fits is not logged.
  clock_.Advance(std::chrono::hours(1));
  Have(SomeRecords("s", 10));
  EXPECT_EQ(LinesOfSave(true), Lines{});
  EXPECT_EQ(InFile(path_), SomeRecords("s", 10));
}

TEST_F(Store, ALoadKeepsToTheBounds) {
  settings_.MaxPending = 4;
  WriteFile(path_, ContentOf(SomeRecords("s", 10)));
  EXPECT_EQ(LoadAndReport(), kTooManyPending + "6.\n4 records");
  std::vector<PlainRecord> last = SomeRecords("s", 10);
  last.erase(last.begin(), last.begin() + 6);
  EXPECT_EQ(Plain(database_), last);
  EXPECT_FALSE(database_.Changed());
  // Also the backup, and within the hour it is not logged again.
  fs::rename(path_, backup_);
  settings_.MaxPending = 100;
  settings_.MaxPendingPerNetwork = 3;
  EXPECT_EQ(LoadAndReport(), kNoMain + "3 records");
  EXPECT_EQ(database_.PendingCount(), 3U);
}

TEST_F(Store, AFileLeftOverDoesNotHinderASave) {
  for (const char* name : {"new", "old"}) {
    WriteFile(path_ + name, "left over");
    Have(SomeRecords("s", 2));
    EXPECT_EQ(SaveAndReport(), "saved") << name;
    EXPECT_EQ(InFile(path_), SomeRecords("s", 2)) << name;
    EXPECT_FALSE(fs::exists(path_ + name)) << name;
  }
}

}  // namespace
}  // namespace trabex

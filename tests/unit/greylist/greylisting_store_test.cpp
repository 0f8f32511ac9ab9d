#include "greylist/greylisting_store.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "greylist/crc32.h"
#include "greylist/database_file.h"
#include "platform/file_stream.h"
#include "support/fake_clock.h"
#include "support/loop_runner.h"
#include "support/recorded_log.h"
#include "support/temp_folder.h"
#include "unit/greylist/greylist_support.h"

namespace trabex {
namespace {

using Kind = GreyListingSaveResult::Kind;
using Lines = std::vector<std::string>;
namespace fs = std::filesystem;

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
    std::string text = result.kind == Kind::kSaved    ? "saved"
                       : result.kind == Kind::kFailed ? "failed"
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

const std::string kNoMain =
    "Unable to load GreyListing database. Error 53. File not found. Backup GreyListing "
    "database will be loaded.\n";
const std::string kNoBackup =
    "Unable to load Backup GreyListing database. Error 53. File not found. New database "
    "file will be created.\n";
const std::string kBadMain =
    "Unable to load GreyListing database. Error 321. The file is corrupted. Backup "
    "GreyListing database will be loaded.\n";
const std::string kBadBackup =
    "Unable to load Backup GreyListing database. Error 321. The file is corrupted. New "
    "database file will be created.\n";

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
  ASSERT_EQ(mkfifo(backup_.c_str(), 0600), 0);  // opening it would wait for a writer
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

// A header that promises 4 GB must cost neither memory nor time, and neither must a file that is as long as
// it says but holds nothing, or nothing but the number of records that it would have room for.
TEST_F(Store, AHugeLengthCostsNoMemory) {
  const std::string header("\x3F\xC7\x6A\xA2\xFF\xFF\xFF\xFF", 8);
  const std::string a_hundred_million_records(
      "\x01"
      "Ci\x00\xE1\xF5\x05",
      7);
  WriteFile(path_, header + a_hundred_million_records);
  fs::resize_file(path_, 8 + 0xFFFFFFFFULL);
  WriteFile(backup_, header);
  fs::resize_file(backup_, 8 + 0xFFFFFFFFULL);
  const std::string reported = InChild([&] {
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    std::string text = LoadAndReport();
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    const long grown_kilobytes = after.ru_maxrss - before.ru_maxrss;
    if (grown_kilobytes > 16 * 1024) text += ", grown by " + std::to_string(grown_kilobytes) + " KB";
    return text;
  });
  EXPECT_EQ(reported, kBadMain + kBadBackup + "0 records");
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
  for (const auto& entry : fs::directory_iterator(folder_.Path())) names.push_back(entry.path().filename());
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

TEST_F(Store, ALeftOverFileDoesNotHinderASave) {
  struct {
    const char* what;
    void (*make)(const std::string& path);
  } const cases[] = {
      {"a file", [](const std::string& path) { WriteFile(path, "left over"); }},
      {"a link to nothing", [](const std::string& path) { fs::create_symlink("nothing", path); }},
      {"a link to a file", [](const std::string& path) { fs::create_symlink("precious", path); }},
      {"a pipe", [](const std::string& path) { EXPECT_EQ(mkfifo(path.c_str(), 0600), 0); }},
  };
  for (const auto& left : cases) {
    for (const char* name : {"new", "old"}) {
      WriteFile(folder_ / "precious", "precious");
      left.make(path_ + name);
      Have(SomeRecords("s", 2));
      EXPECT_EQ(SaveAndReport(), "saved") << left.what;
      EXPECT_EQ(InFile(path_), SomeRecords("s", 2)) << left.what;
      EXPECT_EQ(fs::symlink_status(path_).type(), fs::file_type::regular) << left.what;
      EXPECT_FALSE(fs::exists(fs::symlink_status(path_ + name))) << left.what;
      EXPECT_EQ(ReadFile(folder_ / "precious"), "precious") << left.what;
      EXPECT_FALSE(fs::exists(folder_ / "nothing")) << left.what;
    }
  }
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

TEST_F(Store, AFileIsForItsOwnerOnly) {
  Have(SomeRecords("s", 1));
  EXPECT_EQ(SaveAndReport(), "saved");
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
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

// Old and older files of known content, and whether they are still there.
std::string StillThere(const std::string& path, const std::string& old, const std::string& older) {
  std::string text;
  if (ReadFile(path) != old) text += ", file changed";
  if (ReadFile(path + "bak") != older) text += ", backup changed";
  for (const char* left : {"new", "old"}) {
    if (fs::exists(path + left)) text += std::string(", left over ") + left;
  }
  return text.empty() ? "both as before" : text.substr(2);
}

TEST_F(Store, AFolderThatCannotBeWrittenChangesNothing) {
  const std::string old = ContentOf(SomeRecords("old", 2));
  const std::string older = ContentOf(SomeRecords("older", 1));
  WriteFile(path_, old);
  WriteFile(backup_, older);
  fs::permissions(folder_.Path(), fs::perms::owner_read | fs::perms::owner_exec | fs::perms::others_read |
                                      fs::perms::others_exec);
  Have(SomeRecords("new", 2));
  const std::string reported = InChild([&] {
    // Permissions do not bind root.
    if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0)
      return std::string("cannot become another user");
    const std::string first = SaveAndReport();
    // The flag is still set, so the next tick tries again.
    return first + "\n" + SaveAndReport();
  });
  const std::string failed = "failed\nUnable to save GreyListing database. Error 70. Permission denied.";
  EXPECT_EQ(reported, failed + "\n" + failed);
  EXPECT_EQ(StillThere(path_, old, older), "both as before");
  fs::permissions(folder_.Path(), fs::perms::owner_all);
}

// A mount of one's own, seen by this process only. Empty, or why it cannot be had.
std::string MountHere(const std::string& folder, const char* type, unsigned long flags, const char* options) {
  const int spaces = CLONE_NEWNS | (geteuid() == 0 ? 0 : CLONE_NEWUSER);
  if (unshare(spaces) != 0) return std::string("no name space of its own: ") + std::strerror(errno);
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount(folder.c_str(), folder.c_str(), type, flags & ~static_cast<unsigned long>(MS_REMOUNT), options) !=
          0) {
    return std::string("no mount: ") + std::strerror(errno);
  }
  if ((flags & MS_REMOUNT) != 0 && mount(nullptr, folder.c_str(), nullptr, flags, nullptr) != 0) {
    return std::string("no mount: ") + std::strerror(errno);
  }
  return "";
}

constexpr const char* kNotPermitted = "not permitted: ";

TEST_F(Store, AFullDiskChangesNothing) {
  const std::string reported = InChild([&] {
    const std::string refused = MountHere(folder_.Path(), "tmpfs", 0, "size=256k");
    if (!refused.empty()) return kNotPermitted + refused;
    const std::string old = ContentOf(SomeRecords("old", 2));
    const std::string older = ContentOf(SomeRecords("older", 1));
    WriteFile(path_, old);
    WriteFile(backup_, older);
    Have(SomeRecords("new", 10000));  // some 700 KB
    std::string text = SaveAndReport();
    text += "\n" + StillThere(path_, old, older);
    text += database_.Changed() ? "\nchanged" : "\nunchanged";
    // There is room again.
    Have(SomeRecords("new", 10));
    text += "\n" + SaveAndReport();
    return text + "\n" + std::to_string(InFile(path_).size());
  });
  if (reported.starts_with(kNotPermitted)) GTEST_SKIP() << reported;
  EXPECT_EQ(reported,
            "failed\nUnable to save GreyListing database. Error 61. Disk full.\nboth as "
            "before\nchanged\nsaved\n10");
}

TEST_F(Store, AReadOnlyFileSystemChangesNothing) {
  const std::string old = ContentOf(SomeRecords("old", 2));
  const std::string older = ContentOf(SomeRecords("older", 1));
  WriteFile(path_, old);
  WriteFile(backup_, older);
  const std::string reported = InChild([&] {
    const std::string refused = MountHere(folder_.Path(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr);
    if (!refused.empty()) return kNotPermitted + refused;
    Have(SomeRecords("new", 10));
    const std::string saved = SaveAndReport();
    return saved + "\n" + LoadAndReport();
  });
  if (reported.starts_with(kNotPermitted)) GTEST_SKIP() << reported;
  EXPECT_EQ(reported,
            "failed\nUnable to save GreyListing database. Error 75. Path/File access error.\n2 records");
  EXPECT_EQ(StillThere(path_, old, older), "both as before");
}

TEST_F(Store, ALimitOnTheFileSizeChangesNothing) {
  const std::string old = ContentOf(SomeRecords("old", 2));
  const std::string older = ContentOf(SomeRecords("older", 1));
  WriteFile(path_, old);
  WriteFile(backup_, older);
  const std::string reported = InChild([&] {
    const rlimit limit{100000, 100000};
    setrlimit(RLIMIT_FSIZE, &limit);
    Have(SomeRecords("new", 10000));
    return SaveAndReport();
  });
  EXPECT_EQ(reported, "failed\nUnable to save GreyListing database. Error 61. Disk full.");
  EXPECT_EQ(StillThere(path_, old, older), "both as before");
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

TEST_F(Store, ASavingProcessThatIsEndedIsAFailedSave) {
  const std::string children = "/proc/self/task/" + std::to_string(getpid()) + "/children";
  bool ended = false;
  // It may be faster than we are.
  for (int attempt = 0; attempt < 100 && !ended; ++attempt) {
    Have(SomeRecords("s", 5000));
    std::optional<GreyListingSaveResult> result;
    ASSERT_TRUE(store_.SaveInBackground([&](const GreyListingSaveResult& r) { result = r; }));
    const int process = std::atoi(ReadFile(children).c_str());
    ASSERT_GT(process, 0);
    kill(process, SIGKILL);
    ASSERT_TRUE(RunUntil(loop_, [&] { return result.has_value(); }));
    ended = result->kind == Kind::kFailed;
  }
  EXPECT_TRUE(ended);
  EXPECT_EQ(log_.Take(),
            (Lines{"Unable to save GreyListing database. Error 57. The process that saves it was ended."}));
  EXPECT_TRUE(database_.Changed());
  EXPECT_EQ(SaveBeside().kind, Kind::kSaved);
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

TEST_F(Store, WithoutAProcessItSavesInPlace) {
  Have(SomeRecords("s", 10));
  const std::string reported = InChild([&]() -> std::string {
    if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) return "cannot become another user";
    settings_.Database = testing::TempDir() + "trabex-" + std::to_string(getpid());
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NPROC, &none);
    std::string text;
    const bool begun = store_.SaveInBackground([&](const GreyListingSaveResult& result) {
      text = result.kind == Kind::kSaved ? "saved" : "failed";
    });
    text += begun ? " at once, " : " not begun, ";
    text += std::to_string(InFile(settings_.Database).size());
    fs::remove(settings_.Database);
    return text;
  });
  EXPECT_EQ(reported, "saved at once, 10");
}

// --- more than there is room for

const std::string kTooManyPending = "Greylisting: Too many pending records. Dropped: ";
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

// Many more than are kept, of the longest keys, as a flood of before may have left them.
TEST_F(Store, ALoadTakesNoMemoryForWhatIsDropped) {
  if (!CountsMemory()) GTEST_SKIP() << "a sanitizer's memory says nothing";
  const std::string reported = InChild([&] {
    {
      GreyListingDatabase flood;
      for (int i = 0; i < 1000; ++i) {
        flood.Add({"10.1.2 " + std::string(60000, 'k') + std::to_string(i), kSomeNow + 1, kSomeNow, -1});
      }
      SaveDatabaseFile(path_, flood, kSomeNow);
    }
    settings_.MaxPendingPerNetwork = 100;
    return InChild([&] {
      WriteFile("/proc/self/clear_refs", "5");  // the peak begins anew
      const auto peak = [] {
        const std::string status = ReadFile("/proc/self/status");
        return std::atol(status.c_str() + status.find("VmHWM:") + 6);
      };
      const long peak_before = peak();
      std::string text = LoadAndReport();
      const long grown_kilobytes = peak() - peak_before;
      if (grown_kilobytes > 16 * 1024) text += ", grown by " + std::to_string(grown_kilobytes) + " KB";
      return text;
    });
  });
  EXPECT_EQ(reported, kTooManyPending + "900.\n100 records");
}

}  // namespace
}  // namespace trabex

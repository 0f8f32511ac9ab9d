#include "greylist/greylisting_store.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "greylist/database_file.h"
#include "unit/greylist/linux/in_child.h"
#include "unit/greylist/store_fixture.h"

namespace trabex {
namespace {

using Kind = GreyListingSaveResult::Kind;
using Lines = std::vector<std::string>;
namespace fs = std::filesystem;

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

TEST_F(Store, AFileIsForItsOwnerOnly) {
  Have(SomeRecords("s", 1));
  EXPECT_EQ(SaveAndReport(), "saved");
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
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

// Opening it would wait for a writer.
TEST_F(Store, APipeIsNoFile) {
  ASSERT_EQ(mkfifo(backup_.c_str(), 0600), 0);
  EXPECT_EQ(LoadAndReport(),
            kNoMain +
                "Unable to load Backup GreyListing database. Error 75. Path/File access error. New "
                "database file will be created.\n0 records");
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

#include "platform/change_watch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/file_replace.h"
#include "platform/files.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

namespace fs = std::filesystem;

// A folder with x.ini in it, watched, and another folder beside it.
class ChangeWatchTest : public testing::Test {
 protected:
  ChangeWatchTest() {
    CreateFolder(folder_ / "etc");
    CreateFolder(folder_ / "other");
    WriteFile(Ini(), "[Common]\n");
    WriteFile(folder_ / "other/x.ini", "[Common]\n");
    watch_ = WatchFolderOf(Ini());
  }
  std::string Ini() const { return folder_ / "etc/x.ini"; }

  const TempFolder folder_;
  std::unique_ptr<ChangeWatch> watch_;
};

TEST_F(ChangeWatchTest, StaysQuietWithoutChange) {
  ASSERT_NE(watch_, nullptr);
  EXPECT_FALSE(watch_->Signalled());
  EXPECT_EQ(ReadWholeFile(Ini(), "x"), "[Common]\n");
  FileModificationStamp(Ini(), "x");
  WriteFile(folder_ / "other/x.ini", "elsewhere");
  EXPECT_FALSE(watch_->Signalled());
  watch_->Rearm();
  EXPECT_FALSE(watch_->Signalled());
}

TEST_F(ChangeWatchTest, EveryWayOfWritingSignals) {
  const struct {
    const char* what;
    std::function<void()> change;
  } cases[] = {
      {"in place", [&] { WriteFile(Ini(), "[Common]\nLog=2\n"); }},
      {"another file renamed over it",
       [&] {
         WriteFile(folder_ / "other/new", "[Common]\n");
         fs::rename(folder_ / "other/new", Ini());
       }},
      {"touched", [&] { fs::last_write_time(Ini(), fs::file_time_type::clock::now()); }},
      {"another file of the folder", [&] { WriteFile(folder_ / "etc/y.ini", ""); }},
      {"removed and linked anew",
       [&] {
         fs::remove(Ini());
         fs::create_hard_link(folder_ / "other/x.ini", Ini());
       }},
      {"removed and created anew",
       [&] {
         fs::remove(Ini());
         WriteFile(Ini(), "");
       }},
  };
  ASSERT_NE(watch_, nullptr);
  for (const auto& c : cases) {
    ASSERT_FALSE(watch_->Signalled()) << c.what;
    c.change();
    EXPECT_TRUE(watch_->Signalled()) << c.what;
    EXPECT_TRUE(watch_->Signalled()) << c.what << ": stays until re-armed";
    watch_->Rearm();
  }
}

TEST_F(ChangeWatchTest, RemovalSignalsWhereItIsAskedFor) {
  const auto with_removals = WatchFolderOf(Ini(), WatchedChanges::kWritesAndRemovals);
  ASSERT_NE(with_removals, nullptr);
  fs::remove(Ini());
  EXPECT_TRUE(with_removals->Signalled());
  EXPECT_FALSE(watch_->Signalled());
  WriteFile(Ini(), "[Common]\n");
  with_removals->Rearm();
  watch_->Rearm();
  fs::rename(Ini(), folder_ / "other/moved");
  EXPECT_TRUE(with_removals->Signalled());
  EXPECT_FALSE(watch_->Signalled());
}

TEST_F(ChangeWatchTest, SignalsWhileTheFileIsStillOpen) {
  ASSERT_NE(watch_, nullptr);
  std::ofstream file(Ini(), std::ios::app);
  ASSERT_FALSE(watch_->Signalled());
  file << "Log=2\n" << std::flush;
  EXPECT_TRUE(watch_->Signalled());
  watch_->Rearm();
  file.close();
  EXPECT_TRUE(watch_->Signalled());
}

TEST_F(ChangeWatchTest, RearmForgetsWhatWasNotLookedAt) {
  ASSERT_NE(watch_, nullptr);
  WriteFile(Ini(), "1");
  watch_->Rearm();
  EXPECT_FALSE(watch_->Signalled());
  WriteFile(Ini(), "2");
  EXPECT_TRUE(watch_->Signalled());
}

// So many changes that the system drops some: that something changed is known all the same.
TEST_F(ChangeWatchTest, FloodOfChangesIsOneSignal) {
  ASSERT_NE(watch_, nullptr);
  WriteFile(folder_ / "etc/a", "");
  WriteFile(folder_ / "etc/b", "");
  for (int i = 0; i < 20000; ++i)
    fs::rename(folder_ / (i % 2 ? "etc/b" : "etc/a"), folder_ / (i % 2 ? "etc/a" : "etc/b"));
  EXPECT_TRUE(watch_->Signalled());
  watch_->Rearm();
  EXPECT_FALSE(watch_->Signalled());
}

TEST_F(ChangeWatchTest, LinksFolderAndTargetsFolderAreWatched) {
  const std::string link = folder_ / "link.ini";
  for (const std::string& target : {std::string("etc/x.ini"), Ini()}) {
    fs::remove(link);
    fs::create_symlink(target, link);
    const auto watch = WatchFolderOf(link);
    ASSERT_NE(watch, nullptr);
    EXPECT_FALSE(watch->Signalled());
    WriteFile(Ini(), "[Common]\n");
    EXPECT_TRUE(watch->Signalled()) << target;
    watch->Rearm();
    WriteFile(folder_ / "beside-the-link", "");
    EXPECT_TRUE(watch->Signalled()) << target;
    watch->Rearm();
    WriteFile(folder_ / "other/x.ini", "");
    EXPECT_FALSE(watch->Signalled()) << target;
  }
}

TEST_F(ChangeWatchTest, EveryFolderOfAChainOfLinksIsWatched) {
  CreateFolder(folder_ / "middle");
  fs::create_symlink("../etc/x.ini", folder_ / "middle/x.ini");
  fs::create_symlink("middle/x.ini", folder_ / "link.ini");
  const auto watch = WatchFolderOf(folder_ / "link.ini");
  ASSERT_NE(watch, nullptr);
  for (const char* file : {"new", "middle/new", "etc/new"}) {
    WriteFile(folder_ / file, "");
    EXPECT_TRUE(watch->Signalled()) << file;
    watch->Rearm();
  }
}

TEST_F(ChangeWatchTest, LinkLedElsewhereIsFollowedAfterRearm) {
  const std::string link = folder_ / "link.ini";
  fs::create_symlink("etc/x.ini", link);
  const auto watch = WatchFolderOf(link);
  ASSERT_NE(watch, nullptr);
  fs::create_symlink("other/x.ini", folder_ / "new-link");
  fs::rename(folder_ / "new-link", link);
  EXPECT_TRUE(watch->Signalled());
  watch->Rearm();
  WriteFile(Ini(), "the old target");
  EXPECT_FALSE(watch->Signalled());
  WriteFile(folder_ / "other/x.ini", "the new one");
  EXPECT_TRUE(watch->Signalled());
}

TEST_F(ChangeWatchTest, ReplacedFolderIsWatchedAfterRearm) {
  ASSERT_NE(watch_, nullptr);
  fs::rename(folder_ / "etc", folder_ / "etc.old");
  EXPECT_TRUE(watch_->Signalled());
  watch_->Rearm();
  EXPECT_FALSE(watch_->Signalled());  // there is none now
  fs::rename(folder_ / "other", folder_ / "etc");
  EXPECT_TRUE(watch_->Signalled());
  watch_->Rearm();
  WriteFile(folder_ / "etc.old/x.ini", "");
  EXPECT_FALSE(watch_->Signalled());
  WriteFile(Ini(), "");
  EXPECT_TRUE(watch_->Signalled());
}

TEST_F(ChangeWatchTest, NothingWithoutFolder) {
  EXPECT_EQ(WatchFolderOf(folder_ / "missing/x.ini"), nullptr);
  EXPECT_EQ(WatchFolderOf(Ini() + "/x.ini"), nullptr);
}

TEST_F(ChangeWatchTest, FileMayBeMissingAndItsTargetToo) {
  fs::remove(Ini());
  const auto watch = WatchFolderOf(Ini());
  ASSERT_NE(watch, nullptr);
  WriteFile(Ini(), "");
  EXPECT_TRUE(watch->Signalled());
  fs::create_symlink("missing/x.ini", folder_ / "dangling");
  fs::create_symlink("loop", folder_ / "loop");
  EXPECT_NE(WatchFolderOf(folder_ / "dangling"), nullptr);
  EXPECT_NE(WatchFolderOf(folder_ / "loop"), nullptr);
  EXPECT_NE(WatchFolderOf("x.ini"), nullptr);
}

}  // namespace
}  // namespace trabex

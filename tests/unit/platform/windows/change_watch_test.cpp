#include "platform/change_watch.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "platform/file_replace.h"
#include "platform/files.h"
#include "platform/windows/win.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

// The system tells it a moment later.
bool BecomesSignalled(ChangeWatch& watch) {
  for (int i = 0; i < 2000; ++i) {
    if (watch.Signalled()) return true;
    Sleep(1);
  }
  return false;
}

class WindowsChangeWatchTest : public testing::Test {
 protected:
  WindowsChangeWatchTest() {
    CreateFolder(folder_ / "etc");
    CreateFolder(folder_ / "other");
    WriteFile(Ini(), "[Common]\n");
    watch_ = WatchFolderOf(NativePath(Ini()));
  }
  std::string Ini() const { return folder_ / "etc/x.ini"; }

  const TempFolder folder_;
  std::unique_ptr<ChangeWatch> watch_;
};

TEST_F(WindowsChangeWatchTest, StaysQuietWithoutChange) {
  ASSERT_NE(watch_, nullptr);
  EXPECT_FALSE(watch_->Signalled());
  EXPECT_EQ(ReadWholeFile(Ini(), "x"), "[Common]\n");
  FileModificationStamp(Ini(), "x");
  WriteFile(folder_ / "other/x.ini", "elsewhere");
  EXPECT_FALSE(watch_->Signalled());
}

TEST_F(WindowsChangeWatchTest, EveryWayOfWritingSignals) {
  const struct {
    const char* what;
    std::function<void()> change;
  } rows[] = {
      {"in place", [&] { WriteFile(Ini(), "[Common]\nLog=2\n"); }},
      {"another file moved over it",
       [&] {
         WriteFile(folder_ / "other/new", "[Common]\n");
         MoveFile(folder_ / "other/new", Ini(), "x");
       }},
      {"removed and made anew",
       [&] {
         RemoveFile(Ini());
         WriteFile(Ini(), "");
       }},
      {"another file of the folder", [&] { WriteFile(folder_ / "etc/y.ini", "y"); }},
  };
  ASSERT_NE(watch_, nullptr);
  for (const auto& row : rows) {
    row.change();
    EXPECT_TRUE(BecomesSignalled(*watch_)) << row.what;
    EXPECT_TRUE(watch_->Signalled()) << row.what << ": stays until re-armed";
    // What belongs to the same change may come a little later.
    for (int i = 0; i < 100; ++i) {
      watch_->Rearm();
      Sleep(1);
    }
    EXPECT_FALSE(watch_->Signalled()) << row.what;
  }
}

// By a second notification, for the folder where the file itself lies.
TEST_F(WindowsChangeWatchTest, TheFolderOfALinksTargetIsWatchedToo) {
  const std::string link = NativePath(folder_ / "etc/link.ini");
  const std::string target = NativePath(folder_ / "other/target.ini");
  WriteFile(target, "1");
  // Wine says that it has made one.
  CreateSymbolicLinkW(Wide(link).c_str(), Wide(target).c_str(), SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE);
  if (GetFileAttributesW(Wide(link).c_str()) == INVALID_FILE_ATTRIBUTES) {
    GTEST_SKIP() << "Wine makes no links to files";
  }
  watch_ = WatchFolderOf(link);
  ASSERT_NE(watch_, nullptr);
  EXPECT_FALSE(watch_->Signalled());
  WriteFile(target, "2");
  EXPECT_TRUE(BecomesSignalled(*watch_));
}

TEST_F(WindowsChangeWatchTest, NothingWithoutFolder) {
  EXPECT_EQ(WatchFolderOf(NativePath(folder_ / "missing/x.ini")), nullptr);
  EXPECT_EQ(WatchFolderOf(NativePath(Ini() + "/x.ini")), nullptr);
  EXPECT_EQ(WatchFolderOf("C:x"), nullptr);
  EXPECT_NE(WatchFolderOf("x.ini"), nullptr);
}

TEST_F(WindowsChangeWatchTest, AnotherFolderOfTheNameIsWatchedAfterRearm) {
  ASSERT_NE(watch_, nullptr);
  MoveFile(folder_ / "etc", folder_ / "etc.old", "x");
  watch_->Rearm();
  MoveFile(folder_ / "other", folder_ / "etc", "x");
  EXPECT_TRUE(BecomesSignalled(*watch_));
  watch_->Rearm();
  WriteFile(Ini(), "");
  EXPECT_TRUE(BecomesSignalled(*watch_));
}

}  // namespace
}  // namespace trabex

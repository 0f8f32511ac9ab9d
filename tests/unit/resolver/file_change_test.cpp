#include "resolver/file_change.h"

#include <gtest/gtest.h>

#include <chrono>

#include "support/temp_folder.h"

namespace trabex {
namespace {

using std::chrono::milliseconds;

constexpr MonotonicTime kStart{std::chrono::hours(100)};

TEST(FileChange, IsSeenWithinASecond) {
  const TempFolder folder;
  FileChange change(folder / "x");
  EXPECT_TRUE(change.Changed(kStart)) << "missing, which was not known";
  WriteFile(folder / "x", "");
  EXPECT_FALSE(change.Changed(kStart + milliseconds(999)));
  EXPECT_TRUE(change.Changed(kStart + milliseconds(1000)));
  EXPECT_FALSE(change.Changed(kStart + milliseconds(60000)));
  change.Forget();
  EXPECT_TRUE(change.Changed(kStart + milliseconds(61000)));
}

TEST(FileChange, WithoutAFileIsSupposedOnceAMinute) {
  FileChange change("");
  EXPECT_TRUE(change.Changed(kStart));
  EXPECT_FALSE(change.Changed(kStart + milliseconds(1000)));
  EXPECT_FALSE(change.Changed(kStart + milliseconds(59999)));
  EXPECT_TRUE(change.Changed(kStart + milliseconds(60000)));
  EXPECT_FALSE(change.Changed(kStart + milliseconds(61000)));
  change.Forget();  // it could not be applied
  EXPECT_FALSE(change.Changed(kStart + milliseconds(60999)));
  EXPECT_TRUE(change.Changed(kStart + milliseconds(62000)));
  EXPECT_FALSE(change.Changed(kStart + milliseconds(63000)));
}

}  // namespace
}  // namespace trabex

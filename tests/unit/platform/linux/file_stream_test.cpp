#include "platform/file_stream.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "support/error_of.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

namespace fs = std::filesystem;

TEST(InputFile, IsNoPipe) {
  const TempFolder folder;
  ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(ErrorOf([&] { InputFile(folder / "fifo", "source"); }), "75 source Path/File access error");
}

TEST(NewFile, IsReadableForItsOwnerOnly) {
  const TempFolder folder;
  const NewFile file(folder / "f", "source");
  EXPECT_EQ(fs::status(folder / "f").permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST(NewFile, FollowsNoLink) {
  const TempFolder folder;
  const std::string path = folder / "f";
  WriteFile(folder / "precious", "precious");
  fs::create_symlink("precious", path);
  NewFile file(path, "source");
  file.Write("new");
  EXPECT_EQ(ReadFile(path), "new");
  EXPECT_EQ(ReadFile(folder / "precious"), "precious");
}

}  // namespace
}  // namespace trabex

#include "platform/file_stream.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>

#include "platform/files.h"
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

// The owner and the group of what is at `path`.
std::pair<uid_t, gid_t> OwnerOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return {status.st_uid, status.st_gid};
}

TEST(NewFile, RootGivesItToTheOwnerOfAnotherFileOrOfItsFolder) {
  if (geteuid() != 0) GTEST_SKIP() << "only root may give files away";
  const TempFolder folder;
  const std::string other = folder / "other";
  WriteFile(other, "");
  ASSERT_EQ(chown(other.c_str(), 12345, 12346), 0);
  ASSERT_EQ(chown(FolderOf(other).c_str(), 12347, 12348), 0);
  NewFile file(folder / "f", "source");
  EXPECT_EQ(OwnerOf(folder / "f").first, 0U);
  file.GiveToOwnerOf(other);
  EXPECT_EQ(OwnerOf(folder / "f"), std::pair(uid_t{12345}, gid_t{12346}));
  file.GiveToOwnerOf(folder / "none");
  EXPECT_EQ(OwnerOf(folder / "f"), std::pair(uid_t{12347}, gid_t{12348}));
  EXPECT_EQ(fs::status(folder / "f").permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

}  // namespace
}  // namespace trabex

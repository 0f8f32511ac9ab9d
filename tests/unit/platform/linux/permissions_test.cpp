#include "platform/permissions.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "support/child_process.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

constexpr const char* kStranger = "nobody";

TEST(Folders, AreUsableMissingOrNotWritable) {
  TempFolder folder;
  WriteFile(folder / "file", "");
  EXPECT_EQ(StateOfFolder(folder.Path()), FolderState::kUsable);
  EXPECT_EQ(StateOfFolder(folder / "none"), FolderState::kMissing);
  EXPECT_EQ(StateOfFolder(folder / "file"), FolderState::kMissing);
  EXPECT_EQ(StateOfFolder(""), FolderState::kMissing);
}

TEST(Folders, AreThoseOfTheUserWhoAsks) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  TempFolder folder;
  ASSERT_EQ(chmod(folder.Path().c_str(), 0755), 0);
  ASSERT_EQ(mkdir((folder / "hidden").c_str(), 0700), 0);
  ASSERT_EQ(mkdir((folder / "hidden/below").c_str(), 0777), 0);
  ASSERT_EQ(mkdir((folder / "open").c_str(), 0777), 0);
  ASSERT_EQ(chmod((folder / "open").c_str(), 0777), 0);
  ChildProcess child([&] {
    if (BecomeUser(kStranger) != BecomeUserResult::kDone) return 1;
    if (StateOfFolder(folder.Path()) != FolderState::kNotWritable) return 2;
    if (StateOfFolder(folder / "hidden/below") != FolderState::kNotWritable) return 3;
    if (StateOfFolder(folder / "open") != FolderState::kUsable) return 4;
    if (geteuid() != getpwnam(kStranger)->pw_uid || getegid() == 0) return 5;
    return BecomeUser("root") == BecomeUserResult::kNotPermitted ? 0 : 6;
  });
  EXPECT_EQ(child.Wait(), 0);
}

TEST(Ports, NeedARightWhenTheyAreLow) {
  int first_free = 1024;
  std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> first_free;
  EXPECT_TRUE(MayListenOn(first_free));
  EXPECT_TRUE(MayListenOn(65535));
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  EXPECT_TRUE(MayListenOn(25));
  ChildProcess child([&] {
    if (BecomeUser(kStranger) != BecomeUserResult::kDone) return 1;
    return MayListenOn(25) == (first_free <= 25) && MayListenOn(first_free) ? 0 : 2;
  });
  EXPECT_EQ(child.Wait(), 0);
}

TEST(Users, AreKnownByName) {
  EXPECT_EQ(BecomeUser("no such user"), BecomeUserResult::kUnknownUser);
  EXPECT_EQ(BecomeUser(""), BecomeUserResult::kUnknownUser);
  EXPECT_EQ(BecomeUser(getpwuid(geteuid())->pw_name), BecomeUserResult::kDone);
}

}  // namespace
}  // namespace trabex

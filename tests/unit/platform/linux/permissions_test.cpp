#include "platform/permissions.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "platform/files.h"
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

TEST(Users, AreKnownByNumber) {
  EXPECT_EQ(BecomeUser(std::to_string(geteuid())), BecomeUserResult::kDone);
  for (const char* const bad : {"4294967295", "4294967296", "-1", "1x", " 1", "0x1"}) {
    EXPECT_EQ(BecomeUser(bad), BecomeUserResult::kUnknownUser) << bad;
  }
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  ChildProcess child([] {
    if (BecomeUser("71234") != BecomeUserResult::kDone) return 1;
    if (geteuid() != 71234 || getegid() != 71234) return 2;
    return getgroups(0, nullptr) == 0 ? 0 : 3;
  });
  EXPECT_EQ(child.Wait(), 0);
}

// The value of a line of /proc/self/status.
std::string StatusOf(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":\t")) return line.substr(name.size() + 2);
  }
  return "none";
}

TEST(Users, AreRootOnceMoreUntilItIsGivenUp) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  TempFolder folder;
  WriteFile(folder / "key", "secret");
  ASSERT_EQ(chmod((folder / "key").c_str(), 0600), 0);
  ASSERT_EQ(chmod(folder.Path().c_str(), 0755), 0);
  const uid_t user = getpwnam(kStranger)->pw_uid;
  ChildProcess child([&] {
    if (BecomeUserForNow(kStranger) != BecomeUserResult::kDone || geteuid() != user) return 1;
    const auto readable = [&] {
      return access((folder / "key").c_str(), R_OK) == 0 && std::ifstream(folder / "key");
    };
    if (std::ifstream(folder / "key")) return 2;
    {
      const RootRights rights;
      const RootRights again;
      if (geteuid() != 0 || !readable()) return 3;
    }
    if (geteuid() != user) return 4;
    if (ReadWholeFile(folder / "key", "test") != "secret") return 5;
    if (!GiveUpRoot()) return 6;
    const RootRights none;
    if (geteuid() != user || getuid() != user) return 7;
    if (seteuid(0) == 0 || setuid(0) == 0 || setgid(0) == 0 || setgroups(0, nullptr) == 0) return 8;
    if (std::ifstream(folder / "key")) return 9;
    for (const char* const set : {"CapEff", "CapPrm", "CapInh", "CapAmb"}) {
      if (StatusOf(set) != "0000000000000000") return 10;
    }
    if (StatusOf("NoNewPrivs") != "1" || prctl(PR_GET_DUMPABLE) != 0) return 11;
    return 0;
  });
  EXPECT_EQ(child.Wait(), 0);
}

TEST(Users, KeepNoCapabilityThatTheProcessWasToKeep) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  ChildProcess child([] {
    if (BecomeUserForNow(kStranger) != BecomeUserResult::kDone) return 1;
    {
      const RootRights rights;
      if (prctl(PR_SET_KEEPCAPS, 1) != 0) return 2;
    }
    return GiveUpRoot() && StatusOf("CapPrm") == "0000000000000000" ? 0 : 3;
  });
  EXPECT_EQ(child.Wait(), 0);
}

TEST(Users, GiveUpNothingThatTheyDoNotHave) {
  const uid_t before = geteuid();
  EXPECT_TRUE(GiveUpRoot());
  const RootRights none;
  EXPECT_EQ(geteuid(), before);
}

}  // namespace
}  // namespace trabex

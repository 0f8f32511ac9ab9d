#include "platform/permissions.h"

#include <gtest/gtest.h>

#include "platform/descriptors.h"
#include "platform/memory.h"
#include "platform/service_manager.h"
#include "platform/windows/win.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

TEST(WindowsPermissions, FoldersAreUsableOrMissing) {
  const TempFolder folder;
  WriteFile(folder / "file", "");
  EXPECT_EQ(StateOfFolder(folder.Path()), FolderState::kUsable);
  EXPECT_EQ(StateOfFolder(folder / "none"), FolderState::kMissing);
  EXPECT_EQ(StateOfFolder(folder / "file"), FolderState::kMissing);
  EXPECT_EQ(StateOfFolder(folder / "x:y"), FolderState::kMissing);
  EXPECT_EQ(StateOfFolder(""), FolderState::kMissing);
}

TEST(WindowsPermissions, NobodyBecomesAnotherUser) {
  wchar_t name[257]{};
  DWORD size = 257;
  ASSERT_NE(GetUserNameW(name, &size), 0);
  EXPECT_EQ(BecomeUser(Utf8(name)), BecomeUserResult::kDone);
  EXPECT_EQ(BecomeUser(""), BecomeUserResult::kUnknownUser);
  EXPECT_NE(BecomeUser("no such user"), BecomeUserResult::kDone);
  EXPECT_TRUE(MayListenOn(25));
}

TEST(WindowsProcess, HandlesAreCounted) {
  const std::int64_t before = FindDescriptorUse().open;
  const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  EXPECT_EQ(FindDescriptorUse().open, before + 1);
  CloseHandle(event);
  EXPECT_EQ(FindDescriptorUse().open, before);
  EXPECT_EQ(FindDescriptorUse().limit, 0);
  ReturnFreedMemory();
  EXPECT_EQ(FindServiceManager(), nullptr);
}

}  // namespace
}  // namespace trabex

#include "platform/files.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <utility>

#include "platform/file_replace.h"
#include "platform/file_stream.h"
#include "platform/windows/files/disk_file.h"
#include "platform/windows/files/file_error.h"
#include "platform/windows/files/system_path.h"
#include "platform/windows/win.h"
#include "support/error_of.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

constexpr const char* kSource = "mTest.Files";
constexpr const char* kAccessError = "75 mTest.Files Path/File access error";

TEST(WindowsFiles, AbsolutePathsHaveADriveOrAServer) {
  for (const char* path : {"C:\\x", "z:/x", "C:\\", "\\\\server\\share\\x", "//server/share", "\\/x"}) {
    EXPECT_TRUE(IsAbsolutePath(path)) << path;
  }
  for (const char* path : {"", "x", "\\x", "/x", ".\\x", "C:", "C:x", "1:\\x", "CC:\\x"}) {
    EXPECT_FALSE(IsAbsolutePath(path)) << path;
  }
}

TEST(WindowsFiles, FolderIsThePartBeforeTheLastName) {
  EXPECT_EQ(FolderOf("C:\\a\\b"), "C:\\a");
  EXPECT_EQ(FolderOf("C:\\b"), "C:\\");
  EXPECT_EQ(FolderOf("\\b"), "\\");
  EXPECT_EQ(FolderOf("b"), ".");
  EXPECT_EQ(FolderOf("\\\\server\\share\\b"), "\\\\server\\share");
}

TEST(WindowsFiles, ProgramIsTheExecutable) {
  EXPECT_TRUE(IsFolder(ProgramDirectory())) << ProgramDirectory();
  EXPECT_TRUE(FindFileIdentity(ProgramDirectory() + "\\" + ProgramName() + ".exe")) << ProgramName();
}

TEST(WindowsFiles, SystemCodesBecomeRunTimeErrors) {
  const struct {
    DWORD code;
    int number;
  } rows[] = {{ERROR_FILE_NOT_FOUND, 53},   {ERROR_PATH_NOT_FOUND, 76},
              {ERROR_INVALID_DRIVE, 76},    {ERROR_BAD_NETPATH, 76},
              {ERROR_BAD_NET_NAME, 76},     {ERROR_DIRECTORY, 76},
              {ERROR_ACCESS_DENIED, 70},    {ERROR_SHARING_VIOLATION, 70},
              {ERROR_LOCK_VIOLATION, 70},   {ERROR_DISK_FULL, 61},
              {ERROR_HANDLE_DISK_FULL, 61}, {1295, 61},
              {ERROR_FILE_EXISTS, 75},      {ERROR_ALREADY_EXISTS, 75},
              {ERROR_INVALID_NAME, 75},     {ERROR_WRITE_PROTECT, 75},
              {ERROR_NOT_SAME_DEVICE, 75},  {ERROR_CRC, 57},
              {ERROR_NOT_READY, 57},        {123456, 57}};
  for (const auto& row : rows) EXPECT_EQ(FileErrorNumber(row.code), row.number) << row.code;
}

TEST(WindowsFiles, PathsThatMightNameSomethingElseAreRefused) {
  const TempFolder folder;
  WriteFile(folder / "x", "precious");
  for (const std::string& name : std::initializer_list<std::string>{
           "x:",          "x:stream", "x::$DATA", "x<",          "x>",
           "x\"",         "x|",       "x?",       "x*",          std::string("x\0y", 3),
           "x\t",         "x\x1F",    "x.",       "x ",          "x. .",
           "sub./x",      "NUL",      "nul",      "NUL.txt",     "nul .x",
           "COM1",        "com9.log", "LPT2",     "COM\xC2\xB9", "CON",
           "PRN",         "AUX",      "CONIN$",   "NUL/x",       "x\xFF",
           "\xED\xA0\x80"}) {
    const std::string path = folder / name;
    EXPECT_EQ(ErrorOf([&] { ReadWholeFile(path, kSource); }), kAccessError) << path;
    EXPECT_EQ(ErrorOf([&] { NewFile(path, kSource); }), kAccessError) << path;
    AppendFile file;
    EXPECT_FALSE(file.Open(path)) << path;
    EXPECT_FALSE(CreateFolder(path)) << path;
    EXPECT_FALSE(RemoveFile(path)) << path;
    EXPECT_FALSE(FindFileIdentity(path)) << path;
  }
  for (const char* path : {"C:x", "C:", "x:y", "C:\\a:b", "\\\\.\\NUL", "\\\\.\\C:", "\\\\?\\C:\\x",
                           "\\\\.\\pipe\\x", "//./COM1", "1:\\x"}) {
    EXPECT_EQ(ErrorOf([&] { ReadWholeFile(path, kSource); }), kAccessError) << path;
  }
  EXPECT_EQ(ReadFile(folder / "x"), "precious");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()), {}), 1);
}

TEST(WindowsFiles, OtherNamesAreFree) {
  const TempFolder folder;
  for (const char* name : {"NULL", "COM", "COM10", "COMX", "CON1", "xNUL", ".x", "..x", "...x", " x", "x y",
                           "x;y", "a'b", "\xC3\xB6", "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x93\xA7", "sub"}) {
    const std::string path = folder / name;
    {
      AppendFile file;
      ASSERT_TRUE(file.Open(path)) << path << ": " << file.WhyNotOpened();
      EXPECT_TRUE(file.Write(name));
    }
    EXPECT_EQ(ReadWholeFile(path, kSource), name);
    EXPECT_TRUE(RemoveFile(path)) << path;
  }
}

// What the system itself calls the file is the name that was meant.
TEST(WindowsFiles, NamesAreUtf8) {
  const TempFolder folder;
  AppendFile file;
  ASSERT_TRUE(file.Open(folder / "\xC3\xB6\xE6\x97\xA5"));
  const auto found = std::filesystem::directory_iterator(folder.Path())->path().filename().wstring();
  EXPECT_EQ(found, L"\u00F6\u65E5");
}

TEST(WindowsFiles, PathsMayBeLong) {
  const TempFolder folder;
  std::string path = folder.Path();
  for (int i = 0; i < 6; ++i) {
    path += "\\" + std::string(60, static_cast<char>('a' + i));
    ASSERT_TRUE(CreateFolder(path)) << path;
  }
  path += "\\x.log";
  ASSERT_GT(path.size(), 360U);
  {
    AppendFile file;
    ASSERT_TRUE(file.Open(path)) << file.WhyNotOpened();
    EXPECT_TRUE(file.Write("long"));
  }
  EXPECT_EQ(ReadWholeFile(path, kSource), "long");
  {
    NewFile file(path + "new", kSource);
    file.Write("longer");
    file.Sync();
    ReplaceFile(path + "new", path, path + "bak", kSource);
    file.Release();
  }
  EXPECT_EQ(ReadWholeFile(path, kSource), "longer");
  EXPECT_EQ(ReadWholeFile(path + "bak", kSource), "long");
}

TEST(WindowsFiles, RelativePathsAreThoseOfTheCurrentFolder) {
  const TempFolder folder;
  WriteFile(folder / "x", "here");
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(folder.Path());
  EXPECT_EQ(ReadWholeFile("x", kSource), "here");
  EXPECT_EQ(ReadWholeFile(".\\x", kSource), "here");
  EXPECT_EQ(ReadWholeFile("sub\\..\\x", kSource), "here");
  EXPECT_EQ(FindFileIdentity(AbsolutePath("x")), FindFileIdentity("x"));
  std::filesystem::current_path(before);
}

TEST(WindowsFiles, LogFileIsSharedForEverything) {
  const TempFolder folder;
  const std::string path = folder / "x.log";
  AppendFile log;
  ASSERT_TRUE(log.Open(path));
  EXPECT_TRUE(log.Write("1"));
  {
    const OpenedFile other =
        OpenDiskFile(path, {.access = GENERIC_READ | GENERIC_WRITE | DELETE, .sharing = kSharedWithAll});
    EXPECT_TRUE(other.file.IsOpen()) << other.code;
  }
  MoveFile(path, folder / "moved", kSource);
  EXPECT_TRUE(log.Write("2"));
  EXPECT_EQ(ReadWholeFile(folder / "moved", kSource), "12");
  EXPECT_TRUE(RemoveFile(folder / "moved"));
}

TEST(WindowsFiles, WhatNobodyElseMayOpenIsPermissionDenied) {
  const TempFolder folder;
  WriteFile(folder / "x", "x");
  const OpenedFile alone = OpenDiskFile(folder / "x", {.access = GENERIC_READ, .sharing = 0});
  ASSERT_TRUE(alone.file.IsOpen());
  EXPECT_EQ(ErrorOf([&] { ReadWholeFile(folder / "x", kSource); }), "70 mTest.Files Permission denied");
  AppendFile log;
  EXPECT_FALSE(log.Open(folder / "x"));
  EXPECT_EQ(log.WhyNotOpened(), "Permission denied");
}

TEST(WindowsFiles, StampIsThatOfTheLastWrite) {
  const TempFolder folder;
  const std::string path = folder / "x";
  WriteFile(path, "a");
  const std::int64_t first = FileModificationStamp(path, kSource);
  const auto now = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::system_clock::now().time_since_epoch());
  EXPECT_NEAR(static_cast<double>(first), static_cast<double>(now.count()), 60e9) << "since 1970";
  std::filesystem::last_write_time(path, std::filesystem::last_write_time(path) - std::chrono::hours(24));
  const std::int64_t day_before = first - 24LL * 3600 * 1'000'000'000;
  EXPECT_NEAR(static_cast<double>(FileModificationStamp(path, kSource)), static_cast<double>(day_before),
              1.1e9);
  EXPECT_EQ(ErrorOf([&] { FileModificationStamp(folder / "none/x", kSource); }),
            "76 mTest.Files Path not found");
}

TEST(WindowsFiles, IdentityTellsAFileFromItsSuccessor) {
  const TempFolder folder;
  WriteFile(folder / "x", "a");
  auto before = FindFileIdentity(folder / "x");
  ASSERT_TRUE(before);
  EXPECT_EQ(before, FindFileIdentity(folder / "x"));
  WriteFile(folder / "y", "a");
  std::filesystem::last_write_time(folder / "y", std::filesystem::last_write_time(folder / "x"));
  MoveFile(folder / "y", folder / "x", kSource);
  EXPECT_NE(before, FindFileIdentity(folder / "x"));
}

// A scanner that looks at a file holds it for some milliseconds.
class HeldFile {
 public:
  HeldFile(const std::string& path, std::chrono::milliseconds time) {
    OpenedFile opened = OpenDiskFile(path, {.access = GENERIC_READ, .sharing = FILE_SHARE_READ});
    EXPECT_TRUE(opened.file.IsOpen()) << opened.code;
    holder_ = std::thread([file = std::move(opened.file), time]() mutable {
      Sleep(static_cast<DWORD>(time.count()));
      file.Close();
    });
  }
  ~HeldFile() { holder_.join(); }

 private:
  std::thread holder_;
};

TEST(WindowsFileReplace, WaitsForAShortWhileForOneWhoHoldsAFile) {
  const TempFolder folder;
  for (const char* held : {"db", "new"}) {
    WriteFile(folder / "db", "old");
    WriteFile(folder / "new", "new");
    const HeldFile holder(folder / held, std::chrono::milliseconds(20));
    ReplaceFile(folder / "new", folder / "db", folder / "dbbak", kSource);
    EXPECT_EQ(ReadFile(folder / "db"), "new") << held;
    EXPECT_EQ(ReadFile(folder / "dbbak"), "old") << held;
  }
}

TEST(WindowsFileReplace, GivesUpWithBothFilesAsTheyWere) {
  const TempFolder folder;
  WriteFile(folder / "db", "2");
  WriteFile(folder / "dbbak", "1");
  WriteFile(folder / "new", "3");
  {
    const OpenedFile holder =
        OpenDiskFile(folder / "db", {.access = GENERIC_READ, .sharing = FILE_SHARE_READ});
    ASSERT_TRUE(holder.file.IsOpen());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ErrorOf([&] { ReplaceFile(folder / "new", folder / "db", folder / "dbbak", kSource); }),
              "70 mTest.Files Permission denied");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(90))
        << "it was tried again";
    EXPECT_EQ(ReadFile(folder / "db"), "2");
    EXPECT_EQ(ReadFile(folder / "dbbak"), "1");
  }
  ReplaceFile(folder / "new", folder / "db", folder / "dbbak", kSource);
  EXPECT_EQ(ReadFile(folder / "db"), "3");
  EXPECT_EQ(ReadFile(folder / "dbbak"), "2");
  EXPECT_FALSE(std::filesystem::exists(folder / "dbold")) << "the second name of the one that was held";
}

TEST(WindowsFileReplace, NewFileMovesWhileItIsOpen) {
  const TempFolder folder;
  NewFile file(folder / "new", kSource);
  file.Write("x");
  MoveFile(folder / "new", folder / "db", kSource);
  file.Release();
  file.Write("y");
  EXPECT_EQ(ReadFile(folder / "db"), "xy");
}

TEST(WindowsFileReplace, FoldersAreNeverRemoved) {
  const TempFolder folder;
  ASSERT_TRUE(CreateFolder(folder / "folder"));
  EXPECT_FALSE(RemoveFile(folder / "folder"));
  EXPECT_TRUE(IsFolder(folder / "folder"));
  EXPECT_FALSE(RemoveFile(folder / "none"));
}

}  // namespace
}  // namespace trabex

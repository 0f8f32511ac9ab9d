#include "platform/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <utility>

#include "platform/file_replace.h"
#include "platform/file_stream.h"
#include "platform/linux/files/file_error.h"
#include "support/error_of.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

constexpr const char* kSource = "mTest.Files";

TEST(Files, ProgramPathIsThatOfTheExecutable) {
  const auto path = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(ProgramDirectory(), path.parent_path().string());
  EXPECT_EQ(ProgramName(), path.stem().string());
}

TEST(Files, AbsolutePathsAreThoseOfEverySystem) {
  for (const char* path : {"/", "/etc/x", "C:\\x", "z:/x", "\\\\server\\x"})
    EXPECT_TRUE(IsAbsolutePath(path)) << path;
  for (const char* path : {"", "x", "\\x", "./x", "C:", "C:x", "1:\\x", "CC:\\x"})
    EXPECT_FALSE(IsAbsolutePath(path)) << path;
}

TEST(Files, FolderIsThePartBeforeTheLastName) {
  EXPECT_EQ(FolderOf("a/b/c"), "a/b");
  EXPECT_EQ(FolderOf("/c"), "/");
  EXPECT_EQ(FolderOf("c"), ".");
  EXPECT_EQ(FolderOf("/a/"), "/a");
}

TEST(Files, SystemCodesBecomeRunTimeErrors) {
  const struct {
    int code;
    int number;
    const char* text;
  } cases[] = {
      {ENOENT, 53, "File not found"},
      {ENOTDIR, 76, "Path not found"},
      {EACCES, 70, "Permission denied"},
      {EPERM, 70, "Permission denied"},
      {EISDIR, 75, "Path/File access error"},
      {EEXIST, 75, "Path/File access error"},
      {EROFS, 75, "Path/File access error"},
      {EMFILE, 75, "Path/File access error"},
      {ELOOP, 75, "Path/File access error"},
      {ENOSPC, 61, "Disk full"},
      {EDQUOT, 61, "Disk full"},
      {EFBIG, 61, "Disk full"},
      {EIO, 57, "Device I/O error"},
      {12345, 57, "Device I/O error"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ErrorOf([&] { RaiseFileError(c.code, kSource); }),
              std::to_string(c.number) + " mTest.Files " + c.text);
  }
}

TEST(Files, FileWithoutAnnouncedSizeIsReadToItsEnd) {
  const std::string own = ReadWholeFile("/proc/self/status", kSource);
  EXPECT_NE(own.find("Pid:"), std::string::npos);
}

TEST(Files, FileThatIsNoTextAnyMoreIsNotRead) {
  const TempFolder folder;
  WriteFile(folder / "x", "[Common]\n");
  for (const std::uintmax_t size : {kMaxWholeFileBytes + 1, std::uintmax_t{1} << 42}) {
    std::filesystem::resize_file(folder / "x", size);
    EXPECT_EQ(ErrorOf([&] { ReadWholeFile(folder / "x", kSource); }), "7 mTest.Files Out of memory") << size;
  }
}

TEST(Files, OnlyRegularFilesAreRead) {
  const TempFolder folder;
  ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
  std::filesystem::create_symlink("loop", folder / "loop");
  const struct {
    std::string path;
    const char* error;
  } cases[] = {
      {folder / "fifo", "75 mTest.Files Path/File access error"},
      {"/dev/null", "75 mTest.Files Path/File access error"},
      {folder / "loop", "75 mTest.Files Path/File access error"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ErrorOf([&] { ReadWholeFile(c.path, kSource); }), c.error) << c.path;
  }
}

// In a child, since root may read everything.
TEST(Files, ForbiddenFilesRaisePermissionDenied) {
  const TempFolder folder;
  const std::string path = folder / "file";
  WriteFile(path, "x");
  std::filesystem::permissions(path, std::filesystem::perms::none);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() == 0 && setuid(kNobody) != 0) _exit(2);
    AppendFile log;
    const bool refused = ErrorOf([&] { ReadWholeFile(path, kSource); }) == "70 mTest.Files Permission denied";
    _exit(refused && !log.Open(path) ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Files, ModificationStampFollowsTheFile) {
  const TempFolder folder;
  const std::string path = folder / "x.ini";
  WriteFile(path, "a");
  const std::int64_t first = FileModificationStamp(path, kSource);
  EXPECT_EQ(FileModificationStamp(path, kSource), first);
  const auto time = std::filesystem::last_write_time(path);
  std::filesystem::last_write_time(path, time + std::chrono::nanoseconds(1));
  EXPECT_EQ(FileModificationStamp(path, kSource), first + 1);
  std::filesystem::last_write_time(path, time - std::chrono::hours(24));
  EXPECT_LT(FileModificationStamp(path, kSource), first);

  // The date is that of a link's target.
  std::filesystem::create_symlink("x.ini", folder / "link");
  EXPECT_EQ(FileModificationStamp(folder / "link", kSource), FileModificationStamp(path, kSource));
  EXPECT_EQ(ErrorOf([&] { FileModificationStamp(folder / "missing", kSource); }),
            "53 mTest.Files File not found");
  EXPECT_EQ(ErrorOf([&] { FileModificationStamp(folder / "no/x", kSource); }),
            "76 mTest.Files Path not found");
}

TEST(Files, IdentityTellsEveryWayToChangeAFile) {
  const TempFolder folder;
  const std::string path = folder / "file";
  EXPECT_EQ(FindFileIdentity(path), std::nullopt);
  WriteFile(path, "a");
  std::filesystem::create_symlink("file", folder / "inner");
  std::filesystem::create_symlink("inner", folder / "link");
  const auto date = std::filesystem::last_write_time(path);
  auto before = FindFileIdentity(folder / "link");
  ASSERT_TRUE(before);
  EXPECT_EQ(before, FindFileIdentity(path));
  const auto changed = [&] { return std::exchange(before, FindFileIdentity(folder / "link")) != before; };
  EXPECT_FALSE(changed());

  std::filesystem::last_write_time(path, date + std::chrono::nanoseconds(1));
  EXPECT_TRUE(changed()) << "the date";
  WriteFile(path, "ab");
  std::filesystem::last_write_time(path, date + std::chrono::nanoseconds(1));
  EXPECT_TRUE(changed()) << "the size";
  WriteFile(folder / "other", "ab");
  std::filesystem::last_write_time(folder / "other", date + std::chrono::nanoseconds(1));
  std::filesystem::rename(folder / "other", path);
  EXPECT_TRUE(changed()) << "another file of the same date and size";
  WriteFile(folder / "other", "ab");
  std::filesystem::last_write_time(folder / "other", date + std::chrono::nanoseconds(1));
  std::filesystem::remove(folder / "inner");
  std::filesystem::create_symlink("other", folder / "inner");
  EXPECT_TRUE(changed()) << "a link on the way";
  std::filesystem::remove(folder / "other");
  EXPECT_TRUE(changed());
  EXPECT_EQ(before, std::nullopt);
}

TEST(AppendFile, CanBeKeptFromOthers) {
  const TempFolder folder;
  const mode_t mask = umask(0);
  AppendFile usual;
  AppendFile kept;
  EXPECT_TRUE(usual.Open(folder / "usual"));
  EXPECT_TRUE(kept.Open(folder / "kept", NewFileReaders::kGroup));
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat((folder / "usual").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0666U);
  ASSERT_EQ(stat((folder / "kept").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640U);
}

TEST(AppendFile, OpensRegularFilesOnly) {
  const TempFolder folder;
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::filesystem::create_symlink(fifo, folder / "link");
  const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  AppendFile file;
  for (const std::string& path : {fifo, folder / "link", folder.Path(), std::string("/dev/null"),
                                  folder / "missing/x", std::string()}) {
    EXPECT_FALSE(file.Open(path)) << path;
    EXPECT_FALSE(file.IsOpen()) << path;
  }
  close(reader);
  EXPECT_FALSE(file.Open(fifo));  // nor does it wait for a reader
}

TEST(AppendFile, IsNotInheritedByOtherPrograms) {
  const TempFolder folder;
  AppendFile file;
  ASSERT_TRUE(file.Open(folder / "x"));
  const std::filesystem::path target = std::filesystem::canonical(folder / "x");
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) != target) continue;
    ++found;
    EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
  }
  EXPECT_EQ(found, 1);
}

// A file size limit represents every way in which a disk takes no more: in a child, since it cannot be
// lifted.
TEST(FileReplace, FailedWriteLeavesNoFile) {
  const TempFolder folder;
  const std::string path = folder / "db";
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const rlimit limit{1000, 1000};
    setrlimit(RLIMIT_FSIZE, &limit);
    const std::string error = ErrorOf([&] {
      NewFile file(path, kSource);
      file.Write(std::string(2000, 'x'));
      file.Release();
    });
    AppendFile log;
    const bool lost = log.Open(path + ".log") && !log.Write(std::string(2000, 'x'));
    _exit(error == "61 mTest.Files Disk full" && lost ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(FileReplace, RemoveTakesFilesAndLinksOnly) {
  const TempFolder folder;
  WriteFile(folder / "file", "x");
  std::filesystem::create_symlink("file", folder / "link");
  EXPECT_TRUE(RemoveFile(folder / "link"));
  EXPECT_TRUE(std::filesystem::exists(folder / "file"));
  EXPECT_TRUE(RemoveFile(folder / "file"));
  EXPECT_FALSE(RemoveFile(folder / "file"));
  ASSERT_TRUE(CreateFolder(folder / "folder"));
  EXPECT_FALSE(RemoveFile(folder / "folder"));
  EXPECT_TRUE(std::filesystem::exists(folder / "folder"));
}

}  // namespace
}  // namespace trabex

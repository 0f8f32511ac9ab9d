#include "platform/files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/file_replace.h"
#include "support/error_of.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

constexpr const char* kSource = "mTest.Files";

TEST(Files, BothSeparatorsSeparate) {
  EXPECT_TRUE(IsPathSeparator('/'));
  EXPECT_TRUE(IsPathSeparator('\\'));
  EXPECT_FALSE(IsPathSeparator(':'));
  const std::string separator(1, kPathSeparator);
  EXPECT_EQ(NativePath("GreyListing\\x/y.gldb"), "GreyListing" + separator + "x" + separator + "y.gldb");
  EXPECT_EQ(NativePath("/a/b\\\\c"), separator + "a" + separator + "b" + separator + separator + "c");
  EXPECT_EQ(NativePath(""), "");
}

TEST(Files, AbsolutePathIsTheSamePlace) {
  const std::string path = AbsolutePath("x.ini");
  EXPECT_TRUE(IsAbsolutePath(path)) << path;
  EXPECT_EQ(AbsolutePath(path), path);
}

TEST(Files, FoldersAreToldFromFiles) {
  const TempFolder folder;
  WriteFile(folder / "x", "");
  EXPECT_TRUE(IsFolder(folder.Path()));
  EXPECT_FALSE(IsFolder(folder / "x"));
  EXPECT_FALSE(IsFolder(folder / "missing"));
  EXPECT_FALSE(IsFolder(""));
}

TEST(Files, WholeFileIsReadAsBytes) {
  const TempFolder folder;
  for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 300000U}) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * 7);
    WriteFile(folder / "x", content);
    EXPECT_TRUE(ReadWholeFile(folder / "x", kSource) == content) << size;
  }
}

TEST(Files, FolderIsCreatedInOneLevel) {
  const TempFolder folder;
  EXPECT_TRUE(CreateFolder(folder / "Log"));
  EXPECT_TRUE(std::filesystem::is_directory(folder / "Log"));
  EXPECT_FALSE(CreateFolder(folder / "Log"));
  EXPECT_FALSE(CreateFolder(folder / "a/b"));
  EXPECT_FALSE(std::filesystem::exists(folder / "a"));
}

TEST(AppendFile, AppendsAndCreates) {
  const TempFolder folder;
  const std::string path = folder / "x.log";
  AppendFile file;
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(file.Write("lost"));
  ASSERT_TRUE(file.Open(path));
  EXPECT_TRUE(file.IsOpen());
  EXPECT_TRUE(file.Write("one\r\n"));
  EXPECT_EQ(ReadFile(path), "one\r\n");  // there at once
  {
    AppendFile other;  // another process, as it were
    ASSERT_TRUE(other.Open(path));
    EXPECT_TRUE(other.Write("two\r\n"));
  }
  EXPECT_TRUE(file.Write("three\r\n"));
  file.Close();
  EXPECT_FALSE(file.IsOpen());
  file.Close();
  ASSERT_TRUE(file.Open(path));
  EXPECT_TRUE(file.Write(""));
  EXPECT_TRUE(file.Write("four\r\n"));
  EXPECT_EQ(ReadFile(path), "one\r\ntwo\r\nthree\r\nfour\r\n");
}

TEST(AppendFile, KnowsALineThatWasCutOff) {
  const TempFolder folder;
  const std::string path = folder / "x.log";
  AppendFile file;
  struct Row {
    const char* before;
    bool cut_off;
  };
  for (const Row& row : {Row{"", false}, Row{"one\r\n", false}, Row{"one\ntw", true}, Row{"one\r", true}}) {
    WriteFile(path, row.before);
    ASSERT_TRUE(file.Open(path));
    EXPECT_EQ(file.EndsInsideLine(), row.cut_off) << row.before;
    EXPECT_TRUE(file.Write(""));
    EXPECT_EQ(file.EndsInsideLine(), row.cut_off) << row.before;
    EXPECT_TRUE(file.Write("three"));
    EXPECT_TRUE(file.EndsInsideLine());
    EXPECT_TRUE(file.Write("\n"));
    EXPECT_FALSE(file.EndsInsideLine());
    EXPECT_EQ(ReadFile(path), std::string(row.before) + "three\n");
  }
  WriteFile(path, "one");
  ASSERT_TRUE(file.Open(path));
  std::filesystem::remove(path);
  ASSERT_TRUE(file.Open(path));
  EXPECT_FALSE(file.EndsInsideLine());
}

TEST(FileReplace, MoveReplaces) {
  const TempFolder folder;
  WriteFile(folder / "new", "new");
  WriteFile(folder / "db", "old");
  MoveFile(folder / "new", folder / "db", kSource);
  SyncFolderOf(folder / "db", kSource);
  EXPECT_EQ(ReadFile(folder / "db"), "new");
  EXPECT_FALSE(std::filesystem::exists(folder / "new"));
  EXPECT_EQ(ErrorOf([&] { MoveFile(folder / "new", folder / "db", kSource); }),
            "53 mTest.Files File not found");
  EXPECT_EQ(ErrorOf([&] { MoveFile(folder / "db", folder / "no/db", kSource); }),
            "76 mTest.Files Path not found");
  EXPECT_EQ(ReadFile(folder / "db"), "new");
  EXPECT_EQ(ErrorOf([&] { SyncFolderOf(folder / "no/db", kSource); }), "76 mTest.Files Path not found");
  SyncFolderOf("relative", kSource);
}

// What is at "db", "dbbak" and "dbold" in `folder`.
std::string TripleIn(const TempFolder& folder) {
  std::string text;
  for (const char* name : {"db", "dbbak", "dbold"}) {
    const std::string path = folder / name;
    text += std::filesystem::is_directory(path) ? "folder"
            : std::filesystem::exists(path)     ? ReadFile(path)
                                                : "-";
    text += " ";
  }
  return text;
}

TEST(FileReplace, TheReplacedFileBecomesTheBackup) {
  const TempFolder folder;
  const auto replace = [&](const char* content) {
    WriteFile(folder / "new", content);
    ReplaceFile(folder / "new", folder / "db", folder / "dbbak", kSource);
  };
  replace("1");
  EXPECT_EQ(TripleIn(folder), "1 - - ");
  replace("2");
  EXPECT_EQ(TripleIn(folder), "2 1 - ");
  WriteFile(folder / "dbold", "left over");
  replace("3");
  EXPECT_EQ(TripleIn(folder), "3 2 - ");
  // Without a file to replace the backup stays.
  RemoveFile(folder / "db");
  replace("4");
  EXPECT_EQ(TripleIn(folder), "4 2 - ");
  // Both names of one file.
  RemoveFile(folder / "dbbak");
  std::filesystem::create_hard_link(folder / "db", folder / "dbbak");
  replace("5");
  EXPECT_EQ(TripleIn(folder), "5 4 - ");
  RemoveFile(folder / "dbbak");
  std::filesystem::create_directories(folder / "dbbak/inside");
  replace("6");
  EXPECT_EQ(TripleIn(folder), "6 folder - ");
  EXPECT_FALSE(std::filesystem::exists(folder / "new"));
}

TEST(FileReplace, AFailedReplacementChangesNothing) {
  const TempFolder folder;
  WriteFile(folder / "db", "2");
  WriteFile(folder / "dbbak", "1");
  EXPECT_EQ(ErrorOf([&] { ReplaceFile(folder / "new", folder / "db", folder / "dbbak", kSource); }),
            "53 mTest.Files File not found");
  EXPECT_EQ(TripleIn(folder), "2 1 - ");
}

TEST(Files, MissingFilesAndFoldersRaise) {
  const TempFolder folder;
  WriteFile(folder / "file", "x");
  const struct {
    std::string path;
    const char* error;
  } cases[] = {
      {folder / "missing", "53 mTest.Files File not found"},
      {folder / "missing/x", "76 mTest.Files Path not found"},
      {folder / "file/x", "76 mTest.Files Path not found"},
      {"missing", "53 mTest.Files File not found"},
      {"", "53 mTest.Files File not found"},
      {folder.Path(), "75 mTest.Files Path/File access error"},
      {folder / std::string(300, 'x'), "75 mTest.Files Path/File access error"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ErrorOf([&] { ReadWholeFile(c.path, kSource); }), c.error) << c.path;
  }
}

}  // namespace
}  // namespace trabex

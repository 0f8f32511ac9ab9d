#include "platform/file_stream.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "base/error.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

namespace fs = std::filesystem;

// "<number> <source>" of the Error that `action` raises.
template <class Action>
std::string ErrorOf(Action action) {
  try {
    action();
    return "";
  } catch (const Error& error) {
    return std::to_string(error.Number()) + " " + error.Source();
  }
}

TEST(InputFile, IsReadPieceByPiece) {
  const TempFolder folder;
  const std::string content("ab\0cdefg", 8);
  WriteFile(folder / "f", content);
  InputFile file(folder / "f", "source");
  EXPECT_EQ(file.Size(), 8U);
  std::string read;
  char buffer[3];
  for (std::size_t got = 0; (got = file.Read(buffer, sizeof buffer)) > 0;) {
    EXPECT_LE(got, sizeof buffer);
    read.append(buffer, got);
  }
  EXPECT_EQ(read, content);
  EXPECT_EQ(file.Read(buffer, sizeof buffer), 0U);
}

TEST(InputFile, OpensRegularFilesOnly) {
  const TempFolder folder;
  EXPECT_EQ(ErrorOf([&] { InputFile(folder.Path(), "source"); }), "75 source");
  EXPECT_EQ(ErrorOf([&] { InputFile(folder / "none", "source"); }), "53 source");
  EXPECT_EQ(ErrorOf([&] { InputFile(folder / "none/none", "source"); }), "76 source");
}

TEST(NewFile, StaysOnlyWhenReleased) {
  const TempFolder folder;
  const std::string path = folder / "f";
  {
    NewFile file(path, "source");
    file.Write("some");
    file.Write("");
    file.Write(std::string_view(" by\0tes", 7));
    file.Sync();
    EXPECT_EQ(ReadFile(path), std::string("some by\0tes", 11));
  }
  EXPECT_FALSE(fs::exists(path));
  {
    NewFile file(path, "source");
    file.Write("kept");
    file.Release();
  }
  EXPECT_EQ(ReadFile(path), "kept");
}

TEST(NewFile, TakesTheNameOfALeftOverOne) {
  const TempFolder folder;
  const std::string path = folder / "f";
  WriteFile(path, "left over, and longer");
  {
    NewFile file(path, "source");
    file.Write("new");
    file.Release();
  }
  EXPECT_EQ(ReadFile(path), "new");
}

TEST(NewFile, LeavesOneThatIsBeingWritten) {
  const TempFolder folder;
  const std::string path = folder / "f";
  NewFile file(path, "source");
  file.Write("first");
  EXPECT_EQ(ErrorOf([&] { NewFile(path, "other"); }), "70 other");
  EXPECT_EQ(ReadFile(path), "first");
}

TEST(NewFile, ReportsWhyNot) {
  const TempFolder folder;
  fs::create_directories(folder / "folder/inside");
  EXPECT_EQ(ErrorOf([&] { NewFile(folder / "folder", "source"); }), "75 source");
  EXPECT_TRUE(fs::is_directory(folder / "folder/inside"));
  EXPECT_EQ(ErrorOf([&] { NewFile(folder / "none/f", "source"); }), "76 source");
}

}  // namespace
}  // namespace trabex

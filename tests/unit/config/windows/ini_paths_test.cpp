#include "config/ini_paths.h"

#include <gtest/gtest.h>

namespace trabex::mCommon {
namespace {

TEST(WindowsPaths, AreJoinedWithABackslash) {
  EXPECT_EQ(JoinPath("C:\\Trabex", "x"), "C:\\Trabex\\x");
  EXPECT_EQ(JoinPath("C:\\Trabex\\", "x"), "C:\\Trabex\\x");
  EXPECT_EQ(JoinPath("C:\\Trabex\\", "\\x"), "C:\\Trabex\\x");
  EXPECT_EQ(JoinPath("C:", "x"), "C:\\x") << "a program in the root of a drive";
}

TEST(WindowsPaths, StayWhenTheyHaveADriveAServerOrDotsInFront) {
  for (const char* path : {"C:\\x.ini", "c:/x.ini", "Z:\\", "\\\\server\\share\\x.ini",
                           "//server/share/x.ini", "./x.ini", ".\\x.ini", "../x.ini", "..\\x.ini"}) {
    EXPECT_EQ(ResolveIniPath(path, "C:\\Trabex", "Trabex"), path);
    EXPECT_EQ(ResolveFilePath(path, "C:\\Trabex"), path);
  }
}

TEST(WindowsPaths, LieUnderTheProgramsDirectoryOtherwise) {
  const struct {
    const char* given;
    const char* path;
  } rows[] = {{"", "C:\\Trabex\\Trabex.ini"},
              {"x.ini", "C:\\Trabex\\x.ini"},
              {"My Files\\x.ini", "C:\\Trabex\\My Files\\x.ini"},
              // One separator says nothing about the drive.
              {"\\x.ini", "C:\\Trabex\\x.ini"},
              {"/etc/x.ini", "C:\\Trabex/etc/x.ini"},
              // No absolute path either, and refused when it is opened.
              {"C:x.ini", "C:\\Trabex\\C:x.ini"},
              {"..", "C:\\Trabex\\.."}};
  for (const auto& row : rows) EXPECT_EQ(ResolveIniPath(row.given, "C:\\Trabex", "Trabex"), row.path);
}

TEST(WindowsPaths, DatabaseLiesInItsFolderUnlessAFolderIsGiven) {
  EXPECT_EQ(ResolveDatabasePath("", "C:\\Trabex"), "C:\\Trabex\\GreyListing\\GreyListing.gldb");
  EXPECT_EQ(ResolveDatabasePath("x.gldb", "C:\\Trabex"), "C:\\Trabex\\GreyListing\\x.gldb");
  EXPECT_EQ(ResolveDatabasePath("D:\\x.gldb", "C:\\Trabex"), "D:\\x.gldb");
  EXPECT_EQ(ResolveDatabasePath("sub/x.gldb", "C:\\Trabex"), "sub/x.gldb");
}

}  // namespace
}  // namespace trabex::mCommon

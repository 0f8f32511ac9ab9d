#include "config/ini_paths.h"

#include <gtest/gtest.h>

namespace trabex::mCommon {
namespace {

TEST(JoinPath, PutsOneSeparatorBetween) {
  EXPECT_EQ(JoinPath("/opt", "x"), "/opt/x");
  EXPECT_EQ(JoinPath("/opt/", "x"), "/opt/x");
  EXPECT_EQ(JoinPath("/opt", "/x"), "/opt/x");
  EXPECT_EQ(JoinPath("/opt/", "/x"), "/opt/x");
  EXPECT_EQ(JoinPath("/opt\\", "\\x"), "/opt\\x");
  EXPECT_EQ(JoinPath("/", "x"), "/x");
  EXPECT_EQ(JoinPath("", "x"), "/x");
}

TEST(ResolveIniPath, KeepsAbsoluteAndDottedPaths) {
  for (const char* path : {"/etc/x.ini", "C:\\x.ini", "c:/x.ini", "Z:\\", "\\\\server\\x.ini", "./x.ini",
                           ".\\x.ini", "../x.ini", "..\\x.ini"}) {
    EXPECT_EQ(ResolveIniPath(path, "/opt/trabex", "Trabex"), path);
  }
}

TEST(ResolveIniPath, PutsAllOthersUnderTheProgramsDirectory) {
  const struct {
    const char* given;
    const char* path;
  } rows[] = {{"", "/opt/trabex/Trabex.ini"},
              {"x.ini", "/opt/trabex/x.ini"},
              {"My Files/x.ini", "/opt/trabex/My Files/x.ini"},
              {"sub\\x.ini", "/opt/trabex/sub\\x.ini"},
              {".hidden.ini", "/opt/trabex/.hidden.ini"},
              {"..x.ini", "/opt/trabex/..x.ini"},
              {".", "/opt/trabex/."},
              {"..", "/opt/trabex/.."},
              {"C:x.ini", "/opt/trabex/C:x.ini"},
              {"1:\\x.ini", "/opt/trabex/1:\\x.ini"},
              {"\\x.ini", "/opt/trabex\\x.ini"}};
  for (const auto& row : rows) EXPECT_EQ(ResolveIniPath(row.given, "/opt/trabex", "Trabex"), row.path);
}

TEST(ResolveFilePath, FollowsTheRuleOfTheInitializationFileButHasNoDefault) {
  const struct {
    const char* setting;
    const char* path;
  } rows[] = {{"", ""},
              {"/etc/c.pem", "/etc/c.pem"},
              {"./c.pem", "./c.pem"},
              {"C:\\c.pem", "C:\\c.pem"},
              {"c.pem", "/opt/trabex/c.pem"},
              {"tls/c.pem", "/opt/trabex/tls/c.pem"}};
  for (const auto& row : rows) EXPECT_EQ(ResolveFilePath(row.setting, "/opt/trabex"), row.path);
}

TEST(ResolveDatabasePath, UsesTheFolderUnderTheProgramUnlessAFolderIsGiven) {
  const struct {
    const char* setting;
    const char* path;
  } rows[] = {{"", "/opt/trabex/GreyListing/GreyListing.gldb"},
              {"my.gldb", "/opt/trabex/GreyListing/my.gldb"},
              {".\\my.gldb", ".\\my.gldb"},
              {"./my.gldb", "./my.gldb"},
              {"/var/lib/my.gldb", "/var/lib/my.gldb"},
              {"sub/my.gldb", "sub/my.gldb"}};
  for (const auto& row : rows) EXPECT_EQ(ResolveDatabasePath(row.setting, "/opt/trabex"), row.path);
}

}  // namespace
}  // namespace trabex::mCommon

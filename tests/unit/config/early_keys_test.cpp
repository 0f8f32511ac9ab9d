#include "config/early_keys.h"

#include <gtest/gtest.h>

#include <string>

#include "config_support.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

EarlyKeyInputs Inputs() {
  return {.ini_path = "x.ini", .program_directory = WithPathsOfSystem("/opt/trabex")};
}

struct ReadEarly {
  explicit ReadEarly(const std::string& text, const EarlyKeyInputs& inputs = Inputs()) {
    try {
      ReadEarlyKeysFromText(WithPathsOfSystem(text), inputs, configuration, log);
    } catch (const Error&) {
      failed = true;
    }
  }
  RecordedLog log;
  Configuration configuration = DefaultConfiguration();
  bool failed = false;
};

TEST(EarlyKeys, HaveDefaults) {
  const ReadEarly read("");
  EXPECT_FALSE(read.failed);
  EXPECT_TRUE(read.configuration.IgnoreIniErrors);
  EXPECT_EQ(read.configuration.Log, 1);
  EXPECT_EQ(read.configuration.LogPath, WithPathsOfSystem("/opt/trabex/Log"));
  EXPECT_EQ(read.configuration.BindPort, 25);
  EXPECT_EQ(read.log.Lines(), Lines{});
}

TEST(EarlyKeys, AreFoundLikeProfileStrings) {
  const std::string long_path(300, 'p');
  const struct {
    std::string text;
    std::string log_path;
  } rows[] = {
      {"[Common]\nLogPath=/a", "/a"},
      {"[common]\r\nLOGPATH  =  /a b  \r\n", "/a b"},
      {"[Common]\nLogPath=\"/a b\"", "/a b"},
      {"[Common]\nLogPath='/a b'", "/a b"},
      {"[Common]\nLogPath=\" /a\"", " /a"},
      {"[Common]\nLogPath='\"/a\"'", "\"/a\""},  // one pair only
      {"[Common]\nLogPath=\"/a'", "\"/a'"},
      {"[Common]\nLogPath=\"", "\""},
      {"[Common]\nLogPath=/a;b", "/a;b"},
      {"[Common]\nLogPath=/a=b", "/a=b"},
      {"[Common]\nLogPath=/first\nLogPath=/second", "/first"},
      {"[Common]\n;LogPath=/a\nLogPath=/b", "/b"},
      {"[Common]\nbad line\n[Other]\nLogPath=/a\n[Common]\nLogPath=/b", "/b"},
      {"LogPath=/a\n[GreyListing]\nLogPath=/b", "/opt/trabex/Log"},
      {"[Common] rest\nLogPath=/a", "/a"},
      {"[Common\nLogPath=/a", "/opt/trabex/Log"},
      {"[Common]\n[GreyListing\nLogPath=/a", "/opt/trabex/Log"},
      {"[ Common ]\nLogPath=/a", "/opt/trabex/Log"},
      {"[Common]\nLogPath=", "/opt/trabex/Log"},
      {"[Common]\nLogPath=\"\"", "/opt/trabex/Log"},
      {"[Common]\nLogPath=" + long_path, long_path.substr(0, 255)},
      {"[Common]\nLogPath=\"" + long_path + "\"", long_path.substr(0, 255)},
      {"\xEF\xBB\xBF[Common]\rLogPath=/a\r", "/a"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const ReadEarly read(row.text);
    EXPECT_EQ(read.configuration.LogPath, WithPathsOfSystem(row.log_path));
    EXPECT_EQ(read.log.Lines(), Lines{});
  }
}

struct NumberRow {
  const char* key;
  const char* value;
  int result;
  const char* description;  // "" for a good value
};

int ResultOf(const Configuration& configuration, const std::string& key) {
  if (key == "IgnoreIniErrors") return configuration.IgnoreIniErrors ? 1 : 0;
  return key == "Log" ? configuration.Log : configuration.BindPort;
}

TEST(EarlyKeys, HaveRanges) {
  const NumberRow rows[] = {
      {"IgnoreIniErrors", "0", 0, ""},
      {"IgnoreIniErrors", "1", 1, ""},
      {"Log", "0", 0, ""},
      {"Log", "2", 2, ""},
      {"Log", "\"2\"", 2, ""},
      {"Log", "-1", 1, "Value -1 lies out of allowed range: from 0 to 2."},
      {"Log", "3", 1, "Value 3 lies out of allowed range: from 0 to 2."},
      {"Log", "", 1, "Integer value expected."},
      {"Log", "on", 1, "Value is not a number: \"on\"."},
      {"BindPort", "0", 0, ""},
      {"BindPort", "65535", 65535, ""},
      {"BindPort", "-1", 25, "Value -1 lies out of allowed range: from 0 to 65535."},
      {"BindPort", "65536", 25, "Value 65536 lies out of allowed range: from 0 to 65535."},
  };
  for (const NumberRow& row : rows) {
    const std::string line = std::string(row.key) + "=" + row.value + "\n";
    SCOPED_TRACE(line);
    const ReadEarly read("[Common]\n" + line);
    EXPECT_FALSE(read.failed);
    EXPECT_EQ(ResultOf(read.configuration, row.key), row.result);
    const bool good = *row.description == '\0';
    const Lines report = good ? Lines{} : Lines{ConfigErrorLine("Common", row.key, 380, row.description)};
    EXPECT_EQ(read.log.Lines(), report);

    if (std::string(row.key) == "IgnoreIniErrors") continue;
    const ReadEarly strict("[Common]\nIgnoreIniErrors=0\n" + line);
    EXPECT_EQ(strict.failed, !good);
    EXPECT_EQ(strict.log.Lines(), report);
  }
}

TEST(EarlyKeys, NeverIgnoreAnErrorOfIgnoreIniErrors) {
  for (const char* value : {"2", "-1", "", "yes"}) {
    const ReadEarly read("[Common]\nIgnoreIniErrors=" + std::string(value) + "\nLog=2\n");
    EXPECT_TRUE(read.failed) << value;
    EXPECT_FALSE(read.configuration.IgnoreIniErrors);
    EXPECT_EQ(read.configuration.Log, 1) << "the keys behind it are not read any more";
    EXPECT_EQ(read.log.Lines().size(), 1U);
  }
}

TEST(EarlyKeys, LeaveTheKeysAfterABadOneAsTheyWere) {
  const ReadEarly read("[Common]\nBindPort=70000\nLogPath=/a\nLog=2\nIgnoreIniErrors=0\n");
  EXPECT_TRUE(read.failed);
  EXPECT_EQ(read.configuration.Log, 2);
  EXPECT_EQ(read.configuration.LogPath, WithPathsOfSystem("/a"));
  EXPECT_EQ(read.configuration.BindPort, 25);
}

TEST(EarlyKeys, GiveWayToTheCommandLine) {
  for (const char* level : {"0", "1", "2"}) {
    EarlyKeyInputs inputs = Inputs();
    inputs.log_path_given = true;
    inputs.port_given = true;
    RecordedLog log;
    Configuration configuration = DefaultConfiguration();
    configuration.LogPath = "/given";
    configuration.BindPort = 2525;
    ReadEarlyKeysFromText("[Common]\nLog=" + std::string(level) + "\nLogPath=/a\nBindPort=70000\n", inputs,
                          configuration, log);
    EXPECT_EQ(configuration.Log, 1) << "a given folder means plain logging";
    EXPECT_EQ(configuration.LogPath, "/given");
    EXPECT_EQ(configuration.BindPort, 2525);
    EXPECT_EQ(log.Lines(), Lines{}) << "a key that is not read has no errors";
  }
}

TEST(EarlyKeys, KeepTheLogFolderAtAReload) {
  TempFolder folder;
  EarlyKeyInputs inputs = Inputs();
  inputs.ini_path = folder / "x.ini";
  RecordedLog log;
  Configuration configuration = DefaultConfiguration();
  WriteFile(inputs.ini_path, "[Common]\nLogPath=/first\nLog=0\nBindPort=2525\nIgnoreIniErrors=0\n");
  EXPECT_EQ(ReadEarlyKeys(inputs, configuration, log), EarlyKeysResult::kRead);
  EXPECT_FALSE(configuration.IgnoreIniErrors);

  EXPECT_EQ(
      ReadEarlyKeysAgain("[Common]\nLogPath=/second\nLog=2\nBindPort=2526\n", inputs, configuration, log),
      EarlyKeysResult::kRead);
  EXPECT_EQ(configuration.LogPath, "/first");
  EXPECT_EQ(configuration.Log, 2);
  EXPECT_EQ(configuration.BindPort, 2526);
  EXPECT_TRUE(configuration.IgnoreIniErrors);
  EXPECT_EQ(log.Lines(), Lines{});
}

TEST(EarlyKeys, OfABadFileFail) {
  TempFolder folder;
  EarlyKeyInputs inputs = Inputs();
  inputs.ini_path = folder / "x.ini";
  WriteFile(inputs.ini_path, "[Common]\nIgnoreIniErrors=x\n");
  RecordedLog log;
  Configuration configuration = DefaultConfiguration();
  EXPECT_EQ(ReadEarlyKeys(inputs, configuration, log), EarlyKeysResult::kFailed);
  EXPECT_EQ(ReadEarlyKeysAgain("[Common]\nIgnoreIniErrors=x\n", inputs, configuration, log),
            EarlyKeysResult::kFailed);
  const std::string line = ConfigErrorLine("Common", "IgnoreIniErrors", 380, "Value is not a number: \"x\".");
  EXPECT_EQ(log.Lines(), (Lines{line, line}));
}

TEST(EarlyKeys, OfAMissingFileAreDefaults) {
  TempFolder folder;
  EarlyKeyInputs inputs = Inputs();
  inputs.ini_path = folder / "x.ini";
  RecordedLog log;
  Configuration configuration = DefaultConfiguration();
  configuration.BindPort = 2525;
  EXPECT_EQ(ReadEarlyKeys(inputs, configuration, log), EarlyKeysResult::kRead);
  EXPECT_EQ(configuration.BindPort, 25);
  EXPECT_EQ(log.Lines(), Lines{});
}

}  // namespace
}  // namespace trabex

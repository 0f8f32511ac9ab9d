// The settings of section Service: what counts as bad, and how they are shown.
#include "config/service_settings.h"

#include <gtest/gtest.h>

#include <string>

#include "config_support.h"

namespace trabex {
namespace {

TEST(ServiceSection, IsNotShownWhileEverySettingHasItsDefault) {
  const Lines without = DumpLines(LoadedText("[Common]\nTimeout=60\n", false).configuration);
  const LoadedText defaults(
      "[Common]\nTimeout=60\n[Service]\nServerTimeout=0\nJsonLog=\nJsonEvents=\nStatusHTTP=\nDnsFailure=0\n"
      "EnforceMaxSize=0\nSandbox=1\n[ListFiles]\n",
      false);
  ASSERT_TRUE(defaults.result);
  EXPECT_EQ(DumpLines(defaults.configuration), without);
}

TEST(ServiceSection, IsShownBehindAllOthers) {
  const LoadedText loaded("[Service]\nSandbox=2\nEnforceMaxSize=1\nJsonLog=json\n", false);
  ASSERT_TRUE(loaded.result);
  const Lines lines = DumpLines(loaded.configuration);
  ASSERT_GT(lines.size(), 7U);
  EXPECT_EQ(Lines(lines.end() - 7, lines.end()),
            (Lines{"[RecipientReplacements.Remote]", ";" + std::string(74, '-'), "[Service]",
                   WithPathsOfSystem("JsonLog = /opt/trabex/json"), "EnforceMaxSize = 1", "Sandbox = 2",
                   ";" + std::string(74, '=')}));
}

TEST(JsonLog, IsAFileOrStandardOutput) {
  const struct {
    const char* value;
    const char* read;
  } rows[] = {
      {"", ""}, {"-", "-"}, {"/var/log/t.json", "/var/log/t.json"}, {"./t", "./t"}, {"t", "/opt/trabex/t"}};
  for (const auto& row : rows) {
    const LoadedText loaded("[Service]\nJsonLog=" + std::string(row.value) + "\n", false);
    EXPECT_EQ(loaded.configuration.Service.JsonLog, WithPathsOfSystem(row.read)) << row.value;
  }
}

TEST(JsonEvents, AreReadFromAllLinesWithoutRegardToCase) {
  const LoadedText loaded("[Service]\nJsonEvents=Start, , refusal\nJsonEvents=session\n", false);
  ASSERT_TRUE(loaded.result);
  EXPECT_EQ(loaded.configuration.Service.JsonEvents, (Lines{"start", "refusal", "session"}));
}

TEST(JsonEvents, ReportUnknownAndRepeatedNames) {
  const LoadedText loaded("[Service]\nJsonEvents=stop,stops,STOP\n");
  EXPECT_EQ(loaded.configuration.Service.JsonEvents, (Lines{"stop"}));
  EXPECT_EQ(loaded.log.Lines(),
            (Lines{ConfigErrorLine("Service", "JsonEvents", 380, "Inadmissible string: \"stops\"."),
                   ConfigErrorLine("Service", "JsonEvents", 457,
                                   "Expression \"STOP\" specified more than once.")}));
  EXPECT_FALSE(LoadedText("[Service]\nJsonEvents=stop,stops\n", false).result);
}

TEST(StatusHTTP, IsAnAddressAndAPort) {
  const LoadedText loaded("[Service]\nStatusHTTP=[::1]:9425\n", false);
  ASSERT_TRUE(loaded.result);
  EXPECT_EQ(loaded.configuration.Service.StatusHTTP, "[::1]:9425");
  EXPECT_EQ(loaded.configuration.Service.status_endpoint, (Endpoint{kIPv6Loopback, 9425}));
  EXPECT_EQ(DumpedLines(loaded.configuration, "Service", "StatusHTTP"), (Lines{"StatusHTTP = [::1]:9425"}));
}

TEST(StatusHTTP, IsNoneWhenItIsBad) {
  for (const std::string value : {"localhost:9425", "9425", "127.0.0.1:0"}) {
    const std::string file = "[Service]\nStatusHTTP=" + value + "\n";
    LoadedText loaded("[Service]\nStatusHTTP=127.0.0.1:9425\n");
    loaded.Load(file);
    EXPECT_EQ(loaded.configuration.Service.StatusHTTP, "");
    EXPECT_EQ(loaded.configuration.Service.status_endpoint, Endpoint());
    EXPECT_EQ(
        loaded.log.Lines(),
        (Lines{ConfigErrorLine("Service", "StatusHTTP", 380, "Inadmissible string: \"" + value + "\".")}));
    EXPECT_FALSE(LoadedText(file, false).result);
  }
}

}  // namespace
}  // namespace trabex

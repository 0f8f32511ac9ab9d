// Lists with files of their own: what is read from them, in what order, and what is said of what is wrong.
#include "config/list_files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "config/load_configuration.h"
#include "config_support.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

std::string ListFileErrorLine(const std::string& path, int line, int number, const std::string& description) {
  return "Error reading list file \"" + path + "\", line " + std::to_string(line) +
         ". Error number: " + std::to_string(number) + ", Description: " + description;
}

class ListFilesTest : public testing::Test {
 protected:
  std::string List(const std::string& text, const std::string& name = "list") {
    const std::string path = folder_ / name;
    WriteFile(path, text);
    return path;
  }
  TempFolder folder_;
};

TEST_F(ListFilesTest, EntriesFollowThoseOfTheInitializationFile) {
  const std::string path = List(
      "\xEF\xBB\xBFmail.example\r\n\n  # a comment\n; another\n*.example.org *[!0-9]\r\"a,b\"\nc.example");
  const LoadedText loaded(
      "[Common]\nHostsWhiteList=own.example\nHostsWhiteList=x\n[ListFiles]\nCOMMON.hostswhitelist=" + path +
          "\n",
      false);
  ASSERT_TRUE(loaded.result);
  EXPECT_EQ(loaded.log.Lines(), Lines{});
  EXPECT_EQ(Entries(loaded.configuration.HostsWhiteList),
            (Lines{"own.example", "x", "mail.example", "*.example.org+*[!0-9]", "a,b", "c.example"}));
}

TEST_F(ListFilesTest, TakeThePlaceOfADefault) {
  const std::string path = List("b.example\n");
  const LoadedText loaded(
      "[ListFiles]\nCommon.HostsAllowList=" + path + "\nGreyListing.HostsBlackList=" + path + "\n", false);
  EXPECT_EQ(Entries(loaded.configuration.HostsAllowList), (Lines{"b.example"}));
  EXPECT_EQ(Entries(loaded.configuration.GreyListing.HostsBlackList), (Lines{"b.example"}));
  EXPECT_EQ(Entries(loaded.configuration.SendersAllowList), (Lines{"*"})) << "no file of its own";
}

TEST_F(ListFilesTest, MayBelongToEveryListOfPatternsOrRanges) {
  int lists = 0;
  for (const Setting& setting : AllSettings()) {
    const bool may = setting.kind != SettingKind::kCertificateList &&
                     setting.kind != SettingKind::kNameList && IsListKind(setting.kind);
    EXPECT_EQ(FindList(ListFileKey(setting)) == &setting, may) << setting.key;
    if (!may) continue;
    ++lists;
    const std::string entry =
        setting.kind == SettingKind::kRangeList || setting.kind == SettingKind::kPartialRangeList ? "10.0.0.1"
                                                                                                  : "x";
    const std::string path = List(entry + "\n");
    const LoadedText loaded("[ListFiles]\n" + ListFileKey(setting) + "=" + path + "\n", false);
    ASSERT_TRUE(loaded.result) << setting.key;
    ASSERT_EQ(loaded.configuration.ListFiles.size(), 1U);
    EXPECT_EQ(loaded.configuration.ListFiles[0].list, &setting);
    if (entry == "x") {
      EXPECT_EQ(Entries(FieldOf<ExpressionList>(loaded.configuration, setting)), (Lines{"x"})) << setting.key;
    } else {
      EXPECT_EQ(FieldOf<IPRangeList>(loaded.configuration, setting).Count(), 1U) << setting.key;
    }
  }
  EXPECT_GT(lists, 25);
}

TEST_F(ListFilesTest, ReportTheirFileAndLine) {
  const std::string hosts = List("a\n[x\n#[\nb\nA\n", "hosts");
  const std::string ranges = List("10.0.0.1\r\n10.0.0\r\n10.0.0.2\r\n::1-10.0.0.1\n10.0.0.1\n", "ranges");
  const std::string text = "[Common]\nHostsBlackList=[y\n[ListFiles]\nCommon.HostsBlackList=" + hosts +
                           "\nCommon.IPBlackList=" + ranges + "\n";
  const LoadedText loaded(text);
  ASSERT_TRUE(loaded.result);
  EXPECT_EQ(
      loaded.log.Lines(),
      (Lines{ListFileErrorLine(ranges, 5, 457, "Expression \"10.0.0.1\" specified more than once."),
             ListFileErrorLine(ranges, 2, 380, "Invalid IP address: \"10.0.0\"."),
             ListFileErrorLine(ranges, 4, 380, "Invalid IP address range: \"::1-10.0.0.1\"."),
             ConfigErrorLine("Common", "HostsBlackList", 93, "Invalid Regular Expression in string: \"[y\"."),
             ListFileErrorLine(hosts, 2, 93, "Invalid Regular Expression in string: \"[x\"."),
             ListFileErrorLine(hosts, 5, 457, "Expression \"A\" specified more than once.")}));
  EXPECT_EQ(Entries(loaded.configuration.HostsBlackList), (Lines{"a", "b"}));
  EXPECT_EQ(loaded.configuration.IPBlackList.Count(), 2U);
  EXPECT_FALSE(LoadedText(text, false).result);
}

TEST_F(ListFilesTest, NameAListThatThereIs) {
  for (const std::string key : {"Common.Timeout", "HostsWhiteList", "TLS.Certificate", "Service.JsonEvents",
                                "Common.HostsWhiteLists", "GreyListing.LocalIPs", "Common"}) {
    const std::string text = "[ListFiles]\n" + key + "=/x\n";
    const LoadedText loaded(text);
    EXPECT_EQ(loaded.log.Lines(), (Lines{ConfigErrorLine("ListFiles", key, 380, "No list has this name.")}));
    EXPECT_TRUE(loaded.configuration.ListFiles.empty());
    EXPECT_FALSE(LoadedText(text, false).result);
  }
}

TEST_F(ListFilesTest, MissingIsABadValueAtAStart) {
  const std::string path = folder_ / "none";
  const std::string text = "[Common]\nHostsAllowList=own\n[ListFiles]\nCommon.HostsAllowList=" + path +
                           "\nCommon.SendersAllowList=" + path + "\n";
  const LoadedText loaded(text);
  const std::string description = "Unable to read list file \"" + path + "\". File not found.";
  EXPECT_EQ(loaded.log.Lines(),
            (Lines{ConfigErrorLine("ListFiles", "Common.SendersAllowList", 53, description),
                   ConfigErrorLine("ListFiles", "Common.HostsAllowList", 53, description)}));
  EXPECT_EQ(Entries(loaded.configuration.HostsAllowList), (Lines{"own"}));
  // Not everybody, as the default would have it: that is what the file was to prevent.
  EXPECT_EQ(Entries(loaded.configuration.SendersAllowList), Lines{});
  EXPECT_FALSE(LoadedText(text, false).result);
}

TEST_F(ListFilesTest, PathLiesUnderTheProgramsDirectoryUnlessItIsGivenOtherwise) {
  const LoadedText loaded("[ListFiles]\nCommon.HostsAllowList=lists/hosts\nCommon.IPAllowList=\n");
  ASSERT_EQ(loaded.configuration.ListFiles.size(), 1U);
  EXPECT_EQ(loaded.configuration.ListFiles[0].path, WithPathsOfSystem("/opt/trabex/lists/hosts"));
}

// The dump shows what the initialization file has, and the files; so it reads back as the same.
TEST_F(ListFilesTest, AreShownInTheDumpByTheirPath) {
  const std::string hosts = List("b\nc d\n", "hosts");
  const std::string ranges = List("10.0.0.2\n::2\n10.0.0.3\n::3\n", "ranges");
  const LoadedText loaded(
      "[Common]\nHostsAllowList=a\nIPBlackList=::1,10.0.0.1\n[ListFiles]\nCommon.IPBlackList=" + ranges +
          "\nCommon.HostsAllowList=" + hosts + "\nCommon.SendersAllowList=" + hosts +
          "\nCommon.ProxyProtocolFrom=" + ranges + "\n",
      false);
  ASSERT_TRUE(loaded.result);
  const Lines lines = DumpLines(loaded.configuration);
  EXPECT_EQ(DumpedValue(loaded.configuration, "Common", "HostsAllowList"), "a");
  EXPECT_EQ(DumpedValue(loaded.configuration, "Common", "SendersAllowList"), "");
  EXPECT_EQ(DumpedValue(loaded.configuration, "Common", "IPBlackList"), "10.0.0.1, ::1");
  EXPECT_EQ(DumpedLines(loaded.configuration, "Common", "ProxyProtocolFrom"), Lines{});
  ASSERT_GT(lines.size(), 6U);
  EXPECT_EQ(Lines(lines.end() - 6, lines.end() - 1),
            (Lines{"[ListFiles]", "Common.ProxyProtocolFrom = " + ranges, "Common.IPBlackList = " + ranges,
                   "Common.SendersAllowList = " + hosts, "Common.HostsAllowList = " + hosts}));
  const LoadedText again(Joined(lines), false);
  ASSERT_TRUE(again.result);
  EXPECT_EQ(DumpLines(again.configuration), lines);
  EXPECT_EQ(Entries(again.configuration.HostsAllowList), (Lines{"a", "b", "c+d"}));
  EXPECT_EQ(again.configuration.IPBlackList.Ranges(), loaded.configuration.IPBlackList.Ranges());
  EXPECT_EQ(again.configuration.IPBlackList.Count(), 6U);
}

class ReloadListFilesTest : public ListFilesTest {
 protected:
  void Load(const std::string& text, bool is_reload) {
    SectionStore store;
    const IniErrors errors{log_, configuration_.IgnoreIniErrors};
    ASSERT_TRUE(mCommon::ReadIniText("x.ini", text, store, errors));
    ReadSettings(store, errors,
                 {.program_directory = "/", .local_host_name = [] { return "p"; }, .is_reload = is_reload},
                 configuration_);
  }

  RecordedLog log_;
  Configuration configuration_ = DefaultConfiguration();
};

TEST_F(ReloadListFilesTest, ListInForceStaysWhenItsFileCannotBeRead) {
  configuration_.IgnoreIniErrors = false;
  const std::string hosts = List("b\n", "hosts");
  const std::string ranges = List("10.0.0.1\n", "ranges");
  const std::string text = "[Common]\nHostsAllowList=a\n[ListFiles]\nCommon.HostsAllowList=" + hosts +
                           "\nCommon.IPBlackList=" + ranges + "\n";
  Load(text, false);
  std::filesystem::remove(hosts);
  std::filesystem::remove(ranges);
  Load(ReplaceAll(text, "=a\n", "=x\n"), true);
  EXPECT_EQ(log_.Lines(),
            (Lines{"Unable to read list file \"" + ranges + "\". File not found. The list in force stays.",
                   "Unable to read list file \"" + hosts + "\". File not found. The list in force stays."}));
  EXPECT_EQ(Entries(configuration_.HostsAllowList), (Lines{"a", "b"}));
  EXPECT_TRUE(configuration_.IPBlackList.Contains(*ParseIPAddress("10.0.0.1")));
  EXPECT_EQ(DumpedValue(configuration_, "Common", "HostsAllowList"), "a");
  // It is back.
  WriteFile(hosts, "c\n");
  WriteFile(ranges, "");
  Load(text, true);
  EXPECT_EQ(Entries(configuration_.HostsAllowList), (Lines{"a", "c"}));
  EXPECT_EQ(configuration_.IPBlackList.Count(), 0U);
}

TEST_F(ReloadListFilesTest, StampsTellAChange) {
  const std::string hosts = List("b\n", "hosts");
  const std::string text = "[ListFiles]\nCommon.HostsAllowList=" + hosts + "\n";
  EXPECT_EQ(StampNow({}), 0);
  Load(text, false);
  const std::vector<ListFile>& files = configuration_.ListFiles;
  EXPECT_EQ(StampNow(files), StampOfRead(files));
  std::filesystem::last_write_time(hosts,
                                   std::filesystem::file_time_type::clock::now() + std::chrono::seconds(5));
  EXPECT_NE(StampNow(files), StampOfRead(files));
  Load(text, true);
  EXPECT_EQ(StampNow(files), StampOfRead(files));
  std::filesystem::remove(hosts);
  EXPECT_NE(StampNow(files), StampOfRead(files));
  Load(text, true);
  EXPECT_EQ(StampNow(files), StampOfRead(files)) << "nothing new until it is back";
}

}  // namespace
}  // namespace trabex

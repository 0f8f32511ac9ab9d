#include "config/load_configuration.h"

#include <gtest/gtest.h>

#include <string>

#include "config_support.h"
#include "platform/files.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

TEST(ReadSettings, TakesAnEmptyBindIPForAllAddresses) {
  const LoadedText loaded("[Common]\nBindIP=\n", false);
  EXPECT_TRUE(loaded.result);
  EXPECT_EQ(loaded.configuration.BindIP, "0.0.0.0");
}

TEST(ReadSettings, ChecksBindIPButNotServerIP) {
  const LoadedText loaded("[Common]\nBindIP=localhost\nServerIP=mailhost\n");
  EXPECT_EQ(loaded.configuration.BindIP, "0.0.0.0");
  EXPECT_EQ(loaded.configuration.ServerIP, "mailhost");
  EXPECT_EQ(loaded.log.Lines(),
            (Lines{ConfigErrorLine("Common", "BindIP", 380, "Inadmissible string: \"localhost\".")}));
  EXPECT_EQ(LoadedText("[Common]\nBindIP=192.0.2.1\n").configuration.BindIP, "192.0.2.1");
}

TEST(ReadSettings, DropsAFractionOfAByte) {
  const struct {
    const char* value;
    FixedPoint bytes;
  } rows[] = {{"1.9", 1},    {"0.9999", 0}, {"1.5K", 1536}, {"0.0001K", 0},
              {"0.001K", 1}, {"-1.5", -2},  {"-1", -1}};
  for (const auto& row : rows) {
    const LoadedText loaded("[Common]\nMaxSize=" + std::string(row.value) + "\n", false);
    EXPECT_EQ(loaded.configuration.MaxSize, row.bytes * kFixedPointOne) << row.value;
  }
}

TEST(ReadSettings, KeepsDurationsInDays) {
  const LoadedText loaded("[GreyListing]\nDelay=1440\nBlackListDelay=720\nTTL=2880\nShortTTL=2147483647\n",
                          false);
  EXPECT_EQ(loaded.configuration.GreyListing.Delay, 1.0);
  EXPECT_EQ(loaded.configuration.GreyListing.BlackListDelay, 0.5);
  EXPECT_EQ(loaded.configuration.GreyListing.TTL, 2.0);
  EXPECT_EQ(loaded.configuration.GreyListing.SaveInterval, 120.0 / 1440.0);
  EXPECT_EQ(DumpedValue(loaded.configuration, "GreyListing", "ShortTTL"), "2147483647");
}

TEST(ReadSettings, WantsLifetimesAboveBothDelays) {
  const std::string too_low = "Value 100 lies out of allowed range: from 101 to 2147483647.";
  for (const char* delays : {"Delay=100\nBlackListDelay=50\n", "Delay=50\nBlackListDelay=100\n"}) {
    const LoadedText loaded("[GreyListing]\nTTL=100\n" + std::string(delays) + "ShortTTL=101\n");
    EXPECT_EQ(loaded.log.Lines(), (Lines{ConfigErrorLine("GreyListing", "TTL", 380, too_low)}));
    EXPECT_EQ(DumpedValue(loaded.configuration, "GreyListing", "TTL"), "51840");
    EXPECT_EQ(DumpedValue(loaded.configuration, "GreyListing", "ShortTTL"), "101");
  }
}

TEST(ReadSettings, DoesNotCheckADefaultLifetime) {
  const LoadedText loaded("[GreyListing]\nDelay=100000\n", false);
  EXPECT_TRUE(loaded.result);
  EXPECT_EQ(DumpedValue(loaded.configuration, "GreyListing", "TTL"), "51840");
}

TEST(ReadSettings, ComputesTheLeastLifetimeBeyond32Bits) {
  const LoadedText loaded("[GreyListing]\nDelay=2147483647\nTTL=2147483647\n");
  EXPECT_EQ(
      loaded.log.Lines(),
      (Lines{ConfigErrorLine("GreyListing", "TTL", 380,
                             "Value 2147483647 lies out of allowed range: from 2147483648 to 2147483647.")}));
}

TEST(ReadSettings, ResolvesTheDatabase) {
  const struct {
    const char* value;
    const char* path;
  } rows[] = {{"", "/opt/trabex/GreyListing/GreyListing.gldb"},
              {"my.gldb", "/opt/trabex/GreyListing/my.gldb"},
              {".\\my.gldb", ".\\my.gldb"},
              {"/var/x", "/var/x"}};
  for (const auto& row : rows) {
    const LoadedText loaded("[GreyListing]\nDatabase=" + std::string(row.value) + "\n", false);
    EXPECT_EQ(loaded.configuration.GreyListing.Database, WithPathsOfSystem(row.path));
  }
}

TEST(ReadSettings, ReadsTheSectionsOfRules) {
  const LoadedText loaded(
      "[ResponseChanges]\nRCPT.Greylisted=<later>\n[SenderReplacements.Local]\na=1\n[SenderReplacements."
      "Remote]\nb=2\n"
      "[RecipientReplacements.Local]\nc=3\n[RecipientReplacements.Remote]\nd=4\n",
      false);
  ASSERT_TRUE(loaded.result);
  EXPECT_NE(loaded.configuration.ResponseChanges.Find("rcpt.greylisted"), nullptr);
  using Rules = std::vector<ReplacementTable::Rule>;
  EXPECT_EQ(loaded.configuration.SenderReplacementsLocal.Rules(), (Rules{{"a", "1"}}));
  EXPECT_EQ(loaded.configuration.SenderReplacementsRemote.Rules(), (Rules{{"b", "2"}}));
  EXPECT_EQ(loaded.configuration.RecipientReplacementsLocal.Rules(), (Rules{{"c", "3"}}));
  EXPECT_EQ(loaded.configuration.RecipientReplacementsRemote.Rules(), (Rules{{"d", "4"}}));
}

TEST(ReadSettings, PassesOverUnknownKeys) {
  const LoadedText loaded("[Common]\nUnknown=1\nEnabled=1\n[GreyListing]\nTimeout=5\n", false);
  EXPECT_TRUE(loaded.result);
  EXPECT_EQ(loaded.configuration.Timeout, 300);
  EXPECT_FALSE(loaded.configuration.GreyListing.Enabled);
}

// A file in which every setting is changed, with one bad value: what comes before it in reading order is new
// afterwards, the bad one and what comes after it as before.
TEST(ReadSettings, LeavesALoadThatStopsHalfWayAsItIs) {
  const struct {
    const char* bad_line;
    int changed;  // how many of the lines below are new afterwards
  } rows[] = {{"[Common]\nServerPort=x\n", 1},
              {"[Common]\nTimeout=x\n", 2},
              {"[GreyListing]\nLog=2\n", 4},
              {"[GreyListing]\nCallbackSenderAction=9\n", 5},
              {"[ResponseChanges]\nx=oops\n", 5},
              {"[SenderReplacements.Remote]\nx[=1\n", 7},
              {"[RecipientReplacements.Remote]\nx[=1\n", 8}};
  const char* const old_file =
      "[Common]\nBindIP=1.1.1.1\nMaxSize=1\nMaxBadSeq=1\n[GreyListing]\nEnabled=0\nDelay=1\n"
      "[ResponseChanges]\na=<1>\n[SenderReplacements.Local]\na=1\n[RecipientReplacements.Local]\na=1\n";
  const char* const new_file =
      "[Common]\nBindIP=2.2.2.2\nMaxSize=2\nMaxBadSeq=2\n[GreyListing]\nEnabled=1\nDelay=2\n"
      "[ResponseChanges]\na=<2>\n[SenderReplacements.Local]\na=2\n[RecipientReplacements.Local]\na=2\n";
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bad_line);
    LoadedText loaded(old_file, false);
    ASSERT_TRUE(loaded.result);
    loaded.Load(std::string(new_file) + row.bad_line);
    EXPECT_FALSE(loaded.result);
    EXPECT_EQ(loaded.log.Lines().size(), 1U);
    const Configuration& now = loaded.configuration;
    const bool is_new[] = {now.BindIP == "2.2.2.2",
                           now.MaxSize == 2 * kFixedPointOne,
                           now.MaxBadSeq == 2,
                           now.GreyListing.Enabled,
                           now.GreyListing.Delay == 2 / 1440.0,
                           now.ResponseChanges.Find("a")->Item(0) == "<2>",
                           now.SenderReplacementsLocal.Rules()[0].value == "2",
                           now.RecipientReplacementsLocal.Rules()[0].value == "2"};
    for (int index = 0; index < 8; ++index) EXPECT_EQ(is_new[index], index < row.changed) << index;
  }
}

// The whole load, from a file. It logs what the program would do.
class LoadConfigurationTest : public testing::Test, private LoadHost {
 protected:
  LoadConfigurationTest() { configuration_.IgnoreIniErrors = false; }
  LoadResult Load(bool reload = false) {
    if (!reload) return LoadConfiguration(Dependencies(), configuration_);
    IniText ini = mCommon::TakeIniFile(file_.path);
    ini.stamp += ++reloads_;  // changed since, however fast the test is
    return Reload(std::move(ini));
  }
  LoadResult Reload(IniText ini) {
    return ReloadConfiguration(Dependencies(), std::move(ini), configuration_);
  }
  LoadDependencies Dependencies() {
    return {.file = file_,
            .context = {.program_directory = WithPathsOfSystem("/opt/trabex"),
                        .local_host_name = [this]() -> std::string {
                          if (host_error_ != 0) throw Error(host_error_, "test", "No name");
                          return "proxy.test";
                        }},
            .log = log_,
            .host = *this};
  }
  void DumpConfiguration() override { log_.LogLine("(dump)"); }
  bool SaveGreyListing() override {
    if (!in_memory_) return true;
    log_.LogLine("(save " + *in_memory_ + ")");
    return can_save_;
  }
  void LoadGreyListing() override {
    in_memory_ = configuration_.GreyListing.Database;
    log_.LogLine("(load " + *in_memory_ + ")");
  }
  void ClearGreyListing() override {
    log_.LogLine("(clear)");
    in_memory_.reset();
  }
  void Write(const std::string& text) { WriteFile(file_.path, text); }
  std::string Unreadable() const {
    return "Error reading initialization file \"" + file_.path +
           "\". Error number: 53, Description: File not found";
  }
  std::string BadLine(int line, const std::string& text) const {
    return "Error reading initialization file \"" + file_.path + "\", line " + std::to_string(line) +
           ". Error number: 321, Description: Invalid line: \"" + text + "\".";
  }

  TempFolder folder_;
  InitializationFile file_{folder_ / "x.ini", std::nullopt};
  RecordedLog log_;
  Configuration configuration_ = DefaultConfiguration();
  int host_error_ = 0;
  int reloads_ = 0;
  bool can_save_ = true;
  std::optional<std::string> in_memory_;  // the database that the greylisting data are of
};

constexpr const char* kReloaded = "Configuration reloaded because date/time of initialization file changed.";

TEST_F(LoadConfigurationTest, StartsWithDefaultsOfAnEmptyFile) {
  Write("");
  EXPECT_EQ(Load(), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{"(clear)"}));
  EXPECT_EQ(file_.stamp, FileModificationStamp(file_.path, "test"));
  EXPECT_EQ(configuration_.BindIP, "0.0.0.0");
  EXPECT_EQ(configuration_.LocalHostName, "proxy.test");
}

TEST_F(LoadConfigurationTest, StartsWithDefaultsOfAMissingFileOnlyIfErrorsAreIgnored) {
  configuration_.IgnoreIniErrors = true;
  configuration_.Timeout = 1;
  EXPECT_EQ(Load(), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{Unreadable(), "(clear)"}));
  EXPECT_EQ(configuration_.Timeout, 300);
  EXPECT_EQ(file_.stamp, std::nullopt);

  configuration_.IgnoreIniErrors = false;
  configuration_.Timeout = 1;
  EXPECT_EQ(Load(), LoadResult::kFailed);
  EXPECT_EQ(log_.Take(), (Lines{Unreadable(), "(clear)"}));
  EXPECT_EQ(configuration_.Timeout, 1);
}

TEST_F(LoadConfigurationTest, LoadsTheGreylistingDatabaseWhenEnabled) {
  Write("[GreyListing]\nEnabled=1\nDatabase=a.gldb\n");
  EXPECT_EQ(Load(), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{WithPathsOfSystem("(load /opt/trabex/GreyListing/a.gldb)")}));
}

TEST_F(LoadConfigurationTest, SavesToTheOldDatabaseAtAReload) {
  Write("[GreyListing]\nEnabled=1\nDatabase=/old\n");
  Load();
  log_.Take();
  Write("[GreyListing]\nEnabled=1\nDatabase=/new\n");
  EXPECT_EQ(Load(true), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{kReloaded, "(save /old)", "(load /new)"}));
}

TEST_F(LoadConfigurationTest, LoadsNothingOverWhatCouldNotBeSaved) {
  Write("[GreyListing]\nEnabled=1\nDatabase=/old\n");
  Load();
  log_.Take();
  can_save_ = false;
  Write("[GreyListing]\nEnabled=1\nDatabase=/new\n");
  EXPECT_EQ(Load(true), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{kReloaded, "(save /old)"}));
  Write("");
  EXPECT_EQ(Load(true), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{kReloaded, "(save /old)"})) << "what is in memory is still of the old one";
}

TEST_F(LoadConfigurationTest, FollowsGreylistingSwitchedOffAndOn) {
  Write("[GreyListing]\nEnabled=1\nDatabase=/old\n");
  Load();
  log_.Take();
  Write("");
  EXPECT_EQ(Load(true), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{kReloaded, "(save /old)", "(clear)"}));
  Write("[GreyListing]\nEnabled=1\nDatabase=/old\n");
  EXPECT_EQ(Load(true), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{kReloaded, "(load /old)"}));
}

TEST_F(LoadConfigurationTest, DumpsAfterAReloadWhenAskedTo) {
  Write("[GreyListing]\nEnabled=1\nDatabase=/old\n");
  configuration_.Log = 2;
  EXPECT_EQ(Load(), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{"(load /old)"})) << "the dump at a start is the main window's";
  EXPECT_EQ(Load(true), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{kReloaded, "(dump)", "(save /old)", "(load /old)"}));
  configuration_.Log = 1;
  EXPECT_EQ(Load(true), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{kReloaded, "(save /old)", "(load /old)"}));
}

TEST_F(LoadConfigurationTest, FollowsGreylistingAlsoAfterASyntaxError) {
  Write("[GreyListing]\nEnabled=1\nDatabase=/old\n");
  Load();
  log_.Take();
  const auto stamp = file_.stamp;
  Write("[Common]\noops\n");
  EXPECT_EQ(Load(true), LoadResult::kFailed);
  EXPECT_EQ(log_.Take(), (Lines{BadLine(2, "oops"), "(save /old)", "(load /old)"}));
  EXPECT_EQ(file_.stamp, stamp);

  configuration_.GreyListing.Enabled = false;
  EXPECT_EQ(Load(true), LoadResult::kFailed);
  EXPECT_EQ(log_.Take(), (Lines{BadLine(2, "oops"), "(save /old)", "(clear)"}));
}

TEST_F(LoadConfigurationTest, DoesNothingMoreAfterABadValue) {
  Write("[GreyListing]\nEnabled=1\nDatabase=/old\n");
  Load();
  log_.Take();
  Write("[GreyListing]\nEnabled=1\nDatabase=/new\nDelay=x\n");
  EXPECT_EQ(Load(true), LoadResult::kFailed);
  EXPECT_EQ(log_.Take(),
            (Lines{ConfigErrorLine("GreyListing", "Delay", 380, "Value is not a number: \"x\".")}));
  EXPECT_EQ(configuration_.GreyListing.Database, "/new");
}

TEST_F(LoadConfigurationTest, GoesOnAfterErrorsThatAreIgnored) {
  Write("[Common]\noops\nTimeout=x\nMaxBadSeq=3\n");
  configuration_.IgnoreIniErrors = true;
  EXPECT_EQ(Load(true), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(), (Lines{BadLine(2, "oops"),
                                ConfigErrorLine("Common", "Timeout", 380, "Value is not a number: \"x\"."),
                                kReloaded, "(clear)"}));
  EXPECT_EQ(configuration_.MaxBadSeq, 3);
}

TEST_F(LoadConfigurationTest, ReloadsTheTextThatItIsGiven) {
  Write("[Common]\nTimeout=60\n");
  ASSERT_EQ(Load(), LoadResult::kLoaded);
  const IniText taken = mCommon::TakeIniFile(file_.path);
  std::filesystem::remove(file_.path);
  EXPECT_EQ(Reload({"[Common]\nTimeout=70\n", taken.stamp + 1}), LoadResult::kLoaded);
  EXPECT_EQ(configuration_.Timeout, 70);
  EXPECT_EQ(file_.stamp, taken.stamp + 1);
  EXPECT_EQ(log_.Take(), (Lines{"(clear)", kReloaded, "(clear)"}));
}

TEST_F(LoadConfigurationTest, DoesNotSayThatAFileChangedWhichDidNot) {
  Write("[Common]\nTimeout=60\n");
  ASSERT_EQ(Load(), LoadResult::kLoaded);
  log_.Take();
  EXPECT_EQ(Reload(mCommon::TakeIniFile(file_.path)), LoadResult::kLoaded);
  EXPECT_EQ(log_.Take(),
            (Lines{"Configuration reloaded; date/time of initialization file has not changed.", "(clear)"}));
}

TEST_F(LoadConfigurationTest, AsksForTheHostNameOnlyWhenNoneIsSet) {
  host_error_ = 11004;
  Write("[Common]\nLocalHostName=mx.test\n");
  EXPECT_EQ(Load(), LoadResult::kLoaded);
  EXPECT_EQ(configuration_.LocalHostName, "mx.test");
  EXPECT_EQ(log_.Take(), (Lines{"(clear)"}));

  Write("[Common]\nLocalHostName=\n");
  EXPECT_EQ(Load(), LoadResult::kLoaded);
  EXPECT_EQ(configuration_.LocalHostName, "localhost");
  EXPECT_EQ(log_.Take(),
            (Lines{"Unable to get local host name. Error number: 11004, Description: No name", "(clear)"}));

  host_error_ = 0;
  EXPECT_EQ(Load(), LoadResult::kLoaded);
  EXPECT_EQ(configuration_.LocalHostName, "proxy.test");
}

}  // namespace
}  // namespace trabex

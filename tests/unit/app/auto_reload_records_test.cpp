// What a reload does with the greylisting records.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <variant>

#include "greylist/database_file.h"
#include "reload_fixture.h"
#include "support/ip_address.h"
#include "support/loop_runner.h"

namespace trabex {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST_F(AutoReloadTest, GreylistingSwitchedOnIsInForce) {
  Start();
  WriteIni("[GreyListing]\nEnabled=1\n");
  Pass(60);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_TRUE(Settings().GreyListing.Enabled);
  EXPECT_FALSE(Window().Unloaded());
}

TEST_F(AutoReloadTest, RecordsGoOnThroughAReloadAndAreSaved) {
  WriteIni("[GreyListing]\nEnabled=1\nDelay=0\n");
  Start();
  EXPECT_TRUE(
      program_->greylisting.ShouldDefer("client.test", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
  const std::string database = Settings().GreyListing.Database;
  WriteIni("Timeout=200\n[GreyListing]\nEnabled=1\nDelay=0\n");
  Pass(60);
  ASSERT_EQ(Reloads(), 1);
  EXPECT_EQ(Settings().Timeout, 200);
  EXPECT_TRUE(RunUntil(program_->loop, [&] { return std::filesystem::exists(database); }));
  EXPECT_EQ(LoadDatabaseFile(database).Count(), 1U);
  EXPECT_FALSE(
      program_->greylisting.ShouldDefer("client.test", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
}

// The records that the import changes are those of the old database, which gets all of it.
TEST_F(AutoReloadTest, ImportIsCompletedBeforeTheRecordsGoElsewhere) {
  const int count = 20'000;
  std::string lines;
  for (int i = 0; i < count; ++i) {
    lines += R"({"network":"n)" + std::to_string(i) +
             R"(","sender":"s","recipient":"r","accepted":true,"attempts":1,)"
             R"("delayed_until":"2026-12-01T00:00:00Z","expires":"2099-12-01T00:00:00Z"})" +
             "\n";
  }
  Write(folder_ / "records", lines);
  for (const std::string& then :
       {"Enabled=1\nDatabase=" + (folder_ / "other.gldb") + "\n", std::string("Enabled=0\n")}) {
    SCOPED_TRACE(then);
    std::filesystem::remove_all(folder_ / "GreyListing");
    WriteIni("[GreyListing]\nEnabled=1\n");
    Start();
    const std::string database = Settings().GreyListing.Database;
    const auto slices =
        std::get<ControlSlices>(program_->requests.Answer({"GREYLIST", "import", folder_ / "records"}));
    ControlAnswer slice;
    while (program_->greylisting.Count() == 0) ASSERT_TRUE(slices(slice));
    ASSERT_LT(program_->greylisting.Count(), static_cast<std::size_t>(count));
    WriteIni("[GreyListing]\n" + then);
    Window().RequestReload({});
    EXPECT_EQ(program_->greylisting.Count(), 0U);
    EXPECT_EQ(LoadDatabaseFile(database).Count(), static_cast<std::size_t>(count));
    while (slices(slice)) {
    }
    EXPECT_EQ(slice.text, "20000 read, 20000 added, 0 changed, 0 deleted\n");
    EXPECT_EQ(program_->greylisting.Count(), 0U);
    program_ = nullptr;
    program_ = std::make_unique<Program>(MakeDependencies());
    ObserveLog(*program_);
    program_->ini_file.path = ini_;
  }
}

TEST_F(AutoReloadTest, RecordsThatCannotBeSavedStayInMemory) {
  // Where the database stays the save is made in the background, else before the load.
  for (const char* other_database : {"", "Database=other.gldb\n"}) {
    SCOPED_TRACE(other_database);
    WriteIni("[GreyListing]\nEnabled=1\n");
    Start();
    EXPECT_TRUE(program_->greylisting.ShouldDefer("", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
    const std::string database = Settings().GreyListing.Database;
    const std::filesystem::path in_the_way = database + "new";
    std::filesystem::create_directories(in_the_way);
    log_.clear();
    WriteIni(std::string("Timeout=200\n[GreyListing]\nEnabled=1\n") + other_database);
    Pass(60);
    ASSERT_EQ(Reloads(), 1);
    EXPECT_EQ(Settings().Timeout, 200);
    EXPECT_TRUE(RunUntil(program_->loop, [&] {
      return testing::Matches(Contains(StartsWith("Unable to save GreyListing database. Error 75.")))(log_);
    }));

    std::filesystem::remove(in_the_way);
    Window().Form_Unload();
    EXPECT_EQ(LoadDatabaseFile(database).Count(), 1U);
    std::filesystem::remove(database);
  }
}

TEST_F(AutoReloadTest, RecordsAreNotLoadedAnewWhereTheDatabaseStays) {
  const std::string greylisting = "[GreyListing]\nEnabled=1\nDelay=0\n";
  WriteIni(greylisting);
  Start();
  EXPECT_TRUE(
      program_->greylisting.ShouldDefer("client.test", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
  ASSERT_EQ(program_->greylisting.Save().kind, GreyListingSaveResult::Kind::kSaved);
  std::filesystem::remove(Settings().GreyListing.Database);
  log_.clear();
  WriteIni("Timeout=200\n" + greylisting);
  Pass(60);
  ASSERT_EQ(Reloads(), 1);
  EXPECT_THAT(log_, Not(Contains(HasSubstr("GreyListing database"))));
  EXPECT_FALSE(
      program_->greylisting.ShouldDefer("client.test", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
}

TEST_F(AutoReloadTest, RecordsOutliveAReloadThatFails) {
  for (const char* bad : {"nonsense\n[GreyListing]\nEnabled=1\n", "[GreyListing]\nEnabled=1\nTTL=x\n",
                          "[GreyListing]\nEnabled=0\nTTL=x\n"}) {
    SCOPED_TRACE(bad);
    WriteIni("[GreyListing]\nEnabled=1\n");
    Start();
    EXPECT_TRUE(program_->greylisting.ShouldDefer("", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
    const std::string database = folder_ / "GreyListing/GreyListing.gldb";
    WriteIni(std::string("IgnoreIniErrors=0\n") + bad);
    Pass(60);
    EXPECT_TRUE(Window().Unloaded());
    EXPECT_EQ(LoadDatabaseFile(database).Count(), 1U);
    program_->greylisting.Clear();
    std::filesystem::remove(database);
  }
}

// Switched off nothing is judged by them, but they are there when it is switched on again.
TEST_F(AutoReloadTest, RecordsThatCannotBeSavedStayWithGreylistingOff) {
  const std::string in_force = "[GreyListing]\nEnabled=1\nDelay=0\n";
  for (const std::string& next : {std::string(), in_force, in_force + "Database=other.gldb\n"}) {
    SCOPED_TRACE(next);
    WriteIni(in_force);
    Start();
    EXPECT_TRUE(program_->greylisting.ShouldDefer("", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
    const std::string database = Settings().GreyListing.Database;
    const std::filesystem::path in_the_way = database + "new";
    std::filesystem::create_directories(in_the_way);
    WriteIni("");
    Pass(60);
    ASSERT_EQ(Reloads(), 1);
    EXPECT_THAT(log_, Contains(StartsWith("Unable to save GreyListing database. Error 75.")));

    std::filesystem::remove(in_the_way);
    if (!next.empty()) {
      WriteIni(next);
      Pass(60);
      ASSERT_EQ(Reloads(), 2);
    }
    Window().Form_Unload();
    EXPECT_EQ(LoadDatabaseFile(database).Count(), 1U);
    program_->greylisting.Clear();
    std::filesystem::remove(database);
  }
}

// Else all later saves would go to the old place, where the next start does not look.
TEST_F(AutoReloadTest, AMoveOfTheDatabaseThatFailedIsMadeByTheNextReload) {
  WriteIni("[GreyListing]\nEnabled=1\n");
  Start();
  EXPECT_TRUE(program_->greylisting.ShouldDefer("", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
  const std::string before = Settings().GreyListing.Database;
  const std::filesystem::path in_the_way = before + "new";
  std::filesystem::create_directories(in_the_way);
  WriteIni("[GreyListing]\nEnabled=1\nDatabase=other.gldb\n");
  Pass(60);
  ASSERT_EQ(Reloads(), 1);
  ASSERT_FALSE(std::filesystem::exists(before));

  std::filesystem::remove(in_the_way);
  WriteIni("Timeout=200\n[GreyListing]\nEnabled=1\nDatabase=other.gldb\n");
  Pass(60);
  ASSERT_EQ(Reloads(), 2);
  EXPECT_EQ(LoadDatabaseFile(before).Count(), 1U);
  EXPECT_TRUE(program_->greylisting.ShouldDefer("", IP("192.0.2.1"), "new@remote.test", "r@local.test"));
  Window().Form_Unload();
  EXPECT_EQ(LoadDatabaseFile(before).Count(), 1U);
  ASSERT_TRUE(std::filesystem::exists(Settings().GreyListing.Database));
  EXPECT_EQ(LoadDatabaseFile(Settings().GreyListing.Database).Count(), 1U);
}

}  // namespace
}  // namespace trabex

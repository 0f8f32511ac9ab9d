#include "app/log_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/fake_clock.h"
#include "support/open_files.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

TEST(LinuxLogFileTest, FifoInTheFilesPlaceDoesNotBlock) {
  const TempFolder folder;
  Configuration configuration = DefaultConfiguration();
  configuration.LogPath = folder / "Log";
  configuration.BindPort = 25;
  const FakeClock clock;
  LogFile log(configuration, clock, "Trabex");
  log.LogLine("which names the file");
  log.Close();
  ASSERT_EQ(OpenFilesIn(configuration.LogPath), 0U);
  const std::string path = std::filesystem::directory_iterator(configuration.LogPath)->path();
  std::filesystem::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  log.LogLine("lost");
  EXPECT_EQ(OpenFilesIn(configuration.LogPath), 0U);
  EXPECT_EQ(log.LostLines(), 1U);
}

}  // namespace
}  // namespace trabex

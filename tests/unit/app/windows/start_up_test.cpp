// Runs of the program that messages of the system end, and beside another user's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "app/instance_name.h"
#include "support/windows/denied_mutex.h"
#include "unit/app/start_up_fixture.h"

namespace trabex {
namespace {

using testing::ElementsAre;

// The end of the session, and what taskkill sends.
TEST_F(StartUpTest, MessagesOfBeforeTheStartCount) {
  WriteIni("");
  ASSERT_GE(WaysToAskForEnd(), 2);
  for (int way = 0; way < WaysToAskForEnd(); ++way) {
    const EndFromTheStart end(way);
    EXPECT_EQ(Run({"/HI", "/L", folder_ / std::to_string(way)}), 0) << way;
    EXPECT_THAT(LogLines(std::to_string(way)), ElementsAre(kStarted, ListenLine(), kStopped)) << way;
  }
}

TEST_F(StartUpTest, NameThatMayNotBeOpenedIsASecondInstance) {
  WriteIni("");
  const std::string line = "The instance of this application listening on the same port already running.";
  {
    const DeniedMutex mutex(InstanceName(port_));
    EXPECT_EQ(Run({"/HI"}), 1);
    EXPECT_EQ(err_.str(), "Trabex: " + line + "\n");
    EXPECT_THAT(LogLines(), ElementsAre(line));
    EXPECT_EQ(Run({"/X"}), 0);
    EXPECT_EQ(out_.str() + err_.str(), "");
  }
  EXPECT_EQ(RunAndEnd({"/HI", "/L", folder_ / "free"}), 0);
  EXPECT_THAT(LogLines("free"), ElementsAre(kStarted, ListenLine(), kStopped));
}

}  // namespace
}  // namespace trabex

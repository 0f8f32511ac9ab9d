// Whole runs of the program inside the test's process: those that end by themselves, and, with an end request
// that waits from the beginning, those that start.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/files.h"
#include "platform/instance_lock.h"
#include "start_up_fixture.h"
#include "support/plain_socket.h"

namespace trabex {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

TEST_F(StartUpTest, HelpAndVersionGoToStandardOutput) {
  EXPECT_EQ(Run({"/?"}), 0);
  EXPECT_THAT(out_.str(), StartsWith("Command line switches:\r\n\r\n/P "));
  EXPECT_EQ(err_.str(), "");
  EXPECT_EQ(Run({"--version"}), 0);
  EXPECT_EQ(out_.str(), "Trabex 3.04.012\n");
  EXPECT_EQ(err_.str(), "");
  EXPECT_TRUE(fs::is_empty(folder_.Path()));
}

TEST_F(StartUpTest, CommandLineErrorsGoToStandardError) {
  EXPECT_EQ(Run({"/Q"}), 2);
  EXPECT_EQ(err_.str(), "Trabex: Invalid switch \"/Q\".\n");
  EXPECT_EQ(Run({"/P", "70000"}), 2);
  EXPECT_EQ(err_.str(), "Trabex: Invalid port number \"70000\".\n");
  EXPECT_EQ(out_.str(), "");
  EXPECT_TRUE(fs::is_empty(folder_.Path()));
}

TEST_F(StartUpTest, WhatIsNoStartIsAnswered) {
  Run({"/?"});
  Run({"/Q"});
  EXPECT_EQ(answers_, 2);
  WriteIni("");
  Run({"--check", "--offline"});
  Run({"--dump"});
  Run({"/STATUS"});
  EXPECT_EQ(answers_, 5);
  Run({"/X"});
  RunAndEnd({});
  WriteIni("IgnoreIniErrors=0\nTimeout=x\n");
  EXPECT_EQ(Run({}), 1);
  EXPECT_EQ(answers_, 5);
}

TEST_F(StartUpTest, OrderlyRun) {
  WriteIni("");
  EXPECT_EQ(RunAndEnd({"/HI"}), 0);
  EXPECT_THAT(LogLines(), ElementsAre(kStarted, ListenLine(), kStopped));
  EXPECT_EQ(out_.str() + err_.str(), "");
  EXPECT_EQ(RequestExit(InstanceName(port_)), ExitRequest::kNoInstance) << "the lock is gone";
}

TEST_F(StartUpTest, PortOfTheCommandLineWins) {
  const int file_port = port_;
  WriteIni("");
  port_text_ = std::to_string(FreePort());
  EXPECT_EQ(RunAndEnd({"/HI", "/P", port_text_}), 0);
  EXPECT_THAT(LogLines(), ElementsAre(kStarted, ListenLine(), kStopped));
  ASSERT_NE(std::to_string(file_port), port_text_);
}

TEST_F(StartUpTest, DumpIsAskedForByTheFileOnly) {
  WriteIni("Log=2\n");
  EXPECT_EQ(RunAndEnd({"/HI"}), 0);
  EXPECT_THAT(LogText(), HasSubstr("\r\n[Common]\r\nLog = 2\r\n"));
  const std::string other = folder_ / "other";
  EXPECT_EQ(RunAndEnd({"/HI", "/L", other}), 0);
  EXPECT_THAT(LogLines("other"), ElementsAre(kStarted, ListenLine(), kStopped));
}

TEST_F(StartUpTest, LogPathOfTheCommandLineSwitchesLoggingOn) {
  WriteIni("Log=0\n");
  EXPECT_EQ(RunAndEnd({"/HI"}), 0);
  EXPECT_FALSE(fs::exists(folder_ / "Log"));
  EXPECT_EQ(RunAndEnd({"/HI", "/L", folder_ / "other"}), 0);
  EXPECT_THAT(LogLines("other"), ElementsAre(kStarted, ListenLine(), kStopped));
}

TEST_F(StartUpTest, BadEarlyKeyEndsTheStartWithItsLineOnly) {
  WriteIni("IgnoreIniErrors=0\nLog=3\n");
  EXPECT_EQ(Run({"/HI", "/L", folder_ / "Log"}), 1);
  const std::string line =
      "Error parsing initialization file. Section: \"Common\", Key name: \"Log\", Error number: 380, "
      "Description: "
      "Value 3 lies out of allowed range: from 0 to 2.";
  EXPECT_EQ(err_.str(), "Trabex: " + line + "\n");
}

TEST_F(StartUpTest, BadSettingEndsTheStart) {
  WriteIni("IgnoreIniErrors=0\nTimeout=abc\n");
  EXPECT_EQ(Run({"/HI"}), 1);
  const std::string line =
      "Error parsing initialization file. Section: \"Common\", Key name: \"Timeout\", Error number: 380, "
      "Description: Value is not a number: \"abc\".";
  EXPECT_THAT(LogLines(), ElementsAre(line, kNotStarted));
  EXPECT_EQ(err_.str(), "Trabex: " + line + "\nTrabex: " + std::string(kNotStarted) + "\n");
  EXPECT_EQ(RequestExit(InstanceName(port_)), ExitRequest::kNoInstance) << "the lock is gone";
}

TEST_F(StartUpTest, ReasonIsShownAlsoWithoutALog) {
  WriteIni("IgnoreIniErrors=0\nLog=0\nnovalue\n");
  EXPECT_EQ(Run({"/HI"}), 1);
  EXPECT_FALSE(fs::exists(folder_ / "Log"));
  EXPECT_THAT(err_.str(), HasSubstr("Invalid line: \"novalue\"."));
  EXPECT_THAT(err_.str(), EndsWith("\nTrabex: " + std::string(kNotStarted) + "\n"));
}

TEST_F(StartUpTest, IgnoredErrorsAreLoggedAndTheStartGoesOn) {
  WriteIni("Timeout=abc\n");
  EXPECT_EQ(RunAndEnd({"/HI"}), 0);
  EXPECT_THAT(LogLines(),
              ElementsAre(HasSubstr("Value is not a number: \"abc\"."), kStarted, ListenLine(), kStopped));
  EXPECT_EQ(err_.str(),
            "Trabex: Error parsing initialization file. Section: \"Common\", Key name: \"Timeout\", Error "
            "number: 380, Description: Value is not a number: \"abc\". The default is taken: 300\n");
}

TEST_F(StartUpTest, WhateverIsWrongIsTold) {
  const struct {
    const char* lines;
    const char* told;
  } rows[] = {
      {"novalue\n", "Description: Invalid line: \"novalue\". The line is left out."},
      {"[Comon]\n", "Description: Invalid section name: \"Comon\". The line is left out."},
      {"Log=x\n", "Description: Value is not a number: \"x\". The default is taken: 1"},
      {"MaxSize=5X\n", "Description: Value is not a number: \"5X\". The default is taken: 0"},
      {"IPBlackList=1.2.3\n", "Description: Invalid IP address: \"1.2.3\". The entry is left out."},
      {"SendersBlackList=[x\n", "in string: \"[x\". The entry is left out."},
      {"[TLS]\nMinVersion=2\n", "Description: Inadmissible string: \"2\". The default is taken: 1.2"},
      {"[TLS]\nCertificate=/no/such.pem\n", "such.pem\". No such file or directory."},
      {"[Service]\nStatusHTTP=x\n", "string: \"x\". The default is taken, which is empty."},
      {"[Service]\nJsonLog=/no/such/folder/log.json\n",
       "/no/such/folder/log.json\" cannot be written. Lines are lost."},
      {"[SenderReplacements.Local]\n[x=y\n", "Error reading initialization file "},
      {"[SenderReplacements.Local]\n*[=y\n", "Regular Expression in key name. The entry is left out."},
      {"[GreyListing]\nEnabled=1\nDatabase=/no/such/folder/db\n",
       "Unable to load GreyListing database. Error 76. Path not found."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lines);
    WriteIni(row.lines);
    EXPECT_EQ(RunAndEnd({"/HI"}), 0);
    EXPECT_THAT(err_.str(), StartsWith("Trabex: "));
    EXPECT_THAT(err_.str(), HasSubstr(row.told));
  }
}

TEST_F(StartUpTest, NewDatabaseIsNothingToTell) {
  fs::create_directory(folder_ / "GreyListing");
  WriteIni("[GreyListing]\nEnabled=1\n");
  EXPECT_EQ(RunAndEnd({"/HI"}), 0);
  EXPECT_THAT(LogText(), HasSubstr("Unable to load GreyListing database. Error 53."));
  EXPECT_EQ(err_.str(), "");
}

TEST_F(StartUpTest, SecondInstanceOnThePortIsRefused) {
  WriteIni("");
  EventLoop loop(clock_);
  const std::unique_ptr<InstanceLock> lock = TryLockInstance(loop, InstanceName(port_), [] {});
  const std::string line = "The instance of this application listening on the same port already running.";
  EXPECT_EQ(Run({"/HI"}), 1);
  EXPECT_EQ(err_.str(), "Trabex: " + line + "\n");
  EXPECT_THAT(LogLines(), ElementsAre(line));
  port_text_ = std::to_string(FreePort());
  EXPECT_EQ(RunAndEnd({"/HI", "/P", port_text_}), 0) << "another port is another instance";
}

TEST_F(StartUpTest, ExitRequestStartsNothingAndIsForThePort) {
  WriteIni("");
  EventLoop loop(clock_);
  int requests = 0;
  const std::unique_ptr<InstanceLock> lock =
      TryLockInstance(loop, InstanceName(port_), [&requests] { ++requests; });
  EXPECT_EQ(Run({"/X", "/P", std::to_string(FreePort())}), 0);
  while (loop.RunOnce(Milliseconds(0))) {
  }
  EXPECT_EQ(requests, 0);
  EXPECT_EQ(Run({"/X"}), 0);
  while (loop.RunOnce(Milliseconds(0))) {
  }
  EXPECT_EQ(requests, 1);
  EXPECT_EQ(out_.str() + err_.str(), "");
  EXPECT_FALSE(fs::exists(folder_ / "Log"));
}

TEST_F(StartUpTest, ListenerThatCannotStartEndsTheProgram) {
  PlainSocket other;
  port_ = other.Bind();
  other.Listen();
  port_text_ = std::to_string(port_);
  WriteIni("");
  EXPECT_EQ(Run({"/HI"}), 1);
  const std::string reason = "Error 10048 binding to 127.0.0.1:" + port_text_ + ". ";
  EXPECT_THAT(LogLines(), ElementsAre(kStarted, StartsWith(reason), kStopped));
  EXPECT_THAT(err_.str(), StartsWith("Trabex: " + reason));
  EXPECT_THAT(err_.str(), Not(HasSubstr("stopped")));
  EXPECT_EQ(RequestExit(InstanceName(port_)), ExitRequest::kNoInstance) << "the lock is gone";
}

TEST_F(StartUpTest, LoopEndsTheProgram) {
  WriteIni("ServerIP=127.0.0.1\nServerPort=" + port_text_ + "\n");
  EXPECT_EQ(Run({"/HI"}), 1);
  const std::string line = "Loop detected: Server IP address and port point to listening address and port.";
  EXPECT_THAT(LogLines(), ElementsAre(kStarted, line, kStopped));
  EXPECT_EQ(err_.str(), "Trabex: " + line + "\n");
}

// The port is taken, so that the test does not listen for the whole network.
TEST_F(StartUpTest, MissingFileMeansTheDefaults) {
  PlainSocket other;
  port_text_ = std::to_string(other.Bind());
  other.Listen();
  EXPECT_EQ(Run({"/HI", "/P", port_text_}), 1);
  EXPECT_THAT(LogLines(), ElementsAre(HasSubstr("Error number: 53, Description: File not found"), kStarted,
                                      StartsWith("Error 10048 binding to 0.0.0.0:" + port_text_), kStopped));
  EXPECT_THAT(err_.str(), HasSubstr("reading initialization file \"" + NativePath(folder_ / "Trabex.ini") +
                                    "\". Error number: 53, Description: File not found. All settings "
                                    "have their defaults.\n"));
}

TEST_F(StartUpTest, FileOfTheCurrentDirectoryIsToldWhenItIsNotTheOneThatIsMeant) {
  const fs::path before = fs::current_path();
  fs::create_directory(folder_ / "here");
  WriteFile(folder_ / "here/x.ini", "[Common]\nBindPort=0\n");
  fs::current_path(folder_ / "here");
  PlainSocket other;
  port_text_ = std::to_string(other.Bind());
  other.Listen();
  EXPECT_EQ(Run({"/HI", "/P", port_text_, "/I", "x.ini"}), 1);
  fs::current_path(before);
  EXPECT_THAT(err_.str(), StartsWith("Trabex: The initialization file is \"" + NativePath(folder_ / "x.ini") +
                                     "\"; the one in the current directory is \"./x.ini\".\n"));
}

TEST_F(StartUpTest, LogThatCannotBeWrittenIsNoReasonNotToServe) {
  WriteIni("LogPath=" + (folder_ / "no/parent") + "\n");
  EXPECT_EQ(RunAndEnd({"/HI"}), 0);
  EXPECT_EQ(err_.str(), "Trabex: Unable to open log file \"" + NativePath(folder_ / "no/parent/Trabex-") +
                            port_text_ + "-261115.log\". Path not found. Nothing is logged.\n");
}

}  // namespace
}  // namespace trabex

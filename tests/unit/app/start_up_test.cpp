// Whole runs of the program inside the test's process: those that end by themselves, and, with an end request
// that waits from the beginning, those that start.
#include "app/start_up.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "platform/instance_lock.h"
#include "support/child_process.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/plain_socket.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// Signals that stay pending until they are taken.
class WaitingSignals {
 public:
  explicit WaitingSignals(std::initializer_list<int> numbers) {
    sigemptyset(&signals_);
    for (const int number : numbers) sigaddset(&signals_, number);
    pthread_sigmask(SIG_BLOCK, &signals_, &before_);
    for (const int number : numbers) raise(number);
  }
  ~WaitingSignals() {
    const timespec at_once{};
    while (sigtimedwait(&signals_, nullptr, &at_once) > 0) continue;
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  WaitingSignals(const WaitingSignals&) = delete;
  WaitingSignals& operator=(const WaitingSignals&) = delete;

 private:
  sigset_t signals_{};
  sigset_t before_{};
};

class StartUpTest : public testing::Test {
 protected:
  StartUpTest() : port_(FreePort()), port_text_(std::to_string(port_)) {}

  // The initialization file beside the program; the port is in it.
  void WriteIni(std::string_view lines) {
    WriteFile(folder_ / "Trabex.ini",
              "[Common]\nBindIP=127.0.0.1\nBindPort=" + port_text_ + "\n" + std::string(lines));
  }
  int Run(const std::vector<std::string_view>& arguments) {
    out_.str("");
    err_.str("");
    return RunProgram(arguments,
                      {.clock = clock_,
                       .out = out_,
                       .err = err_,
                       .show = [this](std::string_view text) { err_ << text; },
                       .answered = [this] { ++answers_; },
                       .program_directory = folder_.Path(),
                       .program_name = "Trabex",
                       .make_names = [](EventLoop& loop) { return std::make_unique<FakeNameLookup>(loop); }});
  }
  // A run that starts, serves and is asked to end.
  int RunAndEnd(const std::vector<std::string_view>& arguments) {
    const WaitingSignals end({SIGTERM});
    return Run(arguments);
  }

  std::string LogText(const std::string& folder = "Log") const {
    std::string text;
    if (!fs::exists(folder_ / folder)) return text;
    for (const auto& entry : fs::directory_iterator(folder_ / folder)) text += ReadFile(entry.path());
    return text;
  }
  // The messages without their time stamps.
  std::vector<std::string> LogLines(const std::string& folder = "Log") const {
    std::vector<std::string> lines;
    const std::string text = ReplaceAll(LogText(folder), kCrLf, "\n");
    for (const std::string_view line : Split(text, '\n')) {
      if (line.size() > 18) lines.emplace_back(line.substr(18));
    }
    return lines;
  }
  std::string ListenLine() const {
    return "Listen on: 127.0.0.1:" + port_text_ + "; Connect to: 127.0.0.1:25.";
  }

  TempFolder folder_;
  FakeClock clock_;
  int port_;
  std::string port_text_;
  std::ostringstream out_;
  std::ostringstream err_;
  int answers_ = 0;
};

constexpr std::string_view kStarted = "Trabex 3.04.012 started.";
constexpr std::string_view kStopped = "Trabex 3.04.012 stopped.";
constexpr std::string_view kNotStarted =
    "Trabex 3.04.012 not started due to an error in initialization file.";

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

TEST_F(StartUpTest, SignalsOfBeforeTheStartCount) {
  WriteIni("");
  for (const int number : {SIGTERM, SIGINT, SIGQUIT}) {
    const WaitingSignals end({SIGUSR1, number});
    EXPECT_EQ(Run({"/HI", "/L", folder_ / std::to_string(number)}), 0) << number;
    EXPECT_THAT(LogLines(std::to_string(number)),
                ElementsAre(kStarted, ListenLine(), "Log file reopened.", kStopped))
        << number;
  }
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
      {"[TLS]\nCertificate=/no/such.pem\n", "Unable to load certificate \"/no/such.pem\". "},
      {"[Service]\nStatusHTTP=x\n", "string: \"x\". The default is taken, which is empty."},
      {"[Service]\nJsonLog=/no/such/folder/log.json\n",
       "JSON log \"/no/such/folder/log.json\" cannot be written. Lines are lost."},
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

TEST_F(StartUpTest, NameTakenByAnotherUserIsNoSecondInstance) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  WriteIni("");
  Notice locked;
  ChildProcess stranger([&] {
    if (setuid(54321) != 0) return 1;
    EventLoop loop(clock_);
    const std::unique_ptr<InstanceLock> lock = TryLockInstance(loop, InstanceName(port_), [] {});
    locked.Give();
    for (;;) pause();
    return 0;
  });
  locked.Await();
  const std::string line =
      "A process of another user (uid 54321) holds the name of the instance listening on the same port; no "
      "instance of our own user runs.";
  EXPECT_EQ(Run({"/HI"}), 1);
  EXPECT_EQ(err_.str(), "Trabex: " + line + "\n");
  EXPECT_THAT(LogLines(), ElementsAre(line));
  EXPECT_EQ(Run({"/X"}), 0);
  EXPECT_EQ(out_.str() + err_.str(), "");
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
  EXPECT_THAT(err_.str(),
              HasSubstr("reading initialization file \"" + folder_.Path() +
                        "/Trabex.ini\". Error number: 53, Description: File not found. All settings "
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
  EXPECT_THAT(err_.str(), StartsWith("Trabex: The initialization file is \"" + folder_.Path() +
                                     "/x.ini\"; the one in the current directory is \"./x.ini\".\n"));
}

TEST_F(StartUpTest, LogThatCannotBeWrittenIsNoReasonNotToServe) {
  WriteIni("LogPath=" + (folder_ / "no/parent") + "\n");
  EXPECT_EQ(RunAndEnd({"/HI"}), 0);
  EXPECT_EQ(err_.str(), "Trabex: Unable to open log file \"" + (folder_ / "no/parent") + "/Trabex-" +
                            port_text_ + "-261115.log\". Path not found. Nothing is logged.\n");
}

}  // namespace
}  // namespace trabex

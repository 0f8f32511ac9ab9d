// The switches that look at the settings instead of a start.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "app/start_up.h"
#include "base/text.h"
#include "platform/files.h"
#include "program_fixture.h"

namespace trabex {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class CheckCommandTest : public ProgramTest {
 protected:
  int Run(const std::vector<std::string_view>& arguments) {
    out_.str("");
    err_.str("");
    return RunProgram(arguments, MakeDependencies());
  }
  std::string IniFile() const { return NativePath(folder_ / "Trabex.ini"); }
  void WriteIni(const std::string& lines) {
    WriteFile(IniFile(), "[Common]\nBindPort=2525\nLocalDomains=example.org\nLogPath=" + (folder_ / "Log") +
                             "\n" + lines);
  }
};

TEST_F(CheckCommandTest, SaysOKAndTouchesNothing) {
  WriteIni("");
  for (const char* spelling : {"/CHECK", "--check", "-Check"}) {
    EXPECT_EQ(Run({spelling, "--offline"}), 0) << spelling;
    EXPECT_EQ(out_.str(), "OK\n");
    EXPECT_EQ(err_.str(), "");
  }
  const auto files = std::filesystem::directory_iterator(folder_.Path());
  EXPECT_EQ(std::distance(begin(files), end(files)), 1) << "the file itself";
}

TEST_F(CheckCommandTest, FailsForErrorsOnlyWhateverIgnoreIniErrorsSays) {
  for (const char* ignore : {"IgnoreIniErrors=0\n", "IgnoreIniErrors=1\n"}) {
    WriteIni(ignore + std::string("Timeout=x\n"));
    EXPECT_EQ(Run({"--check"}), 1);
    EXPECT_EQ(out_.str(), IniFile() +
                              ":6: error: [Common] Timeout: Value is not a number: \"x\".\n"
                              "1 errors, 0 warnings\n");
    WriteIni(ignore + std::string("[Service]\nStatusHTTP=0.0.0.0:1\n"));
    EXPECT_EQ(Run({"--check"}), 0);
    EXPECT_THAT(out_.str(), EndsWith("\n0 errors, 1 warnings\n"));
  }
}

TEST_F(CheckCommandTest, NamesTheFileAsItWasGiven) {
  WriteFile(folder_ / "x.ini", "Timeout=x\n");
  EXPECT_EQ(Run({"--check", "/I", "x.ini"}), 1);
  EXPECT_THAT(out_.str(), StartsWith("x.ini:1: error: Section name expected: \"Timeout=x\".\n"));
  EXPECT_EQ(Run({"--check", "/I", "y.ini"}), 1);
  EXPECT_EQ(out_.str(), "y.ini: error: Error reading initialization file \"" + NativePath(folder_ / "y.ini") +
                            "\". Error number: 53, Description: File not found\n1 errors, 0 warnings\n");
}

TEST_F(CheckCommandTest, FindsCertificatesThatCannotBeLoaded) {
  const std::string file = NativePath(folder_ / "no/such.pem");
  WriteIni("[TLS]\nCertificate=" + file + "\n");
  EXPECT_EQ(Run({"--check"}), 1);
  EXPECT_THAT(out_.str(),
              StartsWith(IniFile() + ": error: [TLS]: Unable to load certificate \"" + file + "\". "));
}

TEST_F(CheckCommandTest, FindsALoop) {
  WriteIni("ServerIP=127.0.0.1\nServerPort=2525\n");
  EXPECT_EQ(Run({"--check", "--offline"}), 1);
  EXPECT_EQ(out_.str(), IniFile() +
                            ":5: error: [Common] ServerIP: Loop detected: Server IP address and "
                            "port point to listening address and port.\n1 errors, 0 warnings\n");
}

TEST_F(CheckCommandTest, NeedsAUserThatThereIs) {
  WriteIni("");
  EXPECT_EQ(Run({"--check", "--user", "no such user"}), 2);
  EXPECT_EQ(err_.str(), "Trabex: There is no user \"no such user\".\n");
  EXPECT_EQ(out_.str(), "");
}

TEST_F(CheckCommandTest, DumpReadsBackAsTheSame) {
  WriteIni(
      "Log=0\nMaxSize=1M\nSendersBlackList=\"a,b\",*@x\n[ResponseChanges]\n550=<550 {%from%}>\n"
      "[Service]\nServerTimeout=300\n[SenderReplacements.Local]\n*@a=b@c\n");
  EXPECT_EQ(Run({"--dump"}), 0);
  EXPECT_EQ(err_.str(), "");
  const std::string dump = out_.str();
  EXPECT_THAT(dump, HasSubstr("\nMaxSize = 1M\n"));
  EXPECT_THAT(dump, HasSubstr("\n[Service]\nServerTimeout = 300\n"));
  WriteFile(folder_ / "Trabex.ini", dump);
  EXPECT_EQ(Run({"--dump"}), 0);
  EXPECT_EQ(out_.str(), dump);
  EXPECT_EQ(Run({"--check"}), 0);
  EXPECT_EQ(out_.str(), "OK\n");
}

TEST_F(CheckCommandTest, DumpOfABadFileShowsWhatIsBad) {
  WriteIni("Timeout=x\n");
  EXPECT_EQ(Run({"--dump"}), 1);
  EXPECT_THAT(out_.str(), HasSubstr("\nTimeout = 300\n"));
  EXPECT_THAT(err_.str(), HasSubstr(":5: error: [Common] Timeout: "));
  EXPECT_EQ(Run({"--dump", "/I", "y.ini"}), 1);
  EXPECT_EQ(out_.str(), "");
  EXPECT_THAT(err_.str(), StartsWith("y.ini: error: "));
}

}  // namespace
}  // namespace trabex

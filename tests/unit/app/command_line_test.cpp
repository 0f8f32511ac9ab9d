#include "app/command_line.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/process.h"

namespace trabex {
namespace {

using Result = CommandLine::Result;

CommandLine Parse(const std::vector<std::string_view>& arguments) {
  return ParseCommandLine(arguments);
}

TEST(CommandLine, EmptyMeansAStartWithNothingSet) {
  const CommandLine line = Parse({});
  EXPECT_EQ(line.result, Result::kStart);
  EXPECT_FALSE(line.port || line.ini_file || line.log_path);
  EXPECT_FALSE(line.minimized || line.hidden || line.exit_request);
}

TEST(CommandLine, EverySwitchHasItsSpellings) {
  struct Row {
    std::vector<std::string_view> spellings;
    bool CommandLine::*set;
  };
  const Row rows[] = {
      {{"/M", "/MINIMIZE", "-m", "--m", "-minimize", "--minimize", "/Minimize", " /m "},
       &CommandLine::minimized},
      {{"/HI", "/HIDE", "-hi", "--hi", "-hide", "--hide", "/hide"}, &CommandLine::hidden},
      {{"/X", "/EXIT", "-x", "--x", "-exit", "--exit", "/Exit"}, &CommandLine::exit_request},
  };
  for (const Row& row : rows) {
    for (const std::string_view spelling : row.spellings) {
      const CommandLine line = Parse({spelling});
      EXPECT_EQ(line.result, Result::kStart) << spelling;
      EXPECT_TRUE(line.*row.set) << spelling;
      EXPECT_EQ(line.minimized + line.hidden + line.exit_request, 1) << spelling;
    }
  }
}

TEST(CommandLine, RequestsHaveTheSpellingsOfSwitches) {
  const std::string_view names[] = {"STATUS", "RELOAD", "REOPENLOG", "SESSIONS", "VIEW"};
  for (const std::string_view name : names) {
    std::string lower(name);
    for (char& c : lower) c = static_cast<char>(c - 'A' + 'a');
    for (const std::string& spelling :
         {"/" + std::string(name), "-" + lower, "--" + lower, "--" + std::string(name), " /" + lower + " "}) {
      const CommandLine line = Parse({spelling});
      EXPECT_EQ(line.result, Result::kStart) << spelling;
      EXPECT_EQ(line.request, std::vector<std::string>{std::string(name)}) << spelling;
      EXPECT_FALSE(line.exit_request || line.hidden);
    }
  }
}

TEST(CommandLine, RequestsTakeTheirArguments) {
  struct Row {
    std::vector<std::string_view> arguments;
    std::vector<std::string> request;
  };
  // What keeps the blanks of a token together comes with it on some systems.
  const std::string_view with_blanks = kTokensKeepQuotes ? "\" *@x.example \"" : " *@x.example ";
  const Row rows[] = {
      {{"/STATUS", "trabex_sessions_open"}, {"STATUS", "trabex_sessions_open"}},
      {{"/STATUS", "/HI"}, {"STATUS"}},
      {{"/STATUS", "", "x"}, {"STATUS", "x"}},
      {{"/close", "0123456789abcdef", "/HI"}, {"CLOSE", "0123456789abcdef"}},
      {{"/CLOSE", "/HI", "0123456789abcdef"}, {"CLOSE", "0123456789abcdef"}},
      {{"/GREYLIST", "list"}, {"GREYLIST", "list"}},
      {{"--greylist", "list", with_blanks, "--json", "--Hi"},
       {"GREYLIST", "list", " *@x.example ", "--json"}},
      {{"/GREYLIST", "show", "192.0.2.1", "", "to@x.example"},
       {"GREYLIST", "show", "192.0.2.1", "", "to@x.example"}},
      {{"/GREYLIST", "list", "--", "/HI", "--", "-h"}, {"GREYLIST", "list", "/HI", "--", "-h"}},
  };
  for (const Row& row : rows) {
    const CommandLine line = Parse(row.arguments);
    EXPECT_EQ(line.result, Result::kStart) << line.message;
    EXPECT_EQ(line.request, row.request);
  }
  const CommandLine line = Parse({"/GREYLIST", "list", "/P", "2525", "x", "/I", "/etc/x.ini", "y"});
  EXPECT_EQ(line.request, (std::vector<std::string>{"GREYLIST", "list", "x", "y"}));
  EXPECT_EQ(line.port, 2525);
  EXPECT_EQ(line.ini_file, "/etc/x.ini");
}

TEST(CommandLine, RequestsThatCannotBeTaken) {
  struct Row {
    std::vector<std::string_view> arguments;
    std::string_view message;
  };
  const Row rows[] = {
      {{"/CLOSE"}, "Argument expected after \"/CLOSE\"."},
      {{"/HI", "--close", "/P", "25"}, "Argument expected after \"--close\"."},
      {{"/CLOSE", ""}, "Argument expected after \"/CLOSE\"."},
      {{"/CLOSE", "-1"}, "Invalid switch \"-1\"."},
      {{"/CLOSE", "a", "b"}, "Invalid switch \"b\"."},
      {{"/GREYLIST", "/HI"}, "Argument expected after \"/GREYLIST\"."},
      {{"/RELOAD", "now"}, "Invalid switch \"now\"."},
      {{"/STATUS", "a", "b"}, "Invalid switch \"b\"."},
      {{"/STATUS", "--json"}, "Invalid switch \"--json\"."},
      {{"/RELOAD", "/STATUS"}, "Only one request is possible: \"/STATUS\"."},
      {{"/RELOAD", "--reload"}, "Only one request is possible: \"--reload\"."},
      {{"/X", "/RELOAD"}, "Only one request is possible: \"/RELOAD\"."},
      {{"/RELOAD", "/X"}, "Only one request is possible: \"/X\"."},
  };
  for (const Row& row : rows) {
    const CommandLine line = Parse(row.arguments);
    EXPECT_EQ(line.result, Result::kRefused) << row.message;
    EXPECT_EQ(line.message, row.message);
  }
}

TEST(CommandLine, PortIsTakenFromTheNextArgument) {
  for (const std::string_view spelling : {"/P", "/p", "/PORT", "-p", "--p", "-port", "--port", "--PORT"}) {
    EXPECT_EQ(Parse({spelling, "2525"}).port, 2525) << spelling;
  }
  EXPECT_EQ(Parse({"/P", "1"}).port, 1);
  EXPECT_EQ(Parse({"/P", "65535"}).port, 65535);
  EXPECT_EQ(Parse({"/P", " 25 "}).port, 25);
  EXPECT_EQ(Parse({"/P", "25", "/P", "26"}).port, 26);
}

TEST(CommandLine, BadPortsAreRefused) {
  struct Row {
    std::vector<std::string_view> arguments;
    std::string_view message;
  };
  const Row rows[] = {
      {{"/P", "0"}, "Invalid port number \"0\"."},
      {{"/P", "70000"}, "Invalid port number \"70000\"."},
      {{"/P", "65536"}, "Invalid port number \"65536\"."},
      {{"--port", "-1"}, "Invalid port number \"-1\"."},
      {{"/P", " smtp "}, "Invalid port number \"smtp\"."},
      {{"/P", "99999999999"}, "Invalid port number \"99999999999\"."},
      {{"/P", ""}, "Invalid port number \"\"."},
      {{"/P"}, "Invalid port number \"\"."},
      {{"/P", "25", "/P", "0"}, "Invalid port number \"0\"."},
      {{"/P", "/HI"}, "Invalid port number \"/HI\"."},
  };
  for (const Row& row : rows) {
    const CommandLine line = Parse(row.arguments);
    EXPECT_EQ(line.result, Result::kRefused);
    EXPECT_EQ(line.message, row.message);
  }
}

TEST(CommandLine, TextThatIsNoNumberLeavesAnEarlierPort) {
  EXPECT_EQ(Parse({"/P", "25", "/P", "smtp"}).port, 25);
  EXPECT_EQ(Parse({"/P", "25", "/P"}).port, 25);
}

TEST(CommandLine, PathsLoseSurroundingQuotes) {
  using Value = std::optional<std::string>;
  struct Row {
    std::string_view argument;
    Value expected;
  };
  const Row rows[] = {
      {"x.ini", "x.ini"},
      {"\"C:\\My Files\\x.ini\"", "C:\\My Files\\x.ini"},
      {" /etc/My Files/x.ini ", "/etc/My Files/x.ini"},
      {"\"half", "\"half"},
      {"\"", "\""},
      {"/P", "/P"},
      {"", std::nullopt},
      {"\"\"", std::nullopt},
  };
  for (const Row& row : rows) {
    for (const std::string_view spelling : {"/I", "/INIFILE", "-i", "--inifile", "--IniFile"}) {
      EXPECT_EQ(Parse({spelling, row.argument}).ini_file, row.expected) << spelling << " " << row.argument;
    }
    for (const std::string_view spelling : {"/L", "/LOGPATH", "-l", "--logpath", "--LogPath"}) {
      EXPECT_EQ(Parse({spelling, row.argument}).log_path, row.expected) << spelling << " " << row.argument;
    }
  }
}

TEST(CommandLine, PathSwitchAtTheEndIsIgnored) {
  for (const std::string_view spelling : {"/I", "/L"}) {
    const CommandLine line = Parse({"/M", spelling});
    EXPECT_EQ(line.result, Result::kStart);
    EXPECT_TRUE(line.minimized);
    EXPECT_FALSE(line.ini_file || line.log_path);
  }
}

TEST(CommandLine, HelpTextIsComplete) {
  const std::string expected =
      "Command line switches:\r\n"
      "\r\n"
      "/P <portnumber>, /PORT <portnumber> - specify port to listen;\r\n"
      "/M, /MINIMIZE - run minimized;\r\n"
      "/HI, /HIDE - run hidden;\r\n"
      "/I <ini file pathname>, /INIFILE <ini file pathname> - specify initialization file;\r\n"
      "/L <log dir>, /LOGPATH <log dir> - specify log directory;\r\n"
      "/X, /EXIT - close another instance;\r\n"
      "/H, /?, /HELP - show this message.";
  for (const std::string_view spelling : {"/H", "/?", "/HELP", "-h", "-?", "--help", "--h", "--?", "/help"}) {
    const CommandLine line = Parse({spelling});
    EXPECT_EQ(line.result, Result::kShow) << spelling;
    EXPECT_EQ(line.message, expected) << spelling;
  }
}

TEST(CommandLine, SessionsComeAsJsonToo) {
  const std::vector<std::string> request = {"SESSIONS", "JSON"};
  for (const std::string_view option : {"--json", "/JSON", "-json", "--Json"}) {
    const CommandLine line = Parse({"--sessions", option, "/P", "26"});
    EXPECT_EQ(line.result, Result::kStart) << option;
    EXPECT_EQ(line.request, request) << option;
    EXPECT_EQ(line.port, 26);
  }
  const std::vector<std::vector<std::string_view>> refused = {
      {"--json"}, {"--json", "--sessions"}, {"--status", "--json"}, {"--sessions", "--json", "--json"}};
  for (const auto& arguments : refused) {
    const CommandLine line = Parse(arguments);
    EXPECT_EQ(line.result, Result::kRefused);
    EXPECT_EQ(line.message, "Invalid switch \"--json\".");
  }
  EXPECT_EQ(Parse({"--sessions", "json"}).message, "Invalid switch \"json\".");
}

TEST(CommandLine, ChecksAndDumpsInsteadOfAStart) {
  const CommandLine check = Parse({"--check", "--user", " mail ", "--OFFLINE", "/I", "x.ini"});
  EXPECT_EQ(check.result, Result::kStart);
  EXPECT_TRUE(check.check && check.offline && !check.dump);
  EXPECT_EQ(check.user, "mail");
  EXPECT_EQ(check.ini_file, "x.ini");
  EXPECT_EQ(Parse({"/USER", "trabex"}).user, "trabex");
  EXPECT_EQ(Parse({"-user", "1000", "/X"}).user, "1000");
  const CommandLine dump = Parse({"/DUMP"});
  EXPECT_TRUE(dump.dump && !dump.check && dump.request.empty());
  const CommandLine live = Parse({"--live", "/P", "2525", "--dump"});
  EXPECT_EQ(live.request, (std::vector<std::string>{"DUMP"}));
  EXPECT_FALSE(live.dump);
  struct Row {
    std::vector<std::string_view> arguments;
    std::string_view message;
  };
  const Row rows[] = {
      {{"--check", "--dump"}, "Only one request is possible: \"--dump\"."},
      {{"--check", "/CHECK"}, "Only one request is possible: \"/CHECK\"."},
      {{"/X", "--check"}, "Only one request is possible: \"--check\"."},
      {{"--dump", "/X"}, "Only one request is possible: \"/X\"."},
      {{"--check", "/STATUS"}, "Only one request is possible: \"/STATUS\"."},
      {{"/SESSIONS", "--check"}, "Only one request is possible: \"--check\"."},
      {{"--dump", "--offline"}, "Only with --check: \"--offline\"."},
      {{"--live", "--check"}, "Only with --dump and --explain: \"--live\"."},
      {{"--check", "--user"}, "Argument expected after \"--user\"."},
      {{"--check", "--user", ""}, "Argument expected after \"--user\"."},
  };
  for (const Row& row : rows) {
    const CommandLine line = Parse(row.arguments);
    EXPECT_EQ(line.result, Result::kRefused) << row.message;
    EXPECT_EQ(line.message, row.message);
  }
}

TEST(CommandLine, VersionHasOneSpelling) {
  EXPECT_EQ(Parse({"--version"}).result, Result::kShow);
  EXPECT_EQ(Parse({"--version"}).message, "Trabex 3.04.012");
  EXPECT_EQ(Parse({"/VERSION"}).message, "Invalid switch \"/VERSION\".");
}

TEST(CommandLine, AnythingElseIsAnInvalidSwitch) {
  struct Row {
    std::string_view argument;
    std::string_view message;
  };
  const Row rows[] = {
      {"/Q", "Invalid switch \"/Q\"."},
      {" /q ", "Invalid switch \"/q\"."},
      {"P", "Invalid switch \"P\"."},
      {"/", "Invalid switch \"/\"."},
      {"-", "Invalid switch \"-\"."},
      {"--", "Invalid switch \"--\"."},
      {"---port", "Invalid switch \"---port\"."},
      {"/-p", "Invalid switch \"/-p\"."},
      {"-/p", "Invalid switch \"-/p\"."},
      {"/P2525", "Invalid switch \"/P2525\"."},
      {"--port=25", "Invalid switch \"--port=25\"."},
      {"\"/M\"", "Invalid switch \"\"/M\"\"."},
  };
  for (const Row& row : rows) {
    const CommandLine line = Parse({row.argument});
    EXPECT_EQ(line.result, Result::kRefused) << row.argument;
    EXPECT_EQ(line.message, row.message);
  }
}

TEST(CommandLine, FirstArgumentThatCannotBeTakenEndsTheReading) {
  EXPECT_EQ(Parse({"/Q", "/H"}).message, "Invalid switch \"/Q\".");
  EXPECT_EQ(Parse({"/H", "/Q"}).result, Result::kShow);
  EXPECT_EQ(Parse({"/P", "0", "/H"}).message, "Invalid port number \"0\".");
}

TEST(CommandLine, EmptyArgumentsAreSkipped) {
  const CommandLine line = Parse({"", "/HI", "  ", "/M"});
  EXPECT_EQ(line.result, Result::kStart);
  EXPECT_TRUE(line.hidden);
  EXPECT_TRUE(line.minimized);
}

}  // namespace
}  // namespace trabex

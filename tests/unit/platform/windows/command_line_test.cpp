#include "platform/windows/process/command_line.h"

#include <gtest/gtest.h>

#include "platform/process.h"
#include "support/error_of.h"

namespace trabex {
namespace {

using Tokens = std::vector<std::string>;

TEST(CommandLine, IsSplitAtBlanksOutsideQuotes) {
  const struct {
    const char* line;
    Tokens tokens;
  } rows[] = {
      {"", {}},
      {"Trabex.exe", {}},
      {"Trabex.exe ", {}},
      {"Trabex.exe   /P  25 ", {"/P", "25"}},
      {"\"C:\\Program Files\\Trabex.exe\" /HI", {"/HI"}},
      {"\"C:\\Program Files\\Trabex.exe\"", {}},
      {"\"C:\\Program Files\\Trabex.exe", {}},
      {"Trabex.exe /I \"C:\\My Files\\x.ini\" /M", {"/I", "\"C:\\My Files\\x.ini\"", "/M"}},
      // A backslash before a quote is none of ours, so a folder may end with one.
      {"Trabex.exe /L \"C:\\My Log\\\" /M", {"/L", "\"C:\\My Log\\\"", "/M"}},
      {"Trabex.exe /I \"\"", {"/I", "\"\""}},
      {"Trabex.exe a\"b c\"d", {"a\"b c\"d"}},
      {"Trabex.exe \"a\"\"b c\"", {"\"a\"\"b c\""}},
      {"Trabex.exe a\tb", {"a\tb"}},
      {"Trabex.exe /I \xC3\xB6\xE6\x97\xA5.ini", {"/I", "\xC3\xB6\xE6\x97\xA5.ini"}},
  };
  for (const auto& row : rows) EXPECT_EQ(SplitCommandLine(row.line), row.tokens) << row.line;
  EXPECT_EQ(ErrorOf([] { SplitCommandLine("Trabex.exe /I \"x"); }),
            "321 mCommon.InstrOutsise Unbalanced delimiters in delimited string \"/I \"x\".");
}

TEST(CommandLine, IsThatOfTheProcess) {
  for (const std::string& token : CommandLineTokens(0, nullptr)) EXPECT_FALSE(token.empty());
  EXPECT_TRUE(kTokensKeepQuotes);
}

}  // namespace
}  // namespace trabex

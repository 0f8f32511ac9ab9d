#include "proxy/dialogue/extension_collection.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

TEST(ExtensionCollection, ReadsTheLinesOfAnEhloReply) {
  const struct {
    const char* text;
    std::vector<std::string> lines;
  } rows[] = {
      {"", {}},
      {R"(250-SIZE 10\r\n250 HELP\r\n)", {"SIZE 10", "HELP"}},
      {R"(250-SIZE 10\r\n250 HELP)", {"SIZE 10", "HELP"}},
      {R"(\r\n250-SIZE 10\r\n250 HELP)", {"SIZE 10", "HELP"}},
      {R"(250-SIZE 10\r\n250-HELP\r\n)", {"SIZE 10", "HELP"}},
      {R"(250 HELP\r\n250-SIZE 10\r\n)", {"HELP", "SIZE 10"}},
      {R"(250 HELP\r\n550 no\r\n)", {"HELP"}},
      {R"(250-HELP\r\n550 no\r\n)", {"HELP"}},
      // Others are skipped.
      {R"(251-SIZE 10\r\n 250-X\r\n250 HELP)", {"HELP"}},
      {R"(550 no)", {}},
      // The text begins with the fifth byte, whatever the fourth one is.
      {R"(250_X Y\r\n250 Z)", {"X Y", "Z"}},
      {R"(250)", {}},
      {R"(250-A\r\n250)", {"A"}},
      {R"(250-\r\n250 )", {}},
      // Of two with one keyword the later one stays, in its own place.
      {R"(250-SIZE 10\r\n250-HELP\r\n250 size 20)", {"HELP", "size 20"}},
      {R"(250-AUTH LOGIN\r\n250 AUTH=LOGIN)", {"AUTH LOGIN", "AUTH=LOGIN"}},
  };
  for (const auto& row : rows) {
    ExtensionCollection extensions;
    extensions.ParseLines(Unescape(row.text));
    EXPECT_EQ(extensions.Lines(), row.lines) << row.text;
  }
}

TEST(ExtensionCollection, KeepsOneLinePerKeyword) {
  ExtensionCollection extensions;
  extensions.AddExtension("SIZE 10");
  extensions.AddExtension("8BITMIME");
  extensions.AddExtension("Auth LOGIN PLAIN");
  EXPECT_EQ(extensions.GetExtension("size"), "SIZE 10");
  EXPECT_EQ(extensions.GetExtension("AUTH"), "Auth LOGIN PLAIN");
  EXPECT_EQ(extensions.GetExtension("SIZ"), "");
  EXPECT_EQ(extensions.GetExtension("SIZE 10"), "");
  EXPECT_TRUE(extensions.Has("8bitmime"));
  EXPECT_FALSE(extensions.Has("8BIT"));

  // Replaced, and at the end from then on.
  extensions.AddExtension("size 20");
  EXPECT_EQ(extensions.Lines(), (std::vector<std::string>{"8BITMIME", "Auth LOGIN PLAIN", "size 20"}));

  extensions.RemoveExtension("auth");
  extensions.RemoveExtension("absent");
  EXPECT_EQ(extensions.Lines(), (std::vector<std::string>{"8BITMIME", "size 20"}));

  extensions.Clear();
  EXPECT_FALSE(extensions.Has("SIZE"));
  EXPECT_TRUE(extensions.Lines().empty());
}

// Clients take a tab for a blank, and pass over blanks before the keyword.
TEST(ExtensionCollection, AKeywordEndsAtAnyBlankAndAtAControlCharacter) {
  for (const std::string line : {"STARTTLS", "STARTTLS\t", "starttls\tx", " STARTTLS x", "\t STARTTLS",
                                 "STARTTLS\v", "STARTTLS\fx", "STARTTLS\rx", "STARTTLS\x01"}) {
    ExtensionCollection extensions;
    extensions.AddExtension(line);
    EXPECT_TRUE(extensions.Has("STARTTLS")) << line;
    EXPECT_EQ(extensions.GetExtension("starttls"), line);
    ExtensionCollection replaced = extensions;
    replaced.AddExtension("STARTTLS");
    EXPECT_EQ(replaced.Lines(), std::vector<std::string>{"STARTTLS"}) << line;
    extensions.RemoveExtension("STARTTLS");
    EXPECT_TRUE(extensions.Lines().empty()) << line;
  }
  for (const std::string line : {"STARTTLSX", "STARTTLS-X", "XSTARTTLS", "X STARTTLS", "X\tSTARTTLS"}) {
    ExtensionCollection extensions;
    extensions.AddExtension(line);
    EXPECT_FALSE(extensions.Has("STARTTLS")) << line;
  }
}

// Lists do not know these lines by their keyword, but clients may.
TEST(ExtensionCollection, FindsAuthenticationHoweverItIsWritten) {
  const struct {
    std::string line;
    std::string without_bound;  // mechanisms; "": the line goes
    bool is_authentication;
  } rows[] = {
      {"AUTH PLAIN LOGIN", "AUTH PLAIN LOGIN", true},
      {"auth=LOGIN", "auth=LOGIN", true},
      {"AUTH", "", true},
      {"AUTH\tPLAIN\tEXTERNAL", "AUTH\tPLAIN", true},
      {"AUTH \t PLAIN  X-PLUS\tX", "AUTH PLAIN", true},
      {"AUTH=EXTERNAL", "", true},
      {" \tAUTH PLAIN EXTERNAL", "AUTH PLAIN", true},
      {" AUTH=EXTERNAL", "", true},
      {"AUTH\x0F PLAIN EXTERNAL\x03L", "AUTH\x0FPLAIN L", true},
      {"AUTHX PLAIN EXTERNAL", "AUTHX PLAIN EXTERNAL", false},
      {"XAUTH EXTERNAL", "XAUTH EXTERNAL", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    using Lines = std::vector<std::string>;
    ExtensionCollection bound;
    bound.AddExtension(row.line);
    ExtensionCollection all = bound;
    bound.RemoveBoundAuthentication();
    EXPECT_EQ(bound.Lines(), row.without_bound.empty() ? Lines{} : Lines{row.without_bound});
    all.RemoveAuthentication();
    EXPECT_EQ(all.Lines(), row.is_authentication ? Lines{} : Lines{row.line});
  }
}

}  // namespace
}  // namespace trabex

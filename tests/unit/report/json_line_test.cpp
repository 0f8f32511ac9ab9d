#include "report/json_line.h"

#include <gtest/gtest.h>

namespace trabex {
namespace {

std::string Escaped(std::string_view text) {
  std::string out;
  AppendJsonText(out, text);
  return out;
}

TEST(JsonText, IsEscapedAsRfc8259Says) {
  const struct {
    std::string_view text;
    std::string_view escaped;
  } cases[] = {
      {"", ""},
      {"plain text ~!#[]", "plain text ~!#[]"},
      {"a \"b\" \\c", "a \\\"b\\\" \\\\c"},
      {"\r\n\t", "\\r\\n\\t"},
      {std::string_view("\0\x01\x1b\x7f", 4), "\\u0000\\u0001\\u001b\\u007f"},
      {"gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x93\xA7",
       "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x93\xA7"},
  };
  for (const auto& c : cases) EXPECT_EQ(Escaped(c.text), c.escaped);
}

TEST(JsonText, EachByteThatIsNoUtf8BecomesAReplacement) {
  constexpr std::string_view kBad[] = {"\xFF",     "\xC3",         "\x80",
                                       "\xC0\xAF", "\xED\xA0\x80", "\xF5\x80\x80\x80"};
  for (const std::string_view bad : kBad) {
    std::string out;
    EXPECT_FALSE(AppendJsonText(out, "a" + std::string(bad) + "b"));
    std::string wanted = "a";
    for (std::size_t i = 0; i < bad.size(); ++i) wanted += "\xEF\xBF\xBD";
    EXPECT_EQ(out, wanted + "b");
  }
  std::string out;
  EXPECT_TRUE(AppendJsonText(out, "\xEF\xBF\xBD"));
}

TEST(JsonLine, HoldsMembersInTheirOrder) {
  std::string out = "before ";
  JsonLine line(out);
  line.Begin();
  line.Text("event", "refusal");
  line.Number("code", -550);
  line.Truth("blacklisted", true);
  line.Truth("known", false);
  line.Thousandths("seconds", 12034);
  line.Thousandths("less", -1);
  line.Texts("to", {"a@x", "b\"@x"});
  line.Texts("none", {});
  line.End();
  EXPECT_EQ(
      out,
      "before {\"event\":\"refusal\",\"code\":-550,\"blacklisted\":true,\"known\":false,\"seconds\":12.034,"
      "\"less\":-0.001,\"to\":[\"a@x\",\"b\\\"@x\"],\"none\":[]}\n");
}

TEST(JsonLine, ValuesThatAreNoUtf8FollowInHexadecimal) {
  std::string out;
  JsonLine line(out);
  line.Begin();
  line.Text("helo", "m\xE4il");
  line.Texts("to", {"a", "\xFF"});
  line.End();
  EXPECT_EQ(out,
            "{\"helo\":\"m\xEF\xBF\xBDil\",\"helo_hex\":\"6de4696c\",\"to\":[\"a\",\"\xEF\xBF\xBD\"],"
            "\"to_hex\":[\"61\",\"ff\"]}\n");
}

TEST(JsonTime, IsUniversalWithMilliseconds) {
  JsonTime time;
  EXPECT_EQ(time.Format(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(time.Format(7), "1970-01-01T00:00:00.007Z");
  EXPECT_EQ(time.Format(999), "1970-01-01T00:00:00.999Z");
  EXPECT_EQ(time.Format(1000), "1970-01-01T00:00:01.000Z");
  EXPECT_EQ(time.Format(1795010064123), "2026-11-18T13:54:24.123Z");
  EXPECT_EQ(time.Format(-1), "1969-12-31T23:59:59.999Z");
}

}  // namespace
}  // namespace trabex

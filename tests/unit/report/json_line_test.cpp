#include "report/json_line.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace trabex {
namespace {

std::string Escaped(std::string_view text) {
  std::string out;
  JsonLine line(out);
  line.Begin();
  line.Text("x", text);
  line.End();
  return out;
}

// A line with this inside of its value.
std::string Line(std::string_view escaped) {
  return "{\"x\":\"" + std::string(escaped) + "\"}\n";
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
      {"\xEF\xBF\xBD", "\xEF\xBF\xBD"},
  };
  for (const auto& c : cases) EXPECT_EQ(Escaped(c.text), Line(c.escaped));
}

// Eight bytes are looked at together: each of them tells by itself.
TEST(JsonText, EveryByteIsSeenInEveryPlace) {
  for (int value = 0; value < 0x80; ++value) {
    const char c = static_cast<char>(value);
    const std::string alone = Escaped({&c, 1});
    const std::string inside = alone.substr(6, alone.size() - sizeof "{\"x\":\"\"}\n" + 1);
    EXPECT_EQ(inside == std::string(1, c), c >= ' ' && c <= '~' && c != '"' && c != '\\');
    for (std::size_t place = 0; place < 17; ++place) {
      for (const char around : {'a', ' ', '~'}) {
        std::string text(17, around);
        text[place] = c;
        std::string wanted(17, around);
        wanted.replace(place, 1, inside);
        ASSERT_EQ(Escaped(text), Line(wanted)) << value << " at " << place;
      }
    }
  }
}

TEST(JsonText, EachByteThatIsNoUtf8BecomesAReplacement) {
  const std::pair<std::string_view, std::string_view> bad_bytes[] = {{"\xFF", "ff"},
                                                                     {"\xC3", "c3"},
                                                                     {"\x80", "80"},
                                                                     {"\xC0\xAF", "c0af"},
                                                                     {"\xED\xA0\x80", "eda080"},
                                                                     {"\xF5\x80\x80\x80", "f5808080"}};
  for (const auto& [bad, hex] : bad_bytes) {
    std::string wanted = "a";
    for (std::size_t i = 0; i < bad.size(); ++i) wanted += "\xEF\xBF\xBD";
    EXPECT_EQ(Escaped("a" + std::string(bad) + "b"),
              "{\"x\":\"" + wanted + "b\",\"x_hex\":\"61" + std::string(hex) + "62\"}\n");
  }
}

// Wherever a value begins and ends, in the room that a line has or beyond it, nothing of it is lost.
TEST(JsonText, MayBeOfAnyLength) {
  for (const std::string_view character : {"a", "\xE2\x82\xAC", "\x01"}) {
    for (const std::size_t size : {300U, 340U, 341U, 342U, 682U, 2040U, 2048U, 2049U, 5000U, 70000U}) {
      for (std::size_t before = 0; before < 4; ++before) {
        std::string text(before, 'b');
        std::string wanted = text;
        while (text.size() < size) {
          text += character;
          wanted += character == "\x01" ? "\\u0001" : character;
        }
        ASSERT_EQ(Escaped(text), Line(wanted)) << character << " " << size << " " << before;
      }
    }
  }
  const std::string bytes(5000, '\xFF');
  std::string hex;
  for (std::size_t i = 0; i < bytes.size(); ++i) hex += "ff";
  EXPECT_TRUE(Escaped(bytes).ends_with("\",\"x_hex\":\"" + hex + "\"}\n"));
}

TEST(JsonLine, TakesTheMembersOfAnother) {
  for (const std::size_t size : {0U, 10U, 2000U, 2030U, 2048U, 9000U}) {
    const std::string value(size, 'v');
    std::string head;
    JsonLine first(head);
    first.Begin();
    first.Text("a", value);
    first.Number("b", 1);
    first.End();
    std::string out;
    JsonLine line(out);
    line.Begin();
    line.Members("{}\n");
    line.Members(head);
    line.Number("c", 2);
    line.Members(head);
    line.End();
    const std::string members = "\"a\":\"" + value + "\",\"b\":1";
    EXPECT_EQ(out, "{" + members + ",\"c\":2," + members + "}\n");
  }
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
  line.Texts("to", std::vector<std::string>{"a@x", "b\"@x"});
  line.Texts("none", std::vector<std::string>());
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
  line.Texts("to", std::vector<std::string>{"a", "\xFF"});
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
  EXPECT_EQ(time.Format(-1000), "1969-12-31T23:59:59.000Z");
  EXPECT_EQ(time.Format(951'782'400'000), "2000-02-29T00:00:00.000Z");
  EXPECT_EQ(time.Format(253'402'300'799'999), "9999-12-31T23:59:59.999Z");
  EXPECT_EQ(time.Format(253'402'300'800'000), "9999-12-31T23:59:59.999Z");
  EXPECT_EQ(time.Format(std::numeric_limits<std::int64_t>::max()), "9999-12-31T23:59:59.999Z");
  EXPECT_EQ(time.Format(std::numeric_limits<std::int64_t>::min()), "0000-01-01T00:00:00.000Z");
}

}  // namespace
}  // namespace trabex

#include "app/json_object.h"

#include <gtest/gtest.h>

#include <string>

namespace trabex {
namespace {

TEST(JsonObject, IsRead) {
  const auto object = ParseJsonObject(
      R"( {"a" : "x\"\\\/\b\f\n\r\t\u00e4\u20AC\ud83d\ude00ä", "n":-12,"t":true, "f":false,"":""} )");
  ASSERT_TRUE(object);
  EXPECT_EQ(object->Find("a")->text, "x\"\\/\b\f\n\r\t\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\xC3\xA4");
  EXPECT_EQ(object->Find("n")->number, -12);
  EXPECT_TRUE(object->Find("t")->truth);
  EXPECT_FALSE(object->Find("f")->truth);
  EXPECT_EQ(object->Find("")->text, "");
  EXPECT_EQ(object->Find("b"), nullptr);
  EXPECT_EQ(object->Members().size(), 5U);
  EXPECT_TRUE(ParseJsonObject("{}"));
  EXPECT_TRUE(ParseJsonObject("{}\r"));
}

TEST(JsonObject, NothingElseIsOne) {
  for (const std::string text : {"",
                                 "{",
                                 "}",
                                 "[]",
                                 "{}x",
                                 "{\"a\"}",
                                 "{\"a\":}",
                                 "{\"a\":1,}",
                                 "{\"a\":1 \"b\":2}",
                                 "{\"a\":1,\"a\":2}",
                                 "{\"a\":1.5}",
                                 "{\"a\":1e3}",
                                 "{\"a\":01}",
                                 "{\"a\":-01}",
                                 "{\"a\":+1}",
                                 "{\"a\":99999999999999999999}",
                                 "{\"a\":null}",
                                 "{\"a\":{}}",
                                 "{\"a\":[]}",
                                 "{a:1}",
                                 "{'a':1}",
                                 "{\"a\":\"\\x\"}",
                                 "{\"a\":\"\\u12\"}",
                                 "{\"a\":\"\\ud800\"}",
                                 "{\"a\":\"\\ud800\\u0041\"}",
                                 "{\"a\":\"\\udc00\"}",
                                 "{\"a\":\"x}",
                                 "{\"a\":\"\xE4\"}",
                                 "{\"a\":\"\t\"}",
                                 "{\"a\":\"\\",
                                 "{\"a\":tru}",
                                 "{\"a\":\"\\u-123\"}"}) {
    EXPECT_FALSE(ParseJsonObject(text)) << text;
  }
}

TEST(BytesOfHex, TakesPairsOfDigits) {
  EXPECT_EQ(BytesOfHex(""), "");
  EXPECT_EQ(BytesOfHex("00ffAb"), std::string("\0\xFF\xAB", 3));
  for (const std::string_view text : {"0", "0g", "-1", "+1", "0x", " 1", "123"}) {
    EXPECT_EQ(BytesOfHex(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace trabex

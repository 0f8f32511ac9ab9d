#include "base/short_text.h"

#include <gtest/gtest.h>

namespace trabex {
namespace {

TEST(ShortText, KeepsTheBeginning) {
  const struct {
    std::string_view text;
    std::string_view kept;
  } cases[] = {{"", ""}, {"a", "a"}, {"abcd", "abcd"}, {"abcde", "abcd"}, {{"a\0b", 3}, {"a\0b", 3}},
               {"", ""}};
  ShortText<4> text;
  EXPECT_EQ(text.View(), "");
  for (const auto& c : cases) {
    text.Assign(c.text);
    EXPECT_EQ(text.View(), c.kept);
  }
}

}  // namespace
}  // namespace trabex

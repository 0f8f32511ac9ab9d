#include "platform/windows/process/message_box.h"

#include <gtest/gtest.h>

#include <string>

namespace trabex {
namespace {

TEST(BoxText, HasNoNameInFrontAndNoLineEndBehind) {
  EXPECT_EQ(BoxText(""), "");
  EXPECT_EQ(BoxText("Trabex: Invalid switch \"/Q\".\n"), "Invalid switch \"/Q\".");
  EXPECT_EQ(BoxText("one\r\n\r\ntwo\r\n"), "one\r\n\r\ntwo");
  EXPECT_EQ(BoxText("Trabex: one\nTrabex: two\n"), "one\ntwo");
  EXPECT_EQ(BoxText("Trabex 3.04.012\n"), "Trabex 3.04.012");
}

TEST(BoxText, FitsOnAScreen) {
  std::string text;
  for (int i = 1; i <= 40; ++i) text += "line\n";
  EXPECT_EQ(BoxText(text), text.substr(0, text.size() - 1));
  const std::string cut = BoxText(text + "line\n");
  EXPECT_TRUE(cut.starts_with(text.substr(0, text.size() - 1) + "\n\n(There is more.")) << cut;
  EXPECT_LT(BoxText(std::string(100000, 'x')).size(), 100U);
}

}  // namespace
}  // namespace trabex

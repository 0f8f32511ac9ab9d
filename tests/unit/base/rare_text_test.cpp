#include "base/rare_text.h"

#include <gtest/gtest.h>

#include <utility>

namespace trabex {
namespace {

TEST(RareText, IsGivenAwayOnce) {
  RareText text;
  EXPECT_EQ(text.Take(), "");
  text.Assign("a");
  text.Assign("b");
  EXPECT_EQ(text.Take(), "b");
  EXPECT_EQ(text.Take(), "");
}

TEST(RareText, ACopyHasATextOfItsOwn) {
  RareText text;
  text.Assign("a");
  RareText copy(text);
  EXPECT_EQ(text.Take(), "a");
  RareText moved(std::move(copy));
  copy = text;
  EXPECT_EQ(copy.Take(), "");
  EXPECT_EQ(moved.Take(), "a");
}

}  // namespace
}  // namespace trabex

// Text as the system takes and gives it.
#include <gtest/gtest.h>

#include <string>

#include "platform/windows/win.h"

namespace trabex {
namespace {

TEST(WideText, IsUtf16OfEachLength) {
  EXPECT_EQ(Wide(""), L"");
  EXPECT_EQ(Wide("a\xC3\xB6\xE6\x97\xA5\xF0\x9F\x93\xA7"), L"a\x00F6\x65E5\xD83D\xDCE7");
  EXPECT_EQ(Utf8(L"a\x00F6\x65E5\xD83D\xDCE7"), "a\xC3\xB6\xE6\x97\xA5\xF0\x9F\x93\xA7");
  EXPECT_EQ(Utf8(L"\x7F\x80\x7FF\x800\xFFFF"), "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF");
}

TEST(WideText, HasAMarkForEachByteThatIsNoUtf8) {
  EXPECT_EQ(Wide("a\xFF\xC3"), L"a\xFFFD\xFFFD");
  EXPECT_EQ(StrictWide("a\xFF"), std::nullopt);
  EXPECT_EQ(StrictWide("\xC3\xB6"), L"\x00F6");
  EXPECT_EQ(StrictWide(""), L"");
  // Half of a pair is no UTF-8, and no text.
  EXPECT_EQ(StrictWide("\xED\xA0\x80"), std::nullopt);
  EXPECT_EQ(Utf8(L"\xD83D"), "\xEF\xBF\xBD");
  EXPECT_EQ(Utf8(L"\xDCE7\xD83D"), "\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(Utf8(std::wstring_view(L"a\0b", 3)), std::string("a\0b", 3));
}

}  // namespace
}  // namespace trabex

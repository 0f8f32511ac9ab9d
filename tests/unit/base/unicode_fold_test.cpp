#include "base/unicode_fold.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>

#include "base/text.h"
#include "support/utf8.h"

namespace trabex {
namespace {

TEST(FoldText, MakesSpellingsOfOneTextOne) {
  const struct {
    const char* text;
    const char* folded;
  } rows[] = {
      {"", ""},
      {"Mail@Local.TEST", "mail@local.test"},
      {"\x01 []{}", "\x01 []{}"},
      {"\xC5\xBF"
       "ales",
       "sales"},                      // long s
      {"blac\xE2\x84\xAA", "black"},  // Kelvin sign
      {"Stra\xC3\x9F"
       "e",
       "strasse"},  // sharp s
      {"STRA\xE1\xBA\x9E"
       "E",
       "strasse"},                                               // capital sharp s
      {"te\xEF\xAC\x86", "test"},                                // ligature
      {"\xEF\xBD\x93\xEF\xBC\xA1", "sa"},                        // full width
      {"\xF0\x9D\x94\xB0\xE2\x93\xA2", "ss"},                    // mathematical, in a circle
      {"J\xC3\x9CRGEN", "j\xC3\xBCrgen"},                        // U with diaeresis
      {"JU\xCC\x88RGEN", "j\xC3\xBCrgen"},                       // the same of two characters
      {"\xCE\xA3\xCF\x82\xCF\x83", "\xCF\x83\xCF\x83\xCF\x83"},  // three kinds of sigma
      {"s\xC2\xAD"
       "al\xE2\x80\x8B"
       "es\xEF\xBB\xBF",
       "sales"},  // soft hyphen, zero-width space, byte-order mark
      {"s\xE2\x80\x8D"
       "a\xEF\xB8\x8F",
       "sa"},  // joiner, variation selector
      {"\xEF\xBC\xA0\xEF\xB9\xAB", "@@"},
      {"\xEF\xBC\x85\xEF\xBC\x81", "%!"},
      {"\xE2\x80\xA6\xE2\x80\xA4\xEF\xBC\x8E", "....."},
      {"\xC2\xA0\xE3\x80\x80", "  "},
      {"\xCD\xBE", ";"},
      {"\xE3\x80\x82\xEF\xBD\xA1", "\xE3\x80\x82\xE3\x80\x82"},  // the ideographic full stops
      {"\xEF\xB7\xBA",                                           // eighteen characters in one
       "\xD8\xB5\xD9\x84\xD9\x89 \xD8\xA7\xD9\x84\xD9\x84\xD9\x87 \xD8\xB9\xD9\x84\xD9\x8A\xD9\x87 "
       "\xD9\x88\xD8\xB3\xD9\x84\xD9\x85"},
      // A mark that folds to a letter does not depend on where it is.
      {"\xCE\xB1\xCD\x85\xCC\x81", "\xCE\xAC\xCE\xB9"},
      {"\xCE\xB1\xCC\x81\xCD\x85", "\xCE\xAC\xCE\xB9"},
      {"\xE1\xBE\xB4", "\xCE\xAC\xCE\xB9"},
  };
  for (const auto& row : rows) EXPECT_EQ(FoldText(row.text), row.folded) << row.text;
}

TEST(FoldText, LeavesBytesThatAreNoCharactersAsTheyAre) {
  const struct {
    const char* text;
    const char* folded;
  } rows[] = {
      {"B\xFC"
       "CHER",
       "b\xFC"
       "cher"},                                  // Latin-1
      {"\xC5\xBF\xFF\xE2\x84\xAA", "s\xFFk"},    // what is well-formed around it is folded
      {"\xC1\x81", "\xC1\x81"},                  // longer than needed
      {"\xED\xA0\x80", "\xED\xA0\x80"},          // half of a pair
      {"\xF4\x90\x80\x80", "\xF4\x90\x80\x80"},  // beyond Unicode
      {"\xE2\x84", "\xE2\x84"},                  // cut off
      {"\x80\xBF", "\x80\xBF"},
      // A character that is dropped would bring the bytes around it together.
      {"\xC3\xE2\x80\x8B\x89", "\xC3\xE2\x80\x8B\x89"},
  };
  for (const auto& row : rows) EXPECT_EQ(FoldText(row.text), row.folded) << row.text;
}

TEST(FoldText, OfAsciiFoldsTheLettersOnly) {
  std::string all;
  for (int byte = 0; byte < 128; ++byte) all.push_back(static_cast<char>(byte));
  EXPECT_EQ(FoldText(all), ToLower(all));
  // The way with the Unicode tables gives the same.
  EXPECT_EQ(FoldText(all + "\xE4\xB8\xAD"), ToLower(all) + "\xE4\xB8\xAD");
}

TEST(FoldText, FoldingAgainChangesNothing) {
  for (char32_t code_point = 1; code_point < 0x110000; ++code_point) {
    if (code_point >= 0xD800 && code_point < 0xE000) continue;
    const std::string folded = FoldText(Utf8(code_point));
    ASSERT_EQ(FoldText(folded), folded) << std::hex << static_cast<std::uint32_t>(code_point);
  }
  // Letters with marks in any order, and bytes that are no characters.
  static const std::string kPieces[] = {
      "a",        "\xCE\xB1",     "\xCD\x85",     "\xCC\x81",     "\xCC\xA3",
      "\xCC\x87", "\xC4\xB0",     "\xE2\x80\x8B", "\xC3",         "\x89",
      "\xE2",     "\xE1\xBE\xB4", "\xEA\xB0\x80", "\xE1\x86\xA8", "\xCC\xB8",
      "="};
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    for (std::size_t count = random() % 7; count > 0; --count) text += kPieces[random() % std::size(kPieces)];
    const std::string folded = FoldText(text);
    ASSERT_EQ(FoldText(folded), folded) << testing::PrintToString(text);
  }
}

// Anybody may send marks that have to be put in order; sorting each to its place by steps would take minutes.
TEST(FoldText, ManyMarksTakeNoLongerThanManyLetters) {
  constexpr std::size_t kCount = 500000;
  const auto repeated = [](std::string_view character) {
    std::string text;
    for (std::size_t count = kCount; count > 0; --count) text += character;
    return text;
  };
  const std::string above = repeated("\xCC\x82");
  const std::string below = repeated("\xCC\xAD");
  EXPECT_EQ(FoldText("q" + above + below), "q" + below + above);
  // Half-width sound marks are marks only when they are folded.
  EXPECT_EQ(FoldText("q" + above + repeated("\xEF\xBE\x9E")), "q" + repeated("\xE3\x82\x99") + above);
}

TEST(FoldsLikeItsCaseFolding, SeesMarksAfterAnIotaBelow) {
  // All single characters do.
  for (char32_t code_point = 1; code_point < 0x110000; ++code_point) {
    if (code_point >= 0xD800 && code_point < 0xE000) continue;
    ASSERT_TRUE(FoldsLikeItsCaseFolding(Utf8(code_point)))
        << std::hex << static_cast<std::uint32_t>(code_point);
  }
  const struct {
    const char* text;
    bool alike;
  } rows[] = {
      {"", true},
      {"Mail", true},
      {"JU\xCC\x88RGEN", true},
      {"\xCE\xB1\xCC\x81\xCD\x85", true},   // alpha, acute, iota below
      {"\xCE\xB1\xCD\x85\xCC\x81", false},  // alpha, iota below, acute
      {"\xE1\xBE\xB3\xCC\x81", false},      // alpha with iota below, acute
      {"\xE1\xBE\xB3.\xCC\x81", true},
      {"a\xE1\xBE\xB3\xCC\x84z", false},  // macron
  };
  for (const auto& row : rows) EXPECT_EQ(FoldsLikeItsCaseFolding(row.text), row.alike) << row.text;
}

TEST(EqualFolded, ComparesAsFoldedTextsDo) {
  EXPECT_TRUE(EqualFolded("Mail.Test", "mAIL.tEST"));
  EXPECT_TRUE(EqualFolded("mail.te\xEF\xAC\x86", "Mail.Test"));
  EXPECT_TRUE(EqualFolded("mail", "mai\xC2\xADl"));
  EXPECT_FALSE(EqualFolded("mail", "mai"));
  EXPECT_FALSE(EqualFolded("m\xC3\xA4il", "mail"));
  EXPECT_TRUE(EndsWithFolded("host.Mail.Test", ".mail.test"));
  EXPECT_TRUE(EndsWithFolded("host.MAIL.te\xEF\xAC\x86", ".mail.test"));
  EXPECT_TRUE(EndsWithFolded("host.mail.test", ".mail.te\xEF\xAC\x86"));
  EXPECT_FALSE(EndsWithFolded("host.mail.te\xEF\xAC\x86", ".nail.test"));
}

TEST(IsAscii, LooksAtEveryByte) {
  EXPECT_TRUE(IsAscii(""));
  for (std::size_t size = 1; size < 30; ++size) {
    std::string text(size, '\x7F');
    EXPECT_TRUE(IsAscii(text));
    for (std::size_t at = 0; at < size; ++at) {
      text[at] = '\x80';
      EXPECT_FALSE(IsAscii(text)) << size << " " << at;
      text[at] = '\0';
    }
  }
}

TEST(HoldsAddressCharacters, TakesLettersAndNothingUnseen) {
  const struct {
    const char* text;
    bool taken;
  } rows[] = {
      {"", true},
      {"\x01 a\x7F", true},  // ASCII is looked at elsewhere
      {"j\xC3\xBCrgen", true},
      {"\xE4\xB8\xAD\xE6\x96\x87", true},
      {"\xF0\x9F\x98\x80", true},                      // a smiling face
      {"\xE0\xA4\x95\xE0\xA5\x8D\xE2\x80\x8D", true},  // a joiner, which Indian scripts need
      {"a\xC2\xAD", true},                             // a soft hyphen, which folding drops
      {"\xC5\xBF", true},
      {"\xC2\x80", false},  // a control
      {"\xC2\x9B", false},
      {"\xC2\xA0", false},  // a blank
      {"\xE3\x80\x80", false},
      {"\xE1\x9A\x80", false},  // a blank that folding does not make one
      {"\xE2\x80\xA8", false},  // line and paragraph separators
      {"\xE2\x80\xA9", false},
      {"\xE2\x80\x8E", false},  // bidirectional controls
      {"\xE2\x80\xAE", false},
      {"\xE2\x81\xA6", false},
      {"\xD8\x9C", false},
      {"\xF3\xA0\x81\x81", false},  // tags
      {"\xF3\xA0\x80\x81", false},
      {"\xEE\x80\x80", false},  // private use
      {"\xF3\xB0\x80\x80", false},
      {"\xCD\xB8", false},      // unassigned
      {"\xEF\xB7\x90", false},  // noncharacters
      {"\xEF\xBF\xBE", false},
      {"\xF4\x8F\xBF\xBF", false},
      {"\xFC", false},  // no UTF-8
      {"a\xC3", false},
      {"\xC1\x81", false},
      {"\xED\xA0\x80", false},
      {"\xF4\x90\x80\x80", false},
  };
  for (const auto& row : rows) EXPECT_EQ(HoldsAddressCharacters(row.text), row.taken) << row.text;
}

TEST(HoldsIgnorable, SeesWhatFoldingDrops) {
  for (const char* text :
       {"a\xC2\xAD", "\xE2\x80\x8B", "\xE2\x80\x8D", "\xEF\xBB\xBF", "\xEF\xB8\x8F", "\xE3\x85\xA4"}) {
    EXPECT_TRUE(HoldsIgnorable(text)) << text;
  }
  for (const char* text : {"", "a", "\xC3\xA4", "\xE4\xB8\xAD", "\xCC\x81"})
    EXPECT_FALSE(HoldsIgnorable(text)) << text;
}

}  // namespace
}  // namespace trabex

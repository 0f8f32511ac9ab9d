// Patterns that are made to cost much, and that nothing about their matches changes by that.
#include "match/pattern_run.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "match/mText.h"
#include "plain_match.h"

namespace trabex {
namespace {

using pattern::ByteSet;

// A pattern of letters, "?" and "*" that counts how often one of its elements is read.
struct CountingForm {
  std::string_view pattern;
  std::size_t& reads;

  char Read(std::size_t position) const {
    ++reads;
    return pattern[position];
  }
  static std::size_t Next(char /*code*/, std::size_t position) { return position + 1; }
  static std::size_t Seek(std::size_t /*position*/, std::string_view /*text*/, std::size_t at) { return at; }
  static bool IsRun(char code) { return code == '*'; }
  static bool IsEmpty(char /*code*/) { return false; }
  static bool Takes(char code, char c) { return code == '?' || code == c; }
  static ByteSet Bytes(char code) {
    ByteSet bytes;
    const auto byte = static_cast<unsigned char>(code);
    bytes.AddRange(code == '?' ? 0 : byte, code == '?' ? 255 : byte);
    return bytes;
  }
};

std::string Repeated(std::string_view text, std::size_t count) {
  std::string result;
  for (; count > 0; --count) result += text;
  return result;
}

std::string Letters(char letter, std::size_t count) {
  return std::string(count, letter);
}

TEST(PatternRun, ReadsFewElementsWhateverThePattern) {
  constexpr std::size_t kSize = 4096;
  const struct {
    std::string pattern;
    std::string text;
    bool matches;
  } rows[] = {
      // All of the segment but its last element matches everywhere.
      {"*" + Letters('a', kSize / 2) + "b*", Letters('a', kSize), false},
      {"*" + Letters('a', kSize / 2) + "b", Letters('a', kSize), false},
      {"*" + Letters('a', kSize / 2) + "b*", Letters('a', kSize - 1) + "b", true},
      {"*" + Letters('a', kSize / 2) + "b", Letters('a', kSize - 1) + "b", true},
      {"*" + Letters('?', kSize / 2) + "b*", Letters('a', kSize), false},
      {"*" + Letters('?', kSize / 2) + "b*", Letters('a', kSize - 1) + "b", true},
      {"*" + Repeated("a?", kSize / 4) + "b*", Letters('a', kSize), false},
      {"*" + Letters('a', 63) + "b*", Letters('a', kSize), false},
      {"*" + Letters('a', 64) + "b*", Letters('a', kSize), false},
      // All of them match in the end, each after many failures.
      {Repeated("*" + Letters('a', 20) + "b", 96) + "*", Repeated(Letters('a', 41) + "b", kSize / 42), true},
      {Repeated("*" + Letters('a', 60) + "b", 32), Repeated(Letters('a', 121) + "b", kSize / 122), true},
      {Repeated("*" + Letters('a', 500) + "b", 4) + "c", Repeated(Letters('a', 1000) + "b", 4), false},
      // Short ones, of which there are many.
      {Repeated("*a", kSize), Letters('a', kSize), true},
      {Repeated("*a", kSize / 2) + "*b*", Letters('a', kSize), false},
      {Repeated("*?a", kSize / 4) + "*ab*", Letters('a', kSize), false},
  };
  for (const auto& row : rows) {
    std::size_t reads = 0;
    const CountingForm form{row.pattern, reads};
    EXPECT_EQ(pattern::Run(row.text, form, 0, row.pattern.size()), row.matches) << row.pattern.substr(0, 80);
    EXPECT_LE(reads, 16 * kSize) << row.pattern.substr(0, 80);
    EXPECT_EQ(mText::LikeText(row.text, row.pattern), row.matches) << row.pattern.substr(0, 80);
    ExpressionList list;
    list.Add(row.pattern, {{row.pattern}, false});
    EXPECT_EQ(list.Contains(row.text), row.matches) << row.pattern.substr(0, 80);
  }
}

TEST(PatternRun, IsThePlainMatchForSegmentsThatFailOften) {
  std::mt19937 random(4096);
  static const char* const kElements[] = {"a",  "a",    "a",      "A", "?",    "[ab]", "[!c]", "[a-b]",
                                          "[]", "[!b]", "[!B-Z]", "#", "[1a]", "[!]",  "[A-C]"};
  const auto letters = [&random](std::size_t size) {
    std::string result;
    while (result.size() < size)
      result += random() % 40 == 0 ? "bB1!"[random() % 4] : random() % 2 == 0 ? 'a' : 'A';
    return result;
  };
  int matches = 0;
  constexpr int kRounds = 400;
  for (int round = 0; round < kRounds; ++round) {
    const std::string text = letters(random() % 300);
    std::string pattern = random() % 4 == 0 ? "" : "*";
    // Elements that are likely to take what the text has at most places.
    const std::size_t variety = random() % 3 == 0 ? std::size(kElements) : 8;
    for (auto segments = random() % 3 + 1; segments > 0; --segments) {
      for (auto size = random() % 90; size > 0; --size) pattern += kElements[random() % variety];
      if (random() % 8 == 0) pattern += letters(2);
      if (segments > 1 || random() % 2 == 0) pattern += "*";
    }
    if (random() % 10 == 0) pattern.insert(0, "[]");
    const bool expected = PlainMatch(text, pattern);
    ASSERT_EQ(mText::LikeText(text, pattern), expected) << pattern << "\n" << text;
    ExpressionList list;
    list.Add(pattern, {{pattern}, false});
    ASSERT_EQ(list.Contains(text), expected) << pattern << "\n" << text;
    if (expected) ++matches;
  }
  EXPECT_GT(matches, kRounds / 10);
  EXPECT_LT(matches, kRounds * 9 / 10);
}

TEST(FindSegmentEnd, FindsTheFirstMatchOfAnySize) {
  std::mt19937 random(64);
  for (const std::size_t size : {1U, 2U, 63U, 64U, 65U, 127U, 128U, 129U, 200U}) {
    for (int round = 0; round < 100; ++round) {
      // Elements of any bytes, many in each; and a text that some place of it may match.
      std::vector<ByteSet> segment(size);
      for (ByteSet& bytes : segment) {
        for (int ranges = 0; ranges < 8; ++ranges) {
          const auto low = static_cast<unsigned char>(random());
          bytes.AddRange(low, static_cast<unsigned char>(std::min<std::size_t>(low + random() % 100, 255)));
        }
        if (random() % 8 == 0) bytes.Invert();
        const auto one = static_cast<unsigned char>(random());
        bytes.AddRange(one, one);
      }
      std::string text(300, ' ');
      for (char& c : text) c = static_cast<char>(random());
      if (round % 2 == 0) {
        const std::size_t begin = random() % (text.size() - size);
        for (std::size_t at = 0; at < size; ++at) {
          while (!segment[at].Holds(static_cast<unsigned char>(text[begin + at]))) {
            text[begin + at] = static_cast<char>(random());
          }
        }
      }
      std::size_t expected = std::string::npos;
      for (std::size_t begin = 0; begin + size <= text.size() && expected == std::string::npos; ++begin) {
        std::size_t at = 0;
        while (at < size && segment[at].Holds(static_cast<unsigned char>(text[begin + at]))) ++at;
        if (at == size) expected = begin + size;
      }
      ASSERT_EQ(pattern::FindSegmentEnd(text, segment), expected) << size;
      ASSERT_TRUE(round % 2 != 0 || expected != std::string::npos);
    }
  }
}

}  // namespace
}  // namespace trabex

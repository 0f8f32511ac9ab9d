#include "proxy/dialogue/content_tracker.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

using Outcome = ContentTracker::Outcome;

// What became of content: how much of it may go to the server, and how it ends.
struct Fate {
  std::size_t bytes = 0;
  Outcome outcome = Outcome::kGoesOn;
  friend bool operator==(const Fate&, const Fate&) = default;
};

void PrintTo(const Fate& fate, std::ostream* out) {
  *out << fate.bytes
       << (fate.outcome == Outcome::kGoesOn  ? " goes on"
           : fate.outcome == Outcome::kEnded ? " ended"
                                             : " ambiguous");
}

// Gives `content` in the pieces, what was held back again with the next one.
Fate Track(const std::vector<std::string>& pieces) {
  ContentTracker tracker;
  tracker.BeginDot();
  Fate fate;
  std::string waiting;
  for (const std::string& piece : pieces) {
    waiting += piece;
    if (waiting.empty()) continue;
    const ContentTracker::Step step = tracker.Scan(waiting);
    fate.bytes += step.bytes;
    fate.outcome = step.outcome;
    if (step.outcome != Outcome::kGoesOn) return fate;
    waiting.erase(0, step.bytes);
    EXPECT_LE(waiting.size(), 1u) << "no more than a CR is ever held back";
  }
  return fate;
}

// The rule, in its own words: a dot right after CR, LF or the start of the content and right before CR, LF or
// NUL is the end in one form and in no other.
Fate Expected(const std::string& content) {
  const auto at = [&](std::size_t i) { return i < content.size() ? static_cast<int>(content[i]) : -1; };
  for (std::size_t dot = content.find('.'); dot != std::string::npos; dot = content.find('.', dot + 1)) {
    const bool at_start = dot == 0;
    const bool behind_line_end = !at_start && (content[dot - 1] == '\r' || content[dot - 1] == '\n');
    const int next = at(dot + 1);
    if (!(at_start || behind_line_end) || !(next == '\r' || next == '\n' || next == '\0')) continue;
    const bool begins_line = at_start || (dot >= 2 && content.compare(dot - 2, 2, "\r\n") == 0);
    if (!begins_line || next != '\r') return {dot + 1, Outcome::kAmbiguous};
    if (at(dot + 2) == -1) return {dot + 1, Outcome::kGoesOn};
    if (at(dot + 2) != '\n') return {dot + 1, Outcome::kAmbiguous};
    return {dot + 3, Outcome::kEnded};
  }
  return {content.size(), Outcome::kGoesOn};
}

std::vector<std::string> OneByOne(const std::string& content) {
  std::vector<std::string> pieces;
  for (const char byte : content) pieces.emplace_back(1, byte);
  return pieces;
}

std::vector<std::string> AtRandom(const std::string& content, std::mt19937& random) {
  std::vector<std::string> pieces;
  for (std::size_t at = 0; at < content.size();) {
    const std::size_t size = 1 + random() % (random() % 4 == 0 ? 60 : 4);
    pieces.push_back(content.substr(at, size));
    at += size;
  }
  return pieces;
}

TEST(ContentTracker, TheDotThatEndsContent) {
  constexpr auto kGoesOn = Outcome::kGoesOn;
  constexpr auto kEnded = Outcome::kEnded;
  constexpr auto kAmbiguous = Outcome::kAmbiguous;
  const struct {
    const char* content;
    std::size_t bytes;
    Outcome outcome;
  } rows[] = {
      // The one form.
      {R"(text\r\n.\r\n)", 9, kEnded},
      {R"(.\r\n)", 3, kEnded},
      {R"(\r\n.\r\n)", 5, kEnded},
      {R"(\r\r\n.\r\n)", 6, kEnded},
      // What follows is no content.
      {R"(a\r\n.\r\nMAIL FROM:<x@y>\r\n)", 6, kEnded},
      {R"(.\r\n.\r\n)", 3, kEnded},
      // A dot on a line with something else.
      {R"(a.\r\n)", 4, kGoesOn},
      {R"(\r\n..\r\n)", 6, kGoesOn},
      {R"(..\r\n)", 4, kGoesOn},
      {R"(\r\n.a\r\n)", 6, kGoesOn},
      {R"(\r\n. \r\n)", 6, kGoesOn},
      {R"(\r\n \r\n)", 5, kGoesOn},
      {R"(\r\n.\t\r\n)", 6, kGoesOn},
      {R"(a.\n)", 3, kGoesOn},
      {R"(\0.\r\n)", 4, kGoesOn},
      {R"(\n..\n)", 4, kGoesOn},
      {R"(\r\n...\r\n)", 7, kGoesOn},
      // Not decided yet: a dot goes on, a CR after it waits for its LF.
      {R"(\r\n.)", 3, kGoesOn},
      {R"(\r\n.\r)", 3, kGoesOn},
      {R"(.\r)", 1, kGoesOn},
      {R"(\n.)", 2, kGoesOn},
      // A wrong line end before the dot.
      {R"(\n.\r\n)", 2, kAmbiguous},
      {R"(\r.\r\n)", 2, kAmbiguous},
      {R"(\n\n.\r\n)", 3, kAmbiguous},
      {R"(\r\n\n.\r\n)", 4, kAmbiguous},
      {R"(\n\r.\r\n)", 3, kAmbiguous},
      {R"(\r\n\r.\r\n)", 4, kAmbiguous},
      {R"(a\n.\n)", 3, kAmbiguous},
      {R"(a\r.\r)", 3, kAmbiguous},
      {R"(a\n.\0)", 3, kAmbiguous},
      {R"(a\r.\0)", 3, kAmbiguous},
      {R"(a\n.\r)", 3, kAmbiguous},
      {R"(a\r.\n)", 3, kAmbiguous},
      // A wrong line end after it.
      {R"(\r\n.\n)", 3, kAmbiguous},
      {R"(\r\n.\0)", 3, kAmbiguous},
      {R"(\r\n.\ra)", 3, kAmbiguous},
      {R"(\r\n.\r\r\n)", 3, kAmbiguous},
      {R"(\r\n.\r.)", 3, kAmbiguous},
      {R"(\r\n.\r\0)", 3, kAmbiguous},
      // At the very start.
      {R"(.\n)", 1, kAmbiguous},
      {R"(.\0)", 1, kAmbiguous},
      {R"(.\rX)", 1, kAmbiguous},
      {R"(.\r\r\n)", 1, kAmbiguous},
      // Only the first doubtful dot counts, and only up to the end.
      {R"(\r\n.\r\n\n.\n)", 5, kEnded},
      {R"(\n.\n\r\n.\r\n)", 2, kAmbiguous},
  };
  for (const auto& row : rows) {
    const std::string content = Unescape(row.content);
    const Fate fate{row.bytes, row.outcome};
    EXPECT_EQ(Track({content}), fate) << row.content;
    EXPECT_EQ(Track(OneByOne(content)), fate) << row.content << ", byte by byte";
    EXPECT_EQ(Expected(content), fate) << row.content << ", the plain rule";
    for (std::size_t cut = 1; cut < content.size(); ++cut) {
      EXPECT_EQ(Track({content.substr(0, cut), content.substr(cut)}), fate)
          << row.content << ", cut at " << cut;
    }
  }
}

TEST(ContentTracker, EveryShortContentFollowsTheRule) {
  constexpr std::string_view kBytes("\r\n.\0a", 5);
  constexpr std::size_t kLongest = 6;
  std::size_t count = 0;
  for (std::size_t size = 1, many = kBytes.size(); size <= kLongest; ++size, many *= kBytes.size()) {
    for (std::size_t number = 0; number < many; ++number) {
      std::string content;
      for (std::size_t i = 0, rest = number; i < size; ++i, rest /= kBytes.size()) {
        content += kBytes[rest % kBytes.size()];
      }
      ++count;
      const Fate expected = Expected(content);
      ASSERT_EQ(Track({content}), expected) << Escape(content);
      ASSERT_EQ(Track(OneByOne(content)), expected) << Escape(content) << ", byte by byte";
    }
  }
  EXPECT_EQ(count, 19530u);
}

TEST(ContentTracker, HowContentIsSplitMakesNoDifference) {
  std::mt19937 random(20261115);
  std::size_t ended = 0;
  std::size_t ambiguous = 0;
  for (int round = 0; round < 20000; ++round) {
    // Runs of text between the bytes that matter, so that long steps are taken too.
    std::string content;
    const std::size_t parts = 1 + random() % 20;
    for (std::size_t part = 0; part < parts; ++part) {
      constexpr const char* kParts[] = {"\r\n", "\r\n", "\r\n.", "..", ".", "\r", "\n", "\r\n.\r"};
      if (random() % 3 == 0) content.append(random() % 12, 'x');
      if (random() % 40 == 0) content += '\0';
      if (random() % 10 != 0) {
        content += kParts[random() % 3];
        content += "text";
      } else {
        content += kParts[random() % std::size(kParts)];
      }
    }
    if (random() % 2 == 0) content += "\r\n.\r\nQUIT\r\n";
    const Fate expected = Expected(content);
    ended += expected.outcome == Outcome::kEnded;
    ambiguous += expected.outcome == Outcome::kAmbiguous;
    ASSERT_EQ(Track({content}), expected) << Escape(content);
    ASSERT_EQ(Track(AtRandom(content, random)), expected) << Escape(content);
  }
  // The rounds reach all of it.
  EXPECT_GT(ended, 1000u);
  EXPECT_GT(ambiguous, 1000u);
}

TEST(ContentTracker, AContentWithAnAmbiguousDotGoesNoFurther) {
  ContentTracker tracker;
  tracker.BeginDot();
  EXPECT_EQ(tracker.Scan("a\n.\n").outcome, Outcome::kAmbiguous);
  EXPECT_EQ(tracker.Scan("\n").outcome, Outcome::kAmbiguous);
  EXPECT_EQ(tracker.Scan("\n").bytes, 0u);
}

TEST(ContentTracker, ANewMessageBeginsAtALineStart) {
  ContentTracker tracker;
  tracker.BeginDot();
  EXPECT_EQ(tracker.Scan("text").outcome, Outcome::kGoesOn);
  tracker.BeginDot();
  EXPECT_EQ(tracker.Scan(".\r\n").outcome, Outcome::kEnded);
}

TEST(ContentTracker, OctetsAreCountedAndNothingElse) {
  const std::string content = "a\r\n.\r\n\n.\n bcd";
  for (std::uint64_t count = 1; count <= content.size(); ++count) {
    ContentTracker tracker;
    tracker.BeginOctets(count);
    EXPECT_EQ(tracker.OctetsLeft(), count);
    const ContentTracker::Step step = tracker.Scan(content);
    EXPECT_EQ(step.bytes, count);
    EXPECT_EQ(step.outcome, Outcome::kEnded);

    tracker.BeginOctets(count);
    std::size_t taken = 0;
    Outcome outcome = Outcome::kGoesOn;
    for (const char byte : content) {
      if (outcome == Outcome::kEnded) break;
      const ContentTracker::Step one = tracker.Scan(std::string_view(&byte, 1));
      taken += one.bytes;
      outcome = one.outcome;
    }
    EXPECT_EQ(taken, count);
    EXPECT_EQ(outcome, Outcome::kEnded);
  }
}

TEST(ContentTracker, GreatCountsGoOn) {
  ContentTracker tracker;
  tracker.BeginOctets(2000000000);
  const std::string content(100000, 'x');
  for (int i = 0; i < 10; ++i) {
    const ContentTracker::Step step = tracker.Scan(content);
    EXPECT_EQ(step.bytes, content.size());
    EXPECT_EQ(step.outcome, Outcome::kGoesOn);
  }
}

TEST(ContentTracker, ReportsHowManyOctetsAreLeft) {
  ContentTracker tracker;
  tracker.BeginOctets(5);
  EXPECT_EQ(tracker.Scan("abc").bytes, 3u);
  EXPECT_EQ(tracker.OctetsLeft(), 2u);
  const ContentTracker::Step step = tracker.Scan("deRSET\r\n");
  EXPECT_EQ(step.bytes, 2u);
  EXPECT_EQ(step.outcome, Outcome::kEnded);
  EXPECT_EQ(tracker.OctetsLeft(), 0u);
  tracker.BeginDot();
  EXPECT_EQ(tracker.OctetsLeft(), 0u);
}

}  // namespace
}  // namespace trabex

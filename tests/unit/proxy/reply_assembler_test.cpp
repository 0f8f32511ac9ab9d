#include "proxy/dialogue/reply_assembler.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "base/text.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

// The complete replies that come out when the pieces come in, each escaped.
std::vector<std::string> Assemble(const std::vector<std::string>& pieces) {
  ReplyAssembler assembler;
  std::vector<std::string> replies;
  for (const std::string& piece : pieces) {
    assembler.Append(piece);
    while (const auto reply = assembler.NextReply()) replies.push_back(Escape(*reply));
  }
  return replies;
}

const struct {
  const char* received;
  std::vector<std::string> replies;
} kRows[] = {
    {R"(220 ready\r\n)", {R"(220 ready\r\n)"}},
    {R"(250-a\r\n250-b\r\n250 c\r\n)", {R"(250-a\r\n250-b\r\n250 c\r\n)"}},
    {R"(250-\r\n250 \r\n)", {R"(250-\r\n250 \r\n)"}},
    {R"(250-a\r\n250\r\n)", {R"(250-a\r\n250\r\n)"}},
    // Several at once.
    {R"(250 a\r\n354 b\r\n)", {R"(250 a\r\n)", R"(354 b\r\n)"}},
    {R"(250-a\r\n250 b\r\n250-c\r\n250 d\r\n)", {R"(250-a\r\n250 b\r\n)", R"(250-c\r\n250 d\r\n)"}},
    // Not complete yet.
    {R"(220 rea)", {}},
    {R"(220 ready\r)", {}},
    {R"(250-a\r\n)", {}},
    {R"(250-a\r\n250-b\r\n25)", {}},
    {R"(250 a\r\n250-b\r\n)", {R"(250 a\r\n)"}},
    // A line end is CR LF and nothing else.
    {R"(250 a\n250 b\r\n)", {R"(250 a\n250 b\r\n)"}},
    {R"(250-a\r250 b\r\n)", {}},
    {R"(250-a\n250 b\r\n)", {}},
    {R"(250 a\r\r\n)", {R"(250 a\r\r\n)"}},
    // Lines that are no replies end one all the same, unless they say that they go on.
    {R"(\r\n)", {R"(\r\n)"}},
    {R"(2\r\n250 a\r\n)", {R"(2\r\n)", R"(250 a\r\n)"}},
    // What a line says of itself does not stand in the next one.
    {R"(2\r\n-x\r\n)", {R"(2\r\n)", R"(-x\r\n)"}},
    {R"(\r\n2-\r\n)", {R"(\r\n)", R"(2-\r\n)"}},
    {R"(hello\r\n)", {R"(hello\r\n)"}},
    {R"(250\r\n)", {R"(250\r\n)"}},
    {R"(250_a\r\n)", {R"(250_a\r\n)"}},
    {R"(   -\r\n250 a\r\n)", {R"(   -\r\n250 a\r\n)"}},
    {R"(-\r\n)", {R"(-\r\n)"}},
    {R"(250 a-b\r\n)", {R"(250 a-b\r\n)"}},
    // The code may differ from line to line; the "-" alone says where the reply ends.
    {R"(250-a\r\n550 b\r\n)", {R"(250-a\r\n550 b\r\n)"}},
};

TEST(ReplyAssembler, CutsWhatTheServerSendsIntoReplies) {
  for (const auto& row : kRows) EXPECT_EQ(Assemble({Unescape(row.received)}), row.replies) << row.received;
}

TEST(ReplyAssembler, HowTheNetworkSplitRepliesMakesNoDifference) {
  std::string all;
  for (const auto& row : kRows) {
    const std::string received = Unescape(row.received);
    for (std::size_t cut = 1; cut < received.size(); ++cut) {
      EXPECT_EQ(Assemble({received.substr(0, cut), received.substr(cut)}), row.replies)
          << row.received << ", cut at " << cut;
    }
    if (!row.replies.empty()) all += received;
  }
  const auto expected = Assemble({all});
  std::mt19937 random(4);
  for (int round = 0; round < 500; ++round) {
    std::vector<std::string> pieces;
    for (std::size_t at = 0; at < all.size();) {
      const std::size_t size = 1 + random() % 9;
      pieces.push_back(all.substr(at, size));
      at += size;
    }
    ASSERT_EQ(Assemble(pieces), expected);
  }
}

TEST(ReplyAssembler, AReplyWithoutAnEndBecomesTooLong) {
  ReplyAssembler assembler;
  std::size_t sent = 0;
  const std::string line = "250-" + std::string(94, 'x') + "\r\n";
  while (sent + line.size() <= ReplyAssembler::kMaxReplyBytes) {
    assembler.Append(line);
    sent += line.size();
    EXPECT_FALSE(assembler.NextReply());
    ASSERT_FALSE(assembler.TooLong()) << sent;
  }
  assembler.Append(std::string(ReplyAssembler::kMaxReplyBytes - sent, 'y'));
  EXPECT_FALSE(assembler.NextReply());
  EXPECT_FALSE(assembler.TooLong());
  assembler.Append("z");
  EXPECT_FALSE(assembler.NextReply());
  EXPECT_TRUE(assembler.TooLong());
}

TEST(ReplyAssembler, ManyShortRepliesAreNotTooLong) {
  ReplyAssembler assembler;
  std::string many;
  while (many.size() <= ReplyAssembler::kMaxReplyBytes) many += "250 ok\r\n";
  assembler.Append(many);
  std::size_t count = 0;
  while (assembler.NextReply()) ++count;
  EXPECT_EQ(count, many.size() / 8);
  EXPECT_FALSE(assembler.TooLong());
}

TEST(ReplyAssembler, WholeLinesOfABrokenReplyCanBeTaken) {
  const struct {
    const char* received;
    const char* lines;
  } rows[] = {
      {"", ""},
      {R"(421 goodb)", ""},
      {R"(250-a\r\n)", R"(250-a\r\n)"},
      {R"(250-a\r\n250-b\r\n250 c)", R"(250-a\r\n250-b\r\n)"},
      {R"(250-a\r\n\r)", R"(250-a\r\n)"},
  };
  for (const auto& row : rows) {
    ReplyAssembler assembler;
    assembler.Append(Unescape(row.received));
    EXPECT_FALSE(assembler.NextReply());
    EXPECT_EQ(Escape(assembler.TakeWholeLines()), row.lines);
    // It goes on after them.
    const std::string rest = Unescape(row.received).substr(Unescape(row.lines).size());
    assembler.Append("250 x\r\n");
    EXPECT_EQ(assembler.NextReply(), rest + "250 x\r\n");
  }
}

TEST(ReplyAssembler, ALastLineGetsWhatIsMissingOfItsEnd) {
  const struct {
    const char* received;
    std::vector<std::string> replies;
    const char* rest;
  } rows[] = {
      {"", {}, ""},
      {R"(421 goodbye)", {R"(421 goodbye\r\n)"}, ""},
      {R"(421 goodbye\r)", {R"(421 goodbye\r\n)"}, ""},
      {R"(421 goodbye\n)", {R"(421 goodbye\n\r\n)"}, ""},
      {R"(421 goodbye\r\n)", {R"(421 goodbye\r\n)"}, ""},
      {R"(4)", {R"(4\r\n)"}, ""},
      {R"(250 ok\r\n421)", {R"(250 ok\r\n)", R"(421\r\n)"}, ""},
      {R"(250-a\r\n250 b)", {R"(250-a\r\n250 b\r\n)"}, ""},
      // A reply that goes on is none yet.
      {R"(250-a)", {}, R"(250-a\r\n)"},
      {R"(250-a\r\n)", {}, R"(250-a\r\n)"},
      {R"(250-a\r\n250-b)", {}, R"(250-a\r\n250-b\r\n)"},
  };
  for (const auto& row : rows) {
    ReplyAssembler assembler;
    assembler.Append(Unescape(row.received));
    assembler.EndLine();
    std::vector<std::string> replies;
    while (const auto reply = assembler.NextReply()) replies.push_back(Escape(*reply));
    EXPECT_EQ(replies, row.replies) << row.received;
    EXPECT_EQ(Escape(assembler.TakeWholeLines()), row.rest) << row.received;
  }
}

}  // namespace
}  // namespace trabex

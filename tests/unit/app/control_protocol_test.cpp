#include "app/control_protocol.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace trabex {
namespace {

using Request = std::vector<std::string>;
using State = AnswerReader::State;

TEST(ControlRequestLine, KeepsArgumentsAsTheyAre) {
  const struct {
    Request request;
    std::string line;
  } rows[] = {
      {{"STATUS"}, "STATUS\n"},
      {{"STATUS", "trabex_sessions_open"}, "STATUS\ttrabex_sessions_open\n"},
      {{"A", "b c", "\"d\"", "'e'"}, "A\tb c\t\"d\"\t'e'\n"},
      {{"A", "", "b", ""}, "A\t\tb\t\n"},
      {{"A", "tab\tline\nback\\slash\r", "\\t"}, "A\ttab\\tline\\nback\\\\slash\r\t\\\\t\n"},
      {{"A", "\xC3\xA4\xE2\x82\xAC"}, "A\t\xC3\xA4\xE2\x82\xAC\n"},
      {{"A", std::string("\0x", 2)}, std::string("A\t\0x\n", 5)},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(FormatRequest(row.request), row.line);
    EXPECT_EQ(ParseRequest(row.line.substr(0, row.line.size() - 1)), row.request);
  }
}

TEST(ControlRequestLine, IsUtf8AndNotTooLong) {
  EXPECT_EQ(FormatRequest({"A", "\xE4"}), std::nullopt);
  EXPECT_EQ(FormatRequest({"A", std::string(kMaxRequestBytes - 3, 'x')})->size(), kMaxRequestBytes);
  EXPECT_EQ(FormatRequest({"A", std::string(kMaxRequestBytes - 2, 'x')}), std::nullopt);
  EXPECT_EQ(FormatRequest({"A", std::string(kMaxRequestBytes / 2, '\\')}), std::nullopt);
  for (const std::string line : {"", "\tx", "A\t\xE4", "A\t\\", "A\t\\x", "A\tx\\\ty", "\xC3"}) {
    EXPECT_EQ(ParseRequest(line), std::nullopt) << line;
  }
}

// The state at the end, and what came of `bytes` when they come in pieces of `size`.
struct Read {
  State state = State::kMore;
  int status = -1;
  std::string text;
  std::string error;
};
Read ReadInPieces(std::string_view bytes, std::size_t size) {
  Read read;
  AnswerReader reader({.text = [&](std::string_view text) { read.text += text; },
                       .error = [&](std::string_view text) { read.error += text; }});
  for (; !bytes.empty(); bytes.remove_prefix(std::min(size, bytes.size()))) {
    read.state = reader.Take(bytes.substr(0, size));
  }
  if (read.state == State::kComplete) read.status = reader.Status();
  return read;
}

TEST(ControlAnswerBytes, AreReadInPiecesOfAnySize) {
  std::string bytes;
  AppendAnswer({.status = 9, .text = "first\nX 3\n", .error = {}}, false, bytes);
  AppendAnswer({.status = 9, .text = {}, .error = {}}, false, bytes);
  AppendAnswer({.status = 4, .text = std::string(1000, 'y'), .error = "wrong"}, true, bytes);
  for (const std::size_t size : std::initializer_list<std::size_t>{1, 2, 3, 7, 100, 5000}) {
    const Read read = ReadInPieces(bytes, size);
    EXPECT_EQ(read.state, State::kComplete);
    EXPECT_EQ(read.status, 4);
    EXPECT_EQ(read.text, "first\nX 3\n" + std::string(1000, 'y'));
    EXPECT_EQ(read.error, "wrong");
    EXPECT_EQ(ReadInPieces(bytes + "T 5\nhello", size).text, read.text) << "behind the end";
    for (std::size_t cut = 1; cut < bytes.size(); cut += 17) {
      EXPECT_EQ(ReadInPieces(bytes.substr(0, cut), size).state, State::kMore) << cut;
    }
  }
}

TEST(ControlAnswerBytes, AStreamBeginsInTheMiddleOfAnything) {
  std::string begin;
  AppendStreamBegin(begin);
  EXPECT_EQ(begin, "S 1\n");
  const std::string bytes = begin + "X 0\nT 5\n";
  for (std::size_t size = 1; size <= bytes.size(); ++size) {
    AnswerReader reader(
        {.text = [](std::string_view) { FAIL(); }, .error = [](std::string_view) { FAIL(); }});
    State state = State::kMore;
    for (std::size_t at = 0; at < bytes.size(); at += size) {
      state = reader.Take(std::string_view(bytes).substr(at, size));
    }
    EXPECT_EQ(state, State::kStream);
    EXPECT_EQ(reader.Stream(), "X 0\nT 5\n") << "all that follows, in pieces of " << size;
  }
}

TEST(ControlAnswerBytes, AnythingElseIsBroken) {
  for (const std::string bytes : {"\n", "X\n", "X \n", "Y 1\n", "X 256\n", "X -1\n", "T -1\n", "T 1.5\n",
                                  "T 99999999999\n", "220 hello\n", "T  1\n", "S 2\n", "S\n"}) {
    EXPECT_EQ(ReadInPieces(bytes, 100).state, State::kBroken) << bytes;
    EXPECT_EQ(ReadInPieces(bytes, 1).state, State::kBroken) << bytes;
  }
  EXPECT_EQ(ReadInPieces(std::string(100, 'X'), 3).state, State::kBroken);
}

}  // namespace
}  // namespace trabex

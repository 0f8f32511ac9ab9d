#include "console/view_wire.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace trabex {
namespace {

Screen Picture(std::string text, bool takes_text = false) {
  Screen screen;
  screen.takes_text = takes_text;
  screen.lines.push_back({{.column = 0, .look = {.reverse = true}, .text = "status"}});
  screen.lines.emplace_back();
  screen.lines.push_back({{.column = 3, .look = {.colour = Colour::kCyan, .bold = true}, .text = text},
                          {.column = 999, .look = {.colour = Colour::kRed}, .text = "\u4F60"}});
  return screen;
}

std::string Frame(const Screen& screen) {
  std::string bytes;
  AppendFrame(screen, bytes);
  return bytes;
}

TEST(ViewWire, FrameArrivesAsItWasSent) {
  for (const Screen& screen : {Screen{}, Picture("row"), Picture(std::string("\0\n", 2), true)}) {
    FrameReader reader;
    reader.Append(Frame(screen));
    EXPECT_EQ(reader.Take(), screen);
    EXPECT_EQ(reader.Take(), std::nullopt);
    EXPECT_FALSE(reader.Broken());
  }
}

TEST(ViewWire, FrameIsWholeWithItsLastByteOnly) {
  const Screen screen = Picture("one");
  const std::string bytes = Frame(screen) + Frame(Picture("two"));
  const std::size_t first = Frame(screen).size();
  FrameReader reader;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    reader.Append(bytes.substr(i, 1));
    const auto taken = reader.Take();
    ASSERT_EQ(taken.has_value(), i + 1 == first || i + 1 == bytes.size()) << i;
  }
}

TEST(ViewWire, AnythingElseIsNoFrame) {
  const std::string good = Frame(Picture("row"));
  struct Row {
    const char* what;
    std::string bytes;
  };
  std::string longer = good + "x";
  longer[0] = static_cast<char>(longer[0] + 1);
  std::string lines = good;
  lines[5] = '\xFF';
  std::string piece = good;
  piece[good.size() - 4] = '\x7F';
  const Row rows[] = {{"a length beyond all frames", std::string("\xFF\xFF\xFF\x7F", 4)},
                      {"bytes behind the picture", longer},
                      {"more lines than there are", lines},
                      {"a text that is longer than the frame", piece},
                      {"nothing in it", std::string(4, '\0')}};
  for (const Row& row : rows) {
    FrameReader reader;
    reader.Append(row.bytes);
    EXPECT_EQ(reader.Take(), std::nullopt) << row.what;
    EXPECT_TRUE(reader.Broken()) << row.what;
    reader.Append(good);
    EXPECT_EQ(reader.Take(), std::nullopt) << row.what;
  }
}

TEST(ViewWire, MessagesArriveInAnyPieces) {
  std::string bytes;
  AppendMessage({.kind = ViewerMessage::Kind::kSize, .size = {.columns = 200, .rows = 50, .plain = true}},
                bytes);
  AppendMessage({.kind = ViewerMessage::Kind::kKey, .key = key::kEnd}, bytes);
  bytes += std::string(8, '\x7F');  // of a later version
  AppendMessage({.kind = ViewerMessage::Kind::kKey, .key = 0x1F600}, bytes);
  AppendMessage({.kind = ViewerMessage::Kind::kDrawn}, bytes);
  AppendMessage({.kind = ViewerMessage::Kind::kRestored}, bytes);
  for (const std::size_t size : {std::size_t{1}, std::size_t{7}, std::size_t{9}, bytes.size()}) {
    MessageReader reader;
    std::vector<ViewerMessage> taken;
    for (std::size_t at = 0; at < bytes.size(); at += size) {
      reader.Append(std::string_view(bytes).substr(at, size));
      while (const auto message = reader.Take()) taken.push_back(*message);
    }
    ASSERT_EQ(taken.size(), 5U) << size;
    EXPECT_EQ(taken[0].size, (ViewerSize{.columns = 200, .rows = 50, .plain = true}));
    EXPECT_EQ(taken[1].key, key::kEnd);
    EXPECT_EQ(taken[2].key, 0x1F600U);
    EXPECT_EQ(taken[3].kind, ViewerMessage::Kind::kDrawn);
    EXPECT_EQ(taken[4].kind, ViewerMessage::Kind::kRestored);
  }
}

TEST(ViewWire, ATerminalBeyondAllMeasuresIsCut) {
  MessageReader reader;
  reader.Append(std::string("\x01\x00\xFF\xFF\xFF\xFF\xFF\xFF", 8));
  const auto message = reader.Take();
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->size, (ViewerSize{.columns = 1000, .rows = 500}));
}

TEST(ViewWire, AnyBytesAreTakenWithoutHarm) {
  std::mt19937 random(14);
  for (int round = 0; round < 2000; ++round) {
    std::string bytes = Frame(Picture("row"));
    for (int changes = 0; changes < 4; ++changes) {
      bytes[random() % bytes.size()] = static_cast<char>(random() & 0xFF);
    }
    FrameReader frames;
    frames.Append(bytes);
    while (frames.Take()) {
    }
    MessageReader messages;
    messages.Append(bytes);
    while (const auto message = messages.Take()) {
      EXPECT_LE(message->size.columns, 1000U);
      EXPECT_LE(message->size.rows, 500U);
    }
  }
}

}  // namespace
}  // namespace trabex

#include "console/screen_feed.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "console/view_wire.h"
#include "platform/event_loop.h"
#include "support/fake_clock.h"

namespace trabex {
namespace {

// Says what it is told to, and counts how often it is asked.
class ToldScreen final : public ViewScreen {
 public:
  struct Facts {
    std::string text = "first";
    bool unfinished = false;
    int made = 0;
    ViewerSize size;
    std::vector<Key> keys;
  };
  explicit ToldScreen(Facts& facts) : facts_(facts) {}

  void SetSize(const ViewerSize& size) override { facts_.size = size; }
  void TakeKey(Key key) override { facts_.keys.push_back(key); }
  Screen Make() override {
    ++facts_.made;
    Screen screen;
    Put(screen.lines.emplace_back(), 0, facts_.text, 80);
    return screen;
  }
  bool IsUnfinished() const override { return facts_.unfinished; }
  bool Closed() const override { return false; }
  bool Folded() const override { return false; }

 private:
  Facts& facts_;
};

class ScreenFeedTest : public ::testing::Test {
 protected:
  void Say(const ViewerMessage& message) {
    std::string bytes;
    AppendMessage(message, bytes);
    feed_.Take(bytes);
  }
  void SaySize() { Say({.kind = ViewerMessage::Kind::kSize, .size = {.columns = 80, .rows = 24}}); }
  void SayDrawn() { Say({.kind = ViewerMessage::Kind::kDrawn}); }
  // What the viewer gets; "" for nothing.
  std::string Sent() {
    FrameReader reader;
    reader.Append(feed_.Output());
    feed_.Sent(feed_.Output().size());
    const auto screen = reader.Take();
    return screen ? screen->lines.at(0).at(0).text : std::string();
  }

  FakeClock clock_;
  EventLoop loop_{clock_};
  ToldScreen::Facts facts_;
  int outputs_ = 0;
  ScreenFeed feed_{loop_, std::make_unique<ToldScreen>(facts_), [this] { ++outputs_; }};
};

TEST_F(ScreenFeedTest, MakesNoPictureBeforeTheViewerHasASize) {
  feed_.Refresh();
  EXPECT_FALSE(feed_.Begun());
  EXPECT_EQ(facts_.made, 0);
  SaySize();
  EXPECT_TRUE(feed_.Begun());
  EXPECT_EQ(facts_.size.columns, 80U);
  EXPECT_EQ(Sent(), "first");
}

TEST_F(ScreenFeedTest, SendsNothingThatHasNotChanged) {
  SaySize();
  EXPECT_EQ(Sent(), "first");
  SayDrawn();
  for (int i = 0; i < 3; ++i) {
    feed_.Refresh();
    EXPECT_TRUE(feed_.Output().empty());
  }
  facts_.text = "second";
  feed_.Refresh();
  EXPECT_EQ(Sent(), "second");
}

TEST_F(ScreenFeedTest, MakesNothingForAViewerThatDoesNotDraw) {
  SaySize();
  EXPECT_EQ(Sent(), "first");
  for (int i = 0; i < 100; ++i) {
    facts_.text = std::to_string(i);
    feed_.Refresh();
  }
  EXPECT_EQ(facts_.made, 1);
  EXPECT_TRUE(feed_.Output().empty());
  SayDrawn();
  EXPECT_EQ(Sent(), "99");
}

TEST_F(ScreenFeedTest, MakesNothingWhileTheFrameIsNotSentWhole) {
  SaySize();
  feed_.Sent(3);
  SayDrawn();  // which cannot be
  facts_.text = "second";
  feed_.Refresh();
  EXPECT_EQ(facts_.made, 1);
}

TEST_F(ScreenFeedTest, ManyKeysMakeOnePicture) {
  SaySize();
  Sent();
  SayDrawn();
  std::string bytes;
  for (const Key pressed : {key::kDown, key::kDown, Key{'m'}}) {
    AppendMessage({.kind = ViewerMessage::Kind::kKey, .key = pressed}, bytes);
  }
  const int before = facts_.made;
  feed_.Take(bytes);
  EXPECT_EQ(facts_.keys, (std::vector<Key>{key::kDown, key::kDown, 'm'}));
  EXPECT_EQ(facts_.made, before + 1);
}

TEST_F(ScreenFeedTest, WhatIsUnfinishedIsFinishedSoon) {
  facts_.unfinished = true;
  SaySize();
  Sent();
  SayDrawn();
  facts_.text = "more";
  clock_.Advance(ScreenFeed::kUnfinishedInterval);
  loop_.RunOnce(Milliseconds(0));
  EXPECT_EQ(outputs_, 1);
  EXPECT_EQ(Sent(), "more");
  SayDrawn();
  facts_.unfinished = false;
  feed_.Refresh();
  clock_.Advance(ScreenFeed::kUnfinishedInterval);
  loop_.RunOnce(Milliseconds(0));
  EXPECT_EQ(outputs_, 1);
}

TEST_F(ScreenFeedTest, WhatIsUnfinishedWaitsForAViewerThatDoesNotDraw) {
  facts_.unfinished = true;
  SaySize();
  Sent();
  for (int i = 0; i < 10; ++i) {
    clock_.Advance(ScreenFeed::kUnfinishedInterval);
    loop_.RunOnce(Milliseconds(0));
  }
  // One turn at most finds out that it does not draw.
  EXPECT_LE(outputs_, 1);
  EXPECT_EQ(facts_.made, 1);
  const int before = outputs_;
  facts_.text = "second";
  SayDrawn();
  EXPECT_EQ(Sent(), "second");
  SayDrawn();
  clock_.Advance(ScreenFeed::kUnfinishedInterval);
  loop_.RunOnce(Milliseconds(0));
  EXPECT_EQ(outputs_, before + 1);
}

TEST_F(ScreenFeedTest, TellsThatTheTerminalIsRestored) {
  EXPECT_FALSE(feed_.Restored());
  Say({.kind = ViewerMessage::Kind::kRestored});
  EXPECT_TRUE(feed_.Restored());
}

}  // namespace
}  // namespace trabex

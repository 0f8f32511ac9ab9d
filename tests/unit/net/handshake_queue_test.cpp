#include "net/handshake_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fake_clock.h"
#include "support/loop_runner.h"
#include "support/recorded_log.h"

namespace trabex {
namespace {

class HandshakeQueueTest : public testing::Test {
 protected:
  // One whose steps take `cost` each and are noted under `name`.
  std::unique_ptr<HandshakeQueue::Place> Place(std::string name, Milliseconds cost = Milliseconds{0}) {
    return std::make_unique<HandshakeQueue::Place>(
        queue, true,
        [this, name, cost] {
          done += name;
          clock.Advance(cost);
        },
        [this, name] { done += "-" + name; });
  }
  std::string Turn() {
    loop.RunOnce(Milliseconds{0});
    return std::exchange(done, {});
  }

  FakeClock clock;
  EventLoop loop{clock};
  RecordedLog log;
  HandshakeQueue queue{loop, log};
  std::string done;
};

TEST_F(HandshakeQueueTest, TakesStepsForFiveMillisecondsATurn) {
  std::vector<std::unique_ptr<HandshakeQueue::Place>> places;
  for (const char* const name : {"a", "b", "c", "d", "e"}) places.push_back(Place(name, Milliseconds{2}));
  for (const auto& place : places) place->Ready();
  EXPECT_EQ(done, "");
  EXPECT_EQ(Turn(), "abc");
  EXPECT_EQ(Turn(), "de");
  EXPECT_EQ(Turn(), "");
}

TEST_F(HandshakeQueueTest, TakesAtLeastOne) {
  const auto a = Place("a", Milliseconds{50});
  const auto b = Place("b", Milliseconds{50});
  a->Ready();
  b->Ready();
  EXPECT_EQ(Turn(), "a");
  a->Ready();
  EXPECT_EQ(Turn(), "b");
  EXPECT_EQ(Turn(), "a");
}

TEST_F(HandshakeQueueTest, OneStepStandsForAllThatMadeItReady) {
  const auto a = Place("a");
  a->Ready();
  a->Ready();
  EXPECT_EQ(Turn(), "a");
  EXPECT_EQ(Turn(), "");
}

TEST_F(HandshakeQueueTest, OneThatIsGoneTakesNoStep) {
  auto a = Place("a");
  auto b = Place("b");
  a->Ready();
  b->Ready();
  a.reset();
  EXPECT_EQ(Turn(), "b");
  EXPECT_EQ(queue.Unfinished(), 1U);
}

TEST_F(HandshakeQueueTest, AStepMayEndIt) {
  std::unique_ptr<HandshakeQueue::Place> place;
  place = std::make_unique<HandshakeQueue::Place>(
      queue, true,
      [&] {
        place.reset();
        done += "gone";
      },
      [] {});
  place->Ready();
  EXPECT_EQ(Turn(), "gone");
  EXPECT_EQ(queue.Unfinished(), 0U);
}

TEST_F(HandshakeQueueTest, OneMoreThanTheMostEvictsTheOldest) {
  queue.SetMax(2);
  const auto a = Place("a");
  const auto b = Place("b");
  a->Ready();
  const auto c = Place("c");
  EXPECT_EQ(done, "");
  EXPECT_EQ(queue.Unfinished(), 2U);
  a->Ready();  // does nothing any more
  EXPECT_EQ(Turn(), "-a");
  auto d = Place("d");
  auto e = Place("e");
  d.reset();
  EXPECT_EQ(Turn(), "-b-c");
  EXPECT_EQ(queue.Unfinished(), 1U);
}

TEST_F(HandshakeQueueTest, AfterTheMostHasFallenTheNextOneEvictsAllThatAreTooMany) {
  const auto a = Place("a");
  const auto b = Place("b");
  const auto c = Place("c");
  queue.SetMax(2);
  EXPECT_EQ(Turn(), "");
  const auto d = Place("d");
  EXPECT_EQ(queue.Unfinished(), 2U);
  EXPECT_EQ(Turn(), "-a-b");
  queue.SetMax(0);
  const auto e = Place("e");
  EXPECT_EQ(Turn(), "");
  EXPECT_EQ(queue.Unfinished(), 3U);
}

TEST_F(HandshakeQueueTest, AnErrorOfAStepIsLoggedAndTheOthersGoOn) {
  HandshakeQueue::Place bad(
      queue, false, [] { throw Error(7, "Here", "no memory"); }, [] {});
  const auto a = Place("a");
  bad.Ready();
  a->Ready();
  EXPECT_EQ(Turn(), "a");
  EXPECT_EQ(log.Lines().size(), 1U);
}

}  // namespace
}  // namespace trabex

// What a pipe of Windows cannot: callers that end their side and still listen, and bytes that are taken at once.
#include "app/control_server.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "unit/app/control_server_fixture.h"

namespace trabex {
namespace {

TEST_F(ControlServerTest, OneThatEndsItsSideStillGetsTheAnswer) {
  ControlCallerPeer caller(name_);
  caller.Send("ECHO\tx\n");
  caller.EndSending();
  EXPECT_TRUE(Runs([&] { return caller.Ended(); }));
  EXPECT_EQ(caller.Heard(), "T 3\n[x]X 3\n");
}

TEST_F(ControlServerTest, OneThatEndsItsSideInALineIsHungUpOn) {
  ControlCallerPeer gone(name_);
  gone.Send("ECHO\tx");
  gone.EndSending();
  ASSERT_TRUE(Runs([&] { return gone.Ended(); }));
  EXPECT_EQ(gone.Heard(), "");
  EXPECT_EQ(server_.CallerCount(), 0U);
}

// The system takes a slice at once, so that both are ready for the next one in the next turn.
TEST_F(ControlServerTest, SlicesOfTwoAlternate) {
  ControlCallerPeer first(name_);
  ControlCallerPeer second(name_);
  ASSERT_TRUE(Runs([&] { return server_.CallerCount() == 2; }));
  first.Send("SLICES\t3000\n");
  second.Send("SLICES\t20\n");
  ASSERT_TRUE(Runs([&] { return second.Ended(); }));
  // It may be heard a little later.
  const auto begin = std::find(slices_made_.begin(), slices_made_.end(), 20);
  ASSERT_LT(begin - slices_made_.begin(), 2900);
  EXPECT_EQ(std::count(begin, begin + 38, 20), 19);
}

// A pipe of Windows has its name as long as one of its callers is there.
TEST_F(ControlServerTest, OldNameIsGoneBesideAWaitingCaller) {
  ControlCallerPeer caller(name_);
  caller.Send("LATER\n");
  ASSERT_TRUE(Runs([&] { return later_asked_ == 1; }));
  ASSERT_TRUE(server_.Open(name_ + "1"));
  EXPECT_FALSE(ControlCallerPeer(name_).Connected());
}

}  // namespace
}  // namespace trabex

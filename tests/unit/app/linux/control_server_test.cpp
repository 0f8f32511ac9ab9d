// Callers that end their side and still listen, which a pipe of Windows cannot.
#include "app/control_server.h"

#include <gtest/gtest.h>

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

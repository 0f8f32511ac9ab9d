// Callers that go: a pipe has one end for both directions.
#include "app/control_server.h"

#include <gtest/gtest.h>

#include <memory>

#include "unit/app/control_server_fixture.h"

namespace trabex {
namespace {

TEST_F(ControlServerTest, OneThatGoesBeforeItsAnswerLeavesNothing) {
  auto gone = std::make_unique<ControlCallerPeer>(name_);
  gone->Send("LATER\n");
  ASSERT_TRUE(Runs([&] { return later_asked_ == 1; }));
  gone.reset();
  RunUntilIdle(loop_);
  later_->Give({.status = 0, .text = "for nobody\n", .error = {}});
  EXPECT_TRUE(Runs([&] { return server_.CallerCount() == 0; }));
  EXPECT_EQ(Answer("ECHO\tx\n"), "T 3\n[x]X 3\n");
}

TEST_F(ControlServerTest, OneThatGoesInsideItsAnswerEndsIt) {
  auto gone = std::make_unique<ControlCallerPeer>(name_);
  gone->Send("SLICES\t1000000\n");
  ASSERT_TRUE(Runs([&] { return gone->SomethingWaits(); }));
  gone.reset();
  EXPECT_TRUE(Runs([&] { return server_.CallerCount() == 0; }));
  EXPECT_LT(slices_made_.size(), 1'000'000U);
  EXPECT_EQ(Answer("ECHO\tx\n"), "T 3\n[x]X 3\n");
}

}  // namespace
}  // namespace trabex

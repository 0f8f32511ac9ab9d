// When a send counts as stuck: with figures alone, and with a real peer.
#include "net/send_stall.h"

#include "net_fixture.h"

namespace trabex {
namespace {

constexpr std::chrono::seconds kSecond{1};

// Looks once a second, as long as `progress` says; returns after how many seconds it was found stuck, 0 for
// never.
int SecondsUntilStuck(int seconds, const std::function<std::optional<std::int64_t>(int second)>& progress) {
  SendStall stall;
  MonotonicTime now{};
  for (int second = 0; second <= seconds; ++second, now += kSecond) {
    if (stall.Look(progress(second), now)) return second;
  }
  return 0;
}

TEST(SendStall, ASendThatNeverMovesIsStuckAfterThreeHundredSeconds) {
  EXPECT_EQ(SecondsUntilStuck(299, [](int) { return 77; }), 0);
  EXPECT_EQ(SecondsUntilStuck(1000, [](int) { return 77; }), 300);
  EXPECT_EQ(SecondsUntilStuck(1000, [](int) { return 0; }), 300);
}

TEST(SendStall, OneByteASecondIsProgress) {
  EXPECT_EQ(SecondsUntilStuck(100000, [](int second) { return second; }), 0);
  // Nor is it stuck when it shows in portions; and it is when that ends.
  EXPECT_EQ(SecondsUntilStuck(100000, [](int second) { return second / 299 * 299; }), 0);
  EXPECT_EQ(SecondsUntilStuck(100000, [](int second) { return std::min(second, 5000); }), 5300);
}

TEST(SendStall, TheTimeOfOneSendIsNotThatOfTheNext) {
  // Every 200 seconds nothing waits for a moment, with the same figure.
  EXPECT_EQ(SecondsUntilStuck(
                10000,
                [](int second) { return second % 200 == 0 ? std::nullopt : std::optional<std::int64_t>(5); }),
            0);
  EXPECT_EQ(SecondsUntilStuck(10000, [](int) { return std::nullopt; }), 0);
}

TEST(SendStall, LooksMayBeFarApart) {
  SendStall stall;
  MonotonicTime now{};
  EXPECT_FALSE(stall.Look(1, now));
  EXPECT_FALSE(stall.Look(2, now += 1000 * kSecond));
  EXPECT_FALSE(stall.Look(2, now += 299 * kSecond));
  EXPECT_TRUE(stall.Look(2, now += 1 * kSecond));
}

class SendStallTest : public NetTest {
 protected:
  // Makes a send wait; the peer does not read.
  void FillUp() {
    peer = std::make_unique<Peer>(loop);
    peer->ReceiveLittle();
    Connection();
    while ((*accepted)->PendingBytes() == 0) (*accepted)->SendData(std::string(1 << 16, 'x'));
    RunUntilIdle(loop);
  }
  bool LookAfter(int seconds) {
    clock.Advance(seconds * kSecond);
    return stall.Look(**accepted, clock.Monotonic());
  }

  SendStall stall;
};

TEST_F(SendStallTest, APeerThatDoesNotReadIsStuck) {
  FillUp();
  EXPECT_FALSE(LookAfter(0));
  EXPECT_FALSE(LookAfter(299));
  // The system may still move a little of what it has, in its own time.
  EXPECT_TRUE(RunUntil(loop, [&] { return LookAfter(300); }));
}

// All that the peer reads at a time is far less than what makes the system take more.
TEST_F(SendStallTest, APeerThatReadsALittleIsNot) {
  if (!AcknowledgementsAreTold()) GTEST_SKIP() << "Wine does not tell what the other end has acknowledged";
  FillUp();
  const std::size_t pending = (*accepted)->PendingBytes();
  const std::int64_t begin = (*accepted)->SendProgressMade();
  std::int64_t before = begin;
  for (int step = 0; step < 20; ++step) {
    EXPECT_FALSE(LookAfter(0));
    EXPECT_FALSE(LookAfter(299));
    // Byte by byte, until the peer's system has announced the room and the next bytes have come.
    std::string bytes;
    peer->RunWith([&] {
      peer->ReceiveSome(bytes, 1);
      return (*accepted)->SendProgressMade() > before;
    });
    EXPECT_LT(bytes.size(), 16384U);
    before = (*accepted)->SendProgressMade();
  }
  EXPECT_EQ((*accepted)->PendingBytes(), pending);
  EXPECT_TRUE(RunUntil(loop, [&] { return LookAfter(300); }));
}

TEST_F(SendStallTest, NothingThatWaitsIsNotStuck) {
  Connection();
  (*accepted)->SendData("hello");
  EXPECT_FALSE(LookAfter(0));
  EXPECT_FALSE(LookAfter(1000));
  EXPECT_FALSE(LookAfter(1000));
}

TEST_F(SendStallTest, ProgressCountsWhatTheSystemTookAndWhatThePeerHas) {
  Connection();
  EXPECT_EQ((*accepted)->SendProgressMade(), 0);
  (*accepted)->SendData("hello");
  ASSERT_TRUE(RunUntil(loop, [&] { return (*accepted)->SendProgressMade() == 10; }));
  EXPECT_EQ(peer->Receive(5), "hello");
  EXPECT_EQ((*accepted)->SendProgressMade(), 10);
  (*accepted)->CloseSck();
  EXPECT_EQ((*accepted)->SendProgressMade(), 0);
}

}  // namespace
}  // namespace trabex

// Bytes that go from one socket object to another through a pipe of the system: the same ones as by a copy, with
// the same events and counters.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "net_fixture.h"

namespace trabex {
namespace {

constexpr std::int32_t kNoLimit = std::numeric_limits<std::int32_t>::max();

// Any part of it differs from any other.
std::string Pattern(std::size_t count) {
  std::string text(count, '\0');
  std::uint32_t state = 1;
  for (char& c : text) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return text;
}

// As the plain one, but it has to see what it carries.
class SeeingStream final : public Stream {
 public:
  explicit SeeingStream(Sockets& sockets) : plain_(sockets) {}

  int Read(SocketHandle socket, std::span<char> space, std::size_t& received) override {
    return plain_.Read(socket, space, received);
  }
  int Write(SocketHandle socket, std::string_view data, std::size_t& sent, bool more_follows) override {
    return plain_.Write(socket, data, sent, more_follows);
  }
  int ShutDownWrite(SocketHandle socket) override { return plain_.ShutDownWrite(socket); }
  std::size_t Pending(SocketHandle socket) override { return plain_.Pending(socket); }

 private:
  PlainStream plain_;
};

class PassTest : public NetTest {
 protected:
  // From `source` over From() and To() to `target`, whose system holds little for it.
  void Connections() {
    Connection();
    from_ = std::move(accepted);
    source = std::move(peer);
    peer = std::make_unique<Peer>(loop);
    peer->ReceiveLittle();
    Connection();
    to_ = std::move(accepted);
    target = std::move(peer);
  }
  CSocketMaster& From() { return **from_; }
  CSocketMaster& To() { return **to_; }
  TracedSocket& Traced() { return *to_; }

  // What a session does with what is there, `limit` bytes of it at most, while nothing waits to be sent.
  void Relay(std::int32_t limit = kNoLimit) {
    if (To().PendingBytes() > 0 || From().PassTo(To(), limit) > 0) return;
    const std::string_view there = From().PeekView(std::min(limit, 65536));
    if (there.empty()) return;
    To().SendData(there);
    From().Consume(static_cast<std::int32_t>(there.size()));
  }
  // Relays `all`, of which the target takes `portion` bytes at a time; returns what it got.
  std::string RelayAll(const std::string& all, std::size_t portion) {
    std::size_t given = 0;
    std::string got;
    target->RunWith([&] {
      if (given < all.size()) given += source->SendSome(all.substr(given, 1 << 20));
      Relay();
      target->ReceiveSome(got, portion);
      return got.size() >= all.size();
    });
    return got;
  }
  // Relays until bytes wait in a pipe; returns what the source has sent.
  std::string RelayUntilHeld() {
    const std::string portion = Pattern(100000);
    std::string all;
    target->RunWith([&] {
      all += portion.substr(0, source->SendSome(portion));
      Relay();
      return module.LentPipes() > 0;
    });
    return all;
  }
  // Everything that the source has sent, and what is unsent, when the target takes it.
  std::string Rest(std::size_t size) {
    std::string got;
    target->RunWith([&] {
      if (!unsent.empty()) unsent.erase(0, source->SendSome(unsent));
      Relay();
      got += target->ReceiveNow();
      return got.size() >= size;
    });
    return got;
  }

  std::unique_ptr<TracedSocket> from_;
  std::unique_ptr<TracedSocket> to_;
  std::unique_ptr<Peer> source;
  std::unique_ptr<Peer> target;
  std::string unsent;
};

TEST_F(PassTest, TheBytesArriveAsTheyAreAndMostlyUnseen) {
  for (const std::size_t portion : {std::size_t{1} << 20, std::size_t{20011}}) {
    SCOPED_TRACE(portion);
    Connections();
    const std::uint64_t before = module.PassedBytes();
    const std::string all = Pattern(2 << 20);
    EXPECT_TRUE(RelayAll(all, portion) == all);
    RunUntilIdle(loop);
    EXPECT_GT(module.PassedBytes() - before, all.size() / 2);
    EXPECT_EQ(From().BytesReceived(), static_cast<std::int64_t>(all.size()));
    EXPECT_EQ(To().BytesSent(), static_cast<std::int64_t>(all.size()));
    EXPECT_EQ(To().PendingBytes(), 0U);
    EXPECT_EQ(module.LentPipes(), 0U);
    EXPECT_TRUE(Traced().Take().ends_with(",0) SendComplete"));
  }
}

TEST_F(PassTest, NoMoreIsTakenThanIsAskedFor) {
  Connections();
  constexpr std::int32_t kLimit = 300001;
  const std::string all = Pattern(4 << 20);
  std::size_t given = 0;
  std::int32_t left = kLimit;
  std::string got;
  target->RunWith([&] {
    if (given < all.size()) given += source->SendSome(all.substr(given));
    const std::int64_t before = From().BytesReceived();
    if (left > 0) Relay(left);
    left -= static_cast<std::int32_t>(From().BytesReceived() - before);
    got += target->ReceiveNow();
    return got.size() >= static_cast<std::size_t>(kLimit);
  });
  unsent = all.substr(given);
  EXPECT_TRUE(got == all.substr(0, kLimit));
  EXPECT_GT(module.PassedBytes(), 0U);
  // The others are announced, and are there.
  EXPECT_TRUE(from_->Take().ends_with("DataArrival"));
  EXPECT_EQ(From().PeekView(10), all.substr(kLimit, 10));
  EXPECT_TRUE(Rest(all.size() - kLimit) == all.substr(kLimit));
}

TEST_F(PassTest, WhatIsSentLaterWaitsBehindThePipe) {
  Connections();
  std::string all = RelayUntilHeld();
  const std::size_t pending = To().PendingBytes();
  EXPECT_GT(pending, 0U);
  EXPECT_EQ(To().BytesSent() + static_cast<std::int64_t>(pending), From().BytesReceived());
  To().SendData("behind");
  EXPECT_EQ(To().PendingBytes(), pending + 6);
  EXPECT_EQ(From().PassTo(To(), kNoLimit), 0);
  const auto taken = static_cast<std::size_t>(From().BytesReceived());
  EXPECT_TRUE(Rest(all.size() + 6) == all.substr(0, taken) + "behind" + all.substr(taken));
}

TEST_F(PassTest, AnOrderlyCloseSendsWhatIsInThePipe) {
  Connections();
  const std::string all = RelayUntilHeld();
  const auto taken = static_cast<std::size_t>(From().BytesReceived());
  To().CloseSck();
  EXPECT_EQ(module.LentPipes(), 0U);
  EXPECT_TRUE(target->ReceiveToEnd() == all.substr(0, taken));
}

TEST_F(PassTest, ABrokenConnectionGivesThePipeBack) {
  Connections();
  RelayUntilHeld();
  target->Reset();
  ASSERT_TRUE(RunUntil(loop, [&] { return To().State() == SocketState::sckError; }));
  EXPECT_NE(Traced().Take().find("Error(10054)"), std::string::npos);
  To().CloseSck();
  EXPECT_EQ(module.LentPipes(), 0U);
}

TEST_F(PassTest, AnObjectThatGoesGivesThePipeBack) {
  Connections();
  RelayUntilHeld();
  to_.reset();
  EXPECT_EQ(module.LentPipes(), 0U);
}

TEST_F(PassTest, TheEndAndWhatIsBeforeItComeAsByACopy) {
  Connections();
  const std::string all = Pattern(2 << 20);
  std::size_t given = 0;
  std::string got;
  target->RunWith([&] {
    if (given < all.size() && (given += source->SendSome(all.substr(given))) == all.size())
      source->EndSending();
    if (From().State() == SocketState::sckConnected) Relay();
    got += target->ReceiveNow();
    return From().State() == SocketState::sckClosing && got.size() >= all.size();
  });
  EXPECT_TRUE(got == all);
  EXPECT_TRUE(from_->Take().ends_with("CloseSck"));
}

TEST_F(PassTest, AStreamThatHasToSeeTheBytesDoes) {
  for (const bool at_source : {true, false}) {
    SCOPED_TRACE(at_source);
    Connections();
    CSocketMaster& seeing = at_source ? From() : To();
    EXPECT_EQ(seeing.SetStream(std::make_unique<SeeingStream>(sockets)), "");
    const std::string all = Pattern(2 << 20);
    EXPECT_TRUE(RelayAll(all, 1 << 20) == all);
    EXPECT_EQ(module.PassedBytes(), 0U);
  }
}

TEST_F(PassTest, LittleIsCopied) {
  Connections();
  const std::string all = Pattern(5000);
  EXPECT_TRUE(RelayAll(all, 5000) == all);
  EXPECT_EQ(module.PassedBytes(), 0U);
}

}  // namespace
}  // namespace trabex

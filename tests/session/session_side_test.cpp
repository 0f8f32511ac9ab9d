// One side of a session by itself: what leaves together, and when.
#include "proxy/session_side.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "config/configuration.h"
#include "net/stream.h"
#include "support/counted_allocations.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/test_peer.h"

namespace trabex {
namespace {

// Writes down what it is given at a time, and takes no more of all than `room`.
class WatchedStream final : public Stream {
 public:
  struct Given {
    std::string bytes;
    bool more_follows;
    friend bool operator==(const Given&, const Given&) = default;
  };

  int Read(SocketHandle, std::span<char>, std::size_t&) override { return socket_error::kWouldBlock; }
  int Write(SocketHandle, std::string_view data, std::size_t& sent, bool more_follows) override {
    given.push_back({std::string(data), more_follows});
    sent = std::min(room, data.size());
    room -= sent;
    taken.append(data.substr(0, sent));
    return sent > 0 ? 0 : socket_error::kWouldBlock;
  }
  int ShutDownWrite(SocketHandle) override { return socket_error::kWouldBlock; }
  std::size_t Pending(SocketHandle) override { return 0; }

  std::vector<Given> given;
  std::string taken;
  std::size_t room = std::string::npos;
};

using Given = std::vector<WatchedStream::Given>;

// Takes all lines, with memory or without.
class NoLog final : public Log {
 public:
  void LogLine(std::string_view) override {}
};

class SessionSideTest : public testing::Test, public SessionSide::Owner {
 protected:
  explicit SessionSideTest(SessionSide::Peer of = SessionSide::Peer::kServer)
      : side(std::make_unique<SessionSide>(of, dependencies_, *this)) {
    configuration_.LogLevelServer = configuration_.LogLevelRemote = 255;
    CSocketMaster listener(module_);
    listener.Events.ConnectionRequest = [this](std::int32_t request) { side->Socket().Accept(request); };
    listener.Bind(0, "127.0.0.1");
    listener.Listen();
    peer = TestPeer::Connect(static_cast<std::uint16_t>(listener.LocalPort()));
    while (!side->IsConnected()) loop_.RunOnce(Milliseconds(1));
    auto watched = std::make_unique<WatchedStream>();
    stream = watched.get();
    EXPECT_EQ(side->Socket().SetStream(std::move(watched)), "");
    // That of the connection that can be written to.
    loop_.RunOnce(Milliseconds(0));
  }

  void Pass(int milliseconds) {
    clock_.Advance(Milliseconds(milliseconds));
    loop_.RunOnce(Milliseconds(0));
  }
  // The socket can be written to again.
  void Go(std::size_t room) {
    stream->room = room;
    static_cast<SocketSink&>(side->Socket()).OnSocketEvent(Handle(), SocketEvent::kWrite, 0);
  }

  void OnSideEvent(SessionSide&, SessionSide::Event) override { ++events; }

 private:
  // Of the side's socket, whose generation nobody tells.
  SocketHandle Handle() {
    SocketHandle socket{side->Socket().SocketHandle(), 0};
    Endpoint local;
    while (sockets_.LocalEndpoint(socket, local) != 0) ++socket.generation;
    return socket;
  }

  Configuration configuration_ = DefaultConfiguration();
  FakeClock clock_;
  EventLoop loop_{clock_};
  FakeNameLookup names_{loop_};
  Sockets sockets_{loop_};
  NoLog log_;
  modSocketMaster module_{sockets_, names_, log_};
  SessionCollection sessions_;
  TlsContexts tls_;
  SessionDependencies dependencies_{configuration_, log_, clock_, loop_, module_, names_, sessions_, tls_};

 protected:
  std::unique_ptr<SessionSide> side;
  TestPeer peer;
  WatchedStream* stream = nullptr;
  int events = 0;
};

TEST_F(SessionSideTest, WhatIsHeldLeavesWithWhatFollows) {
  side->Send("header\r\n", true);
  EXPECT_EQ(stream->given, Given());
  EXPECT_FALSE(side->Sending());
  side->Send("content");
  EXPECT_EQ(stream->given, (Given{{"header\r\ncontent", false}}));
  EXPECT_FALSE(side->Sending());
  EXPECT_TRUE(side->SentAtOnce());
  Pass(1000);
  EXPECT_EQ(stream->given.size(), 1U);
}

TEST_F(SessionSideTest, SeveralAreHeldTogether) {
  side->Send("one,", true);
  side->Send("two,", true);
  side->Send("three");
  EXPECT_EQ(stream->given, (Given{{"one,two,three", false}}));
}

TEST_F(SessionSideTest, WhatIsHeldLeavesAloneWhenNothingFollows) {
  side->Send("header\r\n", true);
  Pass(149);
  EXPECT_EQ(stream->given, Given());
  const int before = events;
  Pass(1);
  EXPECT_EQ(stream->given, (Given{{"header\r\n", false}}));
  EXPECT_GT(events, before);
  side->Send("content");
  EXPECT_EQ(stream->given, (Given{{"header\r\n", false}, {"content", false}}));
}

// The most that is copied is what one TLS record takes.
TEST_F(SessionSideTest, MuchContentIsSentFromWhereItLies) {
  const std::string header = "header\r\n";
  for (const std::size_t size : {std::size_t{16384}, 16384 - header.size() + 1}) {
    const std::string content(size, 'x');
    side->Send(header, true);
    side->Send(content);
    EXPECT_EQ(stream->given, (Given{{header, true}, {content, false}})) << size;
    stream->given.clear();
  }
  const std::string content(16384 - header.size(), 'x');
  side->Send(header, true);
  side->Send(content);
  EXPECT_EQ(stream->given, (Given{{header + content, false}}));
}

TEST_F(SessionSideTest, ANetworkThatTakesOnlyAPartGetsTheRestLater) {
  for (const std::size_t size : {std::size_t{100}, std::size_t{20000}}) {
    for (const std::size_t room : {std::size_t{0}, std::size_t{3}, std::size_t{50}}) {
      stream->room = room;
      stream->taken.clear();
      side->Send("header\r\n", true);
      side->Send(std::string(size, 'x'));
      EXPECT_TRUE(side->Sending());
      Go(4);
      EXPECT_TRUE(side->Sending());
      Go(std::string::npos);
      EXPECT_FALSE(side->Sending());
      EXPECT_EQ(stream->taken, "header\r\n" + std::string(size, 'x')) << size << " in a network for " << room;
    }
  }
  stream->room = 3;
  stream->taken.clear();
  side->Send("header\r\n", true);
  Pass(150);
  EXPECT_TRUE(side->Sending());
  Go(std::string::npos);
  EXPECT_FALSE(side->Sending());
  EXPECT_EQ(stream->taken, "header\r\n");
}

// The network is full when the time is over: order and end of the send stay.
TEST_F(SessionSideTest, WhatIsHeldQueuesBehindASend) {
  stream->room = 2;
  side->Send("DATA\r\n");
  side->Send("header\r\n", true);
  EXPECT_TRUE(side->Sending());
  Pass(150);
  EXPECT_TRUE(side->Sending());
  Go(std::string::npos);
  EXPECT_FALSE(side->Sending());
  EXPECT_EQ(stream->taken, "DATA\r\nheader\r\n");
}

TEST_F(SessionSideTest, WhatIsHeldLeavesBeforeTheEnd) {
  side->Send("header\r\n", true);
  side->Close();
  EXPECT_EQ(stream->taken, "header\r\n");
  EXPECT_FALSE(side->IsConnected());
  Pass(1000);
}

class ClientSideTest : public SessionSideTest {
 protected:
  ClientSideTest() : SessionSideTest(SessionSide::Peer::kClient) {}
};

TEST_F(ClientSideTest, ItClosesWithoutMemoryToSendWhatIsHeldOrToTellOfIt) {
  side->Send("header\r\n", true);
  {
    const FailedAllocation failure(0, FailedAllocation::kAll);
    EXPECT_NO_THROW(side->Close());
    EXPECT_TRUE(failure.HasFailed());
  }
  EXPECT_EQ(side->Socket().State(), SocketState::sckClosed);
}

}  // namespace
}  // namespace trabex

// The meaning of the five notifications, as a table that holds on every platform: only platform/sockets.h is
// used, for both ends of a connection.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "platform/bind_errors.h"
#include "platform/clock.h"
#include "platform/sockets.h"
#include "support/ip_address.h"
#include "support/loop_runner.h"
#include "support/told_by_system.h"

namespace trabex {
namespace {

constexpr IPAddress kLoopback = kIPv4Loopback;

// Records its notifications: "READ", "CLOSE(10054)" ..., and may act on it.
class Recorder final : public SocketSink {
 public:
  void OnSocketEvent(SocketHandle socket, SocketEvent event, int error) override {
    if (!notified.empty()) notified += ' ';
    notified += Name(event);
    if (error != 0) notified += "(" + std::to_string(error) + ")";
    if (action) action(socket, event);
  }

  static const char* Name(SocketEvent event) {
    switch (event) {
      case SocketEvent::kRead:
        return "READ";
      case SocketEvent::kWrite:
        return "WRITE";
      case SocketEvent::kAccept:
        return "ACCEPT";
      case SocketEvent::kConnect:
        return "CONNECT";
      case SocketEvent::kClose:
        return "CLOSE";
    }
    return "?";
  }

  std::string notified;
  std::function<void(SocketHandle, SocketEvent)> action;
};

// Two ends of one connection: `ours` is the accepted one, `peer` is not watched.
class Bench {
 public:
  explicit Bench(const IPAddress& loopback = kLoopback) {
    Must(sockets.Open(Transport::kTcp, FamilyOf(loopback), listener));
    Must(sockets.BindExclusively(listener, {loopback, 0}));
    Must(sockets.Listen(listener, 0));
    Must(sockets.LocalEndpoint(listener, address));
  }

  // Everything else begins with this: the connection is made and watched, and has had its first FD_WRITE.
  void Connection() {
    peer = NewClient();
    AcceptOurs();
    sockets.Watch(ours, &recorder);
    Until("WRITE");
    recorder.notified.clear();
  }

  SocketHandle NewClient() {
    SocketHandle client;
    Must(sockets.Open(Transport::kTcp, FamilyOf(address.address), client));
    const int result = sockets.Connect(client, address);
    EXPECT_TRUE(result == 0 || result == socket_error::kWouldBlock) << result;
    return client;
  }
  void AcceptOurs() {
    int result = socket_error::kWouldBlock;
    RunUntil(loop, [&] { return (result = sockets.Accept(listener, ours)) != socket_error::kWouldBlock; });
    Must(result);
  }

  void PeerSends(std::size_t count) {
    const std::string data(count, 'p');
    std::size_t sent = 0;
    Must(sockets.Send(peer, data, sent));
    ASSERT_EQ(sent, count);
  }
  void PeerCloses() { Must(sockets.Close(peer)); }
  void PeerEndsSending() { Must(sockets.ShutDownSending(peer)); }
  // Closing with our data unread makes the system reset the connection.
  void PeerResets() {
    std::size_t sent = 0;
    Must(sockets.Send(ours, std::string(1, 'u'), sent));
    std::size_t there = 0;
    RunUntil(loop, [&] { return sockets.Available(peer, there) == 0 && there == 1; });
    PeerCloses();
  }
  // Takes what has come until `count` bytes have.
  void PeerReceives(std::size_t count) {
    std::vector<char> room(1 << 16);
    std::size_t total = 0;
    RunUntil(loop, [&] {
      std::size_t received = 0;
      if (sockets.Receive(peer, room, received) == 0) total += received;
      return total >= count;
    });
    EXPECT_EQ(total, count);
  }

  // One receive, which shall give `expected` bytes.
  void Receive(std::size_t room_size, std::size_t expected) {
    std::vector<char> room(room_size);
    std::size_t received = 0;
    const int result = sockets.Receive(ours, room, received);
    EXPECT_TRUE(result == 0 || (expected == 0 && result == socket_error::kWouldBlock)) << result;
    EXPECT_EQ(received, expected);
  }
  // Waits until `count` bytes can be received, without a receive.
  void Arrived(std::size_t count) {
    std::size_t there = 0;
    RunUntil(loop, [&] { return sockets.Available(ours, there) == 0 && there >= count; });
    ASSERT_EQ(there, count);
  }
  // Sends until the system takes no more; `filled` is how much it took.
  void Fill() {
    const std::string data(1 << 16, 'f');
    std::size_t sent = 0;
    int result = 0;
    while ((result = sockets.Send(ours, data, sent)) == 0) filled += sent;
    EXPECT_EQ(result, socket_error::kWouldBlock);
  }

  // Runs until `of` has been notified of this, and on until nothing is left to do.
  void Until(const std::string& expected, const Recorder* from = nullptr) {
    const Recorder& of = from != nullptr ? *from : recorder;
    RunUntil(
        loop, [&] { return of.notified.size() >= expected.size(); }, std::chrono::seconds(5));
    RunUntilIdle(loop);
    EXPECT_EQ(of.notified, expected);
  }
  // A loop that has nothing to do sleeps.
  void ExpectSleep() {
    const Milliseconds wait{5};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(loop.RunOnce(wait));
    EXPECT_GE(std::chrono::steady_clock::now() - start, wait);
  }
  static void Must(int result) { ASSERT_EQ(result, 0); }

  SystemClock clock;
  EventLoop loop{clock};
  Sockets sockets{loop};
  Recorder recorder;
  Recorder second;
  SocketHandle listener;
  Endpoint address;
  SocketHandle ours;
  SocketHandle peer;
  std::size_t filled = 0;
};

struct Step {
  std::function<void(Bench&)> act;
  std::string notified;  // all notifications since the connection was made, once this step has had its effect
};

struct Row {
  const char* name;
  std::vector<Step> steps;
};

void Connection(Bench& b) {
  b.Connection();
}
void PeerCloses(Bench& b) {
  b.PeerCloses();
}
void PeerEndsSending(Bench& b) {
  b.PeerEndsSending();
}
void PeerResets(Bench& b) {
  b.PeerResets();
}
void Fill(Bench& b) {
  b.Fill();
}
auto PeerSends(std::size_t count) {
  return [=](Bench& b) { b.PeerSends(count); };
}
auto Receive(std::size_t room, std::size_t expected) {
  return [=](Bench& b) { b.Receive(room, expected); };
}
void SendSomething(Bench& b) {
  std::size_t sent = 0;
  Bench::Must(b.sockets.Send(b.ours, std::string(10, 's'), sent));
}
void PeerReceivesAll(Bench& b) {
  b.PeerReceives(b.filled);
}
void Unwatch(Bench& b) {
  Bench::Must(b.sockets.Watch(b.ours, nullptr));
}
void Watch(Bench& b) {
  Bench::Must(b.sockets.Watch(b.ours, &b.recorder));
}
void WatchListener(Bench& b) {
  Bench::Must(b.sockets.Watch(b.listener, &b.recorder));
}
void NewClient(Bench& b) {
  b.peer = b.NewClient();
}
void Accept(Bench& b) {
  Bench::Must(b.sockets.Accept(b.listener, b.ours));
}

const Row kRows[] = {
    {"ReadWhenDataIsThere", {{Connection, ""}, {PeerSends(5), "READ"}}},
    {"ReadOnlyOnceUntilAReceiveWasTried",
     {{Connection, ""}, {PeerSends(5), "READ"}, {PeerSends(5), "READ"}, {PeerSends(5), "READ"}}},
    {"ReadAgainWhenMoreIsThereAfterAReceive",
     {{Connection, ""},
      {PeerSends(10), "READ"},
      {Receive(4, 4), "READ READ"},
      {Receive(4, 4), "READ READ READ"},
      {Receive(4, 2), "READ READ READ"}}},
    {"NoReadWhenAReceiveThatFilledItsRoomTookEverything",
     {{Connection, ""}, {PeerSends(4), "READ"}, {Receive(4, 4), "READ"}, {Receive(4, 0), "READ"}}},
    {"ReadForDataThatCameAfterAReceiveThatTookEverything",
     {{Connection, ""},
      {PeerSends(4), "READ"},
      {Receive(100, 4), "READ"},
      {PeerSends(4), "READ READ"},
      {Receive(100, 4), "READ READ"},
      {Receive(100, 0), "READ READ"},
      {PeerSends(4), "READ READ READ"}}},
    {"ReadForDataThatCameBeforeTheWatch",
     {{[](Bench& b) {
         b.peer = b.NewClient();
         b.AcceptOurs();
         b.PeerSends(5);
         b.Arrived(5);
         b.sockets.Watch(b.ours, &b.recorder);
       },
       "READ WRITE"}}},
    {"SeveralReceivesBetweenTwoIterationsNotifyOfNothing",
     {{Connection, ""},
      {PeerSends(10), "READ"},
      {[](Bench& b) {
         b.Receive(4, 4);
         b.Receive(4, 4);
         b.Receive(4, 2);
       },
       "READ"},
      {PeerSends(1), "READ READ"}}},
    {"AfterAReceiveThatTookEverythingTheNextOneWaitsForTheNotification",
     {{Connection, ""},
      {PeerSends(4), "READ"},
      {[](Bench& b) {
         b.Receive(100, 4);
         b.PeerSends(4);
         b.Arrived(4);
         b.Receive(100, 0);
       },
       "READ READ"},
      {Receive(100, 4), "READ READ"}}},
    {"NoReadForDataThatWasTakenInTheSameIteration",
     {{Connection, ""},
      {[](Bench& b) {
         b.PeerSends(5);
         b.Arrived(5);
         b.loop.Post([&b] { b.Receive(100, 5); });  // after the wait, before the events
       },
       ""},
      {PeerSends(1), "READ"}}},

    {"WriteOnceWhenTheConnectionIsMade",
     {{[](Bench& b) {
         b.peer = b.NewClient();
         b.AcceptOurs();
         b.sockets.Watch(b.ours, &b.recorder);
       },
       "WRITE"}}},
    {"NoWriteAfterASendThatDidNotBlock", {{Connection, ""}, {SendSomething, ""}, {SendSomething, ""}}},
    {"WriteAfterASendThatWouldHaveBlockedWhenItCanGoOn",
     {{Connection, ""}, {Fill, ""}, {PeerReceivesAll, "WRITE"}, {SendSomething, "WRITE"}}},
    {"WriteAfterASendThatTookOnlyAPart",
     {{Connection, ""},
      {[](Bench& b) {
         const std::string data(64 << 20, 'f');
         Bench::Must(b.sockets.Send(b.ours, data, b.filled));
         EXPECT_LT(b.filled, data.size());
       },
       ""},
      {PeerReceivesAll, "WRITE"}}},
    {"WriteWhenTheConnectionBreaksUnderAWaitingSend",
     {{Connection, ""},
      {[](Bench& b) {
         b.Fill();
         b.PeerCloses();  // our data lies there unread, so this resets
       },
       "CLOSE(10054) WRITE"},
      {[](Bench& b) {
         std::size_t sent = 0;
         EXPECT_EQ(b.sockets.Send(b.ours, std::string("x"), sent), 10054);
       },
       "CLOSE(10054) WRITE"}}},

    {"AcceptOnceUntilAnAcceptWasTried",
     {{WatchListener, ""}, {NewClient, "ACCEPT"}, {NewClient, "ACCEPT"}, {NewClient, "ACCEPT"}}},
    {"AcceptAgainAfterAnAcceptWhenAnotherOneWaits",
     {{WatchListener, ""},
      {NewClient, "ACCEPT"},
      {NewClient, "ACCEPT"},
      {Accept, "ACCEPT ACCEPT"},
      {Accept, "ACCEPT ACCEPT"},
      {NewClient, "ACCEPT ACCEPT ACCEPT"}}},
    {"AcceptForAConnectionThatCameWhileUnwatched",
     {{NewClient, ""},
      {WatchListener, "ACCEPT"},
      {Accept, "ACCEPT"},
      {[](Bench& b) { Bench::Must(b.sockets.Watch(b.listener, nullptr)); }, "ACCEPT"},
      {NewClient, "ACCEPT"},
      {WatchListener, "ACCEPT ACCEPT"}}},

    {"ConnectOnceWhenTheConnectionIsMadeThenWrite",
     {{[](Bench& b) {
         b.ours = b.NewClient();
         b.sockets.Watch(b.ours, &b.recorder);
       },
       "CONNECT WRITE"}}},
    {"ConnectComesBeforeTheDataThatCameWithIt",
     {{[](Bench& b) {
         const SocketHandle client = b.NewClient();
         b.AcceptOurs();
         std::size_t sent = 0;
         Bench::Must(b.sockets.Send(b.ours, std::string("hello"), sent));
         b.ours = client;
         b.Arrived(5);
         b.sockets.Watch(b.ours, &b.recorder);
       },
       "CONNECT READ WRITE"}}},

    {"CloseWhenThePeerEnds", {{Connection, ""}, {PeerCloses, "CLOSE"}}},
    {"CloseOnlyAfterEverythingWasRead",
     {{Connection, ""},
      {[](Bench& b) {
         b.PeerSends(10);
         b.PeerCloses();
       },
       "READ"},
      {Receive(4, 4), "READ READ"},
      {Receive(4, 4), "READ READ READ"},
      {Receive(4, 2), "READ READ READ CLOSE"}}},
    {"CloseAfterDataThatFilledItsRoom",
     {{Connection, ""},
      {[](Bench& b) {
         b.PeerSends(4);
         b.PeerCloses();
       },
       "READ"},
      {Receive(4, 4), "READ CLOSE"}}},
    {"CloseWhenTheEndComesWhileDataLiesUnread",
     {{Connection, ""}, {PeerSends(4), "READ"}, {PeerCloses, "READ"}, {Receive(100, 4), "READ CLOSE"}}},
    {"CloseOnceAlsoWhenAReceiveFoundTheEnd",
     {{Connection, ""},
      {PeerSends(4), "READ"},
      {PeerCloses, "READ"},
      {[](Bench& b) {
         b.Receive(100, 4);
         b.Receive(100, 0);
         b.Receive(100, 0);
       },
       "READ CLOSE"},
      {Receive(100, 0), "READ CLOSE"}}},
    {"CloseForAPeerThatOnlyEndsItsSendingAndWeCanStillSend",
     {{Connection, ""}, {PeerEndsSending, "CLOSE"}, {Fill, "CLOSE"}, {PeerReceivesAll, "CLOSE WRITE"}}},
    {"CloseForAnEndThatCameBeforeTheWatch",
     {{[](Bench& b) {
         b.peer = b.NewClient();
         b.AcceptOurs();
         b.PeerSends(3);
         b.PeerCloses();
         b.Arrived(3);
         b.sockets.Watch(b.ours, &b.recorder);
       },
       "READ WRITE"},
      {Receive(100, 3), "READ WRITE CLOSE"}}},
    {"CloseWhenThePeerResets", {{Connection, ""}, {PeerResets, "CLOSE(10054)"}}},
    {"DataThatCameBeforeAResetIsReadFirst",
     {{Connection, ""},
      {[](Bench& b) {
         b.PeerSends(5);
         b.PeerResets();
       },
       "READ"},
      {Receive(100, 5), "READ CLOSE(10054)"}}},
    {"CloseReportsAResetThatAReceiveFoundFirst",
     {{Connection, ""},
      {PeerSends(5), "READ"},
      {PeerResets, "READ"},
      {[](Bench& b) {
         b.Receive(100, 5);
         char room[10];
         std::size_t received = 0;
         int result = 0;
         RunUntil(b.loop, [&] { return (result = b.sockets.Receive(b.ours, room, received)) != 10035; });
         EXPECT_TRUE(result == 10054 || result == 0) << result;  // 0 once the loop has asked before us
       },
       "READ CLOSE(10054)"}}},

    {"WhatIsPendingWhileUnwatchedGoesToTheNextSink",
     {{Connection, ""},
      {[](Bench& b) {
         b.Fill();
         Unwatch(b);
       },
       ""},
      {[](Bench& b) {
         b.PeerReceives(b.filled);
         b.PeerSends(5);
         b.PeerCloses();
       },
       ""},
      {Watch, "READ WRITE"},
      {Receive(100, 5), "READ WRITE CLOSE"}}},
    {"WhatWasDeliveredIsNotRepeatedForTheNextSink",
     {{Connection, ""},
      {PeerSends(5), "READ"},
      {[](Bench& b) {
         Unwatch(b);
         Watch(b);
       },
       "READ"}}},
    {"ASocketClosedInItsOwnNotificationGetsNoOther",
     {{[](Bench& b) {
         b.peer = b.NewClient();
         b.AcceptOurs();
         b.PeerSends(5);
         b.PeerEndsSending();
         b.Arrived(5);
         b.recorder.action = [&b](SocketHandle socket, SocketEvent) {
           Bench::Must(b.sockets.Close(socket));
           // The index is given out again at once; what was due for the old one must not reach it.
           SocketHandle again;
           Bench::Must(b.sockets.Open(Transport::kTcp, FamilyOf(b.address.address), again));
           EXPECT_EQ(again.index, socket.index);
           EXPECT_NE(again.generation, socket.generation);
           b.sockets.Watch(again, &b.second);
         };
         b.sockets.Watch(b.ours, &b.recorder);
       },
       "READ"},
      {[](Bench& b) { EXPECT_EQ(b.second.notified, ""); }, "READ"}}},
    {"ANotificationMayUnwatchAndTheRestComesLater",
     {{[](Bench& b) {
         b.peer = b.NewClient();
         b.AcceptOurs();
         b.PeerSends(5);
         b.Arrived(5);
         b.recorder.action = [&b](SocketHandle socket, SocketEvent) {
           b.sockets.Watch(socket, nullptr);
           b.recorder.action = nullptr;
         };
         b.sockets.Watch(b.ours, &b.recorder);
       },
       "READ"},
      {Watch, "READ WRITE"}}},
};

class Notifications : public testing::TestWithParam<Row> {
 protected:
  static void Play(Bench& bench) {
    for (std::size_t i = 0; i < GetParam().steps.size(); ++i) {
      SCOPED_TRACE("step " + std::to_string(i + 1));
      GetParam().steps[i].act(bench);
      bench.Until(AsTold(GetParam().steps[i].notified));
    }
    bench.ExpectSleep();
    EXPECT_EQ(bench.recorder.notified, AsTold(GetParam().steps.back().notified));
  }
};

TEST_P(Notifications, AreDeliveredAsDocumented) {
  Bench bench;
  Play(bench);
}

TEST_P(Notifications, AreThoseOfIPv6Too) {
  Bench bench(kIPv6Loopback);
  Play(bench);
}

INSTANTIATE_TEST_SUITE_P(Table, Notifications, testing::ValuesIn(kRows),
                         [](const testing::TestParamInfo<Row>& row) { return std::string(row.param.name); });

TEST(NotificationsTest, ARefusedConnectIsNotifiedOnceWithItsError) {
  Bench bench;
  SocketHandle client;
  Bench::Must(bench.sockets.Open(Transport::kTcp, AddressFamily::kIPv4, client));
  bench.sockets.Watch(client, &bench.recorder);
  Bench::Must(bench.sockets.Close(bench.listener));
  const int result = bench.sockets.Connect(client, bench.address);
  if (result == socket_error::kWouldBlock) {
    bench.Until("CONNECT(10061)");
  } else {
    EXPECT_EQ(result, socket_error::kConnectionRefused);  // the system may know at once
    bench.Until("");
  }
  bench.ExpectSleep();
}

TEST(NotificationsTest, EventsOfManySocketsAllArrive) {
  // More than one iteration takes at once.
  Bench bench;
  constexpr int kCount = 300;
  std::vector<SocketHandle> clients;
  int reads = 0;
  Recorder recorder;
  recorder.action = [&](SocketHandle, SocketEvent event) { reads += event == SocketEvent::kRead ? 1 : 0; };
  for (int i = 0; i < kCount; ++i) {
    clients.push_back(bench.NewClient());
    bench.AcceptOurs();
    bench.sockets.Watch(bench.ours, &recorder);
  }
  RunUntilIdle(bench.loop);
  for (const SocketHandle client : clients) {
    bench.peer = client;
    bench.PeerSends(1);
  }
  EXPECT_TRUE(RunUntil(bench.loop, [&] { return reads == kCount; }));
}

TEST(NotificationsTest, ABusySocketDoesNotStarveAnotherOne) {
  // One socket whose owner takes one byte at a time of very many, and so is notified again at once, for ever.
  Bench bench;
  bench.Connection();
  const SocketHandle busy = bench.ours;
  bench.PeerSends(60000);
  bench.Arrived(60000);
  const auto take_one = [&] {
    char byte = 0;
    std::size_t received = 0;
    Bench::Must(bench.sockets.Receive(busy, {&byte, 1}, received));
    EXPECT_EQ(received, 1U);
  };
  int busy_reads = 0;
  bench.recorder.action = [&](SocketHandle socket, SocketEvent event) {
    ASSERT_EQ(socket, busy);
    if (event != SocketEvent::kRead) return;
    ++busy_reads;
    take_one();
  };
  // Another one with a single message.
  bench.peer = bench.NewClient();
  bench.AcceptOurs();
  bench.PeerSends(1);
  bench.Arrived(1);

  // From here on the first one is busy, and its turn comes first.
  take_one();
  bench.sockets.Watch(bench.ours, &bench.second);
  EXPECT_TRUE(RunUntil(bench.loop, [&] { return bench.second.notified == "READ WRITE"; }));
  EXPECT_LT(busy_reads, 10);

  // It was busy all the time: it still is.
  std::size_t left = 0;
  Bench::Must(bench.sockets.Available(busy, left));
  EXPECT_GT(left, 0U);
  const int reads_until_then = busy_reads;
  EXPECT_TRUE(RunUntil(bench.loop, [&] { return busy_reads > reads_until_then + 10; }));
}

class DatagramsTest : public testing::TestWithParam<IPAddress> {};
INSTANTIATE_TEST_SUITE_P(Loopback, DatagramsTest, testing::Values(kLoopback, kIPv6Loopback),
                         [](const auto& loopback) { return loopback.param.IsIPv6() ? "IPv6" : "IPv4"; });

TEST_P(DatagramsTest, AreNotifiedOneByOne) {
  Bench bench;
  SocketHandle receiver;
  SocketHandle sender;
  Endpoint to;
  Bench::Must(bench.sockets.Open(Transport::kUdp, FamilyOf(GetParam()), receiver));
  Bench::Must(bench.sockets.Bind(receiver, {GetParam(), 0}));
  Bench::Must(bench.sockets.LocalEndpoint(receiver, to));
  Bench::Must(bench.sockets.Watch(receiver, &bench.recorder));
  Bench::Must(bench.sockets.Open(Transport::kUdp, FamilyOf(GetParam()), sender));
  Bench::Must(bench.sockets.AllowBroadcast(sender));
  for (const char* text : {"one", "second", "3"})
    Bench::Must(bench.sockets.SendTo(sender, std::string(text), to));
  bench.Until("READ");

  std::array<char, 100> room{};
  std::size_t received = 0;
  Endpoint from;
  std::size_t waiting = 0;
  Bench::Must(bench.sockets.Available(receiver, waiting));
  EXPECT_EQ(waiting, 3U);
  Bench::Must(bench.sockets.ReceiveFrom(receiver, room, true, received, from));
  EXPECT_EQ(std::string(room.data(), received), "one");
  bench.Until("READ READ");  // a peek is a receive that was tried, and there is more
  Bench::Must(bench.sockets.ReceiveFrom(receiver, room, false, received, from));
  EXPECT_EQ(std::string(room.data(), received), "one");
  EXPECT_EQ(from.address, GetParam());
  bench.Until("READ READ READ");
  Bench::Must(bench.sockets.ReceiveFrom(receiver, room, false, received, from));
  EXPECT_EQ(std::string(room.data(), received), "second");
  bench.Until("READ READ READ READ");
  Bench::Must(bench.sockets.Receive(receiver, room, received));
  EXPECT_EQ(std::string(room.data(), received), "3");
  bench.Until("READ READ READ READ");
  EXPECT_EQ(bench.sockets.ReceiveFrom(receiver, room, false, received, from), socket_error::kWouldBlock);
  bench.ExpectSleep();
}

TEST(SocketsTest, AStaleHandleIsNoSocketForEveryCall) {
  Bench bench;
  SocketHandle stale;
  Bench::Must(bench.sockets.Open(Transport::kTcp, AddressFamily::kIPv4, stale));
  Bench::Must(bench.sockets.Close(stale));
  SocketHandle again;
  Bench::Must(bench.sockets.Open(Transport::kTcp, AddressFamily::kIPv4, again));
  ASSERT_EQ(again.index, stale.index);

  Sockets& s = bench.sockets;
  std::array<char, 10> room{};
  std::size_t size = 0;
  int bytes = 0;
  Endpoint endpoint;
  SocketHandle other;
  for (const SocketHandle handle : {stale, SocketHandle{}, SocketHandle{0, 0}, SocketHandle{100000, 0}}) {
    const int results[] = {
        s.Close(handle),
        s.Watch(handle, &bench.recorder),
        s.Bind(handle, {kLoopback, 0}),
        s.BindExclusively(handle, {kLoopback, 0}),
        s.Listen(handle, 0),
        s.Accept(handle, other),
        s.Connect(handle, bench.address),
        s.ShutDownSending(handle),
        s.Send(handle, room, size),
        s.Receive(handle, room, size),
        s.SendTo(handle, room, bench.address),
        s.ReceiveFrom(handle, room, false, size, endpoint),
        s.Available(handle, size),
        s.LocalEndpoint(handle, endpoint),
        s.RemoteEndpoint(handle, endpoint),
        s.SendBufferSize(handle, bytes),
        s.ReceiveBufferSize(handle, bytes),
        s.AllowBroadcast(handle),
    };
    for (const int result : results) EXPECT_EQ(result, socket_error::kNotSocket);
  }
}

class EndpointsTest : public testing::TestWithParam<IPAddress> {};
INSTANTIATE_TEST_SUITE_P(Loopback, EndpointsTest, testing::Values(kLoopback, kIPv6Loopback),
                         [](const auto& loopback) { return loopback.param.IsIPv6() ? "IPv6" : "IPv4"; });

TEST_P(EndpointsTest, AndBufferSizesOfAConnection) {
  Bench bench(GetParam());
  SocketHandle client = bench.NewClient();
  Endpoint caller;
  int result = socket_error::kWouldBlock;
  RunUntil(bench.loop, [&] {
    result = bench.sockets.Accept(bench.listener, bench.ours, &caller);
    return result != socket_error::kWouldBlock;
  });
  Bench::Must(result);
  Endpoint of_client;
  Bench::Must(bench.sockets.LocalEndpoint(client, of_client));
  EXPECT_EQ(caller, of_client);
  Endpoint seen;
  Bench::Must(bench.sockets.RemoteEndpoint(bench.ours, seen));
  EXPECT_EQ(seen, of_client);
  Bench::Must(bench.sockets.RemoteEndpoint(client, seen));
  EXPECT_EQ(seen, bench.address);
  int bytes = 0;
  Bench::Must(bench.sockets.SendBufferSize(client, bytes));
  EXPECT_GT(bytes, 0);
  Bench::Must(bench.sockets.ReceiveBufferSize(client, bytes));
  EXPECT_GT(bytes, 0);
}

TEST(SocketsTest, AnUnwatchedSocketIsAlwaysAsked) {
  Bench bench;
  bench.peer = bench.NewClient();
  bench.AcceptOurs();
  for (int i = 0; i < 3; ++i) {
    bench.PeerSends(4);
    bench.Arrived(4);
    bench.Receive(100, 4);
  }
}

TEST(SocketsTest, AnAddressOfAnotherFamilyIsRefused) {
  Bench bench;
  for (const IPAddress& own : {kLoopback, kIPv6Loopback}) {
    SocketHandle stream;
    SocketHandle datagram;
    Bench::Must(bench.sockets.Open(Transport::kTcp, FamilyOf(own), stream));
    Bench::Must(bench.sockets.Open(Transport::kUdp, FamilyOf(own), datagram));
    for (const IPAddress& address : {IPAddress(), own == kLoopback ? kIPv6Loopback : kLoopback}) {
      const Endpoint endpoint{address, 0};
      EXPECT_EQ(bench.sockets.Bind(stream, endpoint), socket_error::kAddressFamily);
      EXPECT_EQ(bench.sockets.BindExclusively(stream, endpoint), socket_error::kAddressFamily);
      EXPECT_EQ(bench.sockets.Connect(stream, endpoint), socket_error::kAddressFamily);
      EXPECT_EQ(bench.sockets.SendTo(datagram, "x", endpoint), socket_error::kAddressFamily);
    }
    bench.sockets.Close(stream);
    bench.sockets.Close(datagram);
  }
}

TEST(SocketsTest, AllAddressesOfBothFamiliesShareAPort) {
  // Whichever comes first: one of IPv6 leaves those of IPv4 alone. Nothing listens, so nobody can call.
  Bench bench;
  for (const auto& [first, second] : {std::pair{kIPv4Any, kIPv6Any}, std::pair{kIPv6Any, kIPv4Any}}) {
    // The system chooses a port that is free in the first family. In the second one a connection of another
    // program may have it, even one that has ended a minute ago; then the next choice will do.
    constexpr int kMaxChoices = 20;
    int result = socket_error::kAddressInUse;
    for (int i = 0; i < kMaxChoices && result == socket_error::kAddressInUse; ++i) {
      SocketHandle one;
      SocketHandle other;
      Endpoint bound;
      Bench::Must(bench.sockets.Open(Transport::kTcp, FamilyOf(first), one));
      Bench::Must(bench.sockets.Bind(one, {first, 0}));
      Bench::Must(bench.sockets.LocalEndpoint(one, bound));
      EXPECT_EQ(bound.address, first);
      Bench::Must(bench.sockets.Open(Transport::kTcp, FamilyOf(second), other));
      result = bench.sockets.Bind(other, {second, bound.port});
      bench.sockets.Close(one);
      bench.sockets.Close(other);
    }
    EXPECT_EQ(result, 0);
  }
}

TEST(SocketsTest, ACallerComesToTheListenerOfItsFamily) {
  Bench bench;
  SocketHandle ipv6;
  Bench::Must(bench.sockets.Open(Transport::kTcp, AddressFamily::kIPv6, ipv6));
  Bench::Must(bench.sockets.BindExclusively(ipv6, {kIPv6Loopback, bench.address.port}));
  Bench::Must(bench.sockets.Listen(ipv6, 0));
  const std::tuple<IPAddress, SocketHandle, SocketHandle> rows[] = {{kLoopback, bench.listener, ipv6},
                                                                    {kIPv6Loopback, ipv6, bench.listener}};
  for (const auto& row : rows) {
    const IPAddress& address = std::get<0>(row);
    SocketHandle client;
    Bench::Must(bench.sockets.Open(Transport::kTcp, FamilyOf(address), client));
    const int result = bench.sockets.Connect(client, {address, bench.address.port});
    EXPECT_TRUE(result == 0 || result == socket_error::kWouldBlock) << result;
    SocketHandle accepted;
    Endpoint peer;
    EXPECT_TRUE(
        RunUntil(bench.loop, [&] { return bench.sockets.Accept(std::get<1>(row), accepted, &peer) == 0; }));
    EXPECT_EQ(peer.address, address);
    EXPECT_EQ(bench.sockets.Accept(std::get<2>(row), accepted), socket_error::kWouldBlock);
  }
}

TEST(SocketsTest, OneEndpointHasOneListener) {
  Bench bench;
  for (const IPAddress& address : {kLoopback, kIPv4Any}) {
    SocketHandle second;
    Bench::Must(bench.sockets.Open(Transport::kTcp, AddressFamily::kIPv4, second));
    EXPECT_EQ(bench.sockets.BindExclusively(second, {address, bench.address.port}),
              socket_error::kAddressInUse);
    EXPECT_TRUE(MayBeTaken(socket_error::kAddressInUse));
  }
}

TEST(SocketsTest, AListenerOnAllAddressesHasEachOfThem) {
  Bench bench;
  SocketHandle all;
  Bench::Must(bench.sockets.Close(bench.listener));
  Bench::Must(bench.sockets.Open(Transport::kTcp, AddressFamily::kIPv4, all));
  Bench::Must(bench.sockets.BindExclusively(all, {kIPv4Any, bench.address.port}));
  Bench::Must(bench.sockets.Listen(all, 0));
  SocketHandle one;
  Bench::Must(bench.sockets.Open(Transport::kTcp, AddressFamily::kIPv4, one));
  const int error = bench.sockets.BindExclusively(one, bench.address);
  EXPECT_TRUE(MayBeTaken(error)) << error;
  Bench::Must(bench.sockets.Close(all));
  EXPECT_EQ(bench.sockets.BindExclusively(one, bench.address), 0);
  for (const int other : {0, socket_error::kAddressNotAvailable, socket_error::kTooManyOpenFiles}) {
    EXPECT_FALSE(MayBeTaken(other)) << other;
  }
}

TEST(SocketsTest, AListenerFollowsAnEarlierOneAtOnce) {
  Bench bench;
  bench.Connection();
  // Our side closes first, so its end of the connection goes on in TIME_WAIT.
  Bench::Must(bench.sockets.Close(bench.ours));
  Bench::Must(bench.sockets.Close(bench.listener));
  SocketHandle next;
  Bench::Must(bench.sockets.Open(Transport::kTcp, AddressFamily::kIPv4, next));
  EXPECT_EQ(bench.sockets.BindExclusively(next, bench.address), 0);
  EXPECT_EQ(bench.sockets.Listen(next, 0), 0);
}

TEST(SocketsTest, SendingAfterItsEndIsAnErrorOfItsOwn) {
  Bench bench;
  bench.Connection();
  Bench::Must(bench.sockets.ShutDownSending(bench.ours));
  std::size_t sent = 0;
  EXPECT_EQ(bench.sockets.Send(bench.ours, std::string("x"), sent), 10058);
  EXPECT_EQ(sent, 0U);
  bench.PeerSends(3);
  bench.Until("READ");  // receiving goes on
}

TEST(SocketsTest, ThisMachinesAddressesHoldTheLoopback) {
  Bench bench;
  std::vector<IPAddress> addresses;
  Bench::Must(bench.sockets.LocalAddresses(addresses));
  for (const IPAddress& loopback : {kLoopback, kIPv6Loopback}) {
    EXPECT_NE(std::find(addresses.begin(), addresses.end(), loopback), addresses.end());
  }
}

}  // namespace
}  // namespace trabex

// Listening and accepting; running out of descriptors.
#include <deque>

#include "net_fixture.h"
#include "support/counted_allocations.h"
#include "support/open_file_limit.h"

namespace trabex {
namespace {

class ListenTest : public NetTest {};

TEST_F(ListenTest, AnAcceptedConnectionIsConnectedAtOnceAndKnowsItsPeer) {
  Connection();
  EXPECT_EQ((*accepted)->State(), SocketState::sckConnected);
  EXPECT_EQ((*accepted)->RemoteHostIP(), "127.0.0.1");
  EXPECT_EQ((*accepted)->RemotePort(), peer->Port());
  EXPECT_EQ((*accepted)->RemoteHost(), "");
  EXPECT_EQ((*accepted)->LocalPort(), (*listener)->LocalPort());
  EXPECT_EQ((*accepted)->SocketHandle(), listener->request);
  EXPECT_EQ((*listener)->State(), SocketState::sckListening);
  (*accepted)->CloseSck();
  EXPECT_EQ((*accepted)->LocalPort(), 0);
  EXPECT_EQ((*accepted)->RemoteHostIP(), "");
}

TEST_F(ListenTest, TheListenerKnowsTheCallerWhileTheEventRuns) {
  StartListener();
  (*listener)->OnSocketEvent({}, SocketEvent::kAccept, 0);  // without a connection
  std::string inside_ip;
  std::int32_t inside_port = 0;
  listener->On("ConnectionRequest", [&] {
    inside_ip = (*listener)->RemoteHostIP();
    inside_port = (*listener)->RemotePort();
    EXPECT_EQ((*listener)->RemoteHost(), "");
  });
  peer = std::make_unique<Peer>(loop);
  peer->Connect((*listener)->LocalPort());
  ExpectEvents(*listener, "ConnectionRequest");
  EXPECT_EQ(inside_ip, "127.0.0.1");
  EXPECT_EQ(inside_port, peer->Port());
  EXPECT_EQ((*listener)->RemoteHostIP(), "");
  EXPECT_EQ((*listener)->RemotePort(), 0);
}

TEST_F(ListenTest, TheListenersOwnRemoteValuesComeBackAfterTheEvent) {
  listener = std::make_unique<TracedSocket>(module);
  (*listener)->SetRemoteHost("kept.test");
  (*listener)->SetRemotePort(99);
  (*listener)->Listen();
  peer = std::make_unique<Peer>(loop);
  peer->Connect((*listener)->LocalPort());
  ExpectEvents(*listener, "ConnectionRequest");
  EXPECT_EQ((*listener)->RemoteHost(), "kept.test");
  EXPECT_EQ((*listener)->RemotePort(), 99);
}

TEST_F(ListenTest, AnUnclaimedConnectionIsClosedRightAfterTheEvent) {
  StartListener();
  listener->On("ConnectionRequest", {});
  peer = std::make_unique<Peer>(loop);
  peer->Connect((*listener)->LocalPort());
  ExpectEvents(*listener, "ConnectionRequest");
  EXPECT_EQ(peer->ReceiveToEnd(), "");
  EXPECT_EQ(module.LingeringCount(), 0U);
  // In time is inside the event.
  CSocketMaster late(module);
  ExpectError([&] { late.Accept(listener->request); }, 40006, "CSocketMaster.Accept", kWrongState);
  EXPECT_EQ(late.State(), SocketState::sckClosed);
}

TEST_F(ListenTest, AcceptRefusesWhatIsNoWaitingConnection) {
  Connection();
  CSocketMaster socket(module);
  for (const std::int32_t id : {listener->request, (*listener)->SocketHandle(), -1, 0, 123456}) {
    ExpectError([&] { socket.Accept(id); }, 40006, "CSocketMaster.Accept", kWrongState);
  }
  EXPECT_EQ((*accepted)->State(), SocketState::sckConnected);
}

TEST_F(ListenTest, AConnectionIsClaimedOnce) {
  StartListener();
  listener->On("ConnectionRequest", [this] {
    accepted = std::make_unique<TracedSocket>(module);
    (*accepted)->Accept(listener->request);
    CSocketMaster second(module);
    ExpectError([&] { second.Accept(listener->request); }, 40006, "CSocketMaster.Accept", kWrongState);
  });
  peer = std::make_unique<Peer>(loop);
  peer->Connect((*listener)->LocalPort());
  ExpectEvents(*listener, "ConnectionRequest");
  EXPECT_EQ((*accepted)->State(), SocketState::sckConnected);
}

TEST_F(ListenTest, AcceptReplacesASocketThatAFailedBindLeft) {
  StartListener();
  accepted = std::make_unique<TracedSocket>(module);
  EXPECT_THROW((*accepted)->Bind(0, "192.0.2.1"), Error);
  const SocketHandle left{(*accepted)->SocketHandle(), 0};
  (*accepted)->SetProtocol(SocketProtocol::sckUDPProtocol);
  (*accepted)->SetRemoteHost("old.test");
  (*accepted)->SetLocalPort(99);
  listener->On("ConnectionRequest", [this] { (*accepted)->Accept(listener->request); });
  peer = std::make_unique<Peer>(loop);
  peer->Connect((*listener)->LocalPort());
  ExpectEvents(*listener, "ConnectionRequest");
  Endpoint nowhere;
  EXPECT_EQ(sockets.LocalEndpoint(left, nowhere), socket_error::kNotSocket);
  EXPECT_EQ((*accepted)->Protocol(), SocketProtocol::sckTCPProtocol);
  EXPECT_EQ((*accepted)->RemoteHost(), "");
  EXPECT_EQ((*accepted)->LocalPort(), (*listener)->LocalPort());
  peer->Send("hello");
  ExpectEvents(*accepted, "DataArrival");
}

TEST_F(ListenTest, DataThatCameBeforeTheAcceptIsAnnounced) {
  StartListener();
  peer = std::make_unique<Peer>(loop);
  peer->Connect((*listener)->LocalPort());
  ASSERT_EQ(peer->SendSome("early"), 5U);
  peer->EndSending();
  ASSERT_TRUE(RunUntil(loop, [&] { return accepted != nullptr; }));
  ExpectEvents(*accepted, "DataArrival");
  std::string data;
  (*accepted)->GetData(data);
  EXPECT_EQ(data, "early");
  ExpectEvents(*accepted, "CloseSck");
}

TEST_F(ListenTest, ManyWaitingConnectionsAreAllAnnounced) {
  StartListener();
  std::vector<std::unique_ptr<TracedSocket>> all;
  listener->On("ConnectionRequest", [&] {
    all.push_back(std::make_unique<TracedSocket>(module));
    (*all.back())->Accept(listener->request);
  });
  std::deque<Peer> peers;
  for (int i = 0; i < 50; ++i) peers.emplace_back(loop).Connect((*listener)->LocalPort());
  EXPECT_TRUE(RunUntil(loop, [&] { return all.size() == 50; }));
}

TEST_F(ListenTest, TheListenerMayCloseInsideTheEvent) {
  listener = std::make_unique<TracedSocket>(module);
  (*listener)->SetRemoteHost("kept.test");
  (*listener)->SetRemotePort(99);
  (*listener)->Listen();
  listener->On("ConnectionRequest", [this] {
    (*listener)->CloseSck();
    EXPECT_EQ((*listener)->State(), SocketState::sckClosed);
  });
  const std::int32_t port = (*listener)->LocalPort();
  peer = std::make_unique<Peer>(loop);
  peer->Connect(port);
  ExpectEvents(*listener, "ConnectionRequest");
  // Only a listener that listens on gets its own values back.
  EXPECT_EQ((*listener)->RemoteHostIP(), "");
  EXPECT_EQ((*listener)->RemoteHost(), "");
  EXPECT_EQ((*listener)->RemotePort(), peer->Port());
  EXPECT_EQ(peer->ReceiveToEnd(), "");  // unclaimed, so closed
}

TEST_F(ListenTest, TheListenerMayListenAnewInsideTheEvent) {
  StartListener();
  listener->On("ConnectionRequest", [this] {
    accepted = std::make_unique<TracedSocket>(module);
    (*accepted)->Accept(listener->request);
    (*listener)->CloseSck();
    (*listener)->Bind(0, "127.0.0.1");
    (*listener)->Listen();
  });
  peer = std::make_unique<Peer>(loop);
  peer->Connect((*listener)->LocalPort());
  ExpectEvents(*listener, "ConnectionRequest");
  Peer second(loop);
  second.Connect((*listener)->LocalPort());
  ExpectEvents(*listener, "ConnectionRequest");
}

TEST_F(ListenTest, AConnectionThatHasGoneAgainIsNoError) {
  StartListener();
  (*listener)->OnSocketEvent({(*listener)->SocketHandle(), 0}, SocketEvent::kAccept, 0);
  EXPECT_EQ(listener->Take(), "");
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(ListenTest, AnErrorOfTheHandlerIsLoggedAndTheConnectionClosed) {
  StartListener();
  listener->On("ConnectionRequest", [] { throw Error(457, "cProxy.Init", "Broken."); });
  peer = std::make_unique<Peer>(loop);
  peer->Connect((*listener)->LocalPort());
  EXPECT_EQ(peer->ReceiveToEnd(), "");
  EXPECT_EQ(log.Take(), std::vector<std::string>{"Error 457 in cProxy.Init. Broken."});
  EXPECT_EQ((*listener)->RemoteHostIP(), "");
  EXPECT_EQ((*listener)->State(), SocketState::sckListening);
}

// While the limit is down nothing can be opened; the descriptors that are open go on.
class ExhaustionTest : public NetTest {
 protected:
  void SetUp() override {
    StartListener();
    listener->On("ConnectionRequest", [this] {
      sessions.push_back(std::make_unique<TracedSocket>(module));
      (*sessions.back())->Accept(listener->request);
    });
    // A sanitizer needs descriptors for its first look at an object, so everything is looked at once before.
    NewClients(1);
    ASSERT_TRUE(Sessions(1));
    (*sessions[0])->CloseSck();
    clients.clear();
    ASSERT_TRUE(RunUntil(loop, [&] { return module.LingeringCount() == 0; }));
    sessions.clear();
    RunLogged(log, "", [] { throw Error(0, "", ""); });
    log.Take();
    clock.Advance(std::chrono::hours(1));
    RunUntilIdle(loop);
  }

  // Leaves exactly `free` descriptors to be had.
  void Exhaust(int free) { limit_.LeaveOnly(free); }
  void Free() { limit_.Lift(); }
  void NewClients(int count) {
    for (int i = 0; i < count; ++i) clients.emplace_back(loop).Connect((*listener)->LocalPort());
  }
  bool Sessions(std::size_t count) {
    const bool reached = RunUntil(loop, [&] { return sessions.size() >= count; });
    RunUntilIdle(loop);
    return reached && sessions.size() == count;
  }
  void ExpectSleep() {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(loop.RunOnce(Milliseconds{5}));
    EXPECT_GE(std::chrono::steady_clock::now() - start, Milliseconds{5});
  }

  static constexpr const char* kLine =
      "L: Error 10024. Too many open files. Accepting pauses until a session ends.";

  std::deque<Peer> clients;
  std::vector<std::unique_ptr<TracedSocket>> sessions;

 private:
  OpenFileLimit limit_;
};

TEST_F(ExhaustionTest, TheListenerPausesWithOneLineAndGoesOnWhenASocketCloses) {
  NewClients(4);
  Exhaust(2);
  ASSERT_TRUE(RunUntil(loop, [&] { return !log.Lines().empty(); }));
  RunUntilIdle(loop);
  EXPECT_EQ(sessions.size(), 2U);
  EXPECT_EQ((*listener)->State(), SocketState::sckListening);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{kLine});
  ExpectSleep();  // no spinning

  sessions[0].reset();
  EXPECT_TRUE(Sessions(3));
  ExpectSleep();
  sessions[1].reset();
  EXPECT_TRUE(Sessions(4));
  EXPECT_EQ(log.Lines(), std::vector<std::string>{kLine});
  EXPECT_EQ(listener->trace.find("Error"), std::string::npos);
}

TEST_F(ExhaustionTest, IsWhatTheseErrorsMean) {
  EXPECT_TRUE(AcceptPause::IsExhaustion(10024));
  EXPECT_TRUE(AcceptPause::IsExhaustion(10055));
  for (const int other : {0, 10013, 10035, 10053, 10054}) EXPECT_FALSE(AcceptPause::IsExhaustion(other));
}

TEST_F(ExhaustionTest, ALaterPeriodHasItsOwnLine) {
  NewClients(2);
  Exhaust(1);
  ASSERT_TRUE(RunUntil(loop, [&] { return !log.Lines().empty(); }));
  sessions[0].reset();
  ASSERT_TRUE(Sessions(2));
  RunUntilIdle(loop);
  EXPECT_EQ(log.Take(), std::vector<std::string>{kLine});
  Free();
  NewClients(1);
  ASSERT_TRUE(Sessions(3));
  NewClients(1);
  Exhaust(0);
  ASSERT_TRUE(RunUntil(loop, [&] { return !log.Lines().empty(); }));
  EXPECT_EQ(log.Take(), std::vector<std::string>{kLine});
}

TEST_F(ExhaustionTest, ALingeringSocketThatEndsLetsItGoOn) {
  NewClients(2);
  Exhaust(1);
  ASSERT_TRUE(RunUntil(loop, [&] { return !log.Lines().empty(); }));
  (*sessions[0])->CloseSck();
  EXPECT_EQ(module.LingeringCount(), 1U);
  RunUntilIdle(loop);
  EXPECT_EQ(sessions.size(), 1U);
  clients[0].EndSending();
  EXPECT_TRUE(Sessions(2));
  EXPECT_EQ(module.LingeringCount(), 0U);
}

TEST_F(ExhaustionTest, ItTriesAgainByItselfWhenDescriptorsBecomeFreeElsewhere) {
  NewClients(1);
  Exhaust(0);
  ASSERT_TRUE(RunUntil(loop, [&] { return !log.Lines().empty(); }));
  clock.Advance(AcceptPause::kRetryInterval);
  RunUntilIdle(loop);
  EXPECT_EQ(sessions.size(), 0U);
  ExpectSleep();
  Free();
  clock.Advance(AcceptPause::kRetryInterval);
  EXPECT_TRUE(Sessions(1));
  EXPECT_EQ(log.Take(), std::vector<std::string>{kLine});
  // Then it is over: nothing wakes the loop any more.
  clock.Advance(std::chrono::hours(1));
  EXPECT_FALSE(loop.RunOnce(Milliseconds{0}));
}

// A listener that cannot pause would fail again and again, for as long as there is no memory.
TEST_F(ExhaustionTest, EachListenerPausesWithoutMemory) {
  constexpr std::size_t kMore = 100;
  std::vector<std::unique_ptr<TracedSocket>> more;
  std::deque<Peer> callers;
  std::size_t served = 0;
  for (std::size_t i = 0; i < kMore; ++i) {
    TracedSocket& another = *more.emplace_back(std::make_unique<TracedSocket>(module));
    another->Bind(0, "127.0.0.1");
    another->Listen();
    another.On("ConnectionRequest", [&] { ++served; });
    callers.emplace_back(loop);
  }
  NewClients(1);
  Exhaust(0);
  // The line of the period needs memory, and comes with the first that pauses.
  ASSERT_TRUE(RunUntil(loop, [&] { return !log.Lines().empty(); }));
  for (std::size_t i = 0; i < kMore; ++i) callers[i].Connect((*more[i])->LocalPort());
  {
    const FailedAllocation failure(0, FailedAllocation::kAll);
    // Not until it is idle, for it might never be.
    for (std::size_t i = 0; i < 2 * kMore; ++i) loop.RunOnce(Milliseconds{0});
    ExpectSleep();
  }
  EXPECT_EQ(log.Lines(), std::vector<std::string>{kLine});
  EXPECT_EQ(served, 0U);
  Free();
  clock.Advance(AcceptPause::kRetryInterval);
  EXPECT_TRUE(RunUntil(loop, [&] { return served == kMore; }));
  EXPECT_TRUE(Sessions(1));
}

TEST_F(ExhaustionTest, APausedListenerMayBeClosed) {
  NewClients(1);
  Exhaust(0);
  ASSERT_TRUE(RunUntil(loop, [&] { return !log.Lines().empty(); }));
  (*listener)->CloseSck();
  Free();
  clock.Advance(AcceptPause::kRetryInterval);
  RunUntilIdle(loop);
  EXPECT_EQ(sessions.size(), 0U);
  (*listener)->Bind(0, "127.0.0.1");
  (*listener)->Listen();
  // What comes now is another period.
  log.Take();
  NewClients(1);
  Exhaust(0);
  ASSERT_TRUE(RunUntil(loop, [&] { return !log.Lines().empty(); }));
  Free();
  clock.Advance(AcceptPause::kRetryInterval);
  EXPECT_TRUE(Sessions(1));
}

}  // namespace
}  // namespace trabex

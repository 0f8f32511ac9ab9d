// Closing: inside every event, in order towards a peer that has not read or not been read, and in the
// background.
#include "net_fixture.h"

namespace trabex {
namespace {

class CloseTest : public NetTest {
 protected:
  CSocketMaster& Ours() { return **accepted; }
  void CloseIn(TracedSocket& socket, const std::string& event) {
    socket.On(event, [&socket] {
      socket->CloseSck();
      EXPECT_EQ(socket->State(), SocketState::sckClosed);
      EXPECT_EQ(socket->SocketHandle(), -1);
    });
  }
  void ExpectGone() {
    EXPECT_TRUE(RunUntil(loop, [&] { return module.LingeringCount() == 0; }));
  }
};

using CloseInsideTest = CloseTest;

TEST_F(CloseInsideTest, Connect) {
  PeerListener server(loop);
  TracedSocket socket(module);
  CloseIn(socket, "Connect");
  socket->Connect("127.0.0.1", server.port);
  const auto other = server.Accept();
  EXPECT_EQ(other->ReceiveToEnd(), "");
  ExpectEvents(socket, "Connect");
}

TEST_F(CloseInsideTest, DataArrival) {
  Connection();
  CloseIn(*accepted, "DataArrival");
  peer->Send("hello");
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(peer->ReceiveToEnd(), "");
}

TEST_F(CloseInsideTest, DataArrivalWithTheEndAfterIt) {
  Connection();
  CloseIn(*accepted, "DataArrival");
  ASSERT_EQ(peer->SendSome("hello"), 5U);
  peer->EndSending();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(peer->ReceiveToEnd(), "");
  ExpectGone();
}

TEST_F(CloseInsideTest, SendProgress) {
  Connection();
  CloseIn(*accepted, "SendProgress");
  Ours().SendData("hello");
  EXPECT_EQ(accepted->Take(), "SendProgress(5,0)");
  EXPECT_EQ(peer->ReceiveToEnd(), "hello");
}

TEST_F(CloseInsideTest, SendComplete) {
  Connection();
  CloseIn(*accepted, "SendComplete");
  Ours().SendData("hello");
  EXPECT_EQ(accepted->Take(), "SendProgress(5,0) SendComplete");
  EXPECT_EQ(peer->ReceiveToEnd(), "hello");
  ExpectEvents(*accepted, "");
}

TEST_F(CloseInsideTest, SendCompleteFromTheLoop) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  CloseIn(*accepted, "SendComplete");
  const std::string all(6 << 20, 'x');
  Ours().SendData(all);
  EXPECT_EQ(peer->ReceiveToEnd().size(), all.size());
  EXPECT_EQ(Ours().State(), SocketState::sckClosed);
}

TEST_F(CloseInsideTest, CloseSck) {
  Connection();
  CloseIn(*accepted, "CloseSck");
  peer->Close();
  ExpectEvents(*accepted, "CloseSck");
  EXPECT_EQ(module.LingeringCount(), 0U);
}

TEST_F(CloseInsideTest, Error) {
  Connection();
  CloseIn(*accepted, ResetsAreTold() ? "Error" : "CloseSck");
  peer->Reset();
  ExpectEvents(*accepted, ResetEvent());
  EXPECT_EQ(module.LingeringCount(), 0U);
}

TEST_F(CloseInsideTest, ErrorOfALookUp) {
  TracedSocket socket(module);
  CloseIn(socket, "Error");
  socket->Connect("unknown.test", 25);
  ExpectEvents(socket, "Error(11001)");
}

TEST_F(CloseInsideTest, ErrorInsideSendData) {
  Connection();
  CloseIn(*accepted, "Error");
  peer->Reset();
  const SocketHandle handle{Ours().SocketHandle(), 0};
  Endpoint nobody;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (sockets.RemoteEndpoint(handle, nobody) == 0) ASSERT_LT(std::chrono::steady_clock::now(), end);
  Ours().SendData("hello");
  EXPECT_EQ(accepted->Take(), "Error(10054)");
  EXPECT_EQ(Ours().State(), SocketState::sckClosed);
}

TEST_F(CloseInsideTest, AnotherSocketOfTheSameIteration) {
  // Two connections have data; the first one notified closes both.
  Connection();
  auto first = std::move(accepted);
  Peer second_peer(loop);
  second_peer.Connect((*listener)->LocalPort());
  ASSERT_TRUE(RunUntil(loop, [&] { return accepted != nullptr; }));
  RunUntilIdle(loop);
  int notified = 0;
  const auto close_both = [&] {
    ++notified;
    (*first)->CloseSck();
    Ours().CloseSck();
  };
  first->On("DataArrival", close_both);
  accepted->On("DataArrival", close_both);
  peer->Send("x");
  second_peer.Send("y");
  ASSERT_TRUE(RunUntil(loop, [&] { return notified > 0; }));
  RunUntilIdle(loop);
  EXPECT_EQ(notified, 1);
}

TEST_F(CloseInsideTest, TheOwnerMayBeDeletedLater) {
  struct Owner final : DeferredDeletable {
    explicit Owner(modSocketMaster& module) : socket(module) {}
    TracedSocket socket;
  };
  StartListener();
  auto owner = std::make_unique<Owner>(module);
  Owner* const borrowed = owner.get();
  listener->On("ConnectionRequest", [&] { borrowed->socket->Accept(listener->request); });
  std::string got;
  borrowed->socket.On("DataArrival", [&] {
    loop.DeferredDelete(std::move(owner));
    borrowed->socket->GetData(got);
    borrowed->socket->SendData("answer");
    borrowed->socket->CloseSck();
  });
  peer = std::make_unique<Peer>(loop);
  peer->Connect((*listener)->LocalPort());
  ASSERT_EQ(peer->SendSome("hello"), 5U);
  EXPECT_EQ(peer->ReceiveToEnd(), "answer");
  EXPECT_EQ(got, "hello");
}

using OrderlyCloseTest = CloseTest;

TEST_F(OrderlyCloseTest, WhatWasSaidReachesAPeerWhoseInputLiesUnread) {
  Connection();
  peer->Send("input that nobody will read");
  AllHere();
  Ours().SendData("421 bye\r\n");
  Ours().CloseSck();
  EXPECT_EQ(Ours().State(), SocketState::sckClosed);
  EXPECT_EQ(module.LingeringCount(), 1U);
  accepted->Take();
  peer->Send("more input");
  EXPECT_EQ(peer->ReceiveToEnd(), "421 bye\r\n");
  EXPECT_FALSE(peer->reset);
  peer->Close();
  ExpectGone();
  EXPECT_EQ(accepted->Take(), "");
}

TEST_F(OrderlyCloseTest, HoldsForConnectionsThatWeBegan) {
  PeerListener server(loop);
  TracedSocket socket(module);
  socket->Connect("127.0.0.1", server.port);
  ExpectEvents(socket, "Connect");
  const auto other = server.Accept();
  other->Send("input that nobody will read");
  ExpectEvents(socket, "DataArrival");
  socket->SendData("QUIT\r\n");
  socket->CloseSck();
  EXPECT_EQ(module.LingeringCount(), 1U);
  EXPECT_EQ(other->ReceiveToEnd(), "QUIT\r\n");
  other->Close();
  ExpectGone();
}

TEST_F(OrderlyCloseTest, MegabytesThatWaitStillReachThePeer) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  peer->Send("unread");
  const std::string all(8 << 20, 'm');
  Ours().SendData(all);
  EXPECT_GT(Ours().PendingBytes(), 0U);
  Ours().CloseSck();
  EXPECT_EQ(Ours().PendingBytes(), 0U);
  accepted.reset();  // the object is not needed for it
  EXPECT_EQ(peer->ReceiveToEnd().size(), all.size());
  peer->Close();
  ExpectGone();
}

TEST_F(OrderlyCloseTest, APeerThatBothSendsAndReadsMuchIsNeitherBlockedNorReset) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  const std::string all(4 << 20, 'm');
  Ours().SendData(all);
  Ours().CloseSck();
  // It reads only after everything of its own is gone, so the peer has to take that.
  peer->Send(std::string(8 << 20, 'p'));
  EXPECT_EQ(peer->ReceiveToEnd().size(), all.size());
  peer->Close();
  ExpectGone();
}

TEST_F(OrderlyCloseTest, AfterThePeersEndWithNothingToSendTheSocketIsClosedAtOnce) {
  Connection();
  peer->EndSending();
  ExpectEvents(*accepted, "CloseSck");
  Ours().CloseSck();
  EXPECT_EQ(module.LingeringCount(), 0U);
  EXPECT_EQ(peer->ReceiveToEnd(), "");
}

TEST_F(OrderlyCloseTest, AnEndThatIsThereButNotAnnouncedYetNeedsNoLingeringEither) {
  Connection();
  peer->Send("x");
  peer->EndSending();
  ExpectEvents(*accepted, "DataArrival");
  std::string data;
  Ours().GetData(data);
  Ours().CloseSck();
  EXPECT_EQ(module.LingeringCount(), 0U);
  EXPECT_EQ(peer->ReceiveToEnd(), "");
}

TEST_F(OrderlyCloseTest, APeerThatEndedItsSendingStillGetsWhatWaits) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  const std::string all(16 << 20, 'm');
  Ours().SendData(all);
  peer->EndSending();
  ASSERT_TRUE(RunUntil(loop, [&] { return Ours().State() == SocketState::sckClosing; }));
  accepted->Take();
  // The network can take more now, but no handler is called in this state.
  std::string got = peer->ReceiveNow();
  RunUntilIdle(loop);
  got += peer->ReceiveNow();
  RunUntilIdle(loop);
  EXPECT_EQ(accepted->Take(), "");
  Ours().CloseSck();
  EXPECT_EQ(module.LingeringCount(), 1U);
  got += peer->ReceiveToEnd();
  EXPECT_EQ(got.size(), all.size());
  ExpectGone();
}

TEST_F(OrderlyCloseTest, EndsAfterFiveSecondsWhateverThePeerDoes) {
  Connection();
  Ours().SendData("bye");
  Ours().CloseSck();
  clock.Advance(std::chrono::seconds(2));
  RunUntilIdle(loop);
  accepted.reset();
  Peer second(loop);
  second.Connect((*listener)->LocalPort());
  ASSERT_TRUE(RunUntil(loop, [&] { return accepted != nullptr; }));
  Ours().CloseSck();
  EXPECT_EQ(module.LingeringCount(), 2U);
  clock.Advance(Milliseconds{2999});
  RunUntilIdle(loop);
  EXPECT_EQ(module.LingeringCount(), 2U);
  clock.Advance(Milliseconds{1});
  RunUntilIdle(loop);
  EXPECT_EQ(module.LingeringCount(), 1U);
  clock.Advance(Milliseconds{1999});
  RunUntilIdle(loop);
  EXPECT_EQ(module.LingeringCount(), 1U);
  clock.Advance(Milliseconds{1});
  RunUntilIdle(loop);
  EXPECT_EQ(module.LingeringCount(), 0U);
  // And once more, after a pause without any.
  clock.Advance(std::chrono::seconds(60));
  RunUntilIdle(loop);
  accepted.reset();
  Peer third(loop);
  third.Connect((*listener)->LocalPort());
  ASSERT_TRUE(RunUntil(loop, [&] { return accepted != nullptr; }));
  Ours().CloseSck();
  clock.Advance(Milliseconds{4999});
  RunUntilIdle(loop);
  EXPECT_EQ(module.LingeringCount(), 1U);
  clock.Advance(Milliseconds{1});
  RunUntilIdle(loop);
  EXPECT_EQ(module.LingeringCount(), 0U);
}

TEST_F(OrderlyCloseTest, OneThatEndsEarlyDoesNotShortenTheTimeOfTheNext) {
  Connection();
  Ours().CloseSck();
  peer->Close();
  ExpectGone();
  clock.Advance(Milliseconds{3000});
  peer.reset();
  Connection();
  Ours().CloseSck();
  clock.Advance(Milliseconds{4999});
  RunUntilIdle(loop);
  EXPECT_EQ(module.LingeringCount(), 1U);
}

TEST_F(OrderlyCloseTest, AResetEndsItAtOnce) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  Ours().SendData(std::string(4 << 20, 'm'));
  Ours().CloseSck();
  EXPECT_EQ(module.LingeringCount(), 1U);
  peer->Reset();
  ExpectGone();
  peer.reset();
  Connection();
  Ours().CloseSck();
  EXPECT_EQ(module.LingeringCount(), 1U);
  peer->Reset();
  ExpectGone();
}

TEST_F(OrderlyCloseTest, SocketsThatWereNeverConnectedAreClosedAtOnce) {
  StartListener();
  (*listener)->CloseSck();
  TracedSocket connecting(module);
  PeerListener server(loop);
  connecting->Connect("127.0.0.1", server.port);
  connecting->CloseSck();
  TracedSocket datagrams(module);
  datagrams->SetProtocol(SocketProtocol::sckUDPProtocol);
  datagrams->Bind(0, "127.0.0.1");
  datagrams->CloseSck();
  EXPECT_EQ(module.LingeringCount(), 0U);
}

TEST_F(OrderlyCloseTest, AnObjectThatIsDestroyedClosesWithoutIt) {
  Connection();
  accepted.reset();
  EXPECT_EQ(module.LingeringCount(), 0U);
  EXPECT_EQ(peer->ReceiveToEnd(), "");
}

TEST_F(OrderlyCloseTest, TheObjectMayBeUsedAgainMeanwhile) {
  Connection();
  Ours().SendData("old");
  Ours().CloseSck();
  EXPECT_EQ(module.LingeringCount(), 1U);
  PeerListener server(loop);
  Ours().Connect("127.0.0.1", server.port);
  accepted->Take();
  ExpectEvents(*accepted, "Connect");
  const auto other = server.Accept();
  Ours().SendData("new");
  EXPECT_EQ(other->Receive(3), "new");
  EXPECT_EQ(peer->ReceiveToEnd(), "old");
}

TEST_F(OrderlyCloseTest, IsNotifiedWhenNoneIsLeft) {
  int notified = 0;
  module.WhenNoneLingers([&] { ++notified; });
  EXPECT_EQ(notified, 0);
  RunUntilIdle(loop);
  EXPECT_EQ(notified, 1);

  Connection();
  Ours().CloseSck();
  module.WhenNoneLingers([&] { notified += 10; });
  module.WhenNoneLingers([&] { notified += 100; });
  RunUntilIdle(loop);
  EXPECT_EQ(notified, 1);
  peer->Close();
  EXPECT_TRUE(RunUntil(loop, [&] { return notified == 111; }));
  RunUntilIdle(loop);
  EXPECT_EQ(notified, 111);
}

TEST_F(OrderlyCloseTest, IsNotifiedOnlyWhenReallyNoneIsLeft) {
  Connection();
  int notified = 0;
  module.WhenNoneLingers([&] { ++notified; });
  Ours().CloseSck();  // before the loop could notify
  RunUntilIdle(loop);
  EXPECT_EQ(notified, 0);
  clock.Advance(LingeringSockets::kMaxDuration);
  RunUntilIdle(loop);
  EXPECT_EQ(notified, 1);
}

TEST_F(OrderlyCloseTest, TheModulesEndClosesTheRestWithoutAnEvent) {
  bool notified = false;
  Peer client(loop);
  SocketHandle lingering;
  {
    modSocketMaster other(sockets, names, log);
    TracedSocket server(other);
    TracedSocket session(other);
    server->Bind(0, "127.0.0.1");
    server->Listen();
    server.On("ConnectionRequest", [&] { session->Accept(server.request); });
    client.Connect(server->LocalPort());
    ExpectEvents(server, "ConnectionRequest");
    lingering = {session->SocketHandle(), 0};
    session->CloseSck();
    EXPECT_EQ(other.LingeringCount(), 1U);
    Endpoint peer_of_it;
    EXPECT_EQ(sockets.RemoteEndpoint(lingering, peer_of_it), 0);
    server->CloseSck();
    other.WhenNoneLingers([&] { notified = true; });
  }
  RunUntilIdle(loop);
  Endpoint nobody;
  EXPECT_EQ(sockets.RemoteEndpoint(lingering, nobody), socket_error::kNotSocket);
  EXPECT_EQ(client.ReceiveToEnd(), "");
  EXPECT_FALSE(notified);
}

}  // namespace
}  // namespace trabex

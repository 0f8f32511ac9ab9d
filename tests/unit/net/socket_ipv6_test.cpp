// The same object on IPv6: listening, connecting by address and by name, datagrams.
#include "net_fixture.h"

namespace trabex {
namespace {

class SocketIPv6Test : public NetTest {
 protected:
  // Listens on ::1; `accepted` is the newest connection.
  void ListenOnLoopback() {
    listener = std::make_unique<TracedSocket>(module);
    (*listener)->Bind(0, "::1");
    EXPECT_EQ((*listener)->LocalIP(), "::1");
    (*listener)->Listen();
    listener->On("ConnectionRequest", [this] {
      EXPECT_EQ((*listener)->RemoteHostIP(), "::1");
      accepted = std::make_unique<TracedSocket>(module);
      (*accepted)->Accept(listener->request);
    });
  }
  void ExpectBytesBothWays() {
    ASSERT_TRUE(RunUntil(loop, [&] { return accepted != nullptr; }));
    EXPECT_EQ((*accepted)->RemoteAddress(), kIPv6Loopback);
    EXPECT_EQ((*accepted)->RemotePort(), client->LocalPort());
    std::string data;
    client->SendData("hello");
    ASSERT_TRUE(RunUntil(loop, [&] { return (*accepted)->GetData(data) > 0; }));
    EXPECT_EQ(data, "hello");
    (*accepted)->SendData("answer");
    ASSERT_TRUE(RunUntil(loop, [&] { return client->GetData(data) > 0; }));
    EXPECT_EQ(data, "answer");
    (*accepted)->CloseSck();
    ASSERT_TRUE(RunUntil(loop, [&] { return client->State() == SocketState::sckClosing; }));
  }

  TracedSocket client{module};
};

TEST_F(SocketIPv6Test, ConnectsToAnAddress) {
  ListenOnLoopback();
  client->Connect("::1", (*listener)->LocalPort());
  EXPECT_EQ(client->State(), SocketState::sckConnecting);
  EXPECT_EQ(client->RemoteHostIP(), "::1");
  ExpectEvents(client, "Connect");
  EXPECT_EQ(names.Requests(), 0U);
  ExpectBytesBothWays();
}

TEST_F(SocketIPv6Test, ConnectsWhereANameLeadsAndStaysTheSameNumber) {
  ListenOnLoopback();
  names.SetAddresses("server.test", {kIPv6Loopback});
  names.HoldAnswers();
  client->Connect("server.test", (*listener)->LocalPort());
  const std::int32_t number = client->SocketHandle();
  EXPECT_GT(number, 0);
  names.Deliver();
  ExpectEvents(client, "Connect");
  EXPECT_EQ(client->RemoteHostIP(), "::1");
  EXPECT_EQ(client->SocketHandle(), number);
  ExpectBytesBothWays();
}

TEST_F(SocketIPv6Test, ConnectsFromARequestedPort) {
  ListenOnLoopback();
  WithFreePort([&](int port) {
    client->SetLocalPort(port);
    client->Connect("::1", (*listener)->LocalPort());
    ExpectEvents(client, "Connect");
    EXPECT_EQ(client->LocalPort(), port);
  });
}

TEST_F(SocketIPv6Test, AnIPv4AddressWrittenAsOneOfIPv6IsThatAddress) {
  PeerListener server(loop);
  client->Connect("::ffff:127.0.0.1", server.port);
  ExpectEvents(client, "Connect");
  EXPECT_EQ(client->RemoteAddress(), kIPv4Loopback);
}

TEST_F(SocketIPv6Test, OneObjectServesBothFamiliesInTurn) {
  PeerListener server(loop);
  ListenOnLoopback();
  for (const char* address : {"127.0.0.1", "::1", "127.0.0.1"}) {
    const bool ipv6 = address == std::string("::1");
    client->Connect(address, ipv6 ? (*listener)->LocalPort() : server.port);
    ExpectEvents(client, "Connect");
    client->CloseSck();
  }
}

TEST_F(SocketIPv6Test, ASocketThatCouldNotBeBoundMakesWayForTheOtherFamily) {
  PeerListener server(loop);
  ListenOnLoopback();
  const auto taken = (*listener)->LocalPort();
  ExpectError([&] { client->Bind(taken, "::1"); }, 10048, "CSocketMaster.BindInternal",
              "Address already in use.");
  EXPECT_GT(client->SocketHandle(), 0);
  client->SetLocalPort(0);
  client->Connect("127.0.0.1", server.port);
  ExpectEvents(client, "Connect");
}

TEST_F(SocketIPv6Test, SendsDatagrams) {
  TracedSocket receiver(module);
  receiver->SetProtocol(SocketProtocol::sckUDPProtocol);
  receiver->Bind(0, "::1");
  client->SetProtocol(SocketProtocol::sckUDPProtocol);
  client->SetRemoteHost("::1");
  client->SetRemotePort(receiver->LocalPort());
  receiver.On("DataArrival", [&] {
    std::string data;
    receiver->GetData(data);
    EXPECT_EQ(data, "hello");
    EXPECT_EQ(receiver->RemoteHostIP(), "::1");
    EXPECT_EQ(receiver->RemotePort(), client->LocalPort());
  });
  client->SendData("hello");
  ExpectEvents(receiver, "DataArrival");
  // Once open it stays of its family.
  client->SetRemoteHost("127.0.0.1");
  client->SendData("x");
  EXPECT_EQ(client.Take(), "Error(10047)");
}

}  // namespace
}  // namespace trabex

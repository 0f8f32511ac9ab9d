// The same object on datagrams.
#include "net_fixture.h"

namespace trabex {
namespace {

class UdpTest : public NetTest {
 protected:
  void SetUp() override {
    receiver->SetProtocol(SocketProtocol::sckUDPProtocol);
    receiver->Bind(0, "127.0.0.1");
    sender->SetProtocol(SocketProtocol::sckUDPProtocol);
    sender->SetRemoteHost("127.0.0.1");
    sender->SetRemotePort(receiver->LocalPort());
  }
  // Waits until a datagram lies in `receiver`, without running the loop.
  void Arrived() {
    std::size_t bytes = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    do {
      ASSERT_LT(std::chrono::steady_clock::now(), end);
      ASSERT_EQ(sockets.Available({receiver->SocketHandle(), 0}, bytes), 0);
    } while (bytes == 0);
  }

  TracedSocket receiver{module};
  TracedSocket sender{module};
};

TEST_F(UdpTest, SendDataBindsByItselfAndRaisesNoEvents) {
  EXPECT_EQ(sender->State(), SocketState::sckClosed);
  sender->SendData("hello");
  EXPECT_EQ(sender->State(), SocketState::sckOpen);
  EXPECT_GT(sender->LocalPort(), 0);
  EXPECT_EQ(sender->BytesSent(), 5);
  EXPECT_EQ(sender->PendingBytes(), 0U);
  ExpectEvents(receiver, "DataArrival");
  EXPECT_EQ(sender.Take(), "");
}

TEST_F(UdpTest, ConnectBindsAndIsOpen) {
  TracedSocket socket(module);
  socket->SetProtocol(SocketProtocol::sckUDPProtocol);
  socket->Connect("127.0.0.1", receiver->LocalPort());
  EXPECT_EQ(socket->State(), SocketState::sckOpen);
  EXPECT_GT(socket->LocalPort(), 0);
  socket->SendData("x");
  ExpectEvents(receiver, "DataArrival");
}

TEST_F(UdpTest, RemoteValuesMayBeSetWhileOpen) {
  sender->SendData("x");
  sender->SetRemoteHost("localhost");
  sender->SetRemotePort(25);
  ExpectError([&] { sender->SetRemotePort(65536); }, 40014, "CSocketMaster.RemotePort", kBadArgument);
  ExpectError([&] { sender->SetLocalPort(1); }, 40020, "CSocketMaster.LocalPort", kBadState);
  ExpectError([&] { sender->SetProtocol(SocketProtocol::sckTCPProtocol); }, 40020, "CSocketMaster.Protocol",
              kBadState);
}

TEST_F(UdpTest, ADatagramIsReadWholeWithItsSender) {
  receiver.On("DataArrival", [&] {
    std::string data;
    EXPECT_EQ(receiver->PeekData(data), 5);
    EXPECT_EQ(data, "hello");
    EXPECT_EQ(receiver->BytesReceived(), 0);
    EXPECT_EQ(receiver->PeekView(), "hello");
    EXPECT_EQ(receiver->GetData(data), 5);
    EXPECT_EQ(data, "hello");
    EXPECT_EQ(receiver->BytesReceived(), 5);
    EXPECT_EQ(receiver->RemoteHostIP(), "127.0.0.1");
    EXPECT_EQ(receiver->RemotePort(), sender->LocalPort());
    EXPECT_EQ(receiver->RemoteHost(), "");
    EXPECT_EQ(receiver->GetData(data), 0);  // nothing more waits
    EXPECT_EQ(data, "");
  });
  sender->SendData("hello");
  ExpectEvents(receiver, "DataArrival");
}

TEST_F(UdpTest, ALengthCutsTheResult) {
  receiver.On("DataArrival", [&] {
    std::string data;
    EXPECT_EQ(receiver->GetData(data, 3), 3);
    EXPECT_EQ(data, "hel");
  });
  sender->SendData("hello");
  ExpectEvents(receiver, "DataArrival");
}

TEST_F(UdpTest, ADatagramThatTheOwnerLeavesIsDropped) {
  sender->SendData("first");
  ExpectEvents(receiver, "DataArrival");
  std::string data;
  EXPECT_EQ(receiver->GetData(data), 0);
  sender->SendData("second");
  ExpectEvents(receiver, "DataArrival");
}

TEST_F(UdpTest, AnEmptyDatagramIsDroppedSilently) {
  sender->SendData("");
  sender->SendData("x");
  ExpectEvents(receiver, "DataArrival");
}

TEST_F(UdpTest, TheOwnerMayCloseInsideDataArrival) {
  receiver.On("DataArrival", [&] { receiver->CloseSck(); });
  sender->SendData("first");
  sender->SendData("second");
  ExpectEvents(receiver, "DataArrival");
  EXPECT_EQ(receiver->State(), SocketState::sckClosed);
}

TEST_F(UdpTest, ReadingNeedsAnOpenSocket) {
  CSocketMaster socket(module);
  socket.SetProtocol(SocketProtocol::sckUDPProtocol);
  std::string data;
  ExpectError([&] { socket.GetData(data); }, 40006, "CSocketMaster.GetData", kWrongState);
  ExpectError([&] { socket.PeekData(data); }, 40006, "CSocketMaster.PeekData", kWrongState);
  EXPECT_EQ(receiver->GetData(data), 0);  // open, and no datagram waits
}

TEST_F(UdpTest, TargetsAreAddressesOrKnownNames) {
  names.SetLocalAddress("near.test", kLoopback);
  sender->SetRemoteHost("near.test");
  sender->SendData("x");
  ExpectEvents(receiver, "DataArrival");
  sender->SetRemoteHost("");
  ExpectError([&] { sender->SendData("x"); }, 10047, "CSocketMaster.SendBufferedDataUDP",
              "Address family not supported by protocol family.");
  sender->SetRemoteHost("far.test");
  ExpectError([&] { sender->SendData("x"); }, 40014, "CSocketMaster.SendBufferedDataUDP", "Invalid argument");
  EXPECT_EQ(names.Requests(), 0U);
  // A failed send leaves nothing to be sent.
  sender->SetRemoteHost("127.0.0.1");
  sender->SendData("y");
  EXPECT_EQ(sender->BytesSent(), 2);
}

TEST_F(UdpTest, BroadcastsAreAllowed) {
  sender->SetRemoteHost("127.255.255.255");
  sender->SendData("x");
  EXPECT_EQ(sender.Take(), "");
  EXPECT_EQ(sender->BytesSent(), 1);
}

TEST_F(UdpTest, WhatTheSystemRefusesToSendIsAnErrorEvent) {
  sender->SendData(std::string(70000, 'x'));  // more than a datagram holds
  EXPECT_EQ(sender.Take(), "Error(10040)");
  EXPECT_EQ(sender.error_source, "CSocketMaster.SendBufferedDataUDP");
  EXPECT_EQ(sender.error_description, "Message too long.");
  EXPECT_EQ(sender->State(), SocketState::sckError);
}

TEST_F(UdpTest, WhatComesInTheErrorStateIsNotAnnounced) {
  sender->SendData(std::string(70000, 'x'));
  ASSERT_EQ(sender->State(), SocketState::sckError);
  sender.Take();
  receiver->SetRemoteHost("127.0.0.1");
  receiver->SetRemotePort(sender->LocalPort());
  receiver->SendData("hello");
  ExpectEvents(sender, "");
  std::size_t bytes = 0;
  EXPECT_EQ(sockets.Available({sender->SocketHandle(), 0}, bytes), 0);
  EXPECT_EQ(bytes, 5U);  // nor taken
}

TEST_F(UdpTest, ReadsWithoutWaitingForTheEvent) {
  sender->SendData("hello");
  Arrived();
  std::string data;
  EXPECT_EQ(receiver->GetData(data), 5);
  ExpectEvents(receiver, "");
}

}  // namespace
}  // namespace trabex

// Connecting: addresses, names, refusals, and what happens when the owner closes meanwhile.
#include "net/socket_errors.h"
#include "net_fixture.h"
#include "support/open_file_limit.h"

namespace trabex {
namespace {

class ConnectTest : public NetTest {
 protected:
  PeerListener server{loop};
  TracedSocket socket{module};
};

TEST_F(ConnectTest, ToADottedAddressSkipsTheLookUp) {
  socket->Connect("127.0.0.1", server.port);
  EXPECT_EQ(socket->State(), SocketState::sckConnecting);
  EXPECT_EQ(socket->RemoteHost(), "127.0.0.1");
  EXPECT_EQ(socket->RemoteHostIP(), "127.0.0.1");
  EXPECT_EQ(socket->RemotePort(), server.port);
  ExpectEvents(socket, "Connect");
  EXPECT_EQ(socket->State(), SocketState::sckConnected);
  EXPECT_EQ(socket->RemoteHostIP(), "127.0.0.1");
  EXPECT_EQ(names.Requests(), 0U);
  EXPECT_GT(socket->SocketHandle(), 0);
}

TEST_F(ConnectTest, LocalPortIsTheOneTheSystemChose) {
  socket->Connect("127.0.0.1", server.port);
  ExpectEvents(socket, "Connect");
  const auto other = server.Accept();
  EXPECT_GT(socket->LocalPort(), 0);
  EXPECT_EQ(socket->LocalPort(), other->OtherPort());
  socket->CloseSck();
  EXPECT_EQ(socket->LocalPort(), 0);
}

TEST_F(ConnectTest, FromARequestedLocalPort) {
  WithFreePort([&](int port) {
    socket->SetLocalPort(port);
    socket->Connect("127.0.0.1", server.port);
    ExpectEvents(socket, "Connect");
    EXPECT_EQ(socket->LocalPort(), port);
  });
}

TEST_F(ConnectTest, FromALocalPortInUseRaises) {
  StartListener();
  socket->SetLocalPort((*listener)->LocalPort());
  ExpectError([&] { socket->Connect("127.0.0.1", server.port); }, 10048, "CSocketMaster.BindInternal",
              "Address already in use.");
  EXPECT_EQ(socket.Take(), "");
}

TEST_F(ConnectTest, AbsentArgumentsMeanTheRemotePortPropertyAndNoHost) {
  socket->SetRemoteHost("127.0.0.1");
  socket->SetRemotePort(server.port);
  socket->Connect();
  EXPECT_EQ(socket->RemoteHost(), "");
  EXPECT_EQ(socket->RemotePort(), server.port);
  EXPECT_EQ(socket->State(), SocketState::sckResolvingHost);
  ExpectEvents(socket, "Error(11001)");
}

TEST_F(ConnectTest, ToANameResolvesFirst) {
  names.SetAddresses("server.test", {kLoopback, IP("127.0.0.2")});
  names.HoldAnswers();
  socket->Connect("server.test", server.port);
  EXPECT_EQ(socket->State(), SocketState::sckResolvingHost);
  EXPECT_EQ(socket->RemoteHostIP(), "");
  EXPECT_EQ(names.AskedNames(), std::vector<std::string>{"server.test"});
  EXPECT_EQ(names.Deliver(), 1U);
  EXPECT_EQ(socket->State(), SocketState::sckConnecting);
  ExpectEvents(socket, "Connect");
  EXPECT_EQ(socket->RemoteHost(), "server.test");
  EXPECT_EQ(socket->RemoteHostIP(), "127.0.0.1");
}

TEST_F(ConnectTest, ToAllOnesGoesTheWayOfANameAndOtherAddressesDoNot) {
  socket->Connect("255.255.255.255", server.port);
  EXPECT_EQ(socket->State(), SocketState::sckResolvingHost);
  EXPECT_EQ(names.AskedNames(), std::vector<std::string>{"255.255.255.255"});
}

TEST_F(ConnectTest, AFailedLookUpIsAnErrorEventOfConnectToIP) {
  for (const int number : {11001, 11002, 11003, 11004}) {
    names.SetAddressError("server.test", number);
    socket->Connect("server.test", server.port);
    ExpectEvents(socket, "Error(" + std::to_string(number) + ")");
    EXPECT_EQ(socket.error_source, "CSocketMaster.ConnectToIP");
    EXPECT_EQ(socket.error_description, SocketErrorText(number));
    EXPECT_EQ(socket->State(), SocketState::sckError);
    socket->CloseSck();
  }
}

TEST_F(ConnectTest, AnAnswerAfterAnErrorIsIgnored) {
  names.SetAddresses("server.test", {kLoopback});
  names.HoldAnswers();
  socket->Connect("server.test", server.port);
  socket->OnSocketEvent({socket->SocketHandle(), 0}, SocketEvent::kConnect, 10050);
  EXPECT_EQ(names.Deliver(), 1U);
  ExpectEvents(socket, "Error(10050)");
  EXPECT_EQ(socket->State(), SocketState::sckError);
}

TEST_F(ConnectTest, ALookUpThatCannotBeginIsAnErrorEvent) {
  class NoLookup final : public NameLookup {
   public:
    LookupId FindAddresses(std::string_view, LookupFamily,
                           std::function<void(const AddressAnswer&)>) override {
      return 0;
    }
    LookupId FindName(const IPAddress&, std::function<void(const NameAnswer&)>) override { return 0; }
    LookupId FindConfirmedName(const IPAddress&, std::function<void(const NameAnswer&)>) override {
      return 0;
    }
    void Cancel(LookupId) override {}
    std::optional<IPAddress> ResolveLocally(std::string_view) override { return std::nullopt; }
    NameAnswer LocalHostName() override { return {11003, {}}; }
  };
  NoLookup none;
  modSocketMaster other(sockets, none, log);
  TracedSocket lost(other);
  lost->Connect("server.test", 25);
  EXPECT_EQ(lost.Take(), "Error(11003)");
  EXPECT_EQ(lost.error_source, "CSocketMaster.ResolveIfHostname");
}

TEST_F(ConnectTest, AnAnswerAfterCloseSckIsDropped) {
  names.SetAddresses("server.test", {kLoopback});
  names.HoldAnswers();
  socket->Connect("server.test", server.port);
  socket->CloseSck();
  EXPECT_EQ(socket->State(), SocketState::sckClosed);
  // The same object looks up another name meanwhile.
  names.SetAddressError("other.test", 11001);
  socket->Connect("other.test", server.port);
  names.Deliver();
  ExpectEvents(socket, "Error(11001)");
}

TEST_F(ConnectTest, ALookUpEndsWithTheObject) {
  names.HoldAnswers();
  auto mortal = std::make_unique<TracedSocket>(module);
  (*mortal)->Connect("server.test", server.port);
  EXPECT_EQ(names.Waiting(), 1U);
  mortal.reset();
  EXPECT_EQ(names.Waiting(), 0U);
}

TEST_F(ConnectTest, ARefusalIsAnErrorEvent) {
  server.Close();
  socket->Connect("127.0.0.1", server.port);
  ExpectEvents(socket, "Error(10061)");
  EXPECT_EQ(socket.error_description, "Connection refused.");
  EXPECT_TRUE(socket.error_source == "CSocketMaster.PostSocket" ||
              socket.error_source == "CSocketMaster.ConnectToIP");  // the system may know at once
  EXPECT_EQ(socket->State(), SocketState::sckError);
}

TEST_F(ConnectTest, OnlyCloseSckLeavesTheErrorState) {
  server.Close();
  socket->Connect("127.0.0.1", server.port);
  ExpectEvents(socket, "Error(10061)");
  ExpectError([&] { socket->Connect("127.0.0.1", server.port); }, 40020, "CSocketMaster.Connect", kBadState);
  socket->CloseSck();
  EXPECT_EQ(module.LingeringCount(), 0U);  // a connection that failed needs no orderly end
  PeerListener second(loop);
  socket->Connect("127.0.0.1", second.port);
  ExpectEvents(socket, "Connect");
}

TEST_F(ConnectTest, ARefusalTheSystemReturnsAtOnceIsAnErrorEventOfConnectToIP) {
  // No socket can connect to a broadcast address without asking for it.
  names.SetAddresses("all.test", {IP("255.255.255.255")});
  socket->Connect("all.test", 25);
  RunUntil(loop, [&] { return !socket.trace.empty(); });
  EXPECT_EQ(socket->State(), SocketState::sckError);
  EXPECT_EQ(socket.error_source, "CSocketMaster.ConnectToIP");
}

TEST_F(ConnectTest, WithoutADescriptorTheErrorEventSaysSo) {
  // Before the limit: a sanitizer needs descriptors for its first look at an object.
  socket->Connect("unknown.test", server.port);
  ExpectEvents(socket, "Error(11001)");
  socket->CloseSck();
  OpenFileLimit limit;
  limit.LeaveOnly(0);
  socket->Connect("127.0.0.1", server.port);
  limit.Lift();
  EXPECT_EQ(socket.Take(), "Error(10024)");
  EXPECT_EQ(socket.error_source, "CSocketMaster.SocketExists");
  EXPECT_EQ(socket.error_description, "Too many open files.");
  EXPECT_EQ(socket->SocketHandle(), -1);
  // Without a socket CloseSck does nothing, whatever the state.
  socket->CloseSck();
  EXPECT_EQ(socket->State(), SocketState::sckError);
}

TEST_F(ConnectTest, NotificationsInTheWrongStateAreDropped) {
  socket->Connect("127.0.0.1", server.port);
  const SocketHandle handle{socket->SocketHandle(), 0};
  socket->OnSocketEvent(handle, SocketEvent::kClose, 0);
  EXPECT_EQ(socket->State(), SocketState::sckConnecting);
  socket->OnSocketEvent(handle, SocketEvent::kRead, 0);
  socket->OnSocketEvent(handle, SocketEvent::kAccept, 0);
  ExpectEvents(socket, "Connect");
  socket->OnSocketEvent(handle, SocketEvent::kConnect, 0);
  socket->OnSocketEvent(handle, SocketEvent::kAccept, 0);
  socket->OnSocketEvent(handle, SocketEvent::kWrite, 0);
  EXPECT_EQ(socket.Take(), "");
  socket->OnSocketEvent(handle, SocketEvent::kClose, 0);
  EXPECT_EQ(socket.Take(), "CloseSck");
  EXPECT_EQ(socket->State(), SocketState::sckClosing);
  socket->OnSocketEvent(handle, SocketEvent::kRead, 0);
  socket->OnSocketEvent(handle, SocketEvent::kClose, 0);
  EXPECT_EQ(socket.Take(), "");
  // An error counts in every state.
  socket->OnSocketEvent(handle, SocketEvent::kRead, 10053);
  EXPECT_EQ(socket.Take(), "Error(10053)");
  EXPECT_EQ(socket.error_source, "CSocketMaster.PostSocket");
  EXPECT_EQ(socket.error_description, "Software caused connection abort.");
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(ConnectTest, NotificationsOfAnotherSocketAreDropped) {
  socket->Connect("127.0.0.1", server.port);
  ExpectEvents(socket, "Connect");
  socket->OnSocketEvent({socket->SocketHandle(), 77}, SocketEvent::kClose, 0);
  EXPECT_EQ(socket.Take(), "");
  EXPECT_EQ(socket->State(), SocketState::sckConnected);
}

TEST_F(ConnectTest, AnErrorTextIsShownWhenTheOwnerWantsIt) {
  socket->Events.Error = [](int, std::string& description, const std::string&, bool& cancel) {
    description = "What the owner makes of it.";
    cancel = false;
  };
  server.Close();
  testing::internal::CaptureStderr();
  socket->Connect("127.0.0.1", server.port);
  RunUntil(loop, [&] { return socket->State() == SocketState::sckError; });
  const std::string shown = testing::internal::GetCapturedStderr();
  EXPECT_NE(shown.find("What the owner makes of it."), std::string::npos) << shown;
  EXPECT_EQ(shown.substr(0, 14), "CSocketMaster.");
}

TEST_F(ConnectTest, AnErrorOfAHandlerIsLoggedAndTheSocketGoesOn) {
  socket->Events.Connect = [] { throw Error(321, "some.handler", "Broken."); };
  socket->Connect("127.0.0.1", server.port);
  ASSERT_TRUE(RunUntil(loop, [&] { return !log.Lines().empty(); }));
  EXPECT_EQ(log.Take(), std::vector<std::string>{"Error 321 in some.handler. Broken."});
  EXPECT_EQ(socket->State(), SocketState::sckConnected);

  socket->Events.DataArrival = [] { throw std::runtime_error("deep trouble"); };
  const auto other = server.Accept();
  other->Send("x");
  ASSERT_TRUE(RunUntil(loop, [&] { return !log.Lines().empty(); }));
  EXPECT_EQ(log.Take(), std::vector<std::string>{"Error 7 in CSocketMaster.DataArrival. deep trouble"});
  socket->Events.SendComplete = [] { throw Error(1, "a.b", "c"); };
  socket->SendData("y");  // the handler runs inside, its error stays there
  EXPECT_EQ(log.Take(), std::vector<std::string>{"Error 1 in a.b. c"});
  socket->Events.Owner = "cProxy.Sender";
  socket->Events.SendComplete = [] { throw std::runtime_error("deep trouble"); };
  socket->SendData("z");
  EXPECT_EQ(log.Take(), std::vector<std::string>{"Error 7 in cProxy.Sender_SendComplete. deep trouble"});
}

TEST_F(ConnectTest, ASocketWithoutHandlersStillWorks) {
  CSocketMaster silent(module);
  silent.Connect("127.0.0.1", server.port);
  ASSERT_TRUE(RunUntil(loop, [&] { return silent.State() == SocketState::sckConnected; }));
  const auto other = server.Accept();
  silent.SendData("hello");
  EXPECT_EQ(other->Receive(5), "hello");
  other->Close();
  ASSERT_TRUE(RunUntil(loop, [&] { return silent.State() == SocketState::sckClosing; }));
}

}  // namespace
}  // namespace trabex

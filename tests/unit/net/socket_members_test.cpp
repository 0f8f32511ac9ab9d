// The rules of properties and methods: which state allows what, and which error says no.
#include "net_fixture.h"

namespace trabex {
namespace {

using Action = std::function<void(CSocketMaster&)>;

// A socket in each state that can be had without a network partner of its own.
class MembersTest : public NetTest {
 protected:
  std::unique_ptr<TracedSocket> InState(SocketState state) {
    auto socket = std::make_unique<TracedSocket>(module);
    switch (state) {
      case SocketState::sckClosed:
        break;
      case SocketState::sckOpen:
        (*socket)->Bind(0, "127.0.0.1");
        break;
      case SocketState::sckListening:
        (*socket)->Listen();
        break;
      case SocketState::sckResolvingHost:
        names.HoldAnswers();
        (*socket)->Connect("host.test", 25);
        break;
      case SocketState::sckConnecting:
        (*socket)->Connect("127.0.0.1", server.port);
        break;
      case SocketState::sckConnected:
        (*socket)->Connect("127.0.0.1", server.port);
        EXPECT_TRUE(RunUntil(loop, [&] { return (*socket)->State() == SocketState::sckConnected; }));
        break;
      case SocketState::sckClosing:
        (*socket)->Connect("127.0.0.1", ending_server.port);
        EXPECT_TRUE(RunUntil(loop, [&] { return (*socket)->State() == SocketState::sckConnected; }));
        ending_server.Accept()->Close();
        EXPECT_TRUE(RunUntil(loop, [&] { return (*socket)->State() == SocketState::sckClosing; }));
        break;
      case SocketState::sckError:
        names.SetAddressError("broken.test", 11003);
        (*socket)->Connect("broken.test", 25);
        names.Deliver();
        EXPECT_TRUE(RunUntil(loop, [&] { return (*socket)->State() == SocketState::sckError; }));
        break;
      case SocketState::sckHostResolved:
        break;
    }
    EXPECT_EQ((*socket)->State(), state);
    return socket;
  }

  PeerListener server{loop};
  PeerListener ending_server{loop};
};

constexpr SocketState kStates[] = {
    SocketState::sckClosed,        SocketState::sckOpen,       SocketState::sckListening,
    SocketState::sckResolvingHost, SocketState::sckConnecting, SocketState::sckConnected,
    SocketState::sckClosing,       SocketState::sckError,
};

// Every state that is not among the allowed ones raises this error.
struct StateRule {
  const char* member;
  Action call;
  std::vector<SocketState> allowed;
  int number;
  const char* source;
  const char* text;
};

TEST_F(MembersTest, EachIsRefusedInAllOtherStates) {
  std::string data;
  const StateRule rules[] = {
      {"RemotePort",
       [](CSocketMaster& s) { s.SetRemotePort(1); },
       {SocketState::sckClosed},
       40020,
       "CSocketMaster.RemotePort",
       kBadState},
      {"RemoteHost",
       [](CSocketMaster& s) { s.SetRemoteHost("h"); },
       {SocketState::sckClosed},
       40020,
       "CSocketMaster.RemoteHost",
       kBadState},
      {"LocalPort",
       [](CSocketMaster& s) { s.SetLocalPort(1); },
       {SocketState::sckClosed},
       40020,
       "CSocketMaster.LocalPort",
       kBadState},
      {"Protocol",
       [](CSocketMaster& s) { s.SetProtocol(SocketProtocol::sckTCPProtocol); },
       {SocketState::sckClosed},
       40020,
       "CSocketMaster.Protocol",
       kBadState},
      {"Connect",
       [](CSocketMaster& s) { s.Connect("127.0.0.1", 1); },
       {SocketState::sckClosed},
       40020,
       "CSocketMaster.Connect",
       kBadState},
      {"Bind",
       [](CSocketMaster& s) { s.Bind(0, "127.0.0.1"); },
       {SocketState::sckClosed},
       40020,
       "CSocketMaster.Bind",
       kBadState},
      {"Listen",
       [](CSocketMaster& s) { s.Listen(); },
       {SocketState::sckClosed, SocketState::sckOpen},
       40020,
       "CSocketMaster.Listen",
       kBadState},
      {"Accept",
       [](CSocketMaster& s) { s.Accept(1); },
       {SocketState::sckClosed},
       40020,
       "CSocketMaster.Accept",
       kBadState},
      {"SendData",
       [](CSocketMaster& s) { s.SendData("x"); },
       {SocketState::sckConnected},
       40006,
       "CSocketMaster.SendData",
       kWrongState},
      {"GetData",
       [&](CSocketMaster& s) { s.GetData(data); },
       {SocketState::sckConnected},
       40006,
       "CSocketMaster.GetData",
       kWrongState},
      {"PeekData",
       [&](CSocketMaster& s) { s.PeekData(data); },
       {SocketState::sckConnected},
       40006,
       "CSocketMaster.PeekData",
       kWrongState},
      {"PeekView",
       [](CSocketMaster& s) { s.PeekView(); },
       {SocketState::sckConnected},
       40006,
       "CSocketMaster.PeekData",
       kWrongState},
      {"SetPeer",
       [](CSocketMaster& s) { s.SetPeer({}, {}); },
       {SocketState::sckConnected},
       40006,
       "CSocketMaster.SetPeer",
       kWrongState},
  };
  for (const SocketState state : kStates) {
    const auto socket = InState(state);
    for (const StateRule& rule : rules) {
      SCOPED_TRACE(std::string(rule.member) + " in state " + std::to_string(static_cast<int>(state)));
      if (std::find(rule.allowed.begin(), rule.allowed.end(), state) != rule.allowed.end()) continue;
      ExpectError([&] { rule.call(**socket); }, rule.number, rule.source, rule.text);
      EXPECT_EQ((*socket)->State(), state);
    }
  }
}

TEST_F(MembersTest, BeginEmpty) {
  CSocketMaster socket(module);
  EXPECT_EQ(socket.SocketHandle(), -1);
  EXPECT_EQ(socket.State(), SocketState::sckClosed);
  EXPECT_EQ(socket.Tag(), "");
  EXPECT_EQ(socket.RemoteHost(), "");
  EXPECT_EQ(socket.RemotePort(), 0);
  EXPECT_EQ(socket.RemoteHostIP(), "");
  EXPECT_EQ(socket.LocalPort(), 0);
  EXPECT_EQ(socket.Protocol(), SocketProtocol::sckTCPProtocol);
  EXPECT_EQ(socket.BytesReceived(), 0);
  EXPECT_EQ(socket.BytesSent(), 0);
  EXPECT_EQ(socket.PendingBytes(), 0U);
  EXPECT_EQ(static_cast<int>(SocketState::sckError), 9);
}

TEST_F(MembersTest, HoldWhatTheyAreGiven) {
  CSocketMaster socket(module);
  socket.SetTag("tag");
  socket.SetRemoteHost("host.test");
  socket.SetRemotePort(25);
  socket.SetLocalPort(65535);
  EXPECT_EQ(socket.Tag(), "tag");
  EXPECT_EQ(socket.RemoteHost(), "host.test");
  EXPECT_EQ(socket.RemotePort(), 25);
  EXPECT_EQ(socket.LocalPort(), 65535);
  socket.SetRemotePort(0);
  EXPECT_EQ(socket.RemotePort(), 0);
  socket.SetProtocol(SocketProtocol::sckUDPProtocol);
  EXPECT_EQ(socket.Protocol(), SocketProtocol::sckUDPProtocol);
}

TEST_F(MembersTest, PortsOutsideOfTheirRangeAreRefusedAndChangeNothing) {
  CSocketMaster socket(module);
  socket.SetRemotePort(7);
  socket.SetLocalPort(8);
  for (const std::int32_t port : {-1, 65536, -65536, 2147483647}) {
    ExpectError([&] { socket.SetRemotePort(port); }, 40014, "CSocketMaster.RemotePort", kBadArgument);
    ExpectError([&] { socket.SetLocalPort(port); }, 40014, "CSocketMaster.LocalPort", kBadArgument);
    ExpectError([&] { socket.Connect("127.0.0.1", port); }, 40014, "CSocketMaster.Connect", kBadArgument);
    ExpectError([&] { socket.Bind(port); }, 40014, "CSocketMaster.BindInternal", kBadArgument);
  }
  EXPECT_EQ(socket.RemotePort(), 7);
  EXPECT_EQ(socket.LocalPort(), 8);
  EXPECT_EQ(socket.State(), SocketState::sckClosed);
}

TEST_F(MembersTest, ConnectRefusesPortZeroThatThePropertyAccepts) {
  CSocketMaster socket(module);
  ExpectError([&] { socket.Connect("127.0.0.1", 0); }, 40014, "CSocketMaster.Connect", kBadArgument);
  EXPECT_EQ(socket.RemoteHost(), "127.0.0.1");  // the host has no check of its own
  EXPECT_EQ(socket.SocketHandle(), -1);
}

TEST_F(MembersTest, NegativeLengthsAreRefused) {
  Connection();
  std::string data = "before";
  ExpectError([&] { (*accepted)->GetData(data, -1); }, 40014, "CSocketMaster.GetData", kBadArgument);
  ExpectError([&] { (*accepted)->PeekData(data, -1); }, 40014, "CSocketMaster.PeekData", kBadArgument);
  ExpectError([&] { (*accepted)->PeekView(-2147483647); }, 40014, "CSocketMaster.PeekData", kBadArgument);
  EXPECT_EQ((*accepted)->State(), SocketState::sckConnected);
}

TEST_F(MembersTest, BindChoosesAPort) {
  CSocketMaster socket(module);
  socket.Bind(0, "127.0.0.1");
  EXPECT_EQ(socket.State(), SocketState::sckOpen);
  EXPECT_GT(socket.LocalPort(), 0);
  EXPECT_GT(socket.SocketHandle(), 0);
  socket.CloseSck();
  EXPECT_EQ(socket.LocalPort(), 0);  // as it was asked for
  EXPECT_EQ(socket.SocketHandle(), -1);
}

TEST_F(MembersTest, BindTakesTheRequestedPort) {
  CSocketMaster socket(module);
  WithFreePort([&](int port) {
    socket.Bind(port, "127.0.0.1");
    EXPECT_EQ(socket.LocalPort(), port);
    socket.CloseSck();
    EXPECT_EQ(socket.LocalPort(), port);
  });
  // Without arguments: the property's port, any address.
  WithFreePort([&](int port) {
    socket.SetLocalPort(port);
    socket.Bind();
    EXPECT_EQ(socket.LocalPort(), port);
    EXPECT_EQ(socket.LocalIP(), "0.0.0.0");
  });
}

TEST_F(MembersTest, BindTakesKnownNamesAndRefusesOthersWithoutWaiting) {
  names.SetLocalAddress("loop.test", kLoopback);
  names.SetAddresses("dns.test", {kLoopback});
  CSocketMaster socket(module);
  socket.Bind(0, "loop.test");
  EXPECT_EQ(socket.LocalIP(), "127.0.0.1");
  socket.CloseSck();
  ExpectError([&] { socket.Bind(0, "dns.test"); }, 40014, "CSocketMaster.BindInternal", "Invalid argument");
  EXPECT_EQ(names.AddressRequests(), 0U);
  EXPECT_EQ(socket.State(), SocketState::sckClosed);
}

TEST_F(MembersTest, BindReportsWhatTheSystemSays) {
  StartListener();
  CSocketMaster socket(module);
  ExpectError([&] { socket.Bind((*listener)->LocalPort(), "127.0.0.1"); }, 10048,
              "CSocketMaster.BindInternal", "Address already in use.");
  EXPECT_EQ(socket.State(), SocketState::sckClosed);
  ExpectError([&] { socket.Bind(0, "192.0.2.1"); }, 10049, "CSocketMaster.BindInternal",
              "Cannot assign requested address.");
  // Another try goes on with the same socket, and CloseSck frees it.
  socket.Bind(0, "127.0.0.1");
  EXPECT_EQ(socket.State(), SocketState::sckOpen);
  socket.CloseSck();
  EXPECT_EQ(socket.SocketHandle(), -1);
}

TEST_F(MembersTest, ASocketThatAFailedBindLeftIsClosedToo) {
  CSocketMaster socket(module);
  EXPECT_THROW(socket.Bind(0, "192.0.2.1"), Error);
  EXPECT_GT(socket.SocketHandle(), 0);
  socket.CloseSck();
  EXPECT_EQ(socket.SocketHandle(), -1);
  EXPECT_EQ(module.LingeringCount(), 0U);
}

TEST_F(MembersTest, CloseSckWithoutASocketDoesNothing) {
  TracedSocket socket(module);
  socket->CloseSck();
  EXPECT_EQ(socket->State(), SocketState::sckClosed);
  EXPECT_EQ(socket.Take(), "");
}

TEST_F(MembersTest, CloseSckInEveryStateEndsClosedWithoutAnyEvent) {
  for (const SocketState state : kStates) {
    SCOPED_TRACE(static_cast<int>(state));
    const auto socket = InState(state);
    socket->Take();
    (*socket)->CloseSck();
    EXPECT_EQ((*socket)->State(), SocketState::sckClosed);
    EXPECT_EQ((*socket)->SocketHandle(), -1);
    EXPECT_EQ((*socket)->RemoteHostIP(), "");
    RunUntilIdle(loop);
    names.Deliver();
    RunUntilIdle(loop);
    EXPECT_EQ(socket->Take(), "");
    EXPECT_EQ((*socket)->State(), SocketState::sckClosed);
  }
}

TEST_F(MembersTest, ListenBindsByItselfUnlessBound) {
  TracedSocket socket(module);
  socket->Listen();
  EXPECT_EQ(socket->State(), SocketState::sckListening);
  EXPECT_GT(socket->LocalPort(), 0);
  EXPECT_EQ(socket->LocalIP(), "0.0.0.0");
}

TEST_F(MembersTest, ListenReportsWhatTheSystemSays) {
  CSocketMaster datagrams(module);
  datagrams.SetProtocol(SocketProtocol::sckUDPProtocol);
  ExpectError([&] { datagrams.Listen(); }, 10045, "CSocketMaster.Listen", "Operation not supported.");
}

TEST_F(MembersTest, SetPeerSaysWhoseConnectionItIs) {
  Connection();
  const Endpoint own{kLoopback, static_cast<std::uint16_t>((*listener)->LocalPort())};
  EXPECT_EQ((*accepted)->RemoteAddress(), kLoopback);
  EXPECT_EQ((*accepted)->RemotePort(), peer->Port());
  EXPECT_EQ((*accepted)->CalledEndpoint(), own);

  const IPAddress client = *ParseIPAddress("2001:db8::7");
  const Endpoint called{*ParseIPAddress("2001:db8::25"), 25};
  (*accepted)->SetPeer({client, 51234}, called);
  EXPECT_EQ((*accepted)->RemoteAddress(), client);
  EXPECT_EQ((*accepted)->RemoteHostIP(), "2001:db8::7");
  EXPECT_EQ((*accepted)->RemotePort(), 51234);
  EXPECT_EQ((*accepted)->CalledEndpoint(), called);

  names.SetName(client, "mail.client.test");
  bool known = false;
  (*accepted)->LookUpRemoteHostName([&] { known = true; });
  EXPECT_TRUE(RunUntil(loop, [&] { return known; }));
  EXPECT_EQ((*accepted)->RemoteHostName(), "mail.client.test");

  (*accepted)->CloseSck();
  EXPECT_EQ((*accepted)->RemoteHostIP(), "");
  EXPECT_EQ((*accepted)->CalledEndpoint(), Endpoint{});
}

TEST_F(MembersTest, SetPeerHoldsForOneConnectionOnly) {
  Connection();
  (*accepted)->SetPeer({IPAddress::IPv4(0xC0000207), 1}, {IPAddress::IPv4(0xC0000208), 2});
  (*accepted)->CloseSck();
  (*accepted)->Connect("127.0.0.1", server.port);
  EXPECT_TRUE(RunUntil(loop, [&] { return (*accepted)->State() == SocketState::sckConnected; }));
  EXPECT_EQ((*accepted)->RemoteAddress(), kLoopback);
  EXPECT_EQ((*accepted)->CalledEndpoint().address, kLoopback);
}

TEST_F(MembersTest, UncountedBytesAreTakenAndCountAsNone) {
  Connection();
  peer->Send("HEADERline");
  AllHere();
  EXPECT_EQ((*accepted)->PeekView(), "HEADERline");
  (*accepted)->ConsumeUncounted(6);
  EXPECT_EQ((*accepted)->BytesReceived(), 0);
  EXPECT_EQ((*accepted)->PeekView(), "line");
  (*accepted)->Consume(4);
  EXPECT_EQ((*accepted)->BytesReceived(), 4);
}

}  // namespace
}  // namespace trabex

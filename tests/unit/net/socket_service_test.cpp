// Error texts, the shared service, names and addresses of this machine and of peers.
#include <algorithm>

#include "net/known_host.h"
#include "net/socket_errors.h"
#include "net_fixture.h"

namespace trabex {
namespace {

struct TextRow {
  int number;
  const char* text;
};

// Otherwise the bytes between its parts would be shown too, which nobody has written.
void PrintTo(const TextRow& row, std::ostream* out) {
  *out << row.number << ' ' << row.text;
}

class SocketErrorTextTest : public testing::TestWithParam<TextRow> {};

TEST_P(SocketErrorTextTest, IsThatOfTheTable) {
  EXPECT_EQ(SocketErrorText(GetParam().number), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SocketErrorTextTest,
    testing::Values(
        TextRow{10004, "Interrupted function call."}, TextRow{10013, "Permission denied."},
        TextRow{10014, "Bad address."}, TextRow{10022, "Invalid argument."},
        TextRow{10024, "Too many open files."}, TextRow{10035, "Resource temporarily unavailable."},
        TextRow{10036, "Operation now in progress."}, TextRow{10037, "Operation already in progress."},
        TextRow{10038, "Socket operation on nonsocket."}, TextRow{10039, "Destination address required."},
        TextRow{10040, "Message too long."}, TextRow{10041, "Protocol wrong type for socket."},
        TextRow{10042, "Bad protocol option."}, TextRow{10043, "Protocol not supported."},
        TextRow{10044, "Socket type not supported."}, TextRow{10045, "Operation not supported."},
        TextRow{10046, "Protocol family not supported."},
        TextRow{10047, "Address family not supported by protocol family."},
        TextRow{10048, "Address already in use."}, TextRow{10049, "Cannot assign requested address."},
        TextRow{10050, "Network is down."}, TextRow{10051, "Network is unreachable."},
        TextRow{10052, "Network dropped connection on reset."},
        TextRow{10053, "Software caused connection abort."}, TextRow{10054, "Connection reset by peer."},
        TextRow{10055, "No buffer space available."}, TextRow{10056, "Socket is already connected."},
        TextRow{10057, "Socket is not connected."}, TextRow{10058, "Cannot send after socket shutdown."},
        TextRow{10060, "Connection timed out."}, TextRow{10061, "Connection refused."},
        TextRow{10065, "No route to host."}, TextRow{10067, "Too many processes."},
        TextRow{10091, "Network subsystem is unavailable."},
        TextRow{10092, "Winsock.dll version out of range."},
        TextRow{10093, "Successful WSAStartup not yet performed."}, TextRow{11001, "Host not found."},
        TextRow{11002, "Nonauthoritative host not found."}, TextRow{11003, "This is a nonrecoverable error."},
        TextRow{11004, "Valid name, no data record of requested type."}, TextRow{0, "Unknown error."},
        TextRow{10059, "Unknown error."}, TextRow{10107, "Unknown error."}, TextRow{-1, "Unknown error."}));

class ServiceTest : public NetTest {};

TEST_F(ServiceTest, RunsFromTheFirstObjectToTheLast) {
  EXPECT_FALSE(module.ServiceStarted());
  auto first = std::make_unique<CSocketMaster>(module);
  EXPECT_TRUE(module.ServiceStarted());
  auto second = std::make_unique<CSocketMaster>(module);
  EXPECT_EQ(module.ObjectCount(), 2U);
  first.reset();
  EXPECT_TRUE(module.ServiceStarted());
  second.reset();
  EXPECT_FALSE(module.ServiceStarted());
  EXPECT_EQ(module.ObjectCount(), 0U);
}

TEST_F(ServiceTest, AnObjectOfASessionIsSmallAndHoldsNoBuffers) {
  EXPECT_LE(sizeof(CSocketMaster), 600U);
}

TEST_F(ServiceTest, KnownHosts) {
  names.SetLocalAddress("mail.test", IP("192.0.2.25"));
  struct Row {
    const char* host;
    int error;
    const char* text;
  };
  for (const Row& row : {Row{"", 10047, ""}, Row{"127.0.0.1", 0, "127.0.0.1"}, Row{"10.1.2.3", 0, "10.1.2.3"},
                         Row{"mail.test", 0, "192.0.2.25"}, Row{"MAIL.test", 0, "192.0.2.25"},
                         Row{"unknown.test", 11001, ""}, Row{"1.2.3", 11001, ""}}) {
    const HostAddress address = LookUpKnownHost(names, row.host);
    EXPECT_EQ(address.error, row.error) << row.host;
    EXPECT_EQ(FormatIPAddress(address.address), row.text) << row.host;
  }
  EXPECT_EQ(LookUpKnownHost(names, "mail.test").address, IP("192.0.2.25"));
}

TEST_F(ServiceTest, LocalHostNameIsCachedUntilItIsAskedForAnew) {
  CSocketMaster socket(module);
  names.SetLocalHostNameError(11003);
  ExpectError([&] { socket.LocalHostName(); }, 11003, "CSocketMaster.GetLocalHostName",
              "This is a nonrecoverable error.");
  names.SetLocalHostName("first.test");
  EXPECT_EQ(socket.LocalHostName(), "first.test");
  names.SetLocalHostName("second.test");
  EXPECT_EQ(socket.LocalHostName(), "first.test");
  EXPECT_EQ(socket.LocalHostName(true), "second.test");
  EXPECT_EQ(socket.LocalHostName(), "second.test");
  names.SetLocalHostNameError(11001);
  ExpectError([&] { socket.LocalHostName(true); }, 11001, "CSocketMaster.GetLocalHostName",
              "Host not found.");
  EXPECT_EQ(socket.LocalHostName(), "second.test");
}

TEST_F(ServiceTest, LocalIPIsThatOfTheBoundSocketOrOfTheMachinesName) {
  CSocketMaster socket(module);
  names.SetLocalHostName("proxy.test");
  ExpectError([&] { socket.LocalIP(); }, 11001, "CSocketMaster.GetLocalIP", "Host not found.");
  names.SetLocalAddress("proxy.test", IP("192.0.2.1"));
  EXPECT_EQ(socket.LocalIP(), "192.0.2.1");
  socket.Bind(0, "127.0.0.1");
  EXPECT_EQ(socket.LocalIP(), "127.0.0.1");
  socket.Listen();
  EXPECT_EQ(socket.LocalIP(), "127.0.0.1");
  socket.CloseSck();
  EXPECT_EQ(socket.LocalIP(), "192.0.2.1");
  socket.Bind(0);
  EXPECT_EQ(socket.LocalIP(), "0.0.0.0");
  names.SetLocalHostNameError(11003);
  socket.CloseSck();
  ExpectError([&] { socket.LocalIP(); }, 11003, "CSocketMaster.GetLocalIP",
              "This is a nonrecoverable error.");
}

TEST_F(ServiceTest, ThisMachinesAddressesAreDotted) {
  CSocketMaster socket(module);
  const std::vector<std::string> addresses = socket.GetLocalIPAddresses();
  EXPECT_NE(std::find(addresses.begin(), addresses.end(), "127.0.0.1"), addresses.end());
}

class RemoteNameTest : public NetTest {};

TEST_F(RemoteNameTest, IsUnknownUntilItWasLookedUp) {
  Connection();
  names.SetName(kLoopback, "client.test");
  ExpectError([&] { (*accepted)->RemoteHostName(); }, 11002, "CSocketMaster.GetRemoteHostName",
              "Nonauthoritative host not found.");
  int done = 0;
  (*accepted)->LookUpRemoteHostName([&] {
    ++done;
    EXPECT_EQ((*accepted)->RemoteHostName(), "client.test");
  });
  EXPECT_EQ(done, 0);
  ExpectError([&] { (*accepted)->RemoteHostName(); }, 11002, "CSocketMaster.GetRemoteHostName",
              "Nonauthoritative host not found.");
  EXPECT_TRUE(RunUntil(loop, [&] { return done == 1; }));
  EXPECT_EQ((*accepted)->RemoteHostName(), "client.test");
  EXPECT_EQ((*accepted)->RemoteHostName(true), "client.test");
  EXPECT_EQ(names.NameRequests(), 1U);
}

TEST_F(RemoteNameTest, AFailedLookUpLeavesItsError) {
  Connection();
  names.SetNameError(kLoopback, 11003);
  bool done = false;
  (*accepted)->LookUpRemoteHostName([&] { done = true; });
  EXPECT_TRUE(RunUntil(loop, [&] { return done; }));
  ExpectError([&] { (*accepted)->RemoteHostName(); }, 11003, "CSocketMaster.GetRemoteHostName",
              "This is a nonrecoverable error.");
}

TEST_F(RemoteNameTest, ALookUpHasFailedWhenDnsDidNotSay) {
  const struct {
    int error;  // of the name
    bool confirmed;
    int address_error;
    bool failed;
  } rows[] = {
      {0, false, 0, false},     {11001, false, 0, false},    {11002, false, 0, true},
      {11003, false, 0, false}, {11004, false, 0, false},    {0, true, 0, false},
      {0, true, 11001, false},  {0, true, 11002, true},      {0, true, 11003, false},
      {0, true, 11004, false},  {11001, true, 11002, false}, {11002, true, 11001, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.error) + " " + std::to_string(row.address_error));
    peer.reset();
    Connection();
    names.SetName(kLoopback, "client.test");
    if (row.error != 0) names.SetNameError(kLoopback, row.error);
    names.SetAddresses("client.test", {IPAddress::IPv4(0xC0000201)});
    if (row.address_error != 0) names.SetAddressError("client.test", row.address_error);
    EXPECT_FALSE((*accepted)->RemoteHostNameFailed());
    bool done = false;
    (*accepted)->LookUpRemoteHostName([&] { done = true; }, row.confirmed);
    EXPECT_TRUE(RunUntil(loop, [&] { return done; }));
    EXPECT_EQ((*accepted)->RemoteHostNameFailed(), row.failed);
  }
}

TEST_F(RemoteNameTest, ANameThatIsNoPlainHostNameCountsAsNone) {
  struct Row {
    const char* name;
    bool counts;
  };
  for (const Row& row :
       {Row{"host-1.Example_net.test", true}, Row{"a", true}, Row{"", false}, Row{"a b", false},
        Row{"a\r\n250 ok", false}, Row{"a/b", false}, Row{"h\xC3\xB6st.test", false}, Row{"a@b", false},
        Row{"(a)", false}, Row{"a\tb", false}, Row{"a;b", false}}) {
    peer.reset();
    Connection();
    names.SetName(kLoopback, row.name);
    bool done = false;
    (*accepted)->LookUpRemoteHostName([&] { done = true; });
    EXPECT_TRUE(RunUntil(loop, [&] { return done; }));
    if (row.counts) {
      EXPECT_EQ((*accepted)->RemoteHostName(), row.name);
    } else {
      ExpectError([&] { (*accepted)->RemoteHostName(); }, 11004, "CSocketMaster.GetRemoteHostName",
                  "Valid name, no data record of requested type.");
    }
  }
}

TEST_F(RemoteNameTest, AConfirmedNameHasThePeersAddress) {
  struct Row {
    const char* name;
    std::vector<IPAddress> addresses;
    bool confirmed;
  };
  const IPAddress kOther = IP("192.0.2.1");
  const IPAddress kAnother = IP("192.0.2.2");
  for (const Row& row :
       {Row{"client.test", {kLoopback}, true}, Row{"client.test", {kOther, kLoopback, kAnother}, true},
        Row{"client.test", {kOther, kAnother}, false}, Row{"client.test", {}, false},
        Row{"a b", {kLoopback}, false}}) {
    for (const bool wanted : {false, true}) {
      peer.reset();
      Connection();
      names.SetName(kLoopback, row.name);
      names.SetAddresses(row.name, row.addresses);
      bool done = false;
      (*accepted)->LookUpRemoteHostName([&] { done = true; }, wanted);
      EXPECT_TRUE(RunUntil(loop, [&] { return done; }));
      if ((row.confirmed || !wanted) && std::string_view(row.name) != "a b") {
        EXPECT_EQ((*accepted)->RemoteHostName(), row.name);
      } else {
        ExpectError([&] { (*accepted)->RemoteHostName(); }, 11004, "CSocketMaster.GetRemoteHostName",
                    "Valid name, no data record of requested type.");
      }
    }
  }
  EXPECT_EQ(names.NameRequests(), 10U);
  EXPECT_EQ(names.ConfirmedNameRequests(), 5U);
  names.SetNameError(kLoopback, 11003);
  bool done = false;
  (*accepted)->LookUpRemoteHostName([&] { done = true; }, true);
  EXPECT_TRUE(RunUntil(loop, [&] { return done; }));
  ExpectError([&] { (*accepted)->RemoteHostName(); }, 11003, "CSocketMaster.GetRemoteHostName",
              "This is a nonrecoverable error.");
}

TEST_F(RemoteNameTest, ASecondRequestReplacesWhoIsNotified) {
  Connection();
  names.HoldAnswers();
  names.SetName(kLoopback, "client.test");
  std::string notified;
  (*accepted)->LookUpRemoteHostName([&] { notified += "first "; });
  (*accepted)->LookUpRemoteHostName([&] { notified += "second "; });
  EXPECT_EQ(names.Deliver(), 1U);
  EXPECT_EQ(notified, "second ");
  // And a later one asks anew.
  names.SetName(kLoopback, "other.test");
  (*accepted)->LookUpRemoteHostName([&] { notified += "third"; });
  EXPECT_EQ(names.Deliver(), 1U);
  EXPECT_EQ(notified, "second third");
  EXPECT_EQ((*accepted)->RemoteHostName(), "other.test");
}

TEST_F(RemoteNameTest, NoAnswerComesAfterCloseSckOrTheObjectsEnd) {
  Connection();
  names.HoldAnswers();
  bool notified = false;
  (*accepted)->LookUpRemoteHostName([&] { notified = true; });
  (*accepted)->CloseSck();
  EXPECT_EQ(names.Waiting(), 0U);
  peer.reset();
  Connection();
  (*accepted)->LookUpRemoteHostName([&] { notified = true; });
  accepted.reset();
  EXPECT_EQ(names.Waiting(), 0U);
  EXPECT_EQ(names.Deliver(), 0U);
  EXPECT_FALSE(notified);
}

TEST_F(RemoteNameTest, TheObjectMayBeClosedWhenTheAnswerComes) {
  Connection();
  names.SetName(kLoopback, "client.test");
  bool notified = false;
  (*accepted)->LookUpRemoteHostName([&] {
    notified = true;
    (*accepted)->CloseSck();
  });
  EXPECT_TRUE(RunUntil(loop, [&] { return notified; }));
  EXPECT_EQ((*accepted)->RemoteHostName(), "client.test");
}

TEST_F(RemoteNameTest, AnErrorOfTheOneWhoIsNotifiedIsLogged) {
  Connection();
  (*accepted)->LookUpRemoteHostName([] { throw Error(321, "a.handler", "Broken."); });
  EXPECT_TRUE(RunUntil(loop, [&] { return !log.Lines().empty(); }));
  EXPECT_EQ(log.Lines().at(0), "Error 321 in a.handler. Broken.");
}

TEST_F(RemoteNameTest, WithoutAPeerTheRequestRaises) {
  CSocketMaster socket(module);
  ExpectError([&] { socket.LookUpRemoteHostName([] {}); }, 10038, "CSocketMaster.GetRemoteHostName",
              "Socket operation on nonsocket.");
  socket.Bind(0, "127.0.0.1");
  ExpectError([&] { socket.LookUpRemoteHostName([] {}); }, 10057, "CSocketMaster.GetRemoteHostName",
              "Socket is not connected.");
}

TEST_F(RemoteNameTest, TheNameOfAnEarlierPeerIsForgottenByTheNextConnection) {
  Connection();
  names.SetName(kLoopback, "client.test");
  bool done = false;
  (*accepted)->LookUpRemoteHostName([&] { done = true; });
  EXPECT_TRUE(RunUntil(loop, [&] { return done; }));
  const auto ours = std::move(accepted);
  (*ours)->CloseSck();
  EXPECT_EQ((*ours)->RemoteHostName(), "client.test");
  // Accepted anew.
  listener->On("ConnectionRequest", [&] { (*ours)->Accept(listener->request); });
  Peer another(loop);
  another.Connect((*listener)->LocalPort());
  ASSERT_TRUE(RunUntil(loop, [&] { return (*ours)->State() == SocketState::sckConnected; }));
  ExpectError([&] { (*ours)->RemoteHostName(); }, 11002, "CSocketMaster.GetRemoteHostName",
              "Nonauthoritative host not found.");
  done = false;
  (*ours)->LookUpRemoteHostName([&] { done = true; });
  EXPECT_TRUE(RunUntil(loop, [&] { return done; }));
  EXPECT_EQ((*ours)->RemoteHostName(), "client.test");
  // And connected anew.
  (*ours)->CloseSck();
  (*ours)->Connect("127.0.0.1", (*listener)->LocalPort());
  ExpectError([&] { (*ours)->RemoteHostName(); }, 11002, "CSocketMaster.GetRemoteHostName",
              "Nonauthoritative host not found.");
}

}  // namespace
}  // namespace trabex

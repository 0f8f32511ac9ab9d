// A local port that another connection has: the system refuses to connect.
#include "net/socket_errors.h"
#include "unit/net/net_fixture.h"

namespace trabex {
namespace {

class TakenPortTest : public NetTest {
 protected:
  PeerListener server{loop};
  TracedSocket socket{module};
};

TEST_F(TakenPortTest, IsRaisedToTheCallerOfConnect) {
  // The same two endpoints can be connected once only.
  TracedSocket second(module);
  WithFreePort([&](int port) {
    socket->SetLocalPort(port);
    socket->Connect("127.0.0.1", server.port);
    second->SetLocalPort(port);
  });
  ExpectEvents(socket, "Connect");
  ExpectError([&] { second->Connect("127.0.0.1", server.port); }, 10049, "CSocketMaster.ConnectToIP",
              "Cannot assign requested address.");
  EXPECT_EQ(second.Take(), "");
  EXPECT_EQ(second->State(), SocketState::sckConnecting);
  second->CloseSck();
  // After a look-up there is no caller, so the event reports it.
  names.SetAddresses("server.test", {kLoopback});
  second->Connect("server.test", server.port);
  ASSERT_TRUE(RunUntil(loop, [&] { return second->State() == SocketState::sckError; }));
  EXPECT_EQ(second.Take(), "Error(10049)");
}

}  // namespace
}  // namespace trabex

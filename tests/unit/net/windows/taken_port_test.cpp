// A local port that another connection has: the system refuses to bind it again.
#include <cstdint>
#include <string>

#include "net/socket_errors.h"
#include "platform/windows/win.h"
#include "unit/net/net_fixture.h"

namespace trabex {
namespace {

class TakenPortTest : public NetTest {
 protected:
  PeerListener server{loop};
  TracedSocket socket{module};
};

TEST_F(TakenPortTest, IsRaisedToTheCallerOfConnect) {
  TracedSocket second(module);
  WithFreePort([&](int port) {
    socket->SetLocalPort(port);
    socket->Connect("127.0.0.1", server.port);
    second->SetLocalPort(port);
  });
  ExpectEvents(socket, "Connect");
  std::int32_t number = 0;
  try {
    second->Connect("127.0.0.1", server.port);
    FAIL() << "no error";
  } catch (const Error& error) {
    number = error.Number();
    EXPECT_EQ(error.Source(), "CSocketMaster.BindInternal");
  }
  // Which of both depends on the system's version.
  EXPECT_TRUE(number == socket_error::kAddressInUse || number == WSAEACCES) << number;
  EXPECT_EQ(second.Take(), "");
  EXPECT_EQ(second->State(), SocketState::sckClosed);
  second->CloseSck();
  // After a look-up there is no caller, so the event reports it.
  names.SetAddresses("server.test", {kLoopback});
  second->Connect("server.test", server.port);
  ASSERT_TRUE(RunUntil(loop, [&] { return second->State() == SocketState::sckError; }));
  EXPECT_EQ(second.Take(), "Error(" + std::to_string(number) + ")");
}

}  // namespace
}  // namespace trabex

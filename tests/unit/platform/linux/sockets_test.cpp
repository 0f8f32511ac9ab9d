// What the socket layer promises of Linux itself: flags of descriptors, errno, urgent data, descriptor limit.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <set>
#include <string>

#include "platform/clock.h"
#include "platform/linux/sockets/socket_errno.h"
#include "platform/sockets.h"
#include "support/loop_runner.h"
#include "unit/platform/linux/sockets_fixture.h"

namespace trabex {
namespace {

TEST_F(LinuxSocketsTest, EveryDescriptorIsNonBlockingAndClosedOnExec) {
  const std::set<int> before = OpenDescriptors();
  ConnectRaw();
  SocketHandle client;
  ASSERT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, client), 0);
  sockets.Connect(client, {kLoopback, 1});
  SocketHandle datagram;
  ASSERT_EQ(sockets.Open(Transport::kUdp, AddressFamily::kIPv4, datagram), 0);
  EventLoop another(clock);
  int seen = 0;
  int without_delay = 0;
  for (const int descriptor : OpenDescriptors()) {
    if (before.count(descriptor) != 0 || descriptor == raw) continue;
    ++seen;
    EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << descriptor;
    int type = 0;
    socklen_t size = sizeof type;
    if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) != 0) continue;  // the event queue
    EXPECT_NE(fcntl(descriptor, F_GETFL) & O_NONBLOCK, 0) << descriptor;
    if (type != SOCK_STREAM) continue;
    int on = 0;
    size = sizeof on;
    EXPECT_EQ(getsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, &size), 0);
    EXPECT_NE(on, 0) << descriptor;
    ++without_delay;
  }
  EXPECT_EQ(seen, 5);           // listener, accepted, client, datagram, event queue
  EXPECT_EQ(without_delay, 3);  // listener, accepted, client
}

TEST_F(LinuxSocketsTest, UrgentDataInTheStreamStallsNothing) {
  ConnectRaw();
  sockets.Watch(ours, &sink);
  RunUntilIdle(loop);
  ASSERT_EQ(send(raw, "ab", 2, 0), 2);
  ASSERT_EQ(send(raw, "c", 1, MSG_OOB), 1);
  ASSERT_EQ(send(raw, "def", 3, 0), 3);
  shutdown(raw, SHUT_WR);
  std::string got;
  int reads = 0;
  EXPECT_TRUE(RunUntil(loop, [&] {
    if (sink.reads > reads) {
      reads = sink.reads;
      char room[100];
      std::size_t received = 0;
      if (sockets.Receive(ours, room, received) == 0) got.append(room, received);
    }
    return sink.closes == 1;
  }));
  EXPECT_EQ(got, "abdef");  // the urgent byte is not part of the stream
}

TEST_F(LinuxSocketsTest, UrgentDataIsFollowedByMoreWithoutAnEnd) {
  ConnectRaw();
  sockets.Watch(ours, &sink);
  RunUntilIdle(loop);
  ASSERT_EQ(send(raw, "ab", 2, 0), 2);
  ASSERT_EQ(send(raw, "c", 1, MSG_OOB), 1);
  ASSERT_EQ(send(raw, "def", 3, 0), 3);
  std::string got;
  int reads = 0;
  EXPECT_TRUE(RunUntil(loop, [&] {
    if (sink.reads > reads) {
      reads = sink.reads;
      char room[100];
      std::size_t received = 0;
      if (sockets.Receive(ours, room, received) == 0) got.append(room, received);
    }
    return got == "abdef";
  }));
}

TEST_F(LinuxSocketsTest, UrgentDataStopsAReceiveThatCameBeforeTheNotification) {
  ConnectRaw();
  sockets.Watch(ours, &sink);
  RunUntilIdle(loop);
  ASSERT_EQ(send(raw, "ab", 2, 0), 2);
  ASSERT_EQ(send(raw, "c", 1, MSG_OOB), 1);
  ASSERT_EQ(send(raw, "def", 3, 0), 3);
  int left = 0;
  while (ioctl(raw, TIOCOUTQ, &left) == 0 && left > 0) {
  }
  std::string got;
  const auto receive = [&] {
    char room[100];
    std::size_t received = 0;
    if (sockets.Receive(ours, room, received) == 0) got.append(room, received);
  };
  loop.Post(receive);  // after the wait, before the events
  loop.RunOnce(Milliseconds{0});
  EXPECT_EQ(got, "ab");
  EXPECT_TRUE(RunUntil(loop, [&] { return sink.reads > 0; }));
  receive();
  EXPECT_EQ(got, "abdef");
}

TEST_F(LinuxSocketsTest, ASendThatTookNothingIsFollowedByFdWrite) {
  // Small buffers, so that single bytes, which are taken whole or not at all, fill them soon.
  ConnectRawWithSmallBuffers();
  sockets.Watch(ours, &sink);
  RunUntilIdle(loop);
  ASSERT_EQ(sink.writes, 1);
  std::size_t total = 0;
  std::size_t sent = 0;
  int result = 0;
  while ((result = sockets.Send(ours, std::string(1, 'f'), sent)) == 0) total += sent;
  EXPECT_EQ(result, socket_error::kWouldBlock);
  EXPECT_EQ(sent, 0U);
  while (total > 0) {
    char room[4096];
    const ssize_t count = recv(raw, room, sizeof room, 0);
    ASSERT_GT(count, 0);
    total -= static_cast<std::size_t>(count);
  }
  EXPECT_TRUE(RunUntil(loop, [&] { return sink.writes == 2; }));
}

TEST_F(LinuxSocketsTest, ThePeersEndIsKnownWhileDataIsUnread) {
  ConnectRaw();
  sockets.Watch(ours, &sink);
  ASSERT_EQ(send(raw, "data", 4, 0), 4);
  EXPECT_TRUE(RunUntil(loop, [&] { return sink.reads == 1; }));
  EXPECT_FALSE(sockets.PeerEnded(ours));
  shutdown(raw, SHUT_WR);
  EXPECT_TRUE(RunUntil(loop, [&] { return sockets.PeerEnded(ours); }));
  EXPECT_EQ(sink.closes, 0);
  const SocketHandle stale = ours;
  sockets.Close(ours);
  EXPECT_FALSE(sockets.PeerEnded(stale));
}

// Accepts what its listener announces.
class Acceptor final : public SocketSink {
 public:
  explicit Acceptor(Sockets& sockets) : sockets_(sockets) {}
  void OnSocketEvent(SocketHandle listener, SocketEvent, int) override {
    SocketHandle accepted;
    if (sockets_.Accept(listener, accepted) == 0) ++accepts;
  }
  int accepts = 0;

 private:
  Sockets& sockets_;
};

TEST_F(LinuxSocketsTest, NewConnectionsDoNotWaitForAnIterationEachWhileOthersAreBusy) {
  constexpr int kCallers = 20;
  ConnectRaw();
  sockets.Watch(ours, &sink);
  RunUntilIdle(loop);
  Acceptor acceptor(sockets);
  SocketHandle listener;
  Endpoint address;
  Listen(listener, address);
  sockets.Watch(listener, &acceptor);
  SocketHandle callers[kCallers];
  for (SocketHandle& caller : callers) {
    ASSERT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, caller), 0);
    ASSERT_EQ(sockets.Connect(caller, address), socket_error::kWouldBlock);
  }
  ASSERT_EQ(send(raw, "busy", 4, 0), 4);
  loop.RunOnce(Milliseconds{0});
  EXPECT_GT(acceptor.accepts, 10);
  // One listener does not hold up the rest either.
  EXPECT_LT(acceptor.accepts, kCallers);
  EXPECT_TRUE(RunUntil(loop, [&] { return acceptor.accepts == kCallers; }));
}

TEST_F(LinuxSocketsTest, SocketsOfADestroyedTableAreClosed) {
  const std::set<int> before = OpenDescriptors();
  {
    Sockets other(loop);
    SocketHandle handle;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(other.Open(Transport::kUdp, AddressFamily::kIPv4, handle), 0);
    other.Watch(handle, &sink);
  }
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_FALSE(loop.RunOnce(Milliseconds{0}));
}

TEST_F(LinuxSocketsTest, SigpipeIsIgnored) {
  struct sigaction action {};
  ASSERT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
  EXPECT_EQ(action.sa_handler, SIG_IGN);
}

TEST_F(LinuxSocketsTest, TheSoftDescriptorLimitIsRaisedToTheHardOne) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit low = before;
  low.rlim_cur = 100;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  const Sockets other(loop);
  rlimit after{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &after), 0);
  EXPECT_EQ(after.rlim_cur, before.rlim_max);
  setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(LinuxSocketsTest, WithoutDescriptorsOpenAndAcceptSaySo) {
  ConnectRaw();
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit none = before;
  none.rlim_cur = 3;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  SocketHandle handle;
  const int result = sockets.Open(Transport::kTcp, AddressFamily::kIPv4, handle);
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(result, socket_error::kTooManyOpenFiles);
  EXPECT_TRUE(handle.IsNone());
}

struct ErrnoRow {
  int code;
  int number;
};

class SocketErrno : public testing::TestWithParam<ErrnoRow> {};

TEST_P(SocketErrno, HasANumberOfOurs) {
  EXPECT_EQ(SocketErrorOfErrno(GetParam().code), GetParam().number);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SocketErrno,
    testing::Values(ErrnoRow{0, 0}, ErrnoRow{EINTR, 10004}, ErrnoRow{EACCES, 10013}, ErrnoRow{EPERM, 10013},
                    ErrnoRow{EFAULT, 10014}, ErrnoRow{EINVAL, 10022}, ErrnoRow{EMFILE, 10024},
                    ErrnoRow{ENFILE, 10024}, ErrnoRow{EAGAIN, 10035}, ErrnoRow{EINPROGRESS, 10036},
                    ErrnoRow{EALREADY, 10037}, ErrnoRow{ENOTSOCK, 10038}, ErrnoRow{EBADF, 10038},
                    ErrnoRow{EDESTADDRREQ, 10039}, ErrnoRow{EMSGSIZE, 10040}, ErrnoRow{EPROTOTYPE, 10041},
                    ErrnoRow{ENOPROTOOPT, 10042}, ErrnoRow{EPROTONOSUPPORT, 10043},
                    ErrnoRow{ESOCKTNOSUPPORT, 10044}, ErrnoRow{EOPNOTSUPP, 10045},
                    ErrnoRow{EPFNOSUPPORT, 10046}, ErrnoRow{EAFNOSUPPORT, 10047}, ErrnoRow{EADDRINUSE, 10048},
                    ErrnoRow{EADDRNOTAVAIL, 10049}, ErrnoRow{ENETDOWN, 10050}, ErrnoRow{ENETUNREACH, 10051},
                    ErrnoRow{ENETRESET, 10052}, ErrnoRow{ECONNABORTED, 10053}, ErrnoRow{ECONNRESET, 10054},
                    ErrnoRow{EPIPE, 10054}, ErrnoRow{ENOBUFS, 10055}, ErrnoRow{ENOMEM, 10055},
                    ErrnoRow{EISCONN, 10056}, ErrnoRow{ENOTCONN, 10057}, ErrnoRow{ESHUTDOWN, 10058},
                    ErrnoRow{ETIMEDOUT, 10060}, ErrnoRow{ECONNREFUSED, 10061}, ErrnoRow{EHOSTUNREACH, 10065},
                    ErrnoRow{EHOSTDOWN, 10065}, ErrnoRow{EUSERS, 10067}, ErrnoRow{EXDEV, 10107}));

}  // namespace
}  // namespace trabex

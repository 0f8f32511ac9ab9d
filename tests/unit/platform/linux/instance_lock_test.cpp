#include "platform/instance_lock.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "platform/clock.h"
#include "platform/linux/descriptor.h"
#include "support/child_process.h"
#include "support/loop_runner.h"

namespace trabex {
namespace {

using std::chrono::milliseconds;

// A name that no other test process uses.
std::string OwnName(const std::string& name) {
  return "5B0E7C19D4A24F36A1F863D20C97BE48-test-" + std::to_string(getpid()) + "-" + name;
}

// A process that sends anything to a lock.
class Sender {
 public:
  explicit Sender(const std::string& name) : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    address_.sun_family = AF_UNIX;
    std::memcpy(address_.sun_path + 1, name.data(), name.size());
    length_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  }
  ~Sender() { close(socket_); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  // False when the lock cannot take it (without MSG_DONTWAIT it waits until it can).
  bool Send(const std::string& text, int flags = 0) {
    return sendto(socket_, text.data(), text.size(), flags, Address(), length_) ==
           static_cast<ssize_t>(text.size());
  }
  bool SendWithDescriptor(const std::string& text, int descriptor) {
    iovec part{const_cast<char*>(text.data()), text.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_name = &address_;
    message.msg_namelen = length_;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(rights), &descriptor, sizeof(int));
    return sendmsg(socket_, &message, 0) == static_cast<ssize_t>(text.size());
  }
  // Whether the lock has read all that was sent.
  bool AllTaken() const {
    int waiting = 0;
    return ioctl(socket_, SIOCOUTQ, &waiting) == 0 && waiting == 0;
  }

 private:
  const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&address_); }

  int socket_;
  sockaddr_un address_{};
  socklen_t length_ = 0;
};

class InstanceLockTest : public testing::Test {
 protected:
  std::unique_ptr<InstanceLock> TryLock(const std::string& name) {
    return TryLockInstance(loop_, name, [this] { ++requests_; });
  }
  // Runs the loop until the lock has read what was sent to it by now, by any process: messages keep their
  // order, so it has once it read another one.
  bool AllIsRead(const std::string& name) {
    Sender last(name);
    return RunUntil(loop_, [&] { return last.Send("x", MSG_DONTWAIT); }) &&
           RunUntil(loop_, [&] { return last.AllTaken(); });
  }

  SystemClock clock_;
  EventLoop loop_{clock_};
  int requests_ = 0;
};

TEST_F(InstanceLockTest, OnlyOneHoldsTheLock) {
  const std::string name = OwnName("25");
  auto first = TryLock(name);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(TryLock(name), nullptr);
  const auto other_port = TryLock(OwnName("2525"));
  EXPECT_NE(other_port, nullptr);
  const auto longer = TryLock(name + "2");  // the port is part of the name as a whole
  EXPECT_NE(longer, nullptr);
  first.reset();
  EXPECT_NE(TryLock(name), nullptr);
}

TEST_F(InstanceLockTest, ProcessThatIsKilledHoldsNoLock) {
  const std::string name = OwnName("killed");
  Notice locked;
  ChildProcess holder([&] {
    const auto lock = TryLock(name);
    locked.Give();
    for (;;) pause();
    return 0;
  });
  locked.Await();
  EXPECT_EQ(TryLock(name), nullptr);
  holder.Kill();
  EXPECT_NE(TryLock(name), nullptr);
}

TEST_F(InstanceLockTest, ExitRequestReachesTheHolder) {
  const std::string name = OwnName("exit");
  EXPECT_EQ(RequestExit(name), ExitRequest::kNoInstance);
  auto lock = TryLock(name);
  ASSERT_NE(lock, nullptr);
  EXPECT_EQ(RequestExit(name), ExitRequest::kMade);
  EXPECT_EQ(requests_, 0) << "only from the loop";
  EXPECT_TRUE(RunUntil(loop_, [&] { return requests_ == 1; }));
  ChildProcess other([&] { return RequestExit(name) == ExitRequest::kMade ? 0 : 1; });
  EXPECT_TRUE(RunUntil(loop_, [&] { return requests_ == 2; }));
  EXPECT_EQ(other.Wait(), 0);
  EXPECT_EQ(RequestExit(OwnName("other")), ExitRequest::kNoInstance);
  lock.reset();
  EXPECT_EQ(RequestExit(name), ExitRequest::kNoInstance);
  RunUntilIdle(loop_);
  EXPECT_EQ(requests_, 2);
}

TEST_F(InstanceLockTest, MayGoInsideItsOwnCall) {
  const std::string name = OwnName("gone");
  std::unique_ptr<InstanceLock> lock;
  bool done = false;
  const std::string big(100, 'x');  // what the call holds must live on
  lock = TryLockInstance(loop_, name, [&, big] {
    lock.reset();
    done = big.size() == 100;
  });
  ASSERT_NE(lock, nullptr);
  ASSERT_EQ(RequestExit(name), ExitRequest::kMade);
  EXPECT_TRUE(RunUntil(loop_, [&] { return done; }));
  EXPECT_NE(TryLock(name), nullptr);
}

TEST_F(InstanceLockTest, GarbageIsNoExitRequest) {
  const std::string name = OwnName("garbage");
  const auto lock = TryLock(name);
  ASSERT_NE(lock, nullptr);
  Sender sender(name);
  for (const std::string& text :
       {std::string(), std::string("x"), std::string("EXIT"), std::string("exit\n"), std::string("exi"),
        "exit" + std::string(100, '\0'), std::string("\0exit", 5)}) {
    ASSERT_TRUE(sender.Send(text)) << text;
  }
  ASSERT_TRUE(AllIsRead(name));
  EXPECT_EQ(requests_, 0);
  ASSERT_TRUE(sender.Send("exit"));
  ASSERT_TRUE(AllIsRead(name));
  EXPECT_EQ(requests_, 1);
}

TEST_F(InstanceLockTest, DescriptorsThatAreSentAlongAreNotTaken) {
  const std::string name = OwnName("rights");
  const auto lock = TryLock(name);
  ASSERT_NE(lock, nullptr);
  std::array<int, 2> pipe_ends{};
  ASSERT_EQ(pipe(pipe_ends.data()), 0);
  ASSERT_TRUE(Sender(name).SendWithDescriptor("exit", pipe_ends[1]));
  close(pipe_ends[1]);
  EXPECT_TRUE(RunUntil(loop_, [&] { return requests_ == 1; }));
  // The pipe has no writer any more: the one that was sent along is closed.
  char byte = 0;
  EXPECT_EQ(read(pipe_ends[0], &byte, 1), 0);
  close(pipe_ends[0]);
}

TEST_F(InstanceLockTest, RequestOfAnotherUserIsDroppedAndSaysSo) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  constexpr uid_t kSomebody = 12345;
  constexpr uid_t kSomebodyElse = 12346;
  const std::string name = OwnName("user");
  // The holder is an ordinary user; those who ask are another one, the same, and root.
  ChildProcess holder([&] {
    if (seteuid(kSomebody) != 0) return 1;
    const auto lock = TryLock(name);
    if (lock == nullptr) return 1;
    const auto requests_after = [&](uid_t user) {
      if (seteuid(0) != 0) return -1;  // only to make the one who asks
      ChildProcess asking([&] {
        if (setuid(user) != 0) return 2;
        const bool may = user == 0 || user == kSomebody;
        if (RequestExit(name) != (may ? ExitRequest::kMade : ExitRequest::kOtherUser)) return 3;
        return may || Sender(name).Send("exit") ? 0 : 1;
      });
      if (asking.Wait() != 0 || seteuid(kSomebody) != 0) return -2;
      return AllIsRead(name) ? requests_ : -3;
    };
    if (requests_after(kSomebodyElse) != 0) return 2;
    if (requests_after(kSomebody) != 1) return 3;
    if (requests_after(0) != 2) return 4;
    if (requests_after(kSomebodyElse) != 2) return 5;
    return 0;
  });
  EXPECT_EQ(holder.Wait(), 0);
}

// A socket of the name that is bound and nothing else.
Descriptor Bound(const std::string& name, int type) {
  Descriptor own(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data(), name.size());
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  return bind(own.Get(), reinterpret_cast<const sockaddr*>(&address), length) == 0 ? std::move(own)
                                                                                   : Descriptor();
}

TEST_F(InstanceLockTest, OwnUserIsNoOtherOne) {
  const std::string name = OwnName("own");
  EXPECT_EQ(OtherUserHolding(name), std::nullopt) << "nobody";
  const auto lock = TryLock(name);
  ASSERT_NE(lock, nullptr);
  EXPECT_EQ(OtherUserHolding(name), std::nullopt);
}

TEST_F(InstanceLockTest, OtherUserIsNamed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  const passwd* const nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  constexpr uid_t kNameless = 54321;
  ASSERT_EQ(getpwuid(kNameless), nullptr);
  const struct {
    uid_t user;
    std::string told;
  } rows[] = {{nobody->pw_uid, "nobody"}, {kNameless, "uid 54321"}};
  for (const auto& row : rows) {
    const std::string name = OwnName("other-" + row.told);
    Notice bound;
    ChildProcess holder([&] {
      if (setuid(row.user) != 0) return 1;
      const Descriptor own = Bound(name, SOCK_DGRAM);
      bound.Give();
      for (;;) pause();
      return 0;
    });
    bound.Await();
    EXPECT_EQ(TryLock(name), nullptr);
    EXPECT_EQ(OtherUserHolding(name), row.told);
    // Seen by that user itself, and by a third one.
    ChildProcess same([&] { return setuid(row.user) == 0 && !OtherUserHolding(name) ? 0 : 1; });
    EXPECT_EQ(same.Wait(), 0);
    ChildProcess third([&] { return setuid(12345) == 0 && OtherUserHolding(name) == row.told ? 0 : 1; });
    EXPECT_EQ(third.Wait(), 0);
    EXPECT_EQ(OtherUserHolding(name + "2"), std::nullopt);
    EXPECT_EQ(OtherUserHolding(name.substr(0, name.size() - 1)), std::nullopt);
  }
  const std::string name = OwnName("root");
  const auto lock = TryLock(name);
  ChildProcess other([&] { return setuid(nobody->pw_uid) == 0 && OtherUserHolding(name) == "root" ? 0 : 1; });
  EXPECT_EQ(other.Wait(), 0);
}

TEST_F(InstanceLockTest, OtherUserIsFoundAmongManySockets) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  const std::string name = OwnName("many");
  std::vector<Descriptor> sockets;
  for (int i = 0; i < 1000; ++i) sockets.push_back(Bound(name + std::to_string(i), SOCK_DGRAM));
  Notice bound;
  ChildProcess holder([&] {
    if (setuid(54321) != 0) return 1;
    const Descriptor own = Bound(name, SOCK_DGRAM);
    bound.Give();
    for (;;) pause();
    return 0;
  });
  bound.Await();
  EXPECT_EQ(OtherUserHolding(name), "uid 54321");
}

// Each type of socket has names of its own.
TEST_F(InstanceLockTest, SocketsOfOtherTypesAreNotInTheWay) {
  const std::string name = OwnName("types");
  const Descriptor stream = Bound(name, SOCK_STREAM);
  const Descriptor packets = Bound(name, SOCK_SEQPACKET);
  ASSERT_TRUE(stream && packets);
  EXPECT_NE(TryLock(name), nullptr);
}

TEST_F(InstanceLockTest, FloodDoesNotSpinTheLoop) {
  const std::string name = OwnName("flood");
  const auto lock = TryLock(name);
  ASSERT_NE(lock, nullptr);
  ChildProcess flooding([&] {
    Sender sender(name);
    while (sender.Send("exit")) {
    }
    return 1;
  });
  ASSERT_TRUE(RunUntil(loop_, [&] { return requests_ > 0; }));
  int ticks = 0;
  Timer timer(loop_, milliseconds(10), [&] { ++ticks; });
  timer.Enable();
  int iterations = 0;
  requests_ = 0;
  const MonotonicTime begun = clock_.Monotonic();
  ASSERT_TRUE(RunUntil(loop_, [&] {
    ++iterations;
    return ticks >= 50;
  }));
  EXPECT_GT(requests_, 0);
  // Fifty ticks take half a second, and longer where the processors are busy.
  const auto elapsed = (clock_.Monotonic() - begun) / milliseconds(1);
  EXPECT_LE(requests_, elapsed / 100 + 2) << "with a pause of a tenth of a second";
  EXPECT_LT(iterations, elapsed / 2);
  flooding.Kill();
  ASSERT_TRUE(AllIsRead(name));
  const int before = requests_;
  EXPECT_EQ(RequestExit(name), ExitRequest::kMade);
  EXPECT_TRUE(RunUntil(loop_, [&] { return requests_ > before; }));
}

TEST_F(InstanceLockTest, RequestDoesNotWaitForAHolderThatHangs) {
  const std::string name = OwnName("hangs");
  const auto lock = TryLock(name);  // and the loop does not run
  ASSERT_NE(lock, nullptr);
  Sender sender(name);
  int taken = 0;
  while (taken < 1000 && sender.Send("x", MSG_DONTWAIT)) ++taken;
  ASSERT_LT(taken, 1000) << "the system keeps more messages than expected";
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(RequestExit(name), ExitRequest::kFailed);
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
}

}  // namespace
}  // namespace trabex

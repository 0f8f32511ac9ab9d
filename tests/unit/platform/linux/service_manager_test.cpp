#include "platform/service_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/descriptor.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

using testing::StartsWith;

// The end of the service manager: a datagram socket with this name, in the abstract namespace where it begins with "@".
class ManagerSocket {
 public:
  explicit ManagerSocket(std::string name) : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const bool is_abstract = name.front() == '@';
    if (is_abstract) name.front() = '\0';
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path);
    const auto length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + (is_abstract ? 0 : 1));
    EXPECT_EQ(bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
  }

  // The next message; nothing when none has come.
  std::optional<std::string> Next() {
    std::array<char, 256> message{};
    const ssize_t size = recv(socket_.Get(), message.data(), message.size(), MSG_DONTWAIT);
    if (size < 0) return std::nullopt;
    return std::string(message.data(), static_cast<std::size_t>(size));
  }

 private:
  Descriptor socket_;
};

// Variables of the environment while a test runs.
class ServiceManagerTest : public testing::Test {
 protected:
  ~ServiceManagerTest() override {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
  }
  static void Set(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }

  TempFolder folder_;
};

TEST_F(ServiceManagerTest, NobodyIsToldAnythingWithoutTheVariable) {
  EXPECT_EQ(FindServiceManager(), nullptr);
}

TEST_F(ServiceManagerTest, ANameThatIsNoSocketsIsNone) {
  for (const std::string& name :
       {std::string(), std::string("@"), std::string("notify"), std::string("/") + std::string(200, 'a')}) {
    Set("NOTIFY_SOCKET", name);
    EXPECT_EQ(FindServiceManager(), nullptr) << name;
  }
}

TEST_F(ServiceManagerTest, TellsEachStateInADatagramOfItsOwn) {
  for (const std::string& name : {folder_ / "notify", "@trabex-test-" + std::to_string(getpid())}) {
    ManagerSocket socket(name);
    Set("NOTIFY_SOCKET", name);
    const auto manager = FindServiceManager();
    ASSERT_NE(manager, nullptr);
    const std::map<ServiceState, std::string> messages = {{ServiceState::kReady, "READY=1"},
                                                          {ServiceState::kStopping, "STOPPING=1"},
                                                          {ServiceState::kAlive, "WATCHDOG=1"}};
    for (const auto& [state, message] : messages) {
      EXPECT_TRUE(manager->Tell(state));
      EXPECT_EQ(socket.Next(), message);
      EXPECT_EQ(socket.Next(), std::nullopt);
    }
  }
}

TEST_F(ServiceManagerTest, AReloadSaysWhenItBegan) {
  ManagerSocket socket(folder_ / "notify");
  Set("NOTIFY_SOCKET", folder_ / "notify");
  const auto now = [] {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000 + time.tv_nsec / 1000;
  };
  const std::int64_t before = now();
  ASSERT_TRUE(FindServiceManager()->Tell(ServiceState::kReloading));
  const std::string message = socket.Next().value_or("");
  const std::string_view begin = "RELOADING=1\nMONOTONIC_USEC=";
  ASSERT_THAT(message, StartsWith(std::string(begin)));
  const std::int64_t said = std::stoll(message.substr(begin.size()));
  EXPECT_GE(said, before);
  EXPECT_LE(said, now());
}

TEST_F(ServiceManagerTest, AManagerThatIsGoneOrReadsNothingCostsNoWait) {
  Set("NOTIFY_SOCKET", folder_ / "notify");
  const auto manager = FindServiceManager();
  ASSERT_NE(manager, nullptr);
  EXPECT_FALSE(manager->Tell(ServiceState::kReady));
  ManagerSocket socket(folder_ / "notify");
  int taken = 0;
  while (taken < 100'000 && manager->Tell(ServiceState::kAlive)) ++taken;
  EXPECT_GT(taken, 0);
  EXPECT_LT(taken, 100'000) << "its queue has no end";
  EXPECT_EQ(socket.Next(), "WATCHDOG=1");
  EXPECT_TRUE(manager->Tell(ServiceState::kStopping));
}

TEST_F(ServiceManagerTest, TheWatchdogsTimeIsThatOfThisProcess) {
  struct Case {
    const char* usec;
    std::string pid;
    std::optional<Milliseconds> expected;
  };
  const Case cases[] = {
      {"60000000", "", Milliseconds(60000)},
      {"60000000", std::to_string(getpid()), Milliseconds(60000)},
      {"60000000", std::to_string(getpid() + 1), std::nullopt},
      {"60000000", "self", std::nullopt},
      {"1500", "", Milliseconds(1)},
      {"0", "", std::nullopt},
      {"-5", "", std::nullopt},
      {"5s", "", std::nullopt},
      {"", "", std::nullopt},
  };
  Set("NOTIFY_SOCKET", folder_ / "notify");
  for (const Case& one : cases) {
    Set("WATCHDOG_USEC", one.usec);
    Set("WATCHDOG_PID", one.pid);
    EXPECT_EQ(FindServiceManager()->WatchdogTime(), one.expected) << one.usec << " for " << one.pid;
  }
}

}  // namespace
}  // namespace trabex

// The main window with several addresses and ports to listen on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/frmMain.h"
#include "app/program.h"
#include "net/CSocketMaster.h"
#include "net/socket_errors.h"
#include "program_fixture.h"
#include "support/loop_runner.h"
#include "support/open_file_limit.h"
#include "support/plain_socket.h"
#include "support/told_by_system.h"

namespace trabex {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

class ListenersTest : public ProgramTest {
 protected:
  ListenersTest() {
    Settings().LogPath = folder_ / "Log";
    Settings().BindPort = FreePort();
    Settings().ServerPort = FreePort();
    Settings().ServerIP = "::1";
    ObserveLog(program_);
    program_.window = std::make_unique<frmMain>(program_);
  }

  // Sessions stay as long as their server's name is looked up.
  void KeepSessions() {
    Settings().ServerIP = "server.test";
    names_->HoldAnswers();
  }
  Configuration& Settings() { return program_.configuration; }
  frmMain& Window() { return *program_.window; }
  std::string Port() { return std::to_string(Settings().BindPort); }
  bool ListensOn(const std::string& addresses) {
    Settings().BindIP = addresses;
    std::optional<bool> result;
    Window().StartListening([&result](bool listening) { result = listening; });
    EXPECT_TRUE(RunUntil(program_.loop, [&result] { return result.has_value(); }));
    return result.value_or(false);
  }
  // A connection that the system has made and nobody has accepted yet; none when it was refused.
  std::unique_ptr<CSocketMaster> Knock(const std::string& address, std::int32_t port) {
    auto client = std::make_unique<CSocketMaster>(clients_);
    client->Connect(address, port);
    RunUntil(client_loop_, [&] { return client->State() != SocketState::sckConnecting; });
    return client->State() == SocketState::sckConnected ? std::move(client) : nullptr;
  }
  bool Knocks(const std::string& address) { return Knock(address, Settings().BindPort) != nullptr; }

  Program program_{MakeDependencies()};
  // The clients have a loop of their own, so that they can connect while the program stands still.
  EventLoop client_loop_{clock_};
  Sockets client_sockets_{client_loop_};
  FakeNameLookup client_names_{client_loop_};
  modSocketMaster clients_{client_sockets_, client_names_, program_.log};
};

TEST_F(ListenersTest, AreOnEachAddressWithEachPort) {
  Settings().BindIP = "127.0.0.1, ::1";
  Settings().BindPortTLS = FreePort();
  ASSERT_TRUE(Window().Form_Load());
  const std::string tls = std::to_string(Settings().BindPortTLS);
  EXPECT_EQ(log_.back(), "Listen on: 127.0.0.1:" + Port() + ", [::1]:" + Port() + ", 127.0.0.1:" + tls +
                             " (TLS), [::1]:" + tls +
                             " (TLS); Connect to: [::1]:" + std::to_string(Settings().ServerPort) + ".");
  std::vector<std::unique_ptr<CSocketMaster>> clients;
  for (const char* address : {"127.0.0.1", "::1"}) {
    for (const std::int32_t port : {Settings().BindPort, Settings().BindPortTLS}) {
      clients.push_back(Knock(address, port));
      EXPECT_TRUE(clients.back()) << address << " " << port;
    }
  }
  // Whatever the lists then say of an address.
  EXPECT_TRUE(RunUntil(program_.loop, [this] {
    return std::count_if(log_.begin(), log_.end(),
                         [](const std::string& line) { return line.ends_with("Connection Request."); }) == 4;
  }));
}

TEST_F(ListenersTest, AreAllOrNone) {
  PlainSocket other;
  Settings().BindPort = other.Bind();
  other.Listen();
  EXPECT_FALSE(ListensOn("127.0.0.2, ::1, 127.0.0.1"));
  EXPECT_THAT(log_, ElementsAre("Error 10048 binding to 127.0.0.1:" + Port() + ". " +
                                std::string(SocketErrorText(10048))));
  EXPECT_FALSE(Knocks("127.0.0.2"));
  EXPECT_FALSE(Knocks("::1"));
}

TEST_F(ListenersTest, AFailureNamesItsAddressAndPort) {
  // The address of documents, which no machine has.
  EXPECT_FALSE(ListensOn("127.0.0.1, 2001:DB8:0::1"));
  const std::string text(SocketErrorText(10049));
  EXPECT_EQ(log_.back(), "Error 10049 binding to [2001:db8::1]:" + Port() + ". " + text);
  EXPECT_FALSE(ListensOn("192.0.2.1"));
  EXPECT_EQ(log_.back(), "Error 10049 binding to 192.0.2.1:" + Port() + ". " + text);
  EXPECT_FALSE(ListensOn("300.1.1.1"));
  EXPECT_THAT(log_.back(), StartsWith("Error 40014 binding to 300.1.1.1:" + Port() + ". "));
}

TEST_F(ListenersTest, ASocketThatCannotBeOpenedIsSuchAFailure) {
  // Before the limit: a sanitizer needs descriptors for its first look at an object.
  EXPECT_FALSE(ListensOn("127.0.0.1, 192.0.2.1"));
  log_.clear();
  OpenFileLimit limit;
  limit.LeaveOnly(0);
  const bool listens = ListensOn("127.0.0.1");
  limit.Lift();
  EXPECT_FALSE(listens);
  EXPECT_THAT(log_, ElementsAre("Error 10024 binding to 127.0.0.1:" + Port() + ". " +
                                std::string(SocketErrorText(10024))));
  EXPECT_FALSE(Window().Unloaded());
  EXPECT_TRUE(ListensOn("127.0.0.1"));
}

TEST_F(ListenersTest, OneThatStaysKeepsWhoWaits) {
  KeepSessions();
  ASSERT_TRUE(ListensOn("127.0.0.1, 127.0.0.2"));
  // They wait to be accepted while the addresses change.
  const auto stays = Knock("127.0.0.1", Settings().BindPort);
  const auto goes = Knock("127.0.0.2", Settings().BindPort);
  ASSERT_TRUE(stays && goes);
  ASSERT_TRUE(ListensOn("::1, 127.000.000.001"));
  EXPECT_TRUE(RunUntil(program_.loop, [this] { return Window().Sessions().Count() == 1; }));
  const SocketState end = ResetsAreTold() ? SocketState::sckError : SocketState::sckClosing;
  EXPECT_TRUE(RunUntil(client_loop_, [&] { return goes->State() == end; }));
  EXPECT_EQ(stays->State(), SocketState::sckConnected);
  EXPECT_FALSE(Knocks("127.0.0.2"));
  EXPECT_TRUE(Knocks("::1"));
}

TEST_F(ListenersTest, APortMayBecomeOneOfTls) {
  KeepSessions();
  ASSERT_TRUE(ListensOn("127.0.0.1"));
  const auto waits = Knock("127.0.0.1", Settings().BindPort);
  const std::int32_t first = Settings().BindPort;
  Settings().BindPort = FreePort();
  Settings().BindPortTLS = first;
  ASSERT_TRUE(ListensOn("127.0.0.1"));
  // The one that waited speaks TLS, if there is a certificate.
  const auto told = [this] {
    return std::any_of(log_.begin(), log_.end(), [](const std::string& line) {
      return line.ends_with("No certificate. Closing connection.");
    });
  };
  EXPECT_TRUE(RunUntil(program_.loop, told));
  EXPECT_TRUE(Knocks("127.0.0.1"));
}

TEST_F(ListenersTest, NoneIsLeftAfterTheEnd) {
  Settings().BindIP = "127.0.0.1, ::1";
  ASSERT_TRUE(Window().Form_Load());
  Window().Form_Unload();
  EXPECT_FALSE(Knocks("127.0.0.1"));
  EXPECT_FALSE(Knocks("::1"));
}

TEST_F(ListenersTest, EachOnTheServersPortIsTestedForALoop) {
  constexpr const char* kLoop =
      "Loop detected: Server IP address and port point to listening address and port.";
  const std::int32_t server_port = Settings().ServerPort;
  const struct {
    const char* bind_ip;
    bool is_tls_port;
    const char* server;
    bool loop;
  } rows[] = {
      {"127.0.0.1, ::1", false, "::1", true}, {"127.0.0.1, ::1", true, "::1", true},
      {"127.0.0.1", true, "127.0.0.1", true}, {"127.0.0.1", true, "::1", false},
      {"::1", false, "127.0.0.1", false},     {"::1", false, "::", true},
      {"127.0.0.1, ::1", true, "::2", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.bind_ip) + " " + row.server);
    Settings().BindPort = row.is_tls_port ? FreePort() : server_port;
    Settings().BindPortTLS = row.is_tls_port ? server_port : 0;
    Settings().ServerIP = row.server;
    names_->SetAddresses(row.server, {IP(row.server)});
    log_.clear();
    EXPECT_EQ(ListensOn(row.bind_ip), !row.loop);
    EXPECT_EQ(log_, row.loop ? std::vector<std::string>{kLoop} : std::vector<std::string>());
  }
}

}  // namespace
}  // namespace trabex

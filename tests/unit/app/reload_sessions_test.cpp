// Reloads while mail passes through the program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "reload_fixture.h"
#include "support/heap.h"
#include "support/loop_runner.h"
#include "support/test_peer.h"

namespace trabex {
namespace {

// A client and a server that speak to each other through the program while it reloads.
TEST_F(AutoReloadTest, OpenSessionsGoOnAndNewSettingsActInThem) {
  TestListener server_listener;
  server_port_ = server_listener.Port();
  WriteIni("MaxRecipientsLocal=0\n");
  Start();
  TestPeer client = TestPeer::Connect(static_cast<std::uint16_t>(port_));
  TestPeer server;
  ASSERT_TRUE(RunUntil(program_->loop, [&] {
    server = server_listener.Accept();
    return server.Open();
  }));
  const auto said = [&](TestPeer& from, std::string_view text, TestPeer& to) {
    from.Send(text);
    to.Received().clear();
    return RunUntil(program_->loop, [&] {
      to.Poll();
      return to.Received().ends_with("\r\n");
    });
  };
  ASSERT_TRUE(said(server, "220 hi\r\n", client));
  for (const char* command : {"HELO x\r\n", "MAIL FROM:<a@b.test>\r\n", "RCPT TO:<u@b.test>\r\n"}) {
    ASSERT_TRUE(said(client, command, server)) << command;
    ASSERT_TRUE(said(server, "250 ok\r\n", client)) << command;
  }
  WriteIni("MaxRecipientsLocal=1\n");
  Pass(60);
  ASSERT_EQ(Reloads(), 1);
  ASSERT_TRUE(said(client, "RCPT TO:<v@b.test>\r\n", client));
  EXPECT_EQ(client.Received(), "452 4.5.3 Too many recipients.\r\n");
  ASSERT_TRUE(said(client, "DATA\r\n", server));
  ASSERT_TRUE(said(server, "354 go on\r\n", client));

  // A megabyte of content, with a reload in its middle.
  server.Received().clear();
  const std::string line = std::string(98, 'x') + "\r\n";
  std::string sent;
  for (int i = 0; i < 10000; ++i) {
    if (i == 5000) {
      WriteIni("MaxRecipientsLocal=2\n");
      Pass(60);
      ASSERT_EQ(Reloads(), 2);
    }
    std::string_view left = line;
    ASSERT_TRUE(RunUntil(program_->loop, [&] {
      server.Poll();
      left.remove_prefix(client.Send(left));
      return left.empty();
    }));
    sent += line;
  }
  client.Send(".\r\n");
  ASSERT_TRUE(RunUntil(program_->loop, [&] {
    server.Poll();
    return server.Received().ends_with("\r\n.\r\n");
  }));
  const std::size_t begin = server.Received().find("\r\nxxx");
  ASSERT_NE(begin, std::string::npos);
  EXPECT_TRUE(server.Received().substr(begin + 2) == sent + ".\r\n");
}

TEST_F(AutoReloadTest, TwoHundredReloadsUnderLoadLeaveNothingBehind) {
  TestListener server_listener;
  server_port_ = server_listener.Port();
  const auto settings = [](int round) {
    return "Timeout=" + std::to_string(100 + round % 7) +
           "\nIPBlackList=192.0.2.0/24,198.51.100.7\nSendersBlackList=*@bad.test,\"a "
           "b\"\n[GreyListing]\nEnabled=1\n"
           "[ResponseChanges]\nBadSeq=<Bad>=<Worse>\n[SenderReplacements.Local]\n*@x=y@z\n";
  };
  WriteIni(settings(0));
  Start();
  std::size_t settled = 0;
  for (int round = 1; round <= 200; ++round) {
    // Sessions come and go while it reloads.
    std::vector<TestPeer> peers;
    for (int i = 0; i < 5; ++i) {
      peers.push_back(TestPeer::Connect(static_cast<std::uint16_t>(port_)));
      peers.back().Send("HELO x\r\nNOOP\r\n");
    }
    WriteIni(settings(round));
    Pass(48);
    for (TestPeer server = server_listener.Accept(); server.Open(); server = server_listener.Accept()) {
    }
    peers.clear();
    RunUntilIdle(program_->loop);
    ASSERT_EQ(Reloads(), 1) << "round " << round;
    log_.clear();
    if (round == 20) settled = HeapInUse();
  }
  EXPECT_EQ(Settings().Timeout, 100 + 200 % 7);
  RecordProperty("memory_in_use_after_20", std::to_string(settled));
  RecordProperty("memory_in_use_after_200", std::to_string(HeapInUse()));
  EXPECT_LE(HeapInUse(), settled + 65536);
}

}  // namespace
}  // namespace trabex

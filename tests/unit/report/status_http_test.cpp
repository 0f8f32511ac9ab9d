#include "report/status_http.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "report/http_request.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/loop_runner.h"
#include "support/recorded_log.h"
#include "support/test_peer.h"

namespace trabex {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::string_view kGetMetrics = "GET /metrics HTTP/1.1\r\nHost: localhost\r\n\r\n";

class StatusHttpTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(http_.Listen({kIPv4Loopback, 0}), std::nullopt); }

  // What has been removed goes at the end of an iteration, and before what it needs.
  void TearDown() override {
    http_.Close();
    RunUntilIdle(loop_);
  }

  TestPeer Connect() {
    TestPeer peer = TestPeer::Connect(http_.Port());
    RunUntilIdle(loop_);
    return peer;
  }
  // Everything that comes until the end of the connection; a failure when that does not come.
  std::string ReadToEnd(TestPeer& peer) {
    EXPECT_TRUE(RunUntil(loop_, [&] {
      peer.Poll();
      return peer.AtEnd();
    }));
    return peer.Received();
  }
  std::string Ask(std::string_view request) {
    TestPeer peer = Connect();
    peer.Send(request);
    return ReadToEnd(peer);
  }

  FakeClock clock_;
  EventLoop loop_{clock_};
  Sockets sockets_{loop_};
  FakeNameLookup names_{loop_};
  RecordedLog log_;
  modSocketMaster module_{sockets_, names_, log_};
  std::string metrics_ = "trabex_sessions_open 0\n";
  std::string reason_;
  std::string failure_;
  StatusHttp http_{module_,
                   loop_,
                   {.metrics = [this] { return metrics_; },
                    .why_not_healthy = [this] { return reason_; },
                    .failed = [this](const std::string& description) { failure_ = description; }}};
};

TEST_F(StatusHttpTest, AnswersEachRequestAndCloses) {
  const struct {
    std::string request;
    std::string status;
    std::string content;
  } cases[] = {
      {"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n", "200 OK", metrics_},
      {"GET /metrics HTTP/1.0\r\n\r\n", "200 OK", metrics_},
      {"GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n", "200 OK", "OK\n"},
      {"GET / HTTP/1.1\r\nHost: x\r\n\r\n", "404 Not Found", "Not found.\n"},
      {"GET /metrics/ HTTP/1.1\r\nHost: x\r\n\r\n", "404 Not Found", "Not found.\n"},
      {"POST /secret HTTP/1.1\r\nHost: x\r\n\r\n", "404 Not Found", "Not found.\n"},
      {"POST /metrics HTTP/1.1\r\nHost: x\r\n\r\n", "405 Method Not Allowed", "Method not allowed.\n"},
      {"HEAD /healthz HTTP/1.1\r\nHost: x\r\n\r\n", "405 Method Not Allowed", ""},
      {"HELO client.example\r\n\r\n", "400 Bad Request", "Bad request.\n"},
      {"GET / HTTP/1.1\r\n" + std::string(HttpRequest::kMaxSize, 'x'), "431 Request Header Fields Too Large",
       "Request too long.\n"},
  };
  for (const auto& c : cases) {
    const std::string response = Ask(c.request);
    EXPECT_THAT(response, StartsWith("HTTP/1.1 " + c.status + "\r\n")) << c.request;
    EXPECT_THAT(response, EndsWith("\r\n\r\n" + c.content)) << c.request;
    EXPECT_THAT(response, HasSubstr("\r\nConnection: close\r\n")) << c.request;
  }
  EXPECT_EQ(http_.Connections(), 0U);
}

TEST_F(StatusHttpTest, SaysWhyMailDoesNotPass) {
  reason_ = "The server at 127.0.0.1:25 cannot be reached.";
  const std::string response = Ask("GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_THAT(response, StartsWith("HTTP/1.1 503 Service Unavailable\r\n"));
  EXPECT_THAT(response, EndsWith("\r\n\r\n" + reason_ + "\n"));
}

TEST_F(StatusHttpTest, TakesARequestByteByByte) {
  TestPeer peer = Connect();
  for (const char byte : kGetMetrics) {
    peer.Send({&byte, 1});
    RunUntilIdle(loop_);
  }
  EXPECT_THAT(ReadToEnd(peer), EndsWith(metrics_));
}

TEST_F(StatusHttpTest, AnswersOnceWhateverFollows) {
  std::string many;
  for (int i = 0; i < 200; ++i) many += kGetMetrics;
  const std::string response = Ask(many);
  EXPECT_EQ(response.find("HTTP/1.1"), response.rfind("HTTP/1.1"));
  EXPECT_THAT(response, EndsWith(metrics_));
}

TEST_F(StatusHttpTest, AnswersAClientThatHasShutDownItsSide) {
  TestPeer peer = Connect();
  peer.Send(kGetMetrics);
  peer.ShutDownSending();
  EXPECT_THAT(ReadToEnd(peer), EndsWith(metrics_));
}

TEST_F(StatusHttpTest, LongTextsArriveWhole) {
  metrics_ = std::string(std::size_t{2} << 20, 'm');
  TestPeer peer = Connect();
  peer.Send(kGetMetrics);
  EXPECT_THAT(ReadToEnd(peer), EndsWith("\r\n\r\n" + metrics_));
  EXPECT_EQ(http_.Connections(), 0U);
}

TEST_F(StatusHttpTest, AClientThatSaysNothingIsClosedAfterItsTime) {
  TestPeer silent = Connect();
  TestPeer slow = Connect();
  slow.Send("GET /met");
  RunUntilIdle(loop_);
  clock_.Advance(StatusHttp::kMaxTime - Milliseconds(1));
  RunUntilIdle(loop_);
  EXPECT_EQ(http_.Connections(), 2U);
  clock_.Advance(Milliseconds(1));
  EXPECT_EQ(ReadToEnd(silent), "");
  EXPECT_EQ(ReadToEnd(slow), "");
  EXPECT_EQ(http_.Connections(), 0U);
}

TEST_F(StatusHttpTest, AClientThatDoesNotReadIsClosedAfterItsTime) {
  metrics_ = std::string(std::size_t{16} << 20, 'm');
  TestPeer peer = Connect();
  peer.HoldLittle();
  peer.Send(kGetMetrics);
  RunUntilIdle(loop_);
  EXPECT_EQ(http_.Connections(), 1U);
  clock_.Advance(StatusHttp::kMaxTime);
  RunUntilIdle(loop_);
  EXPECT_EQ(http_.Connections(), 0U);
}

TEST_F(StatusHttpTest, MoreClientsThanItTakesAreClosedAtOnce) {
  std::vector<TestPeer> peers;
  for (std::size_t i = 0; i < StatusHttp::kMaxConnections; ++i) peers.push_back(Connect());
  EXPECT_EQ(http_.Connections(), StatusHttp::kMaxConnections);
  TestPeer more = Connect();
  EXPECT_EQ(ReadToEnd(more), "");
  peers.front().Close();
  RunUntilIdle(loop_);
  EXPECT_THAT(Ask(kGetMetrics), EndsWith(metrics_));
  peers.back().Send(kGetMetrics);
  EXPECT_THAT(ReadToEnd(peers.back()), EndsWith(metrics_));
}

TEST_F(StatusHttpTest, CanBeMovedAndClosed) {
  TestPeer waiting = Connect();
  ASSERT_EQ(http_.Listen({kIPv6Loopback, 0}), std::nullopt);
  EXPECT_EQ(ReadToEnd(waiting), "");
  TestPeer peer = TestPeer::Connect(http_.Port(), kIPv6Loopback);
  peer.Send(kGetMetrics);
  EXPECT_THAT(ReadToEnd(peer), EndsWith(metrics_));
  http_.Close();
  EXPECT_FALSE(http_.Listening());
  EXPECT_EQ(http_.Port(), 0);
}

TEST_F(StatusHttpTest, APortThatIsTakenIsReported) {
  StatusHttp second(module_, loop_, {});
  const auto failure = second.Listen({kIPv4Loopback, http_.Port()});
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->Number(), socket_error::kAddressInUse);
  EXPECT_FALSE(second.Listening());
  // It did not take anything from the first one.
  EXPECT_THAT(Ask(kGetMetrics), EndsWith(metrics_));
}

}  // namespace
}  // namespace trabex

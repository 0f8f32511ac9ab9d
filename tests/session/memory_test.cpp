// Sessions in which memory is out for one allocation, or from one on for a while, whichever it is.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text.h"
#include "session/reported.h"
#include "support/counted_allocations.h"
#include "support/scripted_server.h"
#include "support/test_certificates.h"
#include "tls/tls_context.h"

namespace trabex {
namespace {

constexpr std::string_view kUnavailable = "421 proxy.test is temporarily unavailable.\r\n";

// What a client says, and the code of the reply to it. The first is the server's greeting.
struct Step {
  std::string said;
  std::string_view code;
};

const std::vector<Step>& Steps() {
  static const std::vector<Step> steps = {
      {"", "220"},
      {"EHLO client.example.test\r\n", "250"},
      {"MAIL FROM:<a.sender.with.a.long.name@far.away.test> SIZE=1000\r\n", "250"},
      {"RCPT TO:<first.recipient.of.all@local.test>\r\n", "250"},
      {"RCPT TO:<second.recipient.of.all@local.test>\r\n", "250"},
      {"DATA\r\n", "354"},
      {"Subject: " + std::string(5000, 'x') + "\r\n\r\ntext\r\n.\r\n", "250"},
      {"MAIL FROM:<a.sender.with.a.long.name@far.away.test>\r\n", "250"},
      {"RCPT TO:<first.recipient.of.all@local.test>\r\nRCPT TO:<nobody@elsewhere.test>\r\n", "250 550"},
      {"BDAT 20000 LAST\r\n" + std::string(20000, 'x'), "250"},
      {"QUIT\r\n", "221"}};
  return steps;
}

struct Course {
  // How a client fares: all goes well, or it is told 421, told to come again and left to talk on, cut off, or left alone.
  enum class End { kWhole, kRefused, kDeferred, kHungUp, kSilence, kNonsense };
  End end = End::kNonsense;
  std::string heard;  // in the step that did not go well
  std::size_t steps = 0;

  friend std::ostream& operator<<(std::ostream& out, const Course& course) {
    return out << "end " << static_cast<int>(course.end) << " after " << course.steps << " steps, with \""
               << course.heard << '"';
  }
};

// A program with an idle session, that of the fixture's client.
class Program {
 public:
  // `server_tls`: the server is spoken to under TLS, from its first byte on.
  explicit Program(Security security, bool server_tls = false) : server_tls_(server_tls) {
    SessionFixture& fixture = test_.fixture;
    if (server_tls) {
      TlsLoadReport report;
      fixture.Settings.TLS.Server = server_tls::kImplicit;
      fixture.Tls.for_server = TlsContext::ForClient({}, report);
    }
    if (security != Security::kPlain) fixture.OfferTls();
    starts_tls_ = security == Security::kStartTls;
    Configuration& settings = fixture.Settings;
    settings.ServerIP = "server.of.the.inside.test";
    WriteFile(test_.folder_ / "hosts",
              "127.0.0.1 a-client-with-a-long-name.test client.example.test server.of.the.inside.test\n");
    names_ = MakeNameLookup(fixture.Loop, {.hosts_file = test_.folder_ / "hosts"});
    fixture.Names.AskInstead(names_.get());
    // No time-out helps.
    settings.Timeout = 0;
    settings.ValidateRDNS = 3;
    settings.ValidateHELO = 3;
    settings.ConfirmHostNames = true;
    settings.LocalIPs = IPRangeList();
    settings.LogLevelRemote = settings.LogLevelServer = 255;
    fixture.Start();
    Settle();
    fixture.OnTlsPort = security == Security::kTlsPort;
  }
  ~Program() {
    test_.fixture.Sessions().ForEach([](cProxy& session) { session.Close(); });
    test_.fixture.Names.AskInstead(nullptr);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // A client comes and plays all steps, as far as it can.
  Course Play() {
    client_ = TestPeer::Connect(test_.fixture.Port());
    if (test_.fixture.OnTlsPort) client_.StartTls({});
    Course course;
    for (const Step& step : Steps()) {
      if (!Say(step, course) || (starts_tls_ && step.said.starts_with("EHLO") && !SecureByStartTls(course)))
        break;
      ++course.steps;
    }
    Settle();
    if (course.steps == Steps().size()) {
      course.end = client_.AtEnd() ? Course::End::kWhole : Course::End::kSilence;
    } else if (!client_.AtEnd() && course.heard.starts_with('4') && Codes(course.heard).size() == 3) {
      course.end = Course::End::kDeferred;
    } else if (!client_.AtEnd()) {
      course.end = course.heard.empty() ? Course::End::kSilence : Course::End::kNonsense;
    } else if (course.heard.ends_with(kUnavailable)) {
      course.end = Course::End::kRefused;
    } else if (course.heard.empty() || course.heard.ends_with(kCrLf)) {
      course.end = Course::End::kHungUp;
    }
    return course;
  }

  // A client comes when there is no memory at all, and says nothing. What it hears until its connection ends.
  std::string Meet() {
    client_ = TestPeer::Connect(test_.fixture.Port());
    {
      const FailedAllocation failure(0, FailedAllocation::kAll);
      Settle();
      EXPECT_TRUE(failure.HasFailed());
    }
    EXPECT_TRUE(client_.AtEnd());
    return std::exchange(client_.Received(), {});
  }

  // The same when there is memory again for all but the reserve, which has been used up.
  std::string MeetWithoutReserve() {
    client_ = TestPeer::Connect(test_.fixture.Port());
    test_.fixture.BeginsWithoutReserve = true;
    Settle();
    test_.fixture.BeginsWithoutReserve = false;
    EXPECT_TRUE(client_.AtEnd());
    return std::exchange(client_.Received(), {});
  }

  Configuration& Settings() { return test_.fixture.Settings; }

  // The server refuses connections from now on; sessions that have one keep it.
  void CloseServer() { test_.fixture.Server().Close(); }
  // The client or its server breaks the connection off.
  void ResetClient() { client_.Reset(); }
  void ResetServer() {
    if (servers_.size() > 1) servers_.back()->peer.Reset();
  }
  // A client comes, says hello, and sees what `fault` does to it.
  Course Suffer(const std::function<void()>& fault) {
    client_ = TestPeer::Connect(test_.fixture.Port());
    Settle();
    Course course;
    Say(Steps()[1], course);
    client_.Received().clear();
    fault();
    Settle();
    course.heard += client_.Received();
    if (!client_.Open() || client_.AtEnd()) {
      course.end = Course::End::kHungUp;
    } else {
      // Without a name it never had a server.
      course.end = course.heard.starts_with("454 ") ? Course::End::kDeferred : Course::End::kSilence;
    }
    return course;
  }

  // The client was left alone; whether it is ended when as much time has passed as there is for a handshake.
  bool EndsInTime() {
    for (int seconds = 0; seconds <= test_.fixture.Settings.TLS.HandshakeTimeout && !client_.AtEnd();
         ++seconds) {
      test_.fixture.Time.Advance(std::chrono::seconds(1));
      Settle();
    }
    return client_.AtEnd();
  }

  std::string Beside() {
    TestPeer& beside = test_.fixture.ClientPeer();
    beside.Received().clear();
    beside.Send("NOOP\r\n");
    Settle();
    return std::exchange(beside.Received(), {});
  }

  // Nothing is left of all sessions but that of the fixture's client.
  void ExpectNothingLeft() {
    client_.Close();
    test_.fixture.Time.Advance(LingeringTime());
    Settle();
    EXPECT_EQ(test_.fixture.Sessions().Count(), 1U);
    EXPECT_EQ(test_.fixture.Sockets_().LingeringCount(), 0U);
    std::size_t open = 0;
    for (const auto& server : servers_) open += server->peer.AtEnd() || !server->peer.Open() ? 0U : 1U;
    EXPECT_EQ(open, 1U) << "connections to servers";
  }

  std::string Log() const {
    std::string all;
    for (const std::string& line : test_.fixture.LogLines()) all.append("    ").append(line).append("\n");
    return all;
  }

 private:
  struct Served {
    TestPeer peer;
    ScriptedServer script;
  };

  static const TestCertificate& ServerCertificate() {
    static const TestCertificate certificate =
        MakeTestCertificate({.common_name = "server.of.the.inside.test"});
    return certificate;
  }
  static Milliseconds LingeringTime() { return std::chrono::seconds(6); }

  bool Say(const Step& step, Course& course) {
    std::string_view rest = step.said;
    for (;;) {
      rest.remove_prefix(client_.AtEnd() ? rest.size() : client_.Send(rest));
      Settle();
      if (rest.empty()) break;
      if (client_.Unsent() == 0 && client_.AtEnd()) break;
    }
    course.heard = std::exchange(client_.Received(), {});
    if (Codes(course.heard) != step.code) return false;
    course.heard.clear();
    return true;
  }

  // Those of the last lines of complete replies, with blanks between.
  static std::string Codes(std::string_view heard) {
    std::string codes;
    while (!heard.empty()) {
      const std::size_t end = heard.find(kCrLf);
      if (end == std::string_view::npos || end < 3) return "incomplete";
      if (heard[3] != '-') codes.append(codes.empty() ? "" : " ").append(heard.substr(0, 3));
      heard.remove_prefix(end + kCrLf.size());
    }
    return codes;
  }

  bool SecureByStartTls(Course& course) {
    if (!Say({"STARTTLS\r\n", "220"}, course)) return false;
    client_.StartTls({});
    Settle();
    if (!client_.Secured()) return false;
    return Say(Steps()[1], course);
  }

  void Serve() {
    TestPeer connected = test_.fixture.Server().Accept();
    if (connected.Open()) {
      if (server_tls_) connected.StartTls({.server = true, .certificate = ServerCertificate()});
      servers_.emplace_back(new Served{std::move(connected), ScriptedServer()});
    }
    for (const auto& server : servers_) {
      if (!server->peer.Open()) continue;
      server->peer.Poll();
      if (server_tls_ && !server->peer.Secured()) continue;
      server->script.Take(std::exchange(server->peer.Received(), {}));
      for (std::string segment; !(segment = server->script.NextSegment()).empty();) {
        moved_ += segment.size();
        server->peer.Send(segment);
      }
      if (server->script.HasHungUp()) server->peer.Close();
    }
  }

  // Until nothing happens any more.
  void Settle() {
    TestPeer& beside = test_.fixture.ClientPeer();
    for (int quiet = 0; quiet < 4;) {
      const std::size_t before = moved_;
      const bool busy = RunOnce();
      Serve();
      for (TestPeer* const peer : {&client_, &beside}) {
        if (!peer->Open()) continue;
        const std::size_t there = peer->Received().size();
        peer->Poll();
        moved_ += peer->Received().size() - there;
      }
      quiet = busy || moved_ != before ? 0 : quiet + 1;
    }
  }

  // Only what the program takes in here may fail.
  bool RunOnce() {
    own_.reset();
    bool busy = false;
    bool threw = false;
    try {
      busy = test_.fixture.Loop.RunOnce(Milliseconds(0));
    } catch (const std::exception&) {
      threw = true;
    }
    own_.emplace();
    EXPECT_FALSE(threw) << "something left the loop";
    return busy;
  }

  std::optional<OwnAllocations> own_{std::in_place};
  Reported test_;
  std::unique_ptr<NameLookup> names_;
  bool starts_tls_ = false;
  bool server_tls_;
  TestPeer client_;
  std::vector<std::unique_ptr<Served>> servers_;
  std::size_t moved_ = 0;
};

struct Outcomes {
  std::size_t refused = 0;  // with 421
  std::size_t hung_up = 0;  // cut off without a word
  std::size_t waited = 0;   // for the time of a handshake to be over
};

// One session for each allocation that there is, which is the first of so many that fail. Those behind it and beside it
// have memory again.
Outcomes PlayAll(Security security, std::size_t times, bool server_tls = false) {
  Outcomes outcomes;
  for (std::size_t before = 0;; ++before) {
    SCOPED_TRACE("allocation " + std::to_string(before));
    Program program(security, server_tls);
    Course course;
    bool failed = false;
    {
      const FailedAllocation failure(before, times);
      course = program.Play();
      failed = failure.HasFailed();
    }
    SCOPED_TRACE(course);
    EXPECT_NE(course.end, Course::End::kNonsense);
    if (course.end == Course::End::kRefused) ++outcomes.refused;
    if (course.end == Course::End::kHungUp) ++outcomes.hung_up;
    if (course.end == Course::End::kSilence) {
      ++outcomes.waited;
      EXPECT_TRUE(program.EndsInTime());
    }
    EXPECT_EQ(program.Beside(), "250 ok\r\n");
    const Course next = program.Play();
    EXPECT_EQ(next.end, Course::End::kWhole) << next;
    program.ExpectNothingLeft();
    if (!failed) {
      EXPECT_EQ(course.end, Course::End::kWhole);
      EXPECT_GT(before, 150U);
      break;
    }
    if (testing::Test::HasFailure() || before == 3000) {
      ADD_FAILURE() << "the log:\n" << program.Log();
      break;
    }
  }
  return outcomes;
}

TEST(SessionWithoutMemory, EndsAloneWhicheverAllocationFails) {
  const Outcomes outcomes = PlayAll(Security::kPlain, 1);
  EXPECT_GT(outcomes.refused, 100U);
  EXPECT_EQ(outcomes.hung_up, 0U);
  EXPECT_EQ(outcomes.waited, 0U);
}

TEST(SessionWithoutMemory, EndsAloneWhicheverAllocationFailsUnderTls) {
  EXPECT_GT(PlayAll(Security::kStartTls, 1).refused, 100U);
}

TEST(SessionWithoutMemory, EndsAloneWhicheverAllocationFailsWhenItsServerIsUnderTls) {
  const Outcomes outcomes = PlayAll(Security::kPlain, 1, true);
  EXPECT_GT(outcomes.refused, 100U);
  EXPECT_EQ(outcomes.waited, 0U);
}

TEST(SessionWithoutMemory, EndsAloneWhenThereIsNoneForAWhile) {
  const Outcomes outcomes = PlayAll(Security::kPlain, FailedAllocation::kAll);
  EXPECT_GT(outcomes.refused, 100U);
  EXPECT_EQ(outcomes.hung_up, 0U);
  EXPECT_EQ(outcomes.waited, 0U);
}

// There is not even a session, or one that is only told to go: what is left is for those that are there.
TEST(SessionWithoutMemory, IsRefusedByWordsThatCanBeRead) {
  const struct {
    const char* client;
    Security security;
    bool is_balancer;
    std::string_view heard;
  } kRows[] = {
      {"a client", Security::kPlain, false, kUnavailable},
      {"a client that will start TLS", Security::kStartTls, false, kUnavailable},
      {"one that speaks TLS at once", Security::kTlsPort, false, ""},
      {"a balancer, which has not said whose connection it is", Security::kPlain, true, ""},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.client);
    Program program(row.security);
    if (row.is_balancer) program.Settings().ProxyProtocolFrom = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
    EXPECT_EQ(program.Meet(), row.heard);
    EXPECT_EQ(program.Beside(), "250 ok\r\n");
    EXPECT_EQ(program.MeetWithoutReserve(), row.heard);
    EXPECT_EQ(program.Beside(), "250 ok\r\n");
    program.ExpectNothingLeft();
    program.Settings().ProxyProtocolFrom = IPRangeList();
    EXPECT_EQ(program.Play().end, Course::End::kWhole);
  }
}

// There was no memory for a session, not even out of the reserve, and then there is some again.
TEST(SessionWithoutMemory, LeavesTheReserveToTheOthers) {
  SessionFixture fixture;
  fixture.Start();
  {
    const FailedAllocation failure(0, 2);
    EXPECT_THROW(fixture.BeginWithoutConnection(), std::bad_alloc);
  }
  EXPECT_TRUE(fixture.Sockets_().Reserve().IsThere());
}

// That it has no client has to be told, and there is no memory for that.
TEST(SessionWithoutMemory, GoesWhenItsConnectionIsNotThere) {
  for (std::size_t before = 0;; ++before) {
    SCOPED_TRACE("allocation " + std::to_string(before));
    SessionFixture fixture;
    fixture.Start();
    bool failed = false;
    {
      const FailedAllocation failure(before, FailedAllocation::kAll);
      try {
        fixture.BeginWithoutConnection();
      } catch (const std::bad_alloc&) {
        // Its own memory; whoever listens goes on.
      }
      failed = failure.HasFailed();
    }
    fixture.Settle();
    ASSERT_EQ(fixture.Sessions().Count(), 1U) << "the fixture's own";
    if (!failed) break;
    ASSERT_LT(before, 100U);
  }
}

// The connection ends for another reason, which has to be told, and there is no memory for that.
TEST(SessionWithoutMemory, EndsWhenItsServerOrItsClientFails) {
  const struct {
    const char* what;
    bool has_server;
    void (*fault)(Program&);
  } kRows[] = {
      {"no server", false, [](Program&) {}},
      {"the server resets", true, [](Program& program) { program.ResetServer(); }},
      {"the client resets", true, [](Program& program) { program.ResetClient(); }},
  };
  for (const auto& row : kRows) {
    for (std::size_t before = 0;; ++before) {
      SCOPED_TRACE(std::string(row.what) + ", allocation " + std::to_string(before));
      Program program(Security::kPlain);
      if (!row.has_server) program.CloseServer();
      Course course;
      bool failed = false;
      {
        const FailedAllocation failure(before);
        course = program.Suffer([&] { row.fault(program); });
        failed = failure.HasFailed();
      }
      EXPECT_NE(course.end, Course::End::kSilence) << course;
      EXPECT_EQ(program.Beside(), "250 ok\r\n");
      program.ExpectNothingLeft();
      if (!failed || testing::Test::HasFailure()) break;
      ASSERT_LT(before, 1000U);
    }
  }
}

}  // namespace
}  // namespace trabex

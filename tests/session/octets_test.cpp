// Octets of content that nobody has to look at: they arrive byte for byte, whichever way they take.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "session/dialogues.h"
#include "session/session_fixture.h"

namespace trabex {
namespace {

// With line ends, dots and commands in it, and no two parts alike.
std::string Octets(std::size_t count) {
  static constexpr std::string_view kWords[] = {"\r\n.\r\n", "QUIT\r\n", std::string_view("\0", 1), "\n.\n",
                                                "BDAT 5 LAST\r\n"};
  std::string octets;
  for (std::size_t i = 0; octets.size() < count; ++i)
    octets.append(std::to_string(i * i)).append(kWords[i % 5]);
  octets.resize(count);
  return octets;
}

struct Case {
  const char* description;
  Security client;
  std::vector<std::size_t> chunks;
  bool server_is_slow;
};

const Case kCases[] = {
    {"one chunk", Security::kPlain, {6000000}, false},
    {"one chunk for a slow server", Security::kPlain, {3000000}, true},
    {"chunks of all sizes",
     Security::kPlain,
     {1, 16384, 65536, 0, 65537, 1000000, 1048576, 1048577, 3},
     false},
    {"chunks for a slow server", Security::kPlain, {1000000, 20000, 1500000}, true},
    {"an encrypted client", Security::kStartTls, {3000000}, false},
};

void Play(SessionFixture& fixture, const Case& c) {
  fixture.ClientSecurity = c.client;
  fixture.Settings.AddReceived = false;
  if (c.client != Security::kPlain) fixture.OfferTls();
  ASSERT_EQ(fixture.Play(Greeting() + Ehlo({"8BITMIME", "CHUNKING"}) + MailAndRcpt()), "");
  if (c.server_is_slow) fixture.ServerPeer().HoldLittle();
  std::string expected;
  std::string got;
  for (std::size_t i = 0; i < c.chunks.size(); ++i) {
    const bool last = i + 1 == c.chunks.size();
    const std::string chunk =
        "BDAT " + std::to_string(c.chunks[i]) + (last ? " LAST\r\n" : "\r\n") + Octets(c.chunks[i]);
    expected += chunk;
    // What follows the last chunk waits for the reply to it.
    const std::string said = chunk + (last ? "NOOP\r\n" : "");
    std::size_t sent = 0;
    ASSERT_TRUE(fixture.Until([&] {
      sent += fixture.ClientPeer().Send(std::string_view(said).substr(sent));
      got += fixture.ServerPeer().Received();
      fixture.ServerPeer().Received().clear();
      return sent == said.size() && got.size() >= expected.size();
    }));
    ASSERT_TRUE(got == expected) << i;
    ASSERT_EQ(fixture.Play("S: 250 taken\n<- 250 taken"), "");
  }
  ASSERT_EQ(fixture.Play("-> NOOP\nS: 250 ok\n<- 250 ok"), "");
}

TEST(Octets, ArriveByteForByte) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.description);
    SessionFixture fixture;
    Play(fixture, c);
    // A slow server's may all have been taken in small parts.
    if (c.client != Security::kPlain) {
      EXPECT_EQ(fixture.Sockets_().PassedBytes(), 0U);
    } else if (!c.server_is_slow) {
      EXPECT_GT(fixture.Sockets_().PassedBytes(), 0U);
    }
    EXPECT_EQ(fixture.Sockets_().LentPipes(), 0U);
  }
}

// The log's bytes at the end of a session are those that came and went, whichever way they took.
TEST(Octets, AreCounted) {
  SessionFixture fixture;
  fixture.Settings.LogLevelRemote = fixture.Settings.LogLevelServer = 8;
  Play(fixture, kCases[0]);
  const cProxy& session = fixture.Sessions().At(0);
  const std::int64_t from_client = session.ClientBytes().in;
  EXPECT_GT(from_client, 6000000);
  EXPECT_LT(from_client, 6001000);
  EXPECT_GT(session.ServerBytes().out, 6000000);
  EXPECT_LT(session.ServerBytes().out, 6001000);
  EXPECT_GT(fixture.Sockets_().PassedBytes(), 3000000U);
}

TEST(Octets, CountTowardsTheSizeThatIsEnforced) {
  SessionFixture fixture;
  fixture.Settings.AddReceived = false;
  fixture.Settings.Service.EnforceMaxSize = true;
  fixture.Settings.MaxSize = 1500000 * kFixedPointOne;
  ASSERT_EQ(fixture.Play(Greeting() + Ehlo({"CHUNKING", "SIZE 1500000"}) + MailAndRcpt()), "");
  const auto say = [&](const std::string& chunk, const auto& until) {
    std::size_t sent = 0;
    return fixture.Until([&] {
      sent += fixture.ClientPeer().Send(std::string_view(chunk).substr(sent));
      return sent == chunk.size() && until();
    });
  };
  const std::string first = "BDAT 1000000\r\n" + Octets(1000000);
  ASSERT_TRUE(say(first, [&] { return fixture.ServerPeer().Received().size() >= first.size(); }));
  EXPECT_GT(fixture.Sockets_().PassedBytes(), 0U);
  fixture.ServerPeer().Received().clear();
  ASSERT_EQ(fixture.Play("S: 250 ok\n<- 250 ok"), "");
  const std::string second = "BDAT 600000 LAST\r\n" + Octets(600000);
  ASSERT_TRUE(say(second, [&] { return !fixture.ClientPeer().Received().empty(); }));
  EXPECT_EQ(fixture.ServerPeer().Received(), "");
  ASSERT_EQ(fixture.Play("<- 552 5.3.4 Message size (1600000 bytes) *\nclosed both"), "");
}

// A session that ends while octets wait for a server gives back what they wait in.
TEST(Octets, OfASessionThatEnds) {
  SessionFixture fixture;
  ASSERT_EQ(fixture.Play(Greeting() + Ehlo({"CHUNKING"}) + MailAndRcpt()), "");
  TestPeer server = std::move(fixture.ServerPeer());  // not read by the fixture now
  server.HoldLittle();
  const std::string chunk = "BDAT 100000000\r\n" + Octets(1000000);
  std::size_t sent = 0;
  ASSERT_TRUE(fixture.Until([&] {
    sent = (sent + fixture.ClientPeer().Send(std::string_view(chunk).substr(sent))) % chunk.size();
    return fixture.Sockets_().LentPipes() > 0;
  }));
  fixture.Sessions().At(0).Close();
  EXPECT_EQ(fixture.Sockets_().LentPipes(), 0U);
}

}  // namespace
}  // namespace trabex

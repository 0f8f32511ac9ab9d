// Which lines of a session the level words let into the log.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "session/dialogues.h"
#include "session/session_fixture.h"
#include "support/told_by_system.h"

namespace trabex {
namespace {

// Side and text of each line: "R > 250 ok".
std::vector<std::string> Logged(int server_level, int client_level,
                                const std::function<void(SessionFixture&)>& play) {
  SessionFixture fixture;
  fixture.Settings.LogLevelServer = server_level;
  fixture.Settings.LogLevelRemote = client_level;
  play(fixture);
  std::vector<std::string> lines;
  for (const std::string& line : fixture.LogLines()) {
    lines.push_back(line.substr(0, 1) + line.substr(line.find(']') + 1));
  }
  return lines;
}

struct Line {
  int bit;
  const char* text;
};

// Every pair of levels lets in the lines of its bits, in their order, and no others.
void ExpectLines(const std::vector<Line>& all, const std::function<void(SessionFixture&)>& play) {
  for (const int server_level : {0, 1, 2, 4, 8, 15, 14, 13, 11, 7}) {
    for (const int client_level : {0, 1, 2, 4, 8, 15, 14, 13, 11, 7}) {
      std::vector<std::string> wanted;
      for (const Line& line : all) {
        if (line.bit & (line.text[0] == 'S' ? server_level : client_level)) wanted.emplace_back(line.text);
      }
      EXPECT_EQ(Logged(server_level, client_level, play), wanted) << server_level << " " << client_level;
    }
  }
}

TEST(LogLevels, OfAnOrdinarySession) {
  ExpectLines(
      {
          {8, "R Connection Request."},
          {8, "S Connected."},
          {2, "S < 220 server ready\u00B6"},
          {4, "R > 220 server ready"},
          {2, "R < DATA\u00B6"},
          {4, "R > 503 Bad sequence of commands."},
          {2, "R < NOOP\u00B6"},
          {4, "S > NOOP\u00B6"},
          {2, "S < 250 ok\u00B6"},
          {4, "R > 250 ok"},
          {8, "R Disconnected. Bytes received/sent: 12/57"},
          {8, "S Disconnected. Bytes received/sent: 26/6"},
      },
      [](SessionFixture& fixture) {
        EXPECT_EQ(fixture.Play(R"(
          S: 220 server ready
          <- 220 server ready
          C: DATA
          <- 503 Bad sequence of commands.
          C: NOOP
          -> NOOP
          S: 250 ok
          <- 250 ok
          C closes
          closed S)"),
                  "");
      });
}

TEST(LogLevels, OfTooManyCommandsOutOfOrder) {
  ExpectLines(
      {
          {8, "R Connection Request."},
          {8, "S Connected."},
          {2, "S < 220 server ready\u00B6"},
          {4, "R > 220 server ready"},
          {2, "R < DATA\u00B6"},
          {4, "R > 503 Bad sequence of commands."},
          {1, "R Maximum out-of-order commands exceeded. Closing connection."},
          {8, "R Disconnected. Bytes received/sent: 6/49"},
          {8, "S Disconnected. Bytes received/sent: 18/0"},
      },
      [](SessionFixture& fixture) {
        fixture.Settings.MaxBadSeq = 0;
        EXPECT_EQ(fixture.Play(R"(
          S: 220 server ready
          <- 220 server ready
          C: DATA
          <- 503 Bad sequence of commands.
          wait 500
          closed both)"),
                  "");
      });
}

TEST(LogLevels, OfAGreylistedCallback) {
  DelayAll greylisting;
  ExpectLines(
      {
          {8, "R Connection Request."},
          {8, "S Connected."},
          {2, "S < 220 server ready\u00B6"},
          {4, "R > 220 server ready"},
          {2, "R < HELO client.test\u00B6"},
          {4, "S > HELO client.test\u00B6"},
          {2, "S < 250 ok\u00B6"},
          {4, "R > 250 ok"},
          {2, "R < MAIL FROM:<>\u00B6"},
          {4, "S > MAIL FROM:<>\u00B6"},
          {2, "S < 250 ok\u00B6"},
          {4, "R > 250 ok"},
          {2, "R < RCPT TO:<u@local.test>\u00B6"},
          {4, "S > RCPT TO:<u@local.test>\u00B6"},
          {2, "S < 250 ok\u00B6"},
          {4, "R > 250 ok"},
          {2, "R < DATA\u00B6"},
          {1, "R Connection broken due to Greylisting"},
          {8, "R Disconnected. Bytes received/sent: 62/42"},
          {8, "S Disconnected. Bytes received/sent: 42/56"},
      },
      [&](SessionFixture& fixture) {
        fixture.Settings.LocalIPs = IPRangeList();
        fixture.Greylisting = &greylisting;
        fixture.Settings.GreyListing.Enabled = true;
        fixture.Settings.GreyListing.CallbackSenderAction = 3;
        EXPECT_EQ(fixture.Play(R"(
          S: 220 server ready
          <- 220 server ready
          C: HELO client.test
          -> HELO client.test
          S: 250 ok
          <- 250 ok
)" + MailAndRcpt("") + R"(
          C: DATA
          closed both)"),
                  "");
      });
}

TEST(LogLevels, OfAServerThatRefuses) {
  ExpectLines(
      {
          {8, "R Connection Request."},
          {1, "S Error 10061. Connection refused."},
          {4, "R > 421 proxy.test is temporarily unavailable."},
          {8, "R Disconnected. Bytes received/sent: 0/44"},
      },
      [](SessionFixture& fixture) {
        fixture.Server().Close();
        EXPECT_EQ(fixture.Play("<- 421 proxy.test is temporarily unavailable.\nclosed C"), "");
      });
}

TEST(LogLevels, OfATimeOut) {
  ExpectLines(
      {
          {8, "R Connection Request."},
          {4, "R > 454 Unable to verify DNS PTR record for 127.0.0.1."},
          {1, "R Timeout exceeded. Closing connection."},
          {8, "R Disconnected. Bytes received/sent: 0/52"},
      },
      [](SessionFixture& fixture) {
        fixture.Settings.ValidateRDNS = 1;
        fixture.Settings.Timeout = 10;
        EXPECT_EQ(fixture.Play(R"(
          <- 454 Unable to verify DNS PTR record for 127.0.0.1.
          wait 11000
          closed C)"),
                  "");
      });
}

TEST(LogLevels, OfAClientThatResets) {
  std::vector<Line> lines = {
      {8, "R Connection Request."},
      {8, "S Connected."},
      {2, "S < 220 server ready\u00B6"},
      {4, "R > 220 server ready"},
      {8, "R Disconnected. Bytes received/sent: 0/18"},
      {8, "S Disconnected. Bytes received/sent: 18/0"},
  };
  if (ResetsAreTold()) lines.insert(lines.begin() + 4, {1, "R Error 10054. Connection reset by peer."});
  ExpectLines(lines, [](SessionFixture& fixture) {
    EXPECT_EQ(fixture.Play(R"(
          S: 220 server ready
          <- 220 server ready
          C resets
          closed S)"),
              "");
  });
}

}  // namespace
}  // namespace trabex

// Messages that grow larger than the session's limit (EnforceMaxSize).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>

#include "report/counters.h"
#include "report/json_log.h"
#include "report/session_report.h"
#include "session/dialogues.h"
#include "session/session_fixture.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

using testing::HasSubstr;
using testing::Not;
using Configure = std::function<void(SessionFixture&)>;

// A message may have ten octets.
void TenOctets(SessionFixture& fixture) {
  fixture.Settings.AddReceived = false;
  fixture.Settings.Service.EnforceMaxSize = true;
  fixture.Settings.MaxSize = 10 * kFixedPointOne;
}

const std::string kGreetedTen = Greeting() +
                                "C: EHLO client.test\n-> EHLO client.test\nS: 250-server\nS: 250 CHUNKING\n"
                                "<- 250-server\n<- 250-CHUNKING\n<- 250 SIZE 10\n";
const std::string kInData = kGreetedTen + MailAndRcpt() + Data();

std::string Refused(int size) {
  return "<- 552 5.3.4 Message size (" + std::to_string(size) +
         " bytes) exceeds fixed maximium message size (10 bytes).\nclosed both\n";
}

const std::string kTaken = "S: 250 queued\n<- 250 queued\n";

TEST(MessageSize, IsThatOfTheContentWithoutItsLastLine) {
  const struct {
    std::string content;  // what the client sends, with a cut where the server has got something
    std::string passed;   // what of it the server gets
    int size;
  } rows[] = {
      {".\\r\\n", "", 0},
      {"\\r\\n.\\r\\n", "", 2},
      {"12345678\\r\\n.\\r\\n", "", 10},
      {"1234\\r\\n78\\r\\n.\\r\\n", "", 10},
      // A dot in front of a line's own counts, since it is sent.
      {"..345678\\r\\n.\\r\\n", "", 10},
      {"..\\r\\n..\\r\\n90.\\r\\n.\\r\\n", "..\\r\\n..\\r\\n90", 13},
      {"123456789\\r\\|\\n.\\r\\n", "123456789\\r", 11},
      {"..3456789\\r\\|\\n.\\r\\n", "..3456789\\r", 11},
      {"1234567890\\|ab\\r\\n.\\r\\n", "1234567890", 14},
      // The dot may be that of the last line until it is known not to be.
      {"12345678\\r\\n.\\|\\r\\n", "", 10},
      {"12345678\\r\\n.\\|.\\r\\n.\\r\\n", "12345678\\r\\n.", 14},
      {"12345678\\r\\n.\\r\\|x\\r\\n.\\r\\n", "12345678\\r\\n.", -1},
      {"1234\\r\\n.8\\r\\n.\\r\\n", "", 10},
      {"1234567890\\|{300*x}\\r\\n.\\r\\n", "1234567890", 312},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.content);
    if (row.size < 0) {
      // Whose end is doubtful is answered as such.
      PlayEveryWay(TenOctets, kInData + "C+ " + row.content + "\n*> " + row.passed +
                                  "\n<- 554 5.6.0 Ambiguous end of message content.\nclosed both");
    } else if (row.passed.empty()) {
      std::string all = row.content;
      if (const auto cut = all.find("\\|"); cut != std::string::npos) all.erase(cut, 2);
      PlayEveryWay(TenOctets, kInData + "C+ " + row.content + "\n*> " + all + "\n" + kTaken +
                                  "C: NOOP\n-> NOOP\nS: 250 ok\n<- 250 ok");
    }
  }
  for (const auto& row : rows) {
    if (row.size < 11) continue;
    SCOPED_TRACE(row.content);
    const std::string sent = row.content.find("\\|") == std::string::npos
                                 ? row.passed + "\\|" + row.content.substr(row.passed.size())
                                 : row.content;
    PlayEveryWay(TenOctets, kInData + "C+ " + sent + "\n*> " + row.passed + "\n" + Refused(row.size));
  }
}

TEST(MessageSize, OfOneSegmentReachesNoServer) {
  for (const Security security : {Security::kPlain, Security::kTlsPort}) {
    SessionFixture fixture;
    fixture.ClientSecurity = security;
    TenOctets(fixture);
    EXPECT_EQ(fixture.Play(kInData + "C+ 123456789\\r\\n.\\r\\nQUIT\\r\\n\n" + Refused(11) +
                           "log S: {*] Message too large. Closing connection.\n"),
              "");
    EXPECT_EQ(fixture.Sessions().Count(), 0U);
  }
}

TEST(MessageSize, IsNotMeasuredByDefault) {
  PlayEveryWay(
      [](SessionFixture& fixture) {
        TenOctets(fixture);
        fixture.Settings.Service.EnforceMaxSize = false;
      },
      kInData + "C+ 123456789\\r\\n.\\r\\n\n-> 123456789\n-> .\n" + kTaken + MailAndRcpt() +
          "C+ BDAT 11 LAST\\r\\n12345678901\n-> BDAT 11 LAST\n*> 12345678901\n" + kTaken);
}

TEST(MessageSize, HasTheLimitOfTheSession) {
  const struct {
    const char* what;
    FixedPoint setting;
    std::string greeted;
    bool limited;
  } rows[] = {
      {"the server's", max_size::kAsServer, Greeting() + Ehlo({"SIZE 10"}), true},
      {"none of either", max_size::kAsServer, Greeting() + Ehlo({"8BITMIME"}), false},
      {"none", max_size::kNone, Greeting() + Ehlo({"SIZE 10"}), false},
      {"ours, of one that says HELO", 10 * kFixedPointOne, Greeting() + Accepted("HELO client.test"), true},
      {"the server's, of one that says HELO", max_size::kAsServer, Greeting() + Accepted("HELO client.test"),
       false},
      {"the server's, of one that says EHLO and HELO", max_size::kAsServer,
       Greeting() + Ehlo({"SIZE 10"}) + Accepted("HELO client.test"), true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    SessionFixture fixture;
    TenOctets(fixture);
    fixture.Settings.MaxSize = row.setting;
    EXPECT_EQ(fixture.Play(row.greeted + MailAndRcpt() + Data() + "C+ 123456789\\r\\n.\\r\\n\n" +
                           (row.limited ? Refused(11) : "-> 123456789\n-> .\n" + kTaken)),
              "");
  }
}

TEST(MessageSize, OurHeaderIsNoPartOfIt) {
  const auto configure = [](SessionFixture& fixture) {
    TenOctets(fixture);
    fixture.Settings.AddReceived = true;
  };
  const std::string received = R"(
    -> Received: from client.test (Unknown [127.0.0.1]) by proxy.test
    ->       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000
)";
  PlayEveryWay(configure, kGreetedTen + MailAndRcpt() + "C: DATA\n-> DATA\nS: 354 go on\n<- 354 go on\n" +
                              "C+ 12345678\\r\\n.\\r\\n\n" + received + "-> 12345678\n-> .\n" + kTaken);
  PlayBothWays(configure, kGreetedTen + MailAndRcpt() + "C+ BDAT 10 LAST\\r\\n1234567890\n-> BDAT * LAST\n" +
                              received + "*> 1234567890\n" + kTaken);
}

TEST(MessageSize, TheRestIsReadToItsEndBeforeTheReply) {
  PlayEveryWay(TenOctets, kInData + R"(
    C+ 1234567890
    *> 1234567890
    C+ abc\r\n..\r\n
    closed S
    <- nothing
    C+ {50*abcdefgh\r\n}
    <- nothing
    C+ .
    <- nothing
    C+ \r\nMAIL FROM:<a@b.test>\r\n
)" + Refused(10 + 5 + 4 + 500));
  // Whoever does not go on is not waited for.
  PlayBothWays(
      [](SessionFixture& fixture) {
        TenOctets(fixture);
        fixture.Settings.Timeout = 60;
      },
      kInData +
          "wait 100000\nC+ 1234567890\n*> 1234567890\nC+ ab\\r\\n\nclosed S\nwait 59000\n<- nothing\nC+ "
          "x\\r\\n\nwait 59000\n"
          "C+ x\nwait 2000\nclosed C\nlog R: {*] Timeout exceeded. Closing connection.");
  PlayBothWays(TenOctets,
               kInData + "C+ 1234567890\n*> 1234567890\nC+ ab\nclosed S\nshutdown\n<- 421 4.3.2 *\nclosed C");
}

TEST(MessageSize, OfTheNextMessageIsCountedAnew) {
  PlayEveryWay(TenOctets, kInData + "C+ 12345678\\r\\n.\\r\\n\n-> 12345678\n-> .\n" + kTaken + MailAndRcpt() +
                              Data() + "C+ 12345678\\r\\n.\\r\\n\n-> 12345678\n-> .\n" + kTaken +
                              MailAndRcpt() +
                              "C+ BDAT 8\\r\\n12345678\n-> BDAT 8\n*> 12345678\nS: 250 ok\n<- 250 ok\n" +
                              Accepted("RSET") + MailAndRcpt() +
                              "C+ BDAT 8\\r\\n12345678\n-> BDAT 8\n*> 12345678\nS: 250 ok\n<- 250 ok\n" +
                              "C+ BDAT 2 LAST\\r\\n90\n-> BDAT 2 LAST\n*> 90\n" + kTaken + MailAndRcpt() +
                              Data() + "C+ 1234567890\\|\\r\\n.\\r\\n\n*> 1234567890\n" + Refused(12));
}

TEST(MessageSize, IsThatOfAllItsChunks) {
  const std::string begun = kGreetedTen + MailAndRcpt();
  const std::string first = "C+ BDAT 6\\r\\n.\\r\\n456\n-> BDAT 6\n*> .\\r\\n456\nS: 250 ok\n<- 250 ok\n";
  PlayEveryWay(TenOctets,
               begun + "C+ BDAT 10 LAST\\r\\n1234567890\n-> BDAT 10 LAST\n*> 1234567890\n" + kTaken);
  PlayEveryWay(TenOctets, begun + first + "C+ BDAT 4 LAST\\r\\n7890\n-> BDAT 4 LAST\n*> 7890\n" + kTaken);
  PlayEveryWay(TenOctets,
               begun + first +
                   "C+ BDAT 4\\r\\n7890BDAT 0 LAST\\r\\n\n-> BDAT 4\n*> 7890\nS: 250 ok\n<- 250 ok\n" +
                   "-> BDAT 0 LAST\n" + kTaken);
  // The chunk with which it is too large is dropped: the server does not even hear of it.
  PlayEveryWay(
      TenOctets,
      begun + "C+ BDAT 11 LAST\\r\\n\nclosed S\n<- nothing\nC+ 1234567890\n<- nothing\nC+ 1\n" + Refused(11));
  PlayEveryWay(TenOctets, begun + "C+ BDAT 11\\r\\n12345678901QUIT\\r\\n\n" + Refused(11));
  PlayEveryWay(TenOctets, begun + first + "C+ BDAT 5 LAST\\r\\n78901\n" + Refused(11));
  PlayEveryWay(TenOctets,
               begun + first + "C+ BDAT 2000000000\\r\\n{500*x}\nclosed S\n<- nothing\nC closes\n");
  PlayEveryWay(TenOctets, begun + "C: DATA\n-> DATA\nS: 452 not now\n<- 452 not now\n" +
                              "C+ BDAT 11 LAST\\r\\n12345678901\n" + Refused(11));
  // What is thrown away for another reason does not count.
  PlayEveryWay(TenOctets, begun + first +
                              "C+ BDAT\\x01 9\\r\\n\n<- 500 *\nC+ BDAT 3 \\x01\\r\\nabc\n<- 500 *\n" +
                              "C+ BDAT 4 LAST\\r\\n7890\n-> BDAT 4 LAST\n*> 7890\n" + kTaken);
}

TEST(MessageSize, FollowsAReload) {
  SessionFixture fixture;
  TenOctets(fixture);
  fixture.Settings.Service.EnforceMaxSize = false;
  ASSERT_EQ(fixture.Play(kGreetedTen + MailAndRcpt() +
                         "C+ BDAT 11\\r\\n12345678901\n-> BDAT 11\n*> 12345678901\nS: 250 ok\n<- 250 ok\n"),
            "");
  fixture.Settings.Service.EnforceMaxSize = true;
  EXPECT_EQ(fixture.Play("C: BDAT 0 LAST\n" + Refused(11)), "");
}

TEST(MessageSize, ItsReplyCanBeChanged) {
  SessionFixture fixture;
  TenOctets(fixture);
  cReplaces replaces;
  replaces.SetName("MAIL.Size");
  replaces.Add("", "552 {%size%} of {%maxsize%}, {%from%}", false);
  fixture.Settings.ResponseChanges.Add(replaces);
  // What was declared is another matter.
  EXPECT_EQ(
      fixture.Play(kGreetedTen + "C: MAIL FROM:<a@b.test> SIZE=3\n-> *\nS: 250 ok\n<- 250 ok\n" + Rcpt() +
                   Data() + "C+ 123456789\\r\\n.\\r\\n\n<- 552 11 of 10, a@b.test\nclosed both"),
      "");
}

TEST(MessageSize, IsCountedAndInTheJsonLog) {
  for (const char* const content : {"C: DATA\n-> DATA\nS: 354 go\n<- 354 go\nC+ 123456789\\r\\n.\\r\\n\n",
                                    "C+ BDAT 11 LAST\\r\\n12345678901\n"}) {
    const TempFolder folder;
    SessionFixture fixture;
    Counters counters;
    RecordedLog log;
    JsonLog json{fixture.Settings, fixture.Time, fixture.Loop, log};
    SessionReport report{counters, json, fixture.Time};
    fixture.Observer = &report;
    TenOctets(fixture);
    fixture.Settings.Service.JsonLog = folder / "trabex.json";
    ASSERT_EQ(fixture.Play(kGreetedTen + MailAndRcpt() + content + Refused(11)), "");
    fixture.Settle();
    json.Flush();
    EXPECT_EQ(counters.replies[CountedReplyIndex(ReplyKind::kMailSize, "")], 1U);
    EXPECT_EQ(counters.sessions_ended[static_cast<std::size_t>(SessionEnd::kRefused)], 1U);
    EXPECT_EQ(counters.messages, (CountArray<2>{0, 0}));
    const std::string text = ReadFile(fixture.Settings.Service.JsonLog);
    EXPECT_THAT(text, HasSubstr("\"event\":\"refusal\""));
    EXPECT_THAT(text, HasSubstr("\"stage\":\"content\",\"key\":\"MAIL.Size\",\"code\":552,"));
    EXPECT_THAT(text, HasSubstr("\"from\":\"a@b.test\""));
    EXPECT_THAT(text, HasSubstr("\"how\":\"refused\"}"));
    EXPECT_THAT(text, Not(HasSubstr("\"event\":\"message\"")));
    fixture.Observer = nullptr;
  }
}

}  // namespace
}  // namespace trabex

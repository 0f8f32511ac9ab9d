// What sessions tell: the counters, and the lines of the JSON log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "report/counters.h"
#include "session/dialogues.h"
#include "session/reported.h"
#include "support/told_by_system.h"

namespace trabex {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const IPRangeList kLoopbackOnly({{kIPv4Loopback, kIPv4Loopback}});

using Configure = void (*)(Reported&);

DelayAll delay_all;

// How each refusal comes about; `what` is in its line.
struct RefusalCase {
  const char* key;
  const char* what;
  Configure configure;
  std::string script;
};

std::vector<RefusalCase> RefusalCases() {
  const auto named = [](Reported& test) {
    test.fixture.Names.SetName(kIPv4Loopback, "host.test");
    test.fixture.Settings.ValidateRDNS = 3;
  };
  static const auto kNamed = +named;
  const auto tls = +[](Reported& test) { test.fixture.OfferTls(); };
  const std::string offered = R"(
    S: 220 server ready
    <- 220 server ready
    C: EHLO client.test
    -> EHLO client.test
    S: 250 server
    <- 250-server
    <- 250 STARTTLS
)";
  const std::string mail = Greeted() + "C: MAIL FROM:<a@b.test>\n-> *\nS: 250 ok\n<- 250 ok\n";
  return {
      {"TooManyConnections", "\"stage\":\"connect\"",
       [](Reported& test) { test.fixture.Settings.MaxConnections = 1; },
       "S: 220 ready\n<- 220 ready\nconnect\n<- 421 *\nclosed C"},
      {"IPBlackList", "\"list\":\"IPBlackList\",\"entry\":\"127.0.0.1\"",
       [](Reported& test) { test.fixture.Settings.IPBlackList = kLoopbackOnly; }, "<- 554 *\nclosed C"},
      {"IPBlackList", "\"list\":\"IPAllowList\"}",
       [](Reported& test) { test.fixture.Settings.IPAllowList = IPRangeList(); }, "<- 554 *\nclosed C"},
      {"HostsBlackList", "\"name\":\"host.test\",\"list\":\"HostsBlackList\",\"entry\":\"*.test\"",
       [](Reported& test) {
         kNamed(test);
         test.fixture.Settings.HostsBlackList = Patterns({"other", "*.test"});
       },
       "<- 554 *"},
      {"HostsBlackList", "\"list\":\"HostsAllowList\"}",
       [](Reported& test) {
         kNamed(test);
         test.fixture.Settings.HostsAllowList = Patterns({"other"});
       },
       "<- 554 *"},
      {"NoPtr", "\"stage\":\"connect\"", [](Reported& test) { test.fixture.Settings.ValidateRDNS = 3; },
       "<- 454 *"},
      {"LineTooLong", "\"stage\":\"command\"", nullptr, Greeted() + "C: {5000*x}\n<- 500 *\nclosed C"},
      {"BadSyntax", "\"stage\":\"command\"", nullptr, Greeted() + "C+ NOOP \\x01\\r\\n\n<- 500 *"},
      {"NotImplemented", "\"stage\":\"command\"", nullptr, Greeted() + "C: TURN\n<- 502 *"},
      {"BadSeq.BadIP", "\"stage\":\"helo\"", [](Reported& test) { test.fixture.Settings.ValidateRDNS = 3; },
       "<- 454 *\nC: EHLO x\n<- 503 *"},
      {"BadSeq.NoHelo", "\"stage\":\"mail\"", nullptr,
       "S: 220 ready\n<- 220 ready\nC: MAIL FROM:<a@b.test>\n<- 503 *"},
      {"BadSeq.Transaction", "\"stage\":\"mail\"", nullptr, mail + "C: MAIL FROM:<a@b.test>\n<- 503 *"},
      {"BadSeq.NoTransaction", "\"stage\":\"rcpt\"", nullptr, Greeted() + "C: RCPT TO:<a@b.test>\n<- 503 *"},
      {"BadSeq.BDAT", "\"stage\":\"data\"", nullptr, mail + "C: BDAT\n<- 503 *\nclosed C"},
      {"TLS.Required", "\"stage\":\"mail\"",
       [](Reported& test) {
         test.fixture.OfferTls();
         test.fixture.Settings.TLS.Require = 3;
       },
       offered + "C: MAIL FROM:<a@b.test>\n<- 530 *"},
      {"TLS.Syntax", "\"stage\":\"starttls\"", tls, offered + "C: STARTTLS x\n<- 501 *"},
      {"TLS.DataBehind", "\"stage\":\"starttls\"", tls,
       offered + "C+ STARTTLS\\r\\nRSET\\r\\n\n<- 554 *\nclosed C"},
      {"AUTH.TLSRequired", "\"stage\":\"auth\"",
       [](Reported& test) {
         test.fixture.OfferTls();
         test.fixture.Settings.TLS.RequireForAUTH = 3;
       },
       offered + "C: AUTH PLAIN c2VjcmV0\n<- 538 *"},
      {"HELO.NoDomain", "\"stage\":\"helo\"", [](Reported& test) { test.fixture.Settings.ValidateHELO = 3; },
       "S: 220 ready\n<- 220 ready\nC: EHLO\n<- 501 *"},
      {"HELO.BlackList", "\"helo\":\"bad.test\",\"list\":\"HELOBlackList\",\"entry\":\"bad*\"",
       [](Reported& test) {
         test.fixture.Settings.ValidateHELO = 12;
         test.fixture.Settings.HELOBlackList = Patterns({"x", "bad*"});
       },
       "S: 220 ready\n<- 220 ready\nC: EHLO bad.test\n<- 550 *"},
      {"HELO.DNSError", "\"helo\":\"none.test\"",
       [](Reported& test) { test.fixture.Settings.ValidateHELO = 3; },
       "S: 220 ready\n<- 220 ready\nC: EHLO none.test\n<- 450 *"},
      {"HELO.Invalid", "\"helo\":\"other.test\"",
       [](Reported& test) {
         test.fixture.Settings.ValidateHELO = 3;
         test.fixture.Names.SetAddresses("other.test", {IPAddress::IPv4(1)});
       },
       "S: 220 ready\n<- 220 ready\nC: EHLO other.test\n<- 550 *"},
      {"MAIL.AddressSyntax", "\"sent\":true,\"helo\":\"client.test\"}", nullptr,
       Greeted() + "C: MAIL FROM:<a b>\n<- 501 *"},
      {"MAIL.TooManyTransactions", "\"from\":\"c@d.test\"",
       [](Reported& test) { test.fixture.Settings.MaxTransactionsLocal = 1; },
       mail + "C: RSET\n-> RSET\nS: 250 ok\n<- 250 ok\nC: MAIL FROM:<c@d.test>\n<- 452 *"},
      {"MAIL.BlackList", "\"from\":\"a@b.test\",\"list\":\"SendersBlackList\",\"entry\":\"*@b.test\"",
       [](Reported& test) { test.fixture.Settings.SendersBlackList = Patterns({"*@b.test"}); },
       Greeted() + "C: MAIL FROM:<a@b.test>\n<- 550 *"},
      {"MAIL.BlackList", "\"list\":\"SendersAllowList\"}",
       [](Reported& test) { test.fixture.Settings.SendersAllowList = Patterns({"x"}); },
       Greeted() + "C: MAIL FROM:<a@b.test>\n<- 550 *"},
      {"MAIL.Size", "\"from\":\"a@b.test\"", nullptr,
       Greeted() + "C: MAIL FROM:<a@b.test> SIZE=10000001\n<- 552 *"},
      {"RCPT.AddressSyntax", "\"from\":\"a@b.test\"}", nullptr, mail + "C: RCPT TO:<a b>\n<- 501 *"},
      {"RCPT.TooManyRecipients", "\"to\":\"v@local.test\"",
       [](Reported& test) { test.fixture.Settings.MaxRecipientsLocal = 1; },
       InTransaction() + "C: RCPT TO:<v@local.test>\n<- 452 *"},
      {"RCPT.Restricted", "\"list\":\"RestrictedSenders\",\"entry\":\"a@*\"",
       [](Reported& test) { test.fixture.Settings.RestrictedSenders = Patterns({"a@*"}); },
       mail + "C: RCPT TO:<u@away.test>\n<- 550 *"},
      {"RCPT.BlackList.Local", "\"to\":\"u@x.test\",\"list\":\"RecipientsBlackListLocal\",\"entry\":\"u@*\"",
       [](Reported& test) { test.fixture.Settings.RecipientsBlackListLocal = Patterns({"u@*"}); },
       mail + "C: RCPT TO:<u@x.test>\n<- 550 *"},
      {"RCPT.Relaying", "\"to\":\"u@away.test\",\"list\":\"LocalDomains\"}", Remote,
       mail + "C: RCPT TO:<u@away.test>\n<- 550 *"},
      {"RCPT.BlackList.Remote",
       "\"to\":\"u@local.test\",\"list\":\"RecipientsBlackListRemote\",\"entry\":\"u@*\"",
       [](Reported& test) {
         Remote(test);
         test.fixture.Settings.RecipientsBlackListRemote = Patterns({"u@*"});
       },
       mail + "C: RCPT TO:<u@local.test>\n<- 550 *"},
      {"RCPT.Private", "\"list\":\"PrivateRecipients\",\"entry\":\"u@local.test\"",
       [](Reported& test) {
         Remote(test);
         test.fixture.Settings.PrivateRecipients = Patterns({"u@local.test"});
       },
       mail + "C: RCPT TO:<u@local.test>\n<- 550 *"},
      {"RCPT.Greylisted", "\"from\":\"a@b.test\",\"to\":\"u@local.test\"",
       [](Reported& test) {
         Remote(test);
         test.fixture.Settings.GreyListing.Enabled = true;
         test.fixture.Greylisting = &delay_all;
       },
       mail + "C: RCPT TO:<u@local.test>\n<- 451 *"},
      {"DATA.Greylisted", "\"stage\":\"data\"",
       [](Reported& test) {
         Remote(test);
         test.fixture.Settings.GreyListing.Enabled = true;
         test.fixture.Settings.GreyListing.CallbackSendersList = Patterns({"*"});
         test.fixture.Settings.GreyListing.CallbackSenderAction = callback_sender_action::kRefuseAtData;
         test.fixture.Greylisting = &delay_all;
       },
       InTransaction() + "C: DATA\n<- 451 *"},
      {"DATA.Greylisted", "\"sent\":false",
       [](Reported& test) {
         Remote(test);
         test.fixture.Settings.GreyListing.Enabled = true;
         test.fixture.Settings.GreyListing.CallbackSendersList = Patterns({"*"});
         test.fixture.Settings.GreyListing.CallbackSenderAction = callback_sender_action::kCloseAtData;
         test.fixture.Greylisting = &delay_all;
       },
       InTransaction() + "C: DATA\nclosed C"},
      {"DATA.AmbiguousEnd", "\"stage\":\"content\"", nullptr,
       InContent() + "C+ text\\r\\n.\\n\n<- 554 *\nclosed C"},
      {"ServerError", "\"stage\":\"end\"", nullptr,
       "S: 220 ready\n<- 220 ready\nS resets\n<- 421 *\nclosed C"},
      {"Shutdown", "\"stage\":\"end\"", nullptr, "S: 220 ready\n<- 220 ready\nshutdown\n<- 421 *\nclosed C"},
  };
}

TEST(Report, EveryRefusalIsALineWithItsKeyAndACount) {
  std::set<std::string_view> seen{"QUIT.BadIP"};  // no refusal
  for (const RefusalCase& c : RefusalCases()) {
    if (c.script.find("resets") != std::string::npos && !ResetsAreTold()) {
      seen.insert(c.key);  // it looks like an orderly end, which is no refusal
      continue;
    }
    Reported test;
    if (c.configure != nullptr) c.configure(test);
    ASSERT_EQ(test.fixture.Play(c.script), "") << c.key;
    test.fixture.Settle();
    const auto lines = test.Lines("refusal");
    ASSERT_FALSE(lines.empty()) << c.key;
    EXPECT_THAT(lines.back(), AllOf(HasSubstr("\"key\":\"" + std::string(c.key) + "\""), HasSubstr(c.what)));
    const bool sent = lines.back().find("\"sent\":true") != std::string::npos;
    EXPECT_EQ(test.Replies(c.key), sent ? 1U : 0U) << c.key;
    seen.insert(c.key);
  }
  {
    Reported test;
    test.fixture.OfferTls();
    ASSERT_EQ(test.fixture.Play("S: 220 ready\n<- 220 ready\nC: EHLO x\n-> EHLO x\nS: 250 server\n"
                                "<- 250-server\n<- 250 STARTTLS"),
              "");
    test.fixture.Tls.for_clients = nullptr;
    ASSERT_EQ(test.fixture.Play("C: STARTTLS\n<- 454 *"), "");
    EXPECT_THAT(test.Lines("refusal"), ElementsAre(HasSubstr("\"key\":\"TLS.NotAvailable\"")));
    seen.insert("TLS.NotAvailable");
  }
  for (const CountedReply& reply : CountedReplies()) EXPECT_TRUE(seen.contains(reply.key)) << reply.key;
}

TEST(Report, ARefusalWithoutATransactionNamesNoAddresses) {
  for (const char* said : {"DATA", "RCPT TO:<a@b.test>", "BDAT 0 LAST"}) {
    Reported test;
    ASSERT_EQ(test.fixture.Play(Greeted() + "C: " + said + "\n<- 503 *"), "") << said;
    EXPECT_THAT(test.Lines("refusal"),
                ElementsAre(AllOf(Not(HasSubstr("\"from\":")), Not(HasSubstr("\"to\":")))))
        << said;
  }
}

TEST(Report, NothingOfAuthenticationDataIsInALine) {
  Reported test;
  test.fixture.Settings.Service.JsonEvents = {"refusal", "session", "error", "message", "greylisting"};
  ASSERT_EQ(test.fixture.Play(Greeted() + R"(
    C: AUTH LOGIN c2VjcmV0
    -> AUTH LOGIN c2VjcmV0
    S: 334 UGFzc3dvcmQ6
    <- 334 UGFzc3dvcmQ6
    C+ c2Vjc\x01mV0\r\n
    <- 500 *
    closed C)"),
            "");
  test.fixture.Settle();
  const auto lines = test.Lines();
  EXPECT_THAT(test.Lines("refusal"),
              ElementsAre(AllOf(HasSubstr("\"key\":\"BadSyntax\""), HasSubstr("\"stage\":\"auth\""))));
  for (const std::string& line : lines) EXPECT_THAT(line, Not(HasSubstr("c2V")));
}

TEST(Report, AMessageHasItsRecipientsItsSizeAndTheServersLastReply) {
  Reported test;
  test.fixture.Settings.AddReceived = false;
  test.fixture.Settings.RecipientsBlackListLocal = Patterns({"bad@*"});
  ASSERT_EQ(test.fixture.Play(InTransaction() + R"(
    C: RCPT TO:<bad@local.test>
    <- 550 *
    C: RCPT TO:<none@local.test>
    -> *
    S: 550 no such user
    <- 550 no such user
    C: RCPT TO:<later@local.test>
    -> *
    S: 450 later
    <- 450 later
    C: DATA
    -> DATA
    S: 354 go on
    <- 354 go on
    wait 1250
    C+ text\r\n..\r\n.\r\n
    -> text
    -> ..
    -> .
    S: 250 queued as 4711
    <- 250 queued as 4711
    C: QUIT
    -> QUIT
    S: 221 bye
    <- 221 bye
    C closes
    closed S)"),
            "");
  test.fixture.Settle();
  EXPECT_THAT(
      test.Lines("message"),
      ElementsAre("\"from\":\"a@b.test\",\"recipients\":[\"u@local.test\"],\"refused\":[\"bad@local.test\","
                  "\"none@local.test\",\"later@local.test\"],\"recipients_count\":1,\"refused_count\":3,"
                  "\"bytes\":13,\"seconds\":1.250,\"code\":250,\"reply\":\"250 queued as 4711\"}"));
  EXPECT_THAT(test.Lines("session"),
              ElementsAre(AllOf(HasSubstr("\"helo\":\"client.test\",\"commands\":8,\"messages\":1,"),
                                HasSubstr("\"duration\":1.250,\"how\":\"quit\"}"))));
  EXPECT_EQ(test.counters.messages, (CountArray<2>{1, 0}));
  EXPECT_EQ(test.counters.recipients[0], (CountArray<5>{1, 1, 0, 1, 1}));
  EXPECT_EQ(test.counters.recipients[1], (CountArray<5>{}));
  const auto& replies = test.counters.server_replies;
  EXPECT_EQ(replies[static_cast<std::size_t>(Command::kOther)], (CountArray<4>{1, 0, 0, 0}));
  EXPECT_EQ(replies[static_cast<std::size_t>(Command::kRcpt)], (CountArray<4>{1, 0, 1, 1}));
  EXPECT_EQ(replies[static_cast<std::size_t>(Command::kData)], (CountArray<4>{1, 1, 0, 0}));
  EXPECT_EQ(replies[static_cast<std::size_t>(Command::kQuit)], (CountArray<4>{1, 0, 0, 0}));
  EXPECT_EQ(test.counters.sessions, (CountArray<2>{1, 0}));
  EXPECT_EQ(test.Ended(SessionEnd::kQuit), 1U);
  EXPECT_EQ(test.counters.server_connect_time.Count(), 1U);
}

TEST(Report, TheChunksOfAMessageAreOneMessage) {
  Reported test;
  test.fixture.Settings.AddReceived = false;
  ASSERT_EQ(test.fixture.Play(InTransaction() + R"(
    C+ BDAT 4\r\n1234
    -> BDAT 4
    *> 1234
    S: 250 ok
    <- 250 ok
    C+ BDAT 3 LAST\r\n567
    -> BDAT 3 LAST
    *> 567
    S: 550 refused
    <- 550 refused)"),
            "");
  EXPECT_THAT(test.Lines("message"), ElementsAre(AllOf(HasSubstr("\"bytes\":7,"),
                                                       HasSubstr("\"code\":550,\"reply\":\"550 refused\""))));
  EXPECT_EQ(test.counters.messages, (CountArray<2>{0, 0}));
}

TEST(Report, HowASessionEnds) {
  const struct {
    SessionEnd how;
    const char* text;
    Configure configure;
    std::string script;
  } cases[] = {
      {SessionEnd::kClient, "client", nullptr, Greeted() + "C closes\nclosed S"},
      {SessionEnd::kClient, "client", nullptr, Greeted() + "C resets\nclosed S"},
      {SessionEnd::kServer, "server", nullptr, Greeted() + "S closes\nclosed C"},
      {SessionEnd::kServer, "server", nullptr,
       Greeted() + (ResetsAreTold() ? "S resets\n<- 421 *\nclosed C" : "S resets\nclosed C")},
      {SessionEnd::kQuit, "quit", nullptr,
       Greeted() + "C: QUIT\n-> QUIT\nS: 221 bye\nS closes\n<- 221 bye\nclosed C"},
      {SessionEnd::kQuit, "quit", [](Reported& test) { test.fixture.Settings.ValidateRDNS = 3; },
       "<- 454 *\nC: QUIT\n<- 221 *\nclosed C"},
      {SessionEnd::kTimeout, "timeout",
       [](Reported& test) {
         test.fixture.Settings.ValidateRDNS = 3;
         test.fixture.Settings.Timeout = 10;
       },
       "<- 454 *\nwait 10500\nclosed C"},
      {SessionEnd::kRefused, "refused",
       [](Reported& test) { test.fixture.Settings.IPBlackList = kLoopbackOnly; }, "<- 554 *\nclosed C"},
      {SessionEnd::kRefused, "refused", nullptr, Greeted() + "C: {5000*x}\n<- 500 *\nclosed C"},
      {SessionEnd::kRefused, "refused", nullptr, Greeted() + "C: BDAT x\n<- 503 *\nclosed C"},
      {SessionEnd::kBadSequence, "badseq", [](Reported& test) { test.fixture.Settings.MaxBadSeq = 0; },
       Greeted() + "C: RCPT TO:<x>\n<- 503 *\nwait 500\nclosed C"},
      {SessionEnd::kShutdown, "shutdown", nullptr, Greeted() + "shutdown\n<- 421 *\nclosed C"},
  };
  for (const auto& c : cases) {
    Reported test;
    if (c.configure != nullptr) c.configure(test);
    ASSERT_EQ(test.fixture.Play(c.script), "") << c.script;
    test.fixture.Settle();
    EXPECT_EQ(test.Ended(c.how), 1U) << c.script;
    EXPECT_THAT(test.Lines("session"), ElementsAre(HasSubstr("\"how\":\"" + std::string(c.text) + "\"}")))
        << c.script;
    std::uint64_t ended = 0;
    for (const std::uint64_t count : test.counters.sessions_ended) ended += count;
    EXPECT_EQ(ended, 1U);
  }
}

TEST(Report, AnAdmittedClientThatSaysNothingHasALineOnlyWhereItIsNamed) {
  for (const bool named : {false, true}) {
    Reported test;
    if (named) test.fixture.Settings.Service.JsonEvents = {"session"};
    test.json.Flush();
    ASSERT_EQ(test.fixture.Play("S: 220 ready\n<- 220 ready\nC closes\nclosed S"), "");
    test.fixture.Settle();
    WriteFile(test.folder_ / "other", "");
    if (!named) {
      EXPECT_FALSE(std::filesystem::exists(test.fixture.Settings.Service.JsonLog));
    } else {
      EXPECT_THAT(test.Lines("session"), ElementsAre(HasSubstr("\"client_bytes_in\":0,")));
    }
    EXPECT_EQ(test.counters.sessions, (CountArray<2>{1, 0}));
  }
}

TEST(Report, BytesAreThoseOfTheLogForPeople) {
  Reported test;
  ASSERT_EQ(test.fixture.Play(Greeted() + "C: NOOP\n-> NOOP\nS: 250 ok\n<- 250 ok\nC closes\nclosed S"), "");
  test.fixture.Settle();
  const auto bytes_in_log = [&](const char* side) {
    std::string found;
    for (const std::string& line : test.fixture.LogLines()) {
      const std::size_t at = line.find("Bytes received/sent: ");
      if (line.starts_with(side) && at != std::string::npos) found = line.substr(at + 21);
    }
    return found;
  };
  const auto counted = [&](std::size_t side) {
    return std::to_string(test.counters.bytes[side][0]) + "/" + std::to_string(test.counters.bytes[side][1]);
  };
  EXPECT_EQ(counted(0), bytes_in_log("R: "));
  EXPECT_EQ(counted(1), bytes_in_log("S: "));
  EXPECT_GT(test.counters.bytes[0][0], 0U);
  EXPECT_GT(test.counters.bytes[1][0], 0U);
  EXPECT_THAT(test.Lines("session"),
              ElementsAre(HasSubstr("\"client_bytes_in\":" + std::to_string(test.counters.bytes[0][0]) +
                                    ",\"client_bytes_out\":" + std::to_string(test.counters.bytes[0][1]) +
                                    ",\"server_bytes_in\":" + std::to_string(test.counters.bytes[1][0]) +
                                    ",\"server_bytes_out\":" + std::to_string(test.counters.bytes[1][1]))));
}

TEST(Report, AServerThatCannotBeReachedIsAFailureUntilItCan) {
  Reported test;
  test.fixture.Server().Close();
  ASSERT_EQ(test.fixture.Play("<- 421 *\nclosed C"), "");
  test.fixture.Settle();
  EXPECT_EQ(test.counters.server_connect_failures, 1U);
  EXPECT_THAT(test.report.ServerFailure(), HasSubstr("error 10061, "));
  EXPECT_THAT(test.Lines("error"),
              ElementsAre(HasSubstr("\"side\":\"server\",\"number\":10061,\"text\":\"")));
  EXPECT_EQ(test.Ended(SessionEnd::kServer), 1U);
}

TEST(Report, NothingIsCountedWhereNobodyObserves) {
  Reported test;
  test.fixture.Observer = nullptr;
  ASSERT_EQ(test.fixture.Play(Greeted() + "C: TURN\n<- 502 *\nC closes\nclosed S"), "");
  test.fixture.Settle();
  EXPECT_EQ(test.counters.sessions, (CountArray<2>{}));
  EXPECT_FALSE(std::filesystem::exists(test.fixture.Settings.Service.JsonLog));
}

TEST(Report, TextThatIsNoUtf8IsThereInHexadecimal) {
  Reported test;
  test.fixture.Settings.ValidateHELO = 12;
  test.fixture.Settings.HELOBlackList = Patterns({"b*"});
  ASSERT_EQ(test.fixture.Play("S: 220 ready\n<- 220 ready\nC+ EHLO b\\xE4d\\r\\n\n<- 550 *"), "");
  EXPECT_THAT(test.Lines("refusal"), ElementsAre(HasSubstr("\"helo\":\"b\xEF\xBF\xBD"
                                                           "d\",\"helo_hex\":\"62e464\"")));
}

}  // namespace
}  // namespace trabex

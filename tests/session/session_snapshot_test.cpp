// What can be shown of sessions while they go on: their snapshots, the totals, the latest refusals.
#include "report/session_snapshot.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "report/totals.h"
#include "session/dialogues.h"
#include "session/reported.h"

namespace trabex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

SessionSnapshot First(SessionFixture& fixture) {
  return SnapshotOf(fixture.Sessions().At(0));
}

std::string Shown(const SessionSnapshot& session) {
  std::string text(SessionStateName(session.state));
  if (!session.helo.empty()) text.append(" helo=").append(session.helo);
  if (session.in_transaction) text.append(" from=").append(session.sender);
  if (!session.recipient.empty()) text.append(" to=").append(session.recipient);
  if (session.rcpt_commands != 0) text.append(" rcpt=").append(std::to_string(session.rcpt_commands));
  if (session.recipients != nullptr) {
    text.append(" accepted=").append(std::to_string(session.recipients->count));
    for (std::size_t i = 0; i < session.recipients->first.size(); ++i) {
      text.append(i == 0 ? ":" : ",").append(session.recipients->first[i]);
    }
  }
  if (session.greylisting) text.append(" ").append(GreylistingResultName(*session.greylisting));
  text.append(" ").append(session.last_command).append("|").append(session.last_reply);
  return text;
}

// The session after a script.
struct PhaseCase {
  std::string script;
  std::string shown;
  std::function<void(SessionFixture&)> configure = {};
};

void Check(const PhaseCase& c) {
  SCOPED_TRACE(c.script);
  SessionFixture fixture;
  if (c.configure) c.configure(fixture);
  ASSERT_EQ(fixture.Play(c.script), "");
  ASSERT_EQ(fixture.Sessions().Count(), 1U);
  EXPECT_EQ(Shown(First(fixture)), c.shown);
}

TEST(SessionSnapshot, BeforeTheFirstCommand) {
  const auto held = [](SessionFixture& fixture) { fixture.Names.HoldAnswers(); };
  const PhaseCase cases[] = {
      {"<- nothing", "balancer |",
       [](SessionFixture& fixture) {
         fixture.Settings.ProxyProtocolFrom = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
       }},
      {"<- nothing", "dns-client |",
       [&](SessionFixture& fixture) {
         fixture.Settings.ValidateRDNS = 1;
         held(fixture);
       }},
      {"<- 454 *", "refused |454 Unable to verify DNS PTR record for 127.0.0.1.",
       [](SessionFixture& fixture) { fixture.Settings.ValidateRDNS = 1; }},
      {"<- 454 *\nC: NOOP\n<- 503 *", "refused NOOP|503 Bad sequence of commands.",
       [](SessionFixture& fixture) { fixture.Settings.ValidateRDNS = 1; }},
      {"<- nothing", "connect |",
       [&](SessionFixture& fixture) {
         fixture.Settings.ServerIP = "server.test";
         held(fixture);
       }},
      {"S accepts\n<- nothing", "greeting |"},
      {"S accepts\nS: 220-first\n<- nothing", "greeting |"},
      {"S: 220 ready\n<- 220 ready", "idle |220 ready"},
      {"S: 220 ready\n<- 220 ready\nC: NOOP\n-> nothing", "dns-client |220 ready", held},
      {"S: 554 go away\n<- 554 go away", "idle |554 go away"},
  };
  for (const PhaseCase& c : cases) Check(c);
}

TEST(SessionSnapshot, InADialogue) {
  const std::string greeted = Greeted();
  const std::string helo = " helo=client.test";
  const PhaseCase cases[] = {
      {Greeting() + "C: EHLO client.test\n-> EHLO client.test", "reply" + helo + " EHLO|220 server ready"},
      {greeted, "idle" + helo + " EHLO|250-server"},
      {greeted + "C+ NOO\n-> nothing", "idle" + helo + " EHLO|250-server"},
      {greeted + "C: nonsense\n-> nonsense\nS: 500 what?\n<- 500 what?",
       "idle" + helo + " NONSENSE|500 what?"},
      {greeted + "C: AUTH LOGIN\n-> AUTH LOGIN\nS: 334 name\n<- 334 name", "idle" + helo + " AUTH|334 name"},
      {greeted + "C: QUIT\n-> QUIT\nS: 221 bye\n<- 221 bye", "ending" + helo + " QUIT|221 bye"},
      {greeted + "C: NOOP\n-> NOOP\nS: 250 " + std::string(100, 'x') + "\n<- 250 " + std::string(100, 'x'),
       "idle" + helo + " NOOP|250 " + std::string(51, 'x')},
  };
  for (const PhaseCase& c : cases) Check(c);
}

// What is kept of it ends between two characters.
TEST(SessionSnapshot, TheLastReplyIsCutAtACharacter) {
  const std::string begin = "250 " + std::string(49, 'x');
  const struct {
    std::string reply;
    std::string shown;
  } cases[] = {
      {begin + "\xC3\xBC", begin + "\xC3\xBC"},
      {begin + "\xC3\xBCy", begin + "\xC3\xBC"},
      {begin + "y\xC3\xBC", begin + "y"},
      {begin + "\xE2\x82\xAC", begin},
      {begin + "\xF0\x9F\x93\xA7", begin},
      {begin.substr(0, 52) + "\xE2\x82\xAC", begin.substr(0, 52) + "\xE2\x82\xAC"},
      // No UTF-8 anyway.
      {begin + "\xBC\xBC", begin + "\xBC\xBC"},
  };
  for (const auto& c : cases) {
    SessionFixture fixture;
    ASSERT_EQ(fixture.Play(Greeting() + "C: NOOP\n-> NOOP\nS: " + c.reply + "\n<- " + c.reply), "");
    EXPECT_EQ(First(fixture).last_reply, c.shown);
  }
}

TEST(SessionSnapshot, InATransaction) {
  const std::string greeted = Greeted();
  const std::string from = " helo=client.test from=a@b.test";
  const std::string to = from + " to=u@local.test rcpt=1 accepted=1:u@local.test";
  const std::string data = "C: DATA\n-> DATA\nS: 354 go on\n<- 354 go on\n";
  const auto no_header = [](SessionFixture& fixture) { fixture.Settings.AddReceived = false; };
  const PhaseCase cases[] = {
      {greeted + "C: MAIL FROM:<a@b.test>\n-> *", "reply" + from + " MAIL|250-server"},
      {greeted + Mail(), "idle" + from + " MAIL|250 ok"},
      {greeted + Mail(""), "idle helo=client.test from= MAIL|250 ok"},
      {greeted + "C: MAIL FROM:<a@b.test>\n-> *\nS: 550 no\n<- 550 no", "idle helo=client.test MAIL|550 no"},
      {greeted + Mail() + "C: RCPT TO:<u@local.test>\n-> *",
       "reply" + from + " to=u@local.test rcpt=1 RCPT|250 ok"},
      {greeted + MailAndRcpt(), "idle" + to + " RCPT|250 ok"},
      {greeted + MailAndRcpt() + "C: RCPT TO:<v@local.test>\n-> *\nS: 550 no\n<- 550 no\n",
       "idle" + from + " to=v@local.test rcpt=2 accepted=1:u@local.test RCPT|550 no"},
      {greeted + MailAndRcpt() + Rcpt("v@local.test"),
       "idle" + from + " to=v@local.test rcpt=2 accepted=2:u@local.test,v@local.test RCPT|250 ok"},
      {greeted + MailAndRcpt() + "C: DATA\n-> DATA", "reply" + to + " DATA|250 ok"},
      {greeted + MailAndRcpt() + data, "content" + to + " DATA|354 go on", no_header},
      {greeted + MailAndRcpt() + data + "C: text\n-> text", "content" + to + " DATA|354 go on", no_header},
      {greeted + MailAndRcpt() + data + "C: .\n-> .", "end-reply" + to + " DATA|354 go on", no_header},
      {greeted + MailAndRcpt() + data + "C: .\n-> .\nS: 250 done\n<- 250 done",
       "idle helo=client.test DATA|250 done", no_header},
      {greeted + MailAndRcpt() + data + "C: .\n-> .\nS: 250 done\n<- 250 done\n" + Mail("c@d.test"),
       "idle helo=client.test from=c@d.test MAIL|250 ok", no_header},
      {greeted + MailAndRcpt() + Accepted("RSET"), "idle helo=client.test RSET|250 ok"},
      {greeted + MailAndRcpt() + "C: BDAT 10\n-> BDAT 10\nC+ 12345\n*> 12345",
       "content" + to + " BDAT|250 ok", no_header},
      {greeted + MailAndRcpt() + "C: BDAT 5\n-> BDAT 5\nC+ 12345\n*> 12345", "reply" + to + " BDAT|250 ok",
       no_header},
      {greeted + MailAndRcpt() + "C: BDAT 5 LAST\n-> BDAT 5 LAST\nC+ 12345\n*> 12345",
       "end-reply" + to + " BDAT|250 ok", no_header},
      {greeted + MailAndRcpt() +
           "C: BDAT 5 LAST\n-> BDAT 5 LAST\nC+ 12345\n*> 12345\nS: 250 done\n<- 250 done",
       "idle helo=client.test BDAT|250 done", no_header},
  };
  for (const PhaseCase& c : cases) Check(c);
}

TEST(SessionSnapshot, TheFirstRecipientsAreNamedAndAllAreCounted) {
  SessionFixture fixture;
  std::string script = Greeted() + Mail();
  for (int i = 0; i < 25; ++i) script += Rcpt("u" + std::to_string(i) + "@local.test");
  ASSERT_EQ(fixture.Play(script), "");
  const SessionSnapshot session = First(fixture);
  ASSERT_NE(session.recipients, nullptr);
  EXPECT_EQ(session.rcpt_commands, 25);
  EXPECT_EQ(session.recipients->count, 25);
  EXPECT_EQ(session.recipients->first.size(), AcceptedRecipients::kMaxKept);
  EXPECT_EQ(session.recipients->first[0], "u0@local.test");
}

TEST(SessionSnapshot, TellsHowGreylistingJudged) {
  DelayAll delay_all;
  SessionFixture fixture;
  fixture.Settings.LocalIPs = IPRangeList();
  fixture.Settings.LocalDomains = Patterns({"local.test"});
  fixture.Settings.GreyListing.Enabled = true;
  fixture.Greylisting = &delay_all;
  ASSERT_EQ(fixture.Play(Greeted() + Mail() + "C: RCPT TO:<u@local.test>\n<- 451 *\n"), "");
  EXPECT_EQ(Shown(First(fixture)),
            "idle helo=client.test from=a@b.test to=u@local.test rcpt=1 new RCPT|"
            "451 4.7.1 Greylisted. Delivery delayed.");
  EXPECT_FALSE(First(fixture).is_local);
  // It is no matter of the next transaction.
  ASSERT_EQ(fixture.Play(Accepted("RSET") + Mail("c@d.test")), "");
  EXPECT_EQ(Shown(First(fixture)), "idle helo=client.test from=c@d.test MAIL|250 ok");
}

TEST(SessionSnapshot, TellsHandlesNamesAndBytes) {
  SessionFixture fixture;
  fixture.Names.SetName(kIPv4Loopback, "host.test");
  ASSERT_EQ(fixture.Play(Greeting()), "");
  const cProxy& session = fixture.Sessions().At(0);
  SessionSnapshot shown = SnapshotOf(session);
  EXPECT_EQ(shown.id, session.Id());
  EXPECT_EQ(shown.client_handle, session.Handle());
  EXPECT_EQ(shown.server_handle, session.ServerHandle());
  EXPECT_GE(shown.server_handle, 0);
  EXPECT_EQ(shown.client, kIPv4Loopback);
  EXPECT_TRUE(shown.is_local);
  EXPECT_EQ(shown.name, "host.test");
  EXPECT_FALSE(shown.client_tls);
  EXPECT_FALSE(shown.server_tls);
  EXPECT_EQ(shown.server_bytes.in, 18);
  EXPECT_EQ(shown.client_bytes.out, 18);
  EXPECT_EQ(shown.mail_commands, 0);
  ASSERT_EQ(fixture.Play(Ehlo() + Mail()), "");
  shown = SnapshotOf(session);
  EXPECT_EQ(shown.client_bytes.in, 18 + 22);
  EXPECT_EQ(shown.server_bytes.out, 18 + 22);
  EXPECT_EQ(shown.mail_commands, 1);
}

TEST(SessionSnapshot, UnderTls) {
  SessionFixture fixture;
  fixture.OfferTls();
  ASSERT_EQ(fixture.Play(AskedForTls()), "");
  EXPECT_EQ(Shown(First(fixture)), "tls |220 2.0.0 Ready to start TLS.");
  EXPECT_FALSE(First(fixture).client_tls);
  ASSERT_EQ(fixture.Play("C starts TLS\nC: EHLO client.test\n-> EHLO client.test"), "");
  EXPECT_EQ(Shown(First(fixture)), "reply helo=client.test EHLO|220 2.0.0 Ready to start TLS.");
  EXPECT_TRUE(First(fixture).client_tls);
}

TEST(SessionSnapshot, AClientThatTakesNothingIsShown) {
  SessionFixture fixture;
  ASSERT_EQ(fixture.Play(Greeted()), "");
  TestPeer client = std::move(fixture.ClientPeer());  // not read by the fixture now
  client.HoldLittle();
  std::string replies;
  while (replies.size() < 1000000) replies += "250 " + std::string(1000, 'x') + "\r\n";
  std::size_t sent = replies.size();
  const auto stuck = [&] {
    if (sent == replies.size()) sent = 0;
    sent += fixture.ServerPeer().Send(std::string_view(replies).substr(sent));
    return First(fixture).state == SessionState::kClientTakes;
  };
  EXPECT_TRUE(fixture.Until(stuck)) << SessionStateName(First(fixture).state);
}

TEST(SessionSnapshot, TellsForHowLong) {
  SessionFixture fixture;
  const auto pass = [&](milliseconds time) {
    fixture.Time.Advance(time);
    fixture.TellTheTime();
  };
  ASSERT_EQ(fixture.Play("S accepts"), "");
  pass(seconds(3));
  EXPECT_EQ(First(fixture).age, seconds(3));
  ASSERT_EQ(fixture.Play(Greeted()), "");
  EXPECT_EQ(First(fixture).time_in_state, seconds(0));
  pass(seconds(40));
  EXPECT_EQ(First(fixture).time_in_state, seconds(40));
  // Part of a line is no command.
  ASSERT_EQ(fixture.Play("C+ MAIL FROM\n-> nothing"), "");
  EXPECT_EQ(First(fixture).time_in_state, seconds(40));
  ASSERT_EQ(fixture.Play("C: :<a@b.test>\n-> *"), "");
  EXPECT_EQ(First(fixture).time_in_state, seconds(0));
  pass(seconds(7));
  EXPECT_EQ(First(fixture).state, SessionState::kServerReply);
  EXPECT_EQ(First(fixture).time_in_state, seconds(7));
  ASSERT_EQ(fixture.Play("S: 250 ok\n<- 250 ok\n" + Rcpt() + "C: DATA\n-> DATA\nS: 354 go on\n<- 354 go on"),
            "");
  EXPECT_EQ(First(fixture).time_in_state, seconds(0));
  // Content runs since it began.
  for (int i = 1; i <= 3; ++i) {
    pass(seconds(5));
    ASSERT_EQ(fixture.Play("C: text\n-> *"), "");
    EXPECT_EQ(First(fixture).state, SessionState::kContent);
    EXPECT_EQ(First(fixture).time_in_state, seconds(5 * i));
  }
  ASSERT_EQ(fixture.Play("C: ."), "");
  ASSERT_TRUE(fixture.Until([&] { return First(fixture).state == SessionState::kContentReply; }));
  EXPECT_EQ(First(fixture).time_in_state, seconds(0));
  EXPECT_EQ(First(fixture).age, seconds(65));
}

TEST(SessionSnapshot, TellsForHowLongTheNameIsLookedFor) {
  SessionFixture fixture;
  fixture.Settings.ValidateHELO = 1;
  ASSERT_EQ(fixture.Play(Greeting()), "");
  fixture.Names.HoldAnswers();
  ASSERT_EQ(fixture.Play("C: EHLO right.test\n-> nothing"), "");
  EXPECT_EQ(Shown(First(fixture)), "dns-helo helo=right.test EHLO|220 server ready");
  fixture.Time.Advance(seconds(2));
  fixture.TellTheTime();
  EXPECT_EQ(First(fixture).time_in_state, seconds(2));
  ASSERT_EQ(fixture.Play("answer 127.0.0.1\n-> EHLO right.test"), "");
  EXPECT_EQ(First(fixture).state, SessionState::kServerReply);
  EXPECT_EQ(First(fixture).time_in_state, seconds(0));
}

// --- refusals and totals

std::string Shown(const RefusalRecord& refusal) {
  std::string text(refusal.key);
  if (refusal.has_from) text += " from=" + refusal.from;
  if (!refusal.to.empty()) text += " to=" + refusal.to;
  return text + (refusal.delayed ? " delayed" : "");
}

TEST(Refusals, AreKeptWithWhatTheyAreAbout) {
  DelayAll delay_all;
  const struct {
    std::string script;
    std::string shown;
    std::function<void(SessionFixture&)> configure = {};
  } cases[] = {
      {"<- 554 *\nclosed C", "IPBlackList",
       [](SessionFixture& fixture) {
         fixture.Settings.IPBlackList = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
       }},
      {Greeted() + "C: MAIL FROM:<bad@b.test>\n<- 550 *", "MAIL.BlackList from=bad@b.test",
       [](SessionFixture& fixture) { fixture.Settings.SendersBlackList = Patterns({"bad@*"}); }},
      {Greeted() + Mail("") + "C: RCPT TO:<u@elsewhere.test>\n<- 550 *",
       "RCPT.Relaying from= to=u@elsewhere.test"},
      {Greeted() + Mail() + "C: RCPT TO:<u@local.test>\n<- 451 *",
       "RCPT.Greylisted from=a@b.test to=u@local.test delayed",
       [&](SessionFixture& fixture) {
         fixture.Settings.GreyListing.Enabled = true;
         fixture.Greylisting = &delay_all;
       }},
      {Greeted() + "C: RCPT TO:<u@local.test>\n<- 503 *", "BadSeq.NoTransaction"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.shown);
    Reported test;
    Remote(test);
    if (c.configure) c.configure(test.fixture);
    const std::int64_t now = test.fixture.Time.UnixMilliseconds();
    ASSERT_EQ(test.fixture.Play(c.script), "");
    const RecentRefusals& refusals = test.report.Refusals();
    ASSERT_EQ(refusals.size(), 1U);
    EXPECT_EQ(Shown(refusals[0]), c.shown);
    EXPECT_EQ(refusals[0].client, kIPv4Loopback);
    EXPECT_EQ(refusals[0].time, now);
    EXPECT_EQ(test.Lines("refusal").size(), 1U) << "those that the log has";
  }
}

TEST(Refusals, RepliesOfTheServerAreNone) {
  Reported test;
  ASSERT_EQ(test.fixture.Play(Greeted() + "C: MAIL FROM:<a@b.test>\n-> *\nS: 550 no\n<- 550 no"), "");
  EXPECT_EQ(test.report.Refusals().size(), 0U);
}

TEST(Refusals, LongTextsAreCut) {
  Reported test;
  Remote(test);
  test.fixture.Settings.SendersBlackList = Patterns({"*"});
  const std::string sender = std::string(60, 'a') + "@" + std::string(200, 'b');
  ASSERT_EQ(test.fixture.Play(Greeted() + "C: MAIL FROM:<" + sender + ">\n<- 550 *"), "");
  EXPECT_EQ(test.report.Refusals()[0].from, sender);
  RequestedState requested;
  requested.Sender = std::string(1000, 'x');
  test.report.OnOwnReply(
      test.fixture.Sessions().At(0),
      {.kind = ReplyKind::kRcptRelaying, .key = "RCPT.Relaying", .text = "550 no", .requested = requested});
  EXPECT_EQ(test.report.Refusals()[0].key, "RCPT.Relaying");
}

TEST(Totals, AreThoseOfAllSessions) {
  Reported test;
  Remote(test);
  SessionFixture& fixture = test.fixture;
  const auto totals = [&] { return TotalsOf(test.counters, test.report, fixture.Sessions()); };
  EXPECT_EQ(totals().server, ServerState::kUnknown);
  ASSERT_EQ(fixture.Play(Greeted() + MailAndRcpt() + "C: RCPT TO:<u@elsewhere.test>\n<- 550 *"), "");
  EXPECT_EQ(totals().open, 1U);
  EXPECT_EQ(totals().sessions, 1U);
  EXPECT_EQ(totals().accepted, 1U);
  EXPECT_EQ(totals().refused, 1U);
  EXPECT_EQ(totals().delayed, 0U);
  EXPECT_EQ(totals().messages, 0U);
  EXPECT_EQ(totals().server, ServerState::kUp);
  test.report.OnServerNotReached(fixture.Sessions().At(0), 10061, "Refused.");
  EXPECT_EQ(totals().server, ServerState::kDown);
  EXPECT_EQ(totals().server_failure, "The server cannot be reached: error 10061, Refused.");
  const auto open = totals().bytes;
  EXPECT_GT(open[0][0], 0U);
  EXPECT_GT(open[1][1], 0U);
  ASSERT_EQ(
      fixture.Play("C: DATA\n-> DATA\nS: 354 go on\n<- 354 go on\nC: .\nwait 200\n-> *\n-> *\n-> .\n"
                   "S: 250 done\n<- 250 done\nC: QUIT\n-> QUIT\nS: 221 bye\nS closes\n<- 221 bye\nclosed C"),
      "");
  EXPECT_EQ(totals().open, 0U);
  EXPECT_EQ(totals().messages, 1U);
  EXPECT_EQ(totals().bytes[0][0], open[0][0] + 15) << "also when the session has gone";
}

}  // namespace
}  // namespace trabex

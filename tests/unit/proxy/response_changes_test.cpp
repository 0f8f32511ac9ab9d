#include "proxy/dialogue/response_changes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "proxy/dialogue/session_macros.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

// A session whose every value shows where it goes.
struct Session {
  Session() {
    facts.sent = 45;
    state.requested.HeloDomain = "helo.test";
    state.requested.Sender = "s@sender.test";
    state.requested.Recipient = "u@local.test";
    state.requested.DeclaredSize = 2000 * kFixedPointOne;
    state.offered.SizeLimit = 1000 * kFixedPointOne;
    clock.SetBias(-180);
  }

  std::string Changed(std::string_view key, std::string reply) {
    ApplyResponseChanges(key, reply, configuration, macros);
    return reply;
  }

  Configuration configuration = TestConfiguration();
  FakeClock clock;
  FakeFacts facts;
  DialogueState state;
  SessionMacros macros{configuration, clock, facts, state.requested, state.offered, 123};
};

TEST(ResponseChanges, AReplyWithoutRulesStaysAsItIs) {
  Session session;
  session.configuration.ResponseChanges.Add(WholeReply("RCPT.Private", "changed"));
  EXPECT_EQ(session.Changed("RCPT.Relaying", "550 x"), "550 x");
  EXPECT_EQ(session.Changed("RCPT", "550 x"), "550 x");
  EXPECT_EQ(session.Changed("RCPT.Private.", "550 x"), "550 x");
  EXPECT_EQ(session.Changed("", "550 x"), "550 x");
}

TEST(ResponseChanges, KeysAreFoundInAnyCase) {
  Session session;
  session.configuration.ResponseChanges.Add(WholeReply("rcpt.PRIVATE", "changed"));
  EXPECT_EQ(session.Changed("RCPT.Private", "550 x"), "changed");
}

TEST(ResponseChanges, ARuleThatDoesNotMatchChangesNothing) {
  Session session;
  cReplaces replaces;
  replaces.SetName("250");
  replaces.Add("nowhere", "x", false);
  session.configuration.ResponseChanges.Add(replaces);
  EXPECT_EQ(session.Changed("250", "250 ok"), "250 ok");
}

TEST(ResponseChanges, MacrosStandForTheSession) {
  const struct {
    const char* macro;
    const char* value;
  } rows[] = {
      {"{%original%}", "550 no"},
      {"{%localhostname%}", "proxy.test"},
      {"{%rfctime%}", "Sun, 15 Nov 2026 16:54:24 +0300"},
      {"{%crlf%}", "\r\n"},
      {"{%remotehostname%}", "mail.client.test"},
      {"{%remotehostip%}", "192.0.2.7"},
      {"{%helodomain%}", "helo.test"},
      {"{%bytesreceived%}", "123"},
      {"{%bytessent%}", "45"},
      {"{%from%}", "s@sender.test"},
      {"{%rcpt%}", "u@local.test"},
      {"{%fromdomain%}", "sender.test"},
      {"{%rcptdomain%}", "local.test"},
      {"{%maxsize%}", "1000"},
      {"{%size%}", "2000"},
      {"{%Size%} {%FROM%}", "2000 s@sender.test"},
      {"[{%tls%}][{%tlscipher%}][{%tlspeer%}]", "[][][]"},
      {"{%unknown%}", "{%unknown%}"},
  };
  for (const auto& row : rows) {
    Session session;
    session.configuration.ResponseChanges.Add(WholeReply("550", row.macro));
    EXPECT_EQ(session.Changed("550", "550 no"), row.value) << row.macro;
  }
}

TEST(ResponseChanges, TlsHasMacros) {
  Session session;
  session.facts.tls = {"TLSv1.3", "TLS_AES_256_GCM_SHA384", "a client"};
  session.configuration.ResponseChanges.Add(WholeReply("550", "[{%tls%}][{%TlsCipher%}][{%tlspeer%}]"));
  EXPECT_EQ(session.Changed("550", "550 no"), "[TLSv1.3][TLS_AES_256_GCM_SHA384][a client]");
}

TEST(ResponseChanges, TheDomainOfAnAddressWithoutAtIsAllOfIt) {
  Session session;
  session.configuration.ResponseChanges.Add(WholeReply("550", "[{%fromdomain%}][{%rcptdomain%}]"));
  session.state.requested.Sender = "";
  session.state.requested.Recipient = "postmaster";
  EXPECT_EQ(session.Changed("550", "550 no"), "[][postmaster]");
  session.state.requested.Sender = "a@";
  session.state.requested.Recipient = "@b";
  EXPECT_EQ(session.Changed("550", "550 no"), "[][b]");
}

TEST(ResponseChanges, AClientWithoutANameIsUnknown) {
  Session session;
  session.facts.host.clear();
  session.configuration.ResponseChanges.Add(WholeReply("NoPtr", "{%remotehostname%}"));
  EXPECT_EQ(session.Changed("NoPtr", "454 x"), "Unknown");
}

// The client gets its reply as it was built when a value in the changed wording cannot be had.
TEST(ResponseChanges, ARuleThatFailsLeavesTheReply) {
  class NoAddress final : public SessionFacts {
   public:
    IPAddress ClientIP() const override { throw Error(40006, "test", "The client is gone."); }
    bool IsLocalClient() const override { return false; }
    std::string ClientHostName() const override { return ""; }
    std::int64_t BytesSent() const override { return 0; }
    bool TlsConfigured() const override { return false; }
    bool TlsReady() const override { return false; }
    bool TlsActive() const override { return false; }
    TlsTexts TlsText() const override { return {}; }
    bool ServerTlsActive() const override { return false; }
  };
  Session session;
  cReplaces replaces;
  replaces.SetName("550");
  replaces.Add("no", "never", false);
  replaces.Add("never", "{%remotehostip%}", false);
  session.configuration.ResponseChanges.Add(replaces);
  const NoAddress facts;
  const SessionMacros macros(session.configuration, session.clock, facts, session.state.requested,
                             session.state.offered, 0);
  std::string reply = "550 no";
  ApplyResponseChanges("550", reply, session.configuration, macros);
  EXPECT_EQ(reply, "550 no");
}

// Every key appends itself to the reply, so that the reply shows which ones were applied, and in which order.
std::string KeysOf(ReplyKind kind, std::string_view key, std::string_view verb) {
  static constexpr const char* kKeys[] = {"QUIT.BadIP",
                                          "BadSeq",
                                          "BadSeq.Transaction",
                                          "BadSeq.NoTransaction",
                                          "BadSeq.BDAT",
                                          "BadSeq.BadIP",
                                          "BadSeq.NoHelo",
                                          "MAIL.BadSeq",
                                          "MAIL.BadSeq.Transaction",
                                          "RCPT.BadSeq.NoTransaction",
                                          "NOOP.BadSeq.BDAT",
                                          "RSET.BadSeq.BadIP",
                                          "MAIL.BadSeq.NoHelo",
                                          ".BadSeq.NoHelo",
                                          "HELO.BlackList",
                                          "HELO.Invalid",
                                          "HELO.NoDomain",
                                          "HELO.DNSError",
                                          "MAIL.TooManyTransactions",
                                          "MAIL.BlackList",
                                          "MAIL.BlackList.s@sender.test",
                                          "MAIL.Size",
                                          "MAIL.AddressSyntax",
                                          "RCPT.TooManyRecipients",
                                          "RCPT.Restricted",
                                          "RCPT.Restricted.s@sender.test",
                                          "RCPT.Restricted.u@local.test",
                                          "RCPT.Relaying",
                                          "RCPT.Relaying.u@local.test",
                                          "RCPT.Private",
                                          "RCPT.Private.U@Local.Test",
                                          "RCPT.Private.v@local.test",
                                          "RCPT.BlackList.Local",
                                          "RCPT.BlackList.Local.u@local.test",
                                          "RCPT.BlackList.Remote",
                                          "RCPT.BlackList.Remote.u@local.test",
                                          "RCPT.AddressSyntax",
                                          "RCPT.Greylisted",
                                          "RCPT.Greylisted.u@local.test",
                                          "DATA.Greylisted",
                                          "DATA.Greylisted.u@local.test",
                                          "TooManyConnections",
                                          "IPBlackList",
                                          "HostsBlackList",
                                          "NoPtr",
                                          "Shutdown",
                                          "ServerError",
                                          "BadSyntax",
                                          "MAIL.BadSyntax",
                                          "LineTooLong",
                                          "DATA.AmbiguousEnd",
                                          "NotImplemented",
                                          "STARTTLS.NotImplemented",
                                          "503",
                                          "550",
                                          "MAIL.503",
                                          "RCPT.550",
                                          "RCPT.Private."};
  Session session;
  for (const char* name : kKeys) {
    session.configuration.ResponseChanges.Add(Appended(name, std::string(" > ") + name));
  }
  session.state.requested.CurrentVerb = verb;
  std::string reply = "reply";
  ApplyPolicyChanges(kind, key, session.state.requested, reply, session.configuration, session.macros);
  return reply;
}

TEST(ResponseChanges, PolicyRepliesAreChangedFromTheGeneralToTheSpecific) {
  const struct {
    ReplyKind kind;
    const char* key;
    const char* verb;
    const char* keys;
  } rows[] = {
      {ReplyKind::kQuitBadIP, "QUIT.BadIP", "QUIT", "QUIT.BadIP"},
      {ReplyKind::kBadSequence, "BadSeq.Transaction", "MAIL",
       "BadSeq > BadSeq.Transaction > MAIL.BadSeq.Transaction"},
      {ReplyKind::kBadSequence, "BadSeq.NoTransaction", "RCPT",
       "BadSeq > BadSeq.NoTransaction > RCPT.BadSeq.NoTransaction"},
      {ReplyKind::kBadSequence, "BadSeq.BDAT", "NOOP", "BadSeq > BadSeq.BDAT > NOOP.BadSeq.BDAT"},
      {ReplyKind::kBadSequence, "BadSeq.BDAT", "MAIL", "BadSeq > BadSeq.BDAT"},
      {ReplyKind::kBadSequenceBadIP, "BadSeq.BadIP", "RSET", "BadSeq > BadSeq.BadIP > RSET.BadSeq.BadIP"},
      {ReplyKind::kBadSequenceNoHelo, "BadSeq.NoHelo", "MAIL", "BadSeq > BadSeq.NoHelo > MAIL.BadSeq.NoHelo"},
      {ReplyKind::kBadSequenceNoHelo, "BadSeq.NoHelo", "", "BadSeq > BadSeq.NoHelo > .BadSeq.NoHelo"},
      {ReplyKind::kHeloBlackList, "HELO.BlackList", "EHLO", "HELO.BlackList"},
      {ReplyKind::kHeloInvalid, "HELO.Invalid", "EHLO", "HELO.Invalid"},
      {ReplyKind::kHeloNoDomain, "HELO.NoDomain", "EHLO", "HELO.NoDomain"},
      {ReplyKind::kHeloDNSError, "HELO.DNSError", "EHLO", "HELO.DNSError"},
      {ReplyKind::kMailTooManyTransactions, "MAIL.TooManyTransactions", "MAIL", "MAIL.TooManyTransactions"},
      {ReplyKind::kMailBlackList, "MAIL.BlackList", "MAIL", "MAIL.BlackList"},
      {ReplyKind::kMailSize, "MAIL.Size", "MAIL", "MAIL.Size"},
      {ReplyKind::kMailAddressSyntax, "MAIL.AddressSyntax", "MAIL", "MAIL.AddressSyntax"},
      {ReplyKind::kRcptTooManyRecipients, "RCPT.TooManyRecipients", "RCPT", "RCPT.TooManyRecipients"},
      // The sender's own wording; the recipients' own.
      {ReplyKind::kRcptRestricted, "RCPT.Restricted", "RCPT",
       "RCPT.Restricted > RCPT.Restricted.s@sender.test"},
      {ReplyKind::kRcptRelaying, "RCPT.Relaying", "RCPT", "RCPT.Relaying"},
      {ReplyKind::kRcptPrivate, "RCPT.Private", "RCPT", "RCPT.Private > RCPT.Private.U@Local.Test"},
      {ReplyKind::kRcptBlackListLocal, "RCPT.BlackList.Local", "RCPT",
       "RCPT.BlackList.Local > RCPT.BlackList.Local.u@local.test"},
      {ReplyKind::kRcptBlackListRemote, "RCPT.BlackList.Remote", "RCPT",
       "RCPT.BlackList.Remote > RCPT.BlackList.Remote.u@local.test"},
      {ReplyKind::kRcptAddressSyntax, "RCPT.AddressSyntax", "RCPT", "RCPT.AddressSyntax"},
      {ReplyKind::kRcptGreylisted, "RCPT.Greylisted", "RCPT",
       "RCPT.Greylisted > RCPT.Greylisted.u@local.test"},
      {ReplyKind::kDataGreylisted, "DATA.Greylisted", "DATA", "DATA.Greylisted"},
      {ReplyKind::kTooManyConnections, "TooManyConnections", "", "TooManyConnections"},
      {ReplyKind::kIPBlackList, "IPBlackList", "", "IPBlackList"},
      {ReplyKind::kHostsBlackList, "HostsBlackList", "", "HostsBlackList"},
      {ReplyKind::kNoPtr, "NoPtr", "", "NoPtr"},
      {ReplyKind::kShutdown, "Shutdown", "", "Shutdown"},
      {ReplyKind::kServerError, "ServerError", "", "ServerError"},
      {ReplyKind::kBadSyntax, "BadSyntax", "MAIL", "BadSyntax"},
      {ReplyKind::kLineTooLong, "LineTooLong", "MAIL", "LineTooLong"},
      {ReplyKind::kDataAmbiguousEnd, "DATA.AmbiguousEnd", "DATA", "DATA.AmbiguousEnd"},
      {ReplyKind::kNotImplemented, "NotImplemented", "STARTTLS", "NotImplemented"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(KeysOf(row.kind, row.key, row.verb), std::string("reply > ") + row.keys);
  }
}

}  // namespace
}  // namespace trabex

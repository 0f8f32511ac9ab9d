// The form of a line, the commands that never go to the server, refused sessions, and the end of a session
// that sends too much out of order.
#include <gtest/gtest.h>

#include <string>

#include "base/text.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

constexpr const char* kBadSyntax = "<- 500 5.5.2 Invalid character in command line.";
constexpr const char* kNotImplemented = "<- 502 5.5.1 Command not implemented.";

TEST(ClientLine, IsBroughtIntoItsCanonicalForm) {
  const struct {
    const char* line;
    const char* outcome;
  } rows[] = {
      {"NOOP", "-> NOOP"},
      {"noop", "-> noop"},
      {"NoOp text", "-> NoOp text"},
      {"NOOP  text  more ", "-> NOOP text  more\\x20"},
      {"NOOP ", "-> NOOP"},
      {"NOOP   ", "-> NOOP"},
      {"  NOOP", "-> NOOP"},
      {R"(\t \tNOOP)", "-> NOOP"},
      {R"(NOOP\ttext)", "-> NOOP text"},
      {R"(NOOP\t \ttext\tmore)", "-> NOOP text more"},
      {R"(NOOP\t)", "-> NOOP"},
      {"", "->"},
      {"   ", "->"},
      {"VRFY \xC3\xA4", R"(-> VRFY \xC3\xA4)"},
      {"FOO bar", "-> FOO bar"},
      {R"(MAIL\tFROM:<a@b>\tBODY=8BITMIME)", "-> MAIL FROM:<a@b> BODY=8BITMIME"},
      {R"(  mail   from:<a@b>)", "-> MAIL FROM:<a@b>"},
      {R"(EHLO\tclient.test)", "-> EHLO client.test"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.Greet();
    EXPECT_EQ(d.Says(Unescape(row.line)), row.outcome) << row.line;
    const std::string_view sent = Trim(std::string_view(row.outcome).substr(2));
    EXPECT_EQ(d.state.forwarded.ForwardedVerb, ToUpper(FirstWord(sent))) << row.line;
  }
}

// A server that reads a verb up to the first character that is no letter would take these for commands.
TEST(ClientLine, WithAKnownVerbAndMoreGoesNowhere) {
  for (const char* line : {"MAIL;FROM:<a@b>", "rcpt:<a@b>", "RCPT, TO:<a@b>", "bdat; 33 LAST",
                           "BDAT-1 5 LAST", "DATA.", "StartTLS;", "TURN!", "XCLIENT=ADDR=192.0.2.1",
                           "XEXCH50:5", "QUIT\"", "EHLO[a", "SEND<a@b>", "AUTH=PLAIN"}) {
    TestDialogue d;
    d.Greet();
    EXPECT_EQ(d.Says(line), kBadSyntax) << line;
  }
  for (const char* line :
       {"MAILS;", "DATAX.", "X-LINK2STATE LAST", "FOO;", "X-MAIL", ";MAIL", "M;AIL", "XCLIENTS-"}) {
    TestDialogue d;
    d.Greet();
    EXPECT_EQ(d.Says(line), std::string("-> ") + line);
  }
}

TEST(ClientLine, WithAControlCharacterGoesNowhere) {
  for (int byte = 0; byte < 128; ++byte) {
    if (byte >= 32 && byte != 127) continue;
    const std::string character(1, static_cast<char>(byte));
    for (const std::string& line :
         {"NOOP" + character, character + "NOOP", "NO" + character + "OP", "NOOP a" + character + "b",
          "MAIL FROM:<a" + character + "@b>", "RCPT TO:<a@b" + character + ">", "EHLO a" + character + "b",
          "HELO " + character, "STARTTLS" + character, "QUIT" + character, character}) {
      if (byte == '\t') continue;
      TestDialogue d;
      d.Greet();
      EXPECT_EQ(d.Says(line), kBadSyntax) << Escape(line);
      EXPECT_EQ(d.state.requested.BadSequenceCount, 1);
      EXPECT_FALSE(d.TransactionOpen());
      EXPECT_EQ(d.state.phase, Phase::kCommand);
      // Nothing of it can be put into a reply.
      EXPECT_EQ(d.state.requested.HeloDomain, "client.test");
      EXPECT_EQ(d.state.requested.Sender + d.state.requested.Recipient, "");
    }
  }
}

TEST(ClientLine, EightBitCharactersAreTextAfterTheVerb) {
  const struct {
    const char* line;
    bool forwarded;
  } rows[] = {
      {R"(NOOP \xC3\xA4\xE2\x82\xAC)", true},
      {R"(NOOP \x80\x8A\x8D\xA0\xFF)", true},
      {R"(NOOP \xC2\xA0x)", true},
      {R"(NOOP x\xC2)", true},
      // Blanks to some servers.
      {R"(NOOP\xA0x)", false},
      {R"(RCPT\xC2\xA0TO:<u@far.test>)", false},
      {R"(\xA0NOOP)", false},
      {R"(N\xC3\x96\xC3\x96P)", false},
      // Control characters of two bytes; U+0085 ends a line.
      {R"(NOOP \xC2\x85XCLIENT a)", false},
      {R"(NOOP \xC2\x80)", false},
      {R"(NOOP \xC2\x9F)", false},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.Greet();
    EXPECT_EQ(d.Says(Unescape(row.line)), row.forwarded ? std::string("-> ") + row.line : kBadSyntax);
  }
}

TEST(NeverForwarded, CommandsThatWouldHandTheServerOver) {
  for (const char* line : {"STARTTLS", "starttls", "STARTTLS x", "TURN", "Turn", "ATRN a,b",
                           "XCLIENT ADDR=127.0.0.1", "xclient NAME=localhost", "XFORWARD ADDR=127.0.0.1",
                           "  XCLIENT ADDR=127.0.0.1", "\tXFORWARD\tNAME=x"}) {
    {
      SCOPED_TRACE("before the greeting");
      TestDialogue d;
      EXPECT_EQ(d.Says(line), kNotImplemented) << line;
    }
    {
      SCOPED_TRACE("in a transaction");
      TestDialogue d;
      d.GreetMailAndRcpt();
      EXPECT_EQ(d.Says(line), kNotImplemented) << line;
      EXPECT_EQ(d.state.requested.BadSequenceCount, 1);
      EXPECT_TRUE(d.TransactionOpen());
    }
    {
      SCOPED_TRACE("in a refused session");
      TestDialogue d;
      d.Refuse();
      EXPECT_EQ(d.Says(line), kNotImplemented) << line;
    }
  }
}

TEST(NeverForwarded, OnlyTheseVerbs) {
  for (const char* line : {"STARTTLSX", "XCLIENTS", "X-CLIENT", "TURNS", "XFORWARD2 a", "ETRN example"}) {
    TestDialogue d;
    d.Greet();
    EXPECT_EQ(d.Says(line), std::string("-> ") + line);
  }
}

// A server that takes a header may take one more as a command, and with it another address.
TEST(NeverForwarded, AHeaderWhereTheServerTakesOne) {
  const struct {
    std::int32_t told_by;
    bool forwarded;
  } rows[] = {{send_client_ip::kNot, true},
              {send_client_ip::kProxyVersion1, false},
              {send_client_ip::kProxyVersion2, false},
              {send_client_ip::kXCLIENT, true}};
  for (const auto& row : rows) {
    TestDialogue d;
    d.configuration.SendClientIP = row.told_by;
    d.Greet();
    EXPECT_EQ(d.Says("PROXY TCP4 127.0.0.9 127.0.0.1 1 25"),
              row.forwarded ? "-> PROXY TCP4 127.0.0.9 127.0.0.1 1 25" : kNotImplemented)
        << row.told_by;
  }
}

TEST(RefusedSession, IsTalkedToByTheProxyAlone) {
  TestDialogue d;
  d.Refuse();
  d.configuration.ResponseChanges.Add(Appended("BadSeq", " 1"));
  d.configuration.ResponseChanges.Add(Appended("BadSeq.BadIP", " 2"));
  d.configuration.ResponseChanges.Add(Appended("EHLO.BadSeq.BadIP", " 3"));
  d.Run(R"(
    C: EHLO client.test
    <- 503 Bad sequence of commands. 1 2 3
    C: NOOP
    <- 503 Bad sequence of commands. 1 2
    C: RSET
    <- 503 Bad sequence of commands. 1 2
    C: MAIL FROM:<a@b>
    <- 503 Bad sequence of commands. 1 2
    C: DATA
    <- 503 Bad sequence of commands. 1 2
    C: quit
    <- 221 2.0.0 proxy.test closing connection.
    closed C)");
  EXPECT_EQ(d.state.requested.BadSequenceCount, 5);
  EXPECT_TRUE(d.greylisting.asked.empty());
}

TEST(RefusedSession, DropsWhatABdatBrings) {
  TestDialogue d;
  d.Refuse();
  d.Run(R"(
    C: BDAT 6 LAST
    <- 503 Bad sequence of commands.
    C+ QUIT\r\n)");
  EXPECT_EQ(d.LeftOver(), "");
}

TEST(RefusedSession, QuitIsChangedByItsKey) {
  TestDialogue d;
  d.Refuse();
  d.configuration.EnhancedStatusCodes = false;
  d.configuration.ResponseChanges.Add(Appended("QUIT.BadIP", " Bye."));
  d.Run(R"(
    C: QUIT
    <- 221 proxy.test closing connection. Bye.
    closed C)");
}

TEST(BadSequences, OneMoreThanTheLimitEndTheSession) {
  TestDialogue d;
  for (int i = 1; i <= 10; ++i) EXPECT_EQ(d.Says("DATA"), "<- 503 Bad sequence of commands.") << i;
  EXPECT_EQ(d.Says("DATA"), "<- 503 Bad sequence of commands.; wait 500; closed C");
}

TEST(BadSequences, EveryKindThatCountsDoes) {
  const struct {
    const char* line;
    bool counts;
  } rows[] = {
      {"DATA", true},      {"MAIL FROM:<a@b>", true}, {"RCPT TO:<u@local.test>", true},
      {"NOOP \x01", true}, {"STARTTLS", true},        {"BDAT 1", true},
      {"NOOP", false},     {"VRFY x", false},         {"EHLO black.test", false},
      {"HELO", false},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.configuration.MaxBadSeq = 0;
    d.configuration.ValidateHELO = 15;
    d.configuration.HELOBlackList = ListOf({"black.test", "[]"});
    EXPECT_EQ(d.Says(row.line).ends_with("wait 500; closed C"), row.counts) << row.line;
  }
}

TEST(BadSequences, AreLookedAtAfterEveryLine) {
  TestDialogue d;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(d.Says("DATA"), "<- 503 Bad sequence of commands.");
  // The limit goes down while the session is open.
  d.configuration.MaxBadSeq = 2;
  EXPECT_EQ(d.Says("NOOP"), "-> NOOP; wait 500; closed C");
}

TEST(BadSequences, ASessionThatEndsAnywayEndsWithoutAPause) {
  TestDialogue d;
  d.configuration.MaxBadSeq = 0;
  EXPECT_EQ(d.Says("BDAT x"), "<- 503 5.5.1 Bad sequence of commands.; closed C");
}

TEST(BadSequences, RefusalsByPolicyDoNotCount) {
  TestDialogue d;
  d.configuration.MaxBadSeq = 0;
  d.configuration.SendersBlackList = ListOf({"*"});
  d.Greet();
  EXPECT_EQ(d.Says("MAIL FROM:<a@b>"), "<- 550 5.7.1 Mail from a@b not allowed.");
  EXPECT_EQ(d.Says("MAIL TO:<a@b>"), "<- 501 5.5.4 Invalid syntax of address in MAIL command.");
  EXPECT_EQ(d.state.requested.BadSequenceCount, 0);
}

// --- long lines

bool IsTooLong(const TestDialogue& d, std::string_view begin) {
  const std::size_t end = begin.find(kCrLf);
  const bool whole = end != std::string_view::npos;
  return ClientCommandFilter::IsTooLong(whole ? begin.substr(0, end + kCrLf.size()) : begin, whole,
                                        d.state.phase);
}

TEST(LongLine, IsRefusedWithoutWaitingForItsEnd) {
  const auto line_of = [](std::string_view begin, std::size_t octets) {
    std::string line(begin);
    line.resize(octets, 'x');
    return line;
  };
  const auto ended = [&](std::string_view begin, std::size_t octets) {
    return line_of(begin, octets - 2) + "\r\n";
  };
  const struct {
    std::string begin;
    bool too_long;
  } rows[] = {
      {"", false},
      {"NOOP\r\n", false},
      {ended("NOOP ", 4095), false},
      {ended("NOOP ", 4096), false},
      {ended("NOOP ", 4097), true},
      // Without its end: the line has at least one octet more.
      {line_of("NOOP ", 4095), false},
      {line_of("NOOP ", 4094) + "\r", false},
      {line_of("NOOP ", 4096), true},
      {line_of("NOOP ", 4095) + "\r", true},
      {line_of("NOOP ", 60000), true},
      // Only the first line counts.
      {"NOOP\r\n" + line_of("x", 60000), false},
      {ended("NOOP ", 4096) + line_of("x", 5000), false},
      // Another line end is none.
      {line_of("NOOP\n", 4096), true},
      {line_of("NOOP\r", 4096), true},
      // AUTH has more room.
      {ended("AUTH PLAIN ", 12288), false},
      {ended("AUTH PLAIN ", 12289), true},
      {line_of("AUTH PLAIN ", 12287), false},
      {line_of("AUTH PLAIN ", 12288), true},
      {ended("auth\tPLAIN ", 12288), false},
      {ended(" \t AUTH PLAIN ", 12288), false},
      {ended("AUTHX PLAIN ", 4097), true},
      {ended("XAUTH PLAIN ", 4097), true},
      {ended("AUTH", 4097), true},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    EXPECT_EQ(IsTooLong(d, row.begin), row.too_long) << row.begin.substr(0, 20) << " of " << row.begin.size();
  }
}

TEST(LongLine, AuthenticationDataHasMoreRoom) {
  TestDialogue d;
  d.state.phase = Phase::kAuthData;
  EXPECT_FALSE(IsTooLong(d, std::string(12286, 'x') + "\r\n"));
  EXPECT_TRUE(IsTooLong(d, std::string(12287, 'x') + "\r\n"));
  EXPECT_FALSE(IsTooLong(d, std::string(12287, 'x')));
  EXPECT_TRUE(IsTooLong(d, std::string(12288, 'x')));
}

TEST(LongLine, TheReplyIsChangedByItsKey) {
  TestDialogue d;
  d.configuration.ResponseChanges.Add(WholeReply("LineTooLong", "500 No."));
  EXPECT_EQ(d.commands.BuildReply(ReplyKind::kLineTooLong, d.state), "500 No.");
}

// --- authentication

TEST(Authentication, DataGoesToTheServerAsItIs) {
  TestDialogue d;
  d.Greet();
  d.Run(R"(
    C: AUTH LOGIN
    -> AUTH LOGIN
    S: 334 VXNlcm5hbWU6
    <- 334 VXNlcm5hbWU6
    C: STARTTLS
    -> STARTTLS
    S: 334 UGFzc3dvcmQ6
    <- 334 UGFzc3dvcmQ6
    C: a\tb  c
    -> a\tb  c
    S: 235 welcome
    <- 235 welcome
    C: STARTTLS
    <- 502 5.5.1 Command not implemented.)");
}

// The script drops blanks at the front; here they count.
TEST(Authentication, DataKeepsItsBlanks) {
  TestDialogue d;
  d.state.phase = Phase::kAuthData;
  EXPECT_EQ(d.Says(" x "), "->  x\\x20");
  d.state.phase = Phase::kAuthData;
  EXPECT_EQ(d.Says(""), "->");
}

TEST(Authentication, IsOverWithAnyOtherReply) {
  for (const char* reply : {"235 ok", "535 no", "501 no", "250 ok", "454 later", "3340 x"}) {
    TestDialogue d;
    d.Greet();
    EXPECT_EQ(d.Says("AUTH PLAIN AGEAYg=="), "-> AUTH PLAIN AGEAYg==");
    d.Reply(std::string(reply) + "\r\n");
    EXPECT_EQ(d.state.phase == Phase::kAuthData, std::string_view(reply).starts_with("334")) << reply;
  }
}

TEST(Authentication, OnlyTheLastLineOfTheReplyAsksForData) {
  const struct {
    const char* reply;
    bool data;
  } rows[] = {
      {R"(334-a\r\n334 b\r\n)", true},
      {R"(250-a\r\n334 b\r\n)", true},
      {R"(334-a\r\n250 b\r\n)", false},
      {R"(334\r\n)", true},
      {R"(334 \r\n)", true},
      {R"(33\r\n)", false},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.Greet();
    EXPECT_EQ(d.Says("AUTH LOGIN"), "-> AUTH LOGIN");
    d.Reply(Unescape(row.reply));
    EXPECT_EQ(d.state.phase == Phase::kAuthData, row.data) << row.reply;
  }
}

TEST(Authentication, OnlyAReplyToAuthAsksForData) {
  TestDialogue d;
  d.Greet();
  d.Run(R"(
    C: NOOP
    -> NOOP
    S: 334 VXNlcm5hbWU6
    <- 334 VXNlcm5hbWU6
    C: XCLIENT ADDR=127.0.0.1
    <- 502 5.5.1 Command not implemented.
    C: AUTH LOGIN
    -> AUTH LOGIN
    S: 535 no
    <- 535 no
    # Unasked for.
    S: 334 VXNlcm5hbWU6
    <- 334 VXNlcm5hbWU6
    C: XCLIENT ADDR=127.0.0.1
    <- 502 5.5.1 Command not implemented.)");
}

// It has given up: what it reads next, it reads as a command.
TEST(Authentication, AServerThatSpeaksAgainWaitsForNoData) {
  const struct {
    const char* reply;
    bool data;
  } rows[] = {
      {"535 too slow\r\n", false},     {"421-too\r\n421 slow\r\n", false},
      {"334-a\r\n250 b\r\n", false},   {"\r\n", false},
      {"334 still waiting\r\n", true},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.Greet();
    d.Run(R"(
      C: AUTH LOGIN
      -> AUTH LOGIN
      S: 334 VXNlcm5hbWU6
      <- 334 VXNlcm5hbWU6)");
    EXPECT_EQ(d.Reply(row.reply).text, row.reply);
    EXPECT_EQ(d.Says("XCLIENT ADDR=127.0.0.1"), row.data ? "-> XCLIENT ADDR=127.0.0.1" : kNotImplemented);
  }
}

TEST(Authentication, DataWithAControlCharacterEndsTheSession) {
  TestDialogue d;
  d.Greet();
  d.Run(R"(
    C: AUTH LOGIN
    -> AUTH LOGIN
    S: 334 VXNlcm5hbWU6
    <- 334 VXNlcm5hbWU6
    C: dXNlcg==\nXCLIENT ADDR=127.0.0.1
    <- 500 5.5.2 Invalid character in command line.
    closed C)");
  EXPECT_EQ(d.state.requested.BadSequenceCount, 1);
}

TEST(Authentication, IsNotInTheLog) {
  const struct {
    bool data;
    const char* line;
    const char* shown;
  } rows[] = {
      {false, R"(AUTH PLAIN AGEAYg==\r\n)", R"(AUTH PLAIN ***\r\n)"},
      {false, R"(auth plain AGEAYg==\r\n)", R"(auth plain ***\r\n)"},
      {false, R"(AUTH   PLAIN   a b c\r\n)", R"(AUTH   PLAIN   ***\r\n)"},
      {false, R"(\t AUTH\tPLAIN\tsecret\r\n)", R"(\t AUTH\tPLAIN\t***\r\n)"},
      {false, R"(AUTH PLAIN =\r\n)", R"(AUTH PLAIN ***\r\n)"},
      {false, R"(AUTH PLAIN \x01secret\r\n)", R"(AUTH PLAIN ***\r\n)"},
      {false, R"(AUTH PLAIN secret)", R"(AUTH PLAIN ***)"},
      {false, R"(AUTH PLAIN\r\n)", R"(AUTH PLAIN\r\n)"},
      {false, R"(AUTH PLAIN  \r\n)", R"(AUTH PLAIN  \r\n)"},
      {false, R"(AUTH\r\n)", R"(AUTH\r\n)"},
      {false, R"(AUTH)", R"(AUTH)"},
      {false, R"(AUTHOR x y\r\n)", R"(AUTHOR x y\r\n)"},
      {false, R"(MAIL FROM:<a@b> AUTH=<>\r\n)", R"(MAIL FROM:<a@b> AUTH=<>\r\n)"},
      {true, R"(c2VjcmV0\r\n)", R"(***\r\n)"},
      {true, R"(\r\n)", R"(***\r\n)"},
      {true, R"(AUTH PLAIN\r\n)", R"(***\r\n)"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.state.phase = row.data ? Phase::kAuthData : Phase::kCommand;
    const std::string line = Unescape(row.line);
    std::string hidden;
    EXPECT_EQ(Escape(d.commands.LoggedForm(line, d.state.phase, hidden)), row.shown) << row.line;
  }
}

TEST(Authentication, IsNotInTheLogOfWhatIsForwarded) {
  TestDialogue d;
  d.Greet();
  EXPECT_EQ(d.Line("auth  PLAIN\tAGEAYg==\r\n").logged, "auth PLAIN ***\r\n");
  d.state.phase = Phase::kAuthData;
  EXPECT_EQ(d.Line("AGEAYg==\r\n").logged, "***\r\n");
  EXPECT_EQ(d.Line("NOOP\r\n").logged, "");
}

}  // namespace
}  // namespace trabex

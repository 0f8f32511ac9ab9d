#include "proxy/dialogue/server_preface.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "script/escapes.h"

namespace trabex {
namespace {

using Kind = ServerPreface::Step::Kind;

const ProxiedConnection kConnection{{IPAddress::IPv4(0xC0000207), 51234}, {IPAddress::IPv4(0xCB007105), 25}};
const ClientNames kNames{"mail.client.test", ClientNames::Answer::kFound, ClientNames::Answer::kFound};

std::string Describe(const ServerPreface::Step& step) {
  std::string text = step.text;
  if (text.ends_with(kCrLf)) text.resize(text.size() - kCrLf.size());
  text = ReplaceAll(text, kCrLf, " | ");
  switch (step.kind) {
    case Kind::kSend:
      return "-> " + text;
    case Kind::kStartTls:
      return "tls";
    case Kind::kAskForNames:
      return "names";
    case Kind::kWait:
      return "wait";
    case Kind::kGoOn:
      return "go on";
    case Kind::kGreet:
      return (step.without_server ? "last " : "greet ") + text;
    case Kind::kRefuse:
      return "refuse " + text;
  }
  return {};
}

// Letters: t TLS at once, s STARTTLS, r TLS is required, p the header is to be proved, x XCLIENT.
ServerPrefacePlan Plan(std::string_view letters) {
  const auto has = [letters](char letter) { return letters.find(letter) != std::string_view::npos; };
  return {"proxy.test", has('t'), has('s'), has('r'), has('p'), has('x')};
}

// Plays "what comes in" and returns what comes out. In: a reply, in which "|" stands for a line's end;
// "secured"; "named". A reply with "&" behind it is followed by more.
std::vector<std::string> Play(std::string_view plan, const std::vector<std::string>& in) {
  ServerPreface preface(Plan(plan));
  std::vector<std::string> out;
  for (std::string text : in) {
    if (text == "secured") {
      out.push_back(Describe(preface.OnSecured()));
    } else if (text == "named") {
      out.push_back(Describe(preface.OnNames(kConnection, kNames)));
    } else {
      const bool more = text.ends_with('&');
      if (more) text.pop_back();
      out.push_back(Describe(preface.OnReply(ReplaceAll(text, "|", kCrLf).append(kCrLf), more)));
    }
  }
  return out;
}

struct Row {
  const char* plan;
  std::vector<std::string> in;
  std::vector<std::string> out;
};

void PlayRows(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    std::string trace = row.plan;
    for (const std::string& text : row.in) trace += ", " + text;
    EXPECT_EQ(Play(row.plan, row.in), row.out) << trace;
  }
}

const std::string kEhlo = "-> EHLO proxy.test";
const std::string kXclient = "-> XCLIENT NAME=mail.client.test ADDR=192.0.2.7";

TEST(ServerPreface, IsNeededForWhatItAgreesOn) {
  EXPECT_FALSE(Plan("").IsNeeded());
  EXPECT_FALSE(Plan("r").IsNeeded());
  EXPECT_TRUE(Plan("t").IsNeeded());
  EXPECT_FALSE(Plan("t").NeedsEhlo());
  for (const char* const letters : {"s", "sr", "p", "x", "sx", "srx", "sp"}) {
    EXPECT_TRUE(Plan(letters).IsNeeded()) << letters;
  }
  EXPECT_FALSE(Plan("s").IsRequired());
  for (const char* const letters : {"sr", "p", "x", "sx", "sp"}) {
    EXPECT_TRUE(Plan(letters).IsRequired()) << letters;
  }
}

TEST(ServerPreface, TlsBeginsWhereTheServerOffersIt) {
  PlayRows({
      {"s",
       {"220 hello", "250-a|250-STARTTLS|250 SIZE", "220 go", "secured"},
       {kEhlo, "-> STARTTLS", "tls", "greet 220 hello"}},
      {"sr",
       {"220 hello", "250-a|250 starttls", "220 go", "secured"},
       {kEhlo, "-> STARTTLS", "tls", "greet 220 hello"}},
      {"sp",
       {"220 hello", "250-a|250 STARTTLS", "220 go", "secured"},
       {kEhlo, "-> STARTTLS", "tls", "greet 220 hello"}},
      // The greeting goes on as it was, all of its lines.
      {"s", {"220-hello|220-more|220 last", "250 a"}, {kEhlo, "greet 220-hello | 220-more | 220 last"}},
      {"s",
       {"220 hello", "250-a|250-STARTTLS|250 SIZE", "220-go|220 on", "secured"},
       {kEhlo, "-> STARTTLS", "tls", "greet 220 hello"}},
      // The first line is the server's name.
      {"s", {"220 hello", "250 STARTTLS"}, {kEhlo, "greet 220 hello"}},
      {"sr", {"220 hello", "250-STARTTLS|250 SIZE"}, {kEhlo, "refuse STARTTLS not offered"}},
  });
}

TEST(ServerPreface, WithoutTlsItGoesOnOnlyWhereTlsIsNotRequired) {
  PlayRows({
      {"s", {"220 hello", "250 a"}, {kEhlo, "greet 220 hello"}},
      {"sr", {"220 hello", "250 a"}, {kEhlo, "refuse STARTTLS not offered"}},
      {"s", {"220 hello", "250-a|250 STARTTLS", "454 no"}, {kEhlo, "-> STARTTLS", "greet 220 hello"}},
      {"sr",
       {"220 hello", "250-a|250 STARTTLS", "454 no"},
       {kEhlo, "-> STARTTLS", "refuse STARTTLS refused"}},
      {"sr",
       {"220 hello", "250-a|250 STARTTLS", "220-go|454 no"},
       {kEhlo, "-> STARTTLS", "refuse STARTTLS refused"}},
      {"s", {"220 hello", "502 what"}, {kEhlo, "greet 220 hello"}},
      {"sr", {"220 hello", "502 what"}, {kEhlo, "refuse EHLO refused"}},
      {"sx", {"220 hello", "502 what"}, {kEhlo, "refuse EHLO refused"}},
      {"sp", {"220 hello", "502 what"}, {kEhlo, "refuse EHLO refused"}},
      {"p", {"220 hello", "250-a|550 b"}, {kEhlo, "refuse EHLO refused"}},
  });
}

// A server that has read the header of the PROXY protocol as a command has answered it before EHLO.
TEST(ServerPreface, ReplyToEhloProvesThatTheHeaderWasTaken) {
  PlayRows({
      {"p", {"220 hello", "250 a"}, {kEhlo, "greet 220 hello"}},
      {"p", {"220 hello", "500 unknown command"}, {kEhlo, "refuse EHLO refused"}},
      {"p", {"220 hello&"}, {"refuse unexpected data"}},
      {"p", {"220 hello", "250 a&"}, {kEhlo, "refuse unexpected data"}},
  });
}

TEST(ServerPreface, AGreetingThatRefusesIsTheClients) {
  PlayRows({
      {"s", {"554 no"}, {"greet 554 no"}},
      {"s", {"220-hello|554 no"}, {"greet 220-hello | 554 no"}},
      {"s", {"421 later"}, {"greet 421 later"}},
      {"s", {"250 hello"}, {"greet 250 hello"}},
      // The server gets nothing more where it would be in the clear, or under our name.
      {"sr", {"554 no"}, {"last 554 no"}},
      {"sr", {"250 hello"}, {"last 250 hello"}},
      {"p", {"554 no"}, {"last 554 no"}},
      {"x", {"421 later"}, {"last 421 later"}},
      {"sx", {"220-hello|554 no"}, {"last 220-hello | 554 no"}},
  });
}

TEST(ServerPreface, XclientTellsTheClientAndItsReplyIsTheGreeting) {
  const std::string offer = "250-a|250 XCLIENT NAME ADDR";
  PlayRows({
      {"x", {"220 hello", offer, "named", "220 you"}, {kEhlo, "names", kXclient, "greet 220 you"}},
      {"x",
       {"220 hello", "250-a|250 xclient Addr", "named", "220 you"},
       {kEhlo, "names", "-> XCLIENT ADDR=192.0.2.7", "greet 220 you"}},
      {"x", {"220 hello", "250 a"}, {kEhlo, "refuse XCLIENT not offered"}},
      {"x", {"220 hello", "250-a|250 XCLIENT NAME"}, {kEhlo, "refuse XCLIENT not offered"}},
      {"x", {"220 hello", offer, "named", "501 no"}, {kEhlo, "names", kXclient, "refuse XCLIENT refused"}},
      {"x", {"220 hello", offer, "named", "503 no"}, {kEhlo, "names", kXclient, "refuse XCLIENT refused"}},
      {"x", {"220 hello", offer, "named", "550 no"}, {kEhlo, "names", kXclient, "refuse XCLIENT refused"}},
      {"x", {"220 hello", offer, "named", "554 go away"}, {kEhlo, "names", kXclient, "last 554 go away"}},
      {"x", {"220 hello", offer, "named", "421 later"}, {kEhlo, "names", kXclient, "last 421 later"}},
      {"x", {"220 hello", offer, "named", "500 what"}, {kEhlo, "names", kXclient, "last 500 what"}},
      {"x", {"220 hello", offer, "named", "250 ok"}, {kEhlo, "names", kXclient, "last 250 ok"}},
  });
}

// What the server said in the clear counts no more when TLS has begun.
TEST(ServerPreface, UnderTlsTheServerIsAskedAgain) {
  const std::string both = "250-a|250-STARTTLS|250 XCLIENT NAME ADDR";
  PlayRows({
      {"sx",
       {"220 hello", both, "220 go", "secured", "250-a|250 XCLIENT NAME ADDR", "named", "220 you"},
       {kEhlo, "-> STARTTLS", "tls", kEhlo, "names", kXclient, "greet 220 you"}},
      {"sx",
       {"220 hello", both, "220 go", "secured", "250 a"},
       {kEhlo, "-> STARTTLS", "tls", kEhlo, "refuse XCLIENT not offered"}},
      {"sx",
       {"220 hello", both, "220 go", "secured", "550 a"},
       {kEhlo, "-> STARTTLS", "tls", kEhlo, "refuse EHLO refused"}},
      {"sx",
       {"220 hello", both, "454 no", "named", "220 you"},
       {kEhlo, "-> STARTTLS", "names", kXclient, "greet 220 you"}},
      // A second STARTTLS is not for us.
      {"srx",
       {"220 hello", both, "220 go", "secured", both, "named", "220 you"},
       {kEhlo, "-> STARTTLS", "tls", kEhlo, "names", kXclient, "greet 220 you"}},
  });
}

TEST(ServerPreface, TlsMayBeginBeforeTheGreeting) {
  const std::string both = "250-a|250-STARTTLS|250 XCLIENT ADDR";
  EXPECT_EQ(ServerPreface(Plan("t")).Begin().kind, Kind::kStartTls);
  EXPECT_EQ(ServerPreface(Plan("s")).Begin().kind, Kind::kWait);
  PlayRows({
      {"t", {"secured"}, {"go on"}},
      {"tp", {"secured", "220 hello", "250 a"}, {"wait", kEhlo, "greet 220 hello"}},
      {"tp", {"secured", "220 hello", "500 a"}, {"wait", kEhlo, "refuse EHLO refused"}},
      {"tx",
       {"secured", "220 hello", both, "named", "220 you"},
       {"wait", kEhlo, "names", "-> XCLIENT ADDR=192.0.2.7", "greet 220 you"}},
      {"t", {"220 hello"}, {"refuse unexpected data"}},
      {"tx", {"220 hello"}, {"refuse unexpected data"}},
  });
}

TEST(ServerPreface, RepliesInjectedBehindStarttlsEndIt) {
  for (const char* const plan : {"s", "sr", "sx", "srx"}) {
    PlayRows({{plan,
               {"220 hello", "250-a|250 STARTTLS", "220 go&"},
               {kEhlo, "-> STARTTLS", "refuse data behind STARTTLS"}}});
    // Nor does what comes during the handshake count.
    PlayRows({{plan,
               {"220 hello", "250-a|250 STARTTLS", "220 go", "250 injected"},
               {kEhlo, "-> STARTTLS", "tls", "refuse unexpected data"}}});
  }
}

TEST(ServerPreface, OnlyRepliesToWhatWasSaidCount) {
  const std::string offer = "250-a|250-STARTTLS|250 XCLIENT NAME ADDR";
  PlayRows({
      {"s", {"220 hello&"}, {"refuse unexpected data"}},
      {"s", {"554 no&"}, {"refuse unexpected data"}},
      {"s", {"220 hello", offer + "&"}, {kEhlo, "refuse unexpected data"}},
      {"s", {"220 hello", offer, "454 no&"}, {kEhlo, "-> STARTTLS", "refuse unexpected data"}},
      {"x", {"220 hello", offer, "220 early"}, {kEhlo, "names", "refuse unexpected data"}},
      {"x", {"220 hello", offer, "named", "220 you&"}, {kEhlo, "names", kXclient, "refuse unexpected data"}},
      {"s", {"secured"}, {"refuse unexpected data"}},
      {"x", {"named"}, {"refuse unexpected data"}},
  });
  for (const char* const no_reply : {"hello", "", "22", "22x hello", "220hello", "120 hello", "620 hello",
                                     " 220 hello", "220-hello|hello", "220-hello||220 x", "220\thello"}) {
    PlayRows({{"s", {no_reply}, {"refuse unexpected data"}}, {"x", {no_reply}, {"refuse unexpected data"}}});
  }
  for (const char* const reply : {"220", "220 ", "220-|220", "220-x|220 "}) {
    PlayRows({{"s", {reply}, {kEhlo}}});
  }
}

TEST(ServerPreface, AwaitsAReplyWhereverTheServerOwesOne) {
  ServerPreface preface(Plan("sx"));
  EXPECT_TRUE(preface.AwaitsReply());
  preface.OnReply("220 hello\r\n", false);
  EXPECT_TRUE(preface.AwaitsReply());
  preface.OnReply("250-a\r\n250 STARTTLS\r\n", false);
  EXPECT_TRUE(preface.AwaitsReply());
  preface.OnReply("220 go\r\n", false);
  EXPECT_FALSE(preface.AwaitsReply());
  preface.OnSecured();
  EXPECT_TRUE(preface.AwaitsReply());
  preface.OnReply("250-a\r\n250 XCLIENT ADDR\r\n", false);
  EXPECT_FALSE(preface.AwaitsReply());
  preface.OnNames(kConnection, kNames);
  EXPECT_TRUE(preface.AwaitsReply());
}

}  // namespace
}  // namespace trabex

// Where an explanation says that the settings stand: in each file one line is marked with "<<", which is not part
// of it, and the entry that the step names has to be that of this line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "app/start_up.h"
#include "base/text.h"
#include "program_fixture.h"

namespace trabex {
namespace {

struct Row {
  const char* ini;
  std::vector<const char*> arguments;  // beside the usual ones, or in their place
  const char* step;                    // what its line begins with; "": the last line
  const char* ground;                  // behind it the place
  const char* list = nullptr;          // the text of hosts.list
};

const Row kRows[] = {
    // Clients.
    {"[Common]\nIPBlackList=192.0.2.1 <<\n", {}, "client", "refused by [Common] IPBlackList, \"192.0.2.1\""},
    {"[Common]\nIPBlackList=198.51.100.1, 192.0.2.0/24 <<\n", {}, "client", "IPBlackList, \"192.0.2.0/24\""},
    {"[Common]\nIPBlackList=198.51.100.1\n\n; more\nIPBlackList=192.0.2.0-192.0.2.9 "
     "<<\nIPBlackList=192.0.2.1\n",
     {},
     "client",
     "IPBlackList, \"192.0.2.0-192.0.2.9\""},
    {"\n\n[Common]\nTimeout=5\nIPBlackList=192.0.2.0/255.255.255.0 <<\n", {}, "client", "\"192.0.2.0/24\""},
    {"[Common]\nIPAllowList=0.0.0.0/0,::/0\nIPBlackList=10.0.0.1\nIPBlackList=2001:db8::/32 <<\n",
     {"client=2001:db8::7"},
     "client",
     "IPBlackList, \"2001:db8::/32\""},
    {"[Common]\nIPBlackList=2001:db8::/32\nIPBlackList=192.0.2.1 <<\n", {}, "client", "\"192.0.2.1\""},
    {"[Common]\nLog=0\nIPAllowList=198.51.100.0/24 <<\nIPAllowList=203.0.113.0/24\n",
     {},
     "client",
     "refused by [Common] IPAllowList, no entry"},
    {"[Common]\nIPWhiteList=198.51.100.1\nIPWhiteList=192.0.2.1 <<\nIPBlackList=192.0.2.1\n",
     {},
     "client",
     "taken by [Common] IPWhiteList, \"192.0.2.1\""},
    {"[Common]\nIPAllowList=198.51.100.0/24\nIPAllowList=192.0.0.0/8 <<\n",
     {},
     "client",
     "taken by [Common] IPAllowList, "
     "\"192.0.0.0/8\""},
    {"[Common]\nLocalIPs=10.0.0.0/8\nLocalIPs=192.0.2.0/30 <<\n",
     {},
     "client",
     "local by [Common] LocalIPs, "
     "\"192.0.2.0/30\""},
    {"[Common]\nLog=0\nLocalIPs=10.0.0.0/8 <<\n", {}, "client", "remote by [Common] LocalIPs, no entry"},
    {"[Common]\nProxyProtocolFrom=192.0.2.0/24 <<\n",
     {},
     "client",
     "a balancer by [Common] ProxyProtocolFrom, "
     "\"192.0.2.0/24\""},
    {"[Common]\nLocalDomains=x.example\n[TLS]\nRequire=3 <<\n", {}, "client", "[TLS] Require, \"3\""},
    // Their names.
    {"[Common]\nValidateRDNS=3\nHostsWhiteList=a.test, mx.test <<\n",
     {},
     "name",
     "taken by [Common] HostsWhiteList, "
     "\"mx.test\""},
    {"[Common]\nValidateRDNS=3\nHostsAllowList=*.example <<\nHostsAllowList=*.org\n",
     {},
     "name",
     "refused by [Common] HostsAllowList, no entry"},
    {"[Common]\nValidateRDNS=3\nHostsAllowList=*.example\nHostsAllowList=mx.* <<\n",
     {},
     "name",
     "HostsAllowList, \"mx.*\""},
    {"[Common]\nValidateRDNS=3\nHostsBlackList=#*, mx?.test, mx.t[a-f]st <<\n",
     {},
     "name",
     "HostsBlackList, "
     "\"mx.t[a-f]st\""},
    {"[Common]\n;HostsBlackList=mx.test\nValidateRDNS=3\nHostsBlackList=a.test\nhostsblacklist = MX.TEST "
     "<<\n",
     {},
     "name",
     "HostsBlackList, \"MX.TEST\""},
    {"[Common]\nLog=0\nValidateRDNS = 2 <<\n",
     {"name=none"},
     "name",
     "refused by [Common] ValidateRDNS, \"2\""},
    {"[Common]\nLog=0\nValidateRDNS=1 <<\n", {}, "name", "not judged, [Common] ValidateRDNS, \"1\""},
    {"[Common]\nValidateRDNS=3\nIPWhiteList=192.0.2.1 <<\n",
     {},
     "name",
     "not judged, [Common] IPWhiteList, "
     "\"192.0.2.1\""},
    {"[Common]\nValidateRDNS=3\nHostsBlackList=a.test\n[ListFiles]\nCommon.HostsBlackList=hosts.list\n",
     {},
     "name",
     "HostsBlackList, \"mx.test\"",
     "# names\n\nb.test\nmx.test <<\n"},
    {"[Common]\nValidateRDNS=3\nHostsBlackList=mx.* <<\n[ListFiles]\nCommon.HostsBlackList=hosts.list\n",
     {},
     "name",
     "HostsBlackList, \"mx.*\"",
     "mx.test\n"},
    // EHLO.
    {"[Common]\nValidateHELO=8\nHELOBlackList=a.test\nHELOBlackList=mx.test <<\n",
     {},
     "EHLO",
     "refused by [Common] "
     "HELOBlackList, \"mx.test\""},
    {"[Common]\nValidateHELO=8\nHELOBlackList=localhost, [] <<\n",
     {"helo="},
     "EHLO",
     "HELOBlackList, \"[]\""},
    {"[Common]\nLog=0\nValidateHELO=2 <<\n",
     {"helo=other.test"},
     "EHLO",
     "refused by [Common] ValidateHELO, \"2\""},
    {"[Common]\nLog=0\nValidateHELO=0 <<\n", {}, "EHLO", "not judged by [Common] ValidateHELO, \"0\""},
    // MAIL.
    {"[Common]\nSendersWhiteList=*@a.test\nSendersWhiteList=*@b.test <<\n",
     {},
     "MAIL",
     "taken by [Common] "
     "SendersWhiteList, \"*@b.test\""},
    {"[Common]\nSendersAllowList=*@a.test <<\n",
     {},
     "MAIL",
     "refused by [Common] SendersAllowList, no entry"},
    {"[Common]\nSendersBlackList=*@a.test, s@* *.test <<\n",
     {},
     "MAIL",
     "SendersBlackList, \"(s@* *.test)\""},
    {"[Common]\nSendersBlackList=\"a,b\", \"s@b.test\" <<\n", {}, "MAIL", "SendersBlackList, \"s@b.test\""},
    {"[Common]\nLog=0\nMaxSize=1K <<\n", {"size=1025"}, "MAIL", "refused by [Common] MaxSize, \"1024\""},
    {"[Common]\nLog=0\n[SenderReplacements.Remote]\na@b.test=x@y.test\n*@b.test=new@b.test <<\n",
     {},
     "MAIL",
     "sent on as <new@b.test> by [SenderReplacements.Remote] *@b.test, \"new@b.test\""},
    {"[Common]\nLocalIPs=192.0.2.0/24\n[SenderReplacements.Local]\ns@b.test=local@b.test <<\n"
     "[SenderReplacements.Remote]\ns@b.test=remote@b.test\n",
     {},
     "MAIL",
     "[SenderReplacements.Local] s@b.test, \"local@b.test\""},
    // RCPT.
    {"[Common]\nLocalDomains=a.example <<\nLocalDomains=b.example\n",
     {},
     "RCPT",
     "refused by [Common] LocalDomains, no "
     "entry"},
    {"[Common]\nLocalDomains=*.example\nRecipientsBlackListRemote=u@x.example <<\n",
     {"client=192.0.2.3"},
     "RCPT",
     "refused by [Common] RecipientsBlackListRemote, \"u@x.example\""},
    {"[Common]\nRecipientsBlackListRemote=a@x.example\nLocalDomains=x.example\nRecipientsBlackListRemote=b@x."
     "example\n"
     "[Service]\n[Common]\nRecipientsBlackListRemote=*@x.example <<\n",
     {},
     "RCPT",
     "RecipientsBlackListRemote, \"*@x.example\""},
    {"[Common]\nLocalDomains=x.example\nRecipientsWhiteListRemote=u@* "
     "<<\nRecipientsBlackListRemote=u@x.example\n",
     {},
     "RCPT",
     "taken by [Common] RecipientsWhiteListRemote, \"u@*\""},
    {"[Common]\nLocalDomains=x.example\nRecipientsAllowListRemote=a@x.example <<\n",
     {},
     "RCPT",
     "refused by [Common] RecipientsAllowListRemote, no entry"},
    {"[Common]\nLocalDomains=x.example\n\n\n\nPrivateRecipients=a@x.example\nPrivateRecipients=u@x.example "
     "<<\n",
     {},
     "RCPT",
     "refused by [Common] PrivateRecipients, \"u@x.example\""},
    {"[Common]\nLocalDomains=x.example\nMaxRecipientsRemote=1 <<\n",
     {"to=a@x.example", "to=u2@x.example"},
     "RCPT u2",
     "refused by [Common] MaxRecipientsRemote, \"1\""},
    {"[Common]\nLocalIPs=192.0.2.1\nMaxRecipientsLocal=1 <<\n",
     {"to=a@x.example", "to=u2@x.example"},
     "RCPT u2",
     "refused by [Common] MaxRecipientsLocal, \"1\""},
    {"[Common]\nLocalIPs=192.0.2.1\nRestrictedSenders=a@b.test\nRestrictedSenders=s@b.test <<\n",
     {},
     "RCPT",
     "refused by [Common] RestrictedSenders, \"s@b.test\""},
    {"[Common]\nLocalIPs=192.0.2.1\nRecipientsBlackListLocal=u@x.example <<\n",
     {},
     "RCPT",
     "refused by [Common] RecipientsBlackListLocal, \"u@x.example\""},
    {"[Common]\nLocalIPs=192.0.2.1\nRecipientsAllowListLocal=a@x.example <<\n",
     {},
     "RCPT",
     "refused by [Common] RecipientsAllowListLocal, no entry"},
    {"[Common]\nLocalIPs=192.0.2.1\nRecipientsAllowListLocal=a@x.example\nRecipientsWhiteListLocal=u@x."
     "example <<\n",
     {},
     "RCPT",
     "taken by [Common] RecipientsWhiteListLocal, \"u@x.example\""},
    {"[Common]\nLocalDomains=x.example\n[RecipientReplacements.Remote]\na@x.example=b@x.example\n"
     "*@x.example,*@y.example=box@x.example <<\n",
     {},
     "RCPT",
     "[RecipientReplacements.Remote] *@x.example,*@y.example, \"box@x.example\""},
    {"[Common]\nLocalIPs=192.0.2.1\n[RecipientReplacements.Local]\nu@x.example=box@x.example <<\n",
     {},
     "RCPT",
     "[RecipientReplacements.Local] u@x.example, \"box@x.example\""},
    // Greylisting.
    {"[Common]\nLocalDomains=x.example\n[GreyListing]\nHostsBlackList=a\nEnabled=1\nDelay=20 <<\n",
     {},
     "RCPT",
     "refused by [GreyListing] Delay, \"20\""},
    {"[GreyListing]\nHostsBlackList=a\nEnabled=1\nMinCount=2 <<\n[Common]\nLocalDomains=x.example\n",
     {"seen=30"},
     "RCPT",
     "refused by [GreyListing] MinCount, \"2\""},
    {"[Common]\nLocalDomains=x.example\nIPWhiteList=192.0.2.1\n[GreyListing]\nEnabled=1\nIPWhiteList=10.0.0."
     "1, "
     "192.0.2.0/24 <<\n",
     {},
     "RCPT",
     "greylisting: whitelisted by [GreyListing] IPWhiteList, \"192.0.2.0/24\""},
    {"[Common]\nLocalDomains=x.example\n[GreyListing]\nEnabled=1\nHostsWhiteList=mx.test <<\n",
     {},
     "RCPT",
     "greylisting: whitelisted by [GreyListing] HostsWhiteList, \"mx.test\""},
    {"[Common]\nLocalDomains=x.example\n[GreyListing]\nEnabled=1\nIPBlackList=192.0.2.1 <<\n",
     {},
     "RCPT",
     "greylisting: new, blacklisted by [GreyListing] IPBlackList, \"192.0.2.1\""},
    {"[Common]\nLocalDomains=x.example\n[GreyListing]\nEnabled=1\nHostsBlackList=a\nBlackListDelay=77 <<\n"
     "IPBlackList=192.0.2.1\n",
     {},
     "RCPT",
     "refused by [GreyListing] BlackListDelay, \"77\""},
    {"[Common]\nLocalDomains=x.example\n[GreyListing]\nEnabled=1\nHostsBlackList=a\nCallbackSendersList=s@b."
     "test <<\n",
     {},
     "RCPT",
     "greylisting: callback by [GreyListing] CallbackSendersList, \"s@b.test\""},
    {"[Common]\nLocalDomains=x.example\n[GreyListing]\nEnabled=1\nHostsBlackList=a\nCallbackSendersList=s@b."
     "test\n"
     "CallbackSenderAction=1 <<\n",
     {},
     "DATA",
     "refused by [GreyListing] CallbackSenderAction, \"1\""},
    // Replies.
    {"[Common]\nLocalDomains=a.example\n[ResponseChanges]\n550=<x>=<y>\nRCPT.Relaying=<allowed>=<possible> "
     "<<\n",
     {},
     "",
     "changed by [ResponseChanges] RCPT.Relaying, \"<allowed>=<possible>\""},
    {"[Common]\nLocalDomains=x.example\nPrivateRecipients=u@x.example\n[ResponseChanges]\n"
     "RCPT.Private=<none>=<a>\nRCPT.Private.u@x.example=<none>=<a>\nRCPT.Private.u@x.example=<550>=<551> "
     "<<\n",
     {},
     "",
     "changed by [ResponseChanges] RCPT.Private.u@x.example, \"<550>=<551>\""},
    {"[Common]\nLocalDomains=x.example\n[ResponseChanges]\nMAIL.250=<450 Later.> <<\n",
     {},
     "MAIL",
     "refused by [ResponseChanges] MAIL.250, \"<450 Later.>\""},
};

class ExplainPlacesTest : public ProgramTest {
 protected:
  // `text` without the mark, and where that was: "x.ini:3".
  static std::string WithoutMark(std::string_view text, const std::string& file, std::string& place) {
    constexpr std::string_view kMark = " <<";
    std::string result(text);
    const std::size_t at = result.find(kMark);
    if (at == std::string::npos) return result;
    const auto lines = std::count(result.begin(), result.begin() + static_cast<std::ptrdiff_t>(at), '\n');
    place = file + ":" + std::to_string(lines + 1);
    return result.erase(at, kMark.size());
  }

  static std::vector<std::string_view> Arguments(const Row& row) {
    std::vector<std::string_view> arguments{"--explain", "/I", "x.ini"};
    for (const std::string_view usual :
         {"client=192.0.2.1", "name=mx.test", "helo=mx.test", "from=s@b.test", "to=u@x.example"}) {
      const std::string_view name = usual.substr(0, usual.find('=') + 1);
      const bool given = std::any_of(row.arguments.begin(), row.arguments.end(),
                                     [&](std::string_view argument) { return argument.starts_with(name); });
      if (!given) arguments.push_back(usual);
    }
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    return arguments;
  }

  // The line that begins with `step`.
  std::string LineOf(std::string_view step) const {
    const std::string said = out_.str();
    std::vector<std::string_view> lines = Split(said, '\n');
    lines.pop_back();
    if (step.empty()) return lines.empty() ? std::string() : std::string(lines.back());
    const auto line =
        std::find_if(lines.begin(), lines.end(), [&](std::string_view one) { return one.starts_with(step); });
    return line == lines.end() ? "no such step" : std::string(*line);
  }
};

TEST_F(ExplainPlacesTest, NamesTheLineOfEachEntry) {
  ASSERT_GE(std::size(kRows), 50U);
  for (const bool crlf : {false, true}) {
    for (const Row& row : kRows) {
      std::string place;
      std::string ini = WithoutMark(row.ini, "x.ini", place);
      std::string list = WithoutMark(row.list == nullptr ? "" : row.list, "hosts.list", place);
      ASSERT_NE(place, "") << row.ini;
      if (crlf) ini = ReplaceAll(ini, "\n", "\r\n");
      if (crlf) list = ReplaceAll(list, "\n", "\r\n");
      WriteFile(folder_ / "x.ini", ini);
      WriteFile(folder_ / "hosts.list", list);
      out_.str("");
      err_.str("");
      RunProgram(Arguments(row), MakeDependencies());
      EXPECT_EQ(err_.str(), "") << row.ini;
      EXPECT_THAT(LineOf(row.step), testing::HasSubstr(std::string(row.ground) + ", " + place))
          << row.ini << out_.str();
    }
  }
}

}  // namespace
}  // namespace trabex

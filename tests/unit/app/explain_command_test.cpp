// The switch that says what the settings would make of a client and its mail.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "app/start_up.h"
#include "base/text.h"
#include "greylist/database_file.h"
#include "greylist/triple_key.h"
#include "program_fixture.h"

namespace trabex {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class ExplainCommandTest : public ProgramTest {
 protected:
  int Run(const std::vector<std::string>& arguments) {
    out_.str("");
    err_.str("");
    std::vector<std::string_view> all{"--explain", "/I", "x.ini"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return RunProgram(all, MakeDependencies());
  }
  std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    const std::string said = out_.str();
    for (const std::string_view line : Split(said, '\n')) lines.emplace_back(line);
    lines.pop_back();
    return lines;
  }
  void WriteIni(const std::string& lines) { WriteFile(folder_ / "x.ini", lines); }
};

constexpr std::string_view kIni = R"([Common]
LocalHostName=proxy.test
LocalIPs=10.0.0.0/8
LocalDomains=x.example
IPBlackList=203.0.113.0/24
SendersBlackList=*@spam.example
RecipientsBlackListRemote=*@y.x.example, nobody@x.example
RecipientsBlackListRemote=ghost@x.example
ValidateRDNS=2
[RecipientReplacements.Remote]
alias@x.example=box@x.example
[ResponseChanges]
RCPT.BlackList.Remote=<Unknown>=<No such>
DATA.354=<no, not this>=<nothing>, <Go ahead>=<Send it>
)";

TEST_F(ExplainCommandTest, TellsEachStepAndTheReply) {
  WriteIni(std::string(kIni));
  EXPECT_EQ(Run({"client=192.0.2.7", "name=mail.test", "helo=mail.test", "from=a@b.test",
                 "to=alias@x.example", "to=ghost@x.example", "ext=SIZE 1000", "size=500"}),
            10);
  EXPECT_EQ(err_.str(), "");
  EXPECT_THAT(
      Lines(),
      testing::ElementsAre(
          "client 192.0.2.7: taken by [Common] IPAllowList, \"0.0.0.0/0\", default; "
          "remote by [Common] LocalIPs, no entry, x.ini:3",
          "name mail.test: taken by [Common] HostsAllowList, \"*\", default",
          "EHLO mail.test: taken; not judged by [Common] ValidateHELO, \"0\", default; offers SIZE 1000",
          "MAIL a@b.test: taken by [Common] SendersAllowList, \"*\", default",
          "RCPT alias@x.example: taken by [Common] RecipientsAllowListRemote, \"*\", default; sent on as "
          "<box@x.example> by [RecipientReplacements.Remote] alias@x.example, \"box@x.example\", x.ini:11",
          "RCPT ghost@x.example: refused by [Common] RecipientsBlackListRemote, \"ghost@x.example\", x.ini:8",
          "DATA: taken",
          "550 5.1.1 No such or invalid recipient: ghost@x.example. (RCPT.BlackList.Remote; changed by "
          "[ResponseChanges] RCPT.BlackList.Remote, \"<Unknown>=<No such>\", x.ini:13)"));
}

TEST_F(ExplainCommandTest, TellsWhichRuleOfSeveralHasChangedTheReply) {
  WriteIni(std::string(kIni));
  EXPECT_EQ(Run({"client=10.1.2.3", "name=none", "from=<>", "to=any@where.test"}), 0);
  EXPECT_EQ(
      Lines().back(),
      "354 Send it (DATA.354; changed by [ResponseChanges] DATA.354, \"<Go ahead>=<Send it>\", x.ini:14)");
}

TEST_F(ExplainCommandTest, NamesWhatIsNotGiven) {
  WriteIni(
      "[Common]\nLocalDomains=x.example\nValidateHELO=15\nHELOBlackList=*\nRestrictedSenders=*\nMaxSize=5\n"
      "[GreyListing]\nEnabled=1\n");
  EXPECT_EQ(Run({"client=192.0.2.1"}), 0);
  const std::string asked =
      "client 192.0.2.1: taken by [Common] IPAllowList, \"0.0.0.0/0\", default; remote by "
      "[Common] LocalIPs, no entry, default";
  EXPECT_THAT(Lines(), testing::ElementsAre(
                           asked, "name (none): not judged, [Common] ValidateRDNS, \"0\", default",
                           "EHLO: passed without checks, helo= is missing; offers SIZE 5",
                           "MAIL: passed without checks, from= is missing; size not judged, size= is missing",
                           "RCPT: passed without checks, to= is missing", "250 OK (MAIL.250)"));
  EXPECT_EQ(Run({"client=192.0.2.1", "to=a@x.example"}), 0);
  EXPECT_THAT(Lines()[4], HasSubstr("; greylisting not judged, from= is missing"));
  EXPECT_EQ(Lines()[5], "DATA: taken");
  EXPECT_EQ(Run({"client=127.0.0.1", "to=a@other.example"}), 0) << "RestrictedSenders needs the sender";
}

TEST_F(ExplainCommandTest, SaysWhoseLimitAMessageExceeds) {
  WriteIni("[Common]\nLocalDomains=x.example\nMaxSize=1000\n");
  const std::vector<std::string> mail = {"client=192.0.2.1", "helo=c.test", "from=a@b.test",
                                         "to=a@x.example"};
  const auto with = [&](std::vector<std::string> more) {
    more.insert(more.begin(), mail.begin(), mail.end());
    return more;
  };
  EXPECT_EQ(Run(with({"size=1001", "ext=SIZE 2000"})), 10);
  EXPECT_THAT(Lines()[3],
              HasSubstr(" refused by [Common] MaxSize, \"1000\", x.ini:3; the limit is 1000 bytes"));
  EXPECT_EQ(Run(with({"size=600", "ext=SIZE 500"})), 10);
  EXPECT_THAT(Lines()[3], HasSubstr("refused, MAIL.Size; the server's limit is 500 bytes"));
}

TEST_F(ExplainCommandTest, StopsWhereTheSessionDoes) {
  WriteIni(std::string(kIni));
  EXPECT_EQ(Run({"client=203.0.113.1", "name=mail.test", "to=a@x.example"}), 10);
  EXPECT_THAT(Lines(),
              testing::ElementsAre(
                  "client 203.0.113.1: refused by [Common] IPBlackList, \"203.0.113.0/24\", x.ini:5; "
                  "remote by [Common] LocalIPs, no entry, x.ini:3",
                  "name mail.test: not reached", "EHLO: not reached", "MAIL: not reached",
                  "RCPT a@x.example: not reached", "DATA: not reached",
                  "554 Connection from 203.0.113.1 not allowed. (IPBlackList)"));
  EXPECT_EQ(Run({"client=192.0.2.1", "name=none", "from=a@b.test"}), 11);
  EXPECT_EQ(Lines()[1], "name (none): refused by [Common] ValidateRDNS, \"2\", x.ini:9");
  EXPECT_EQ(Lines().back(), "454 Unable to verify DNS PTR record for 192.0.2.1. (NoPtr)");
  EXPECT_EQ(Run({"client=192.0.2.1", "name=m.test", "from=a@spam.example", "to=b@x.example"}), 10);
  EXPECT_EQ(Lines()[4], "RCPT b@x.example: not reached");
}

class ExplainGreylistingTest : public ExplainCommandTest {
 protected:
  void SetUp() override {
    WriteIni("[Common]\nLocalDomains=x.example\n[GreyListing]\nEnabled=1\nDatabase=" + (folder_ / "grey.db") +
             "\nDelay=10\n"
             "HostsBlackList=dyn.*\nIPWhiteList=198.51.100.0/24\nMinCount=1\n");
    clock_.SetNow(FromUnix(1'700'000'000, 0));
  }
  std::string Recipient(const std::vector<std::string>& more) {
    std::vector<std::string> arguments{"name=mail.test", "from=a@b.test", "to=c@x.example"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    Run(arguments);
    return Lines()[4];
  }
};

TEST_F(ExplainGreylistingTest, AFirstContact) {
  EXPECT_EQ(Recipient({"client=192.0.2.1"}),
            "RCPT c@x.example: refused by [GreyListing] Delay, \"10\", x.ini:6; greylisting: new, not known "
            "before, "
            "attempt 1, delayed until 2023-11-14T22:23:20Z, expires 2023-11-15T02:13:20Z");
  EXPECT_EQ(Lines().back(), "451 4.7.1 Greylisted. Delivery delayed. (RCPT.Greylisted)");
}

TEST_F(ExplainGreylistingTest, APretendedFirstContact) {
  EXPECT_THAT(
      Recipient({"client=192.0.2.1", "seen=9"}),
      HasSubstr("[GreyListing] Delay, \"10\", x.ini:6; greylisting: delayed, known, attempt 2, delayed until "
                "2023-11-14T22:14:20Z"));
  EXPECT_THAT(
      Recipient({"client=192.0.2.1", "seen=11"}),
      StartsWith(
          "RCPT c@x.example: taken by [Common] RecipientsAllowListRemote, \"*\", default; greylisting: "
          "accepted, known, attempt 2, expires "));
}

TEST_F(ExplainGreylistingTest, Lists) {
  EXPECT_THAT(
      Recipient({"client=198.51.100.1"}),
      HasSubstr("greylisting: whitelisted by [GreyListing] IPWhiteList, \"198.51.100.0/24\", x.ini:8"));
  Run({"client=192.0.2.1", "name=dyn.test", "from=a@b.test", "to=c@x.example"});
  EXPECT_THAT(Lines()[4], StartsWith("RCPT c@x.example: refused by [GreyListing] BlackListDelay, "));
  EXPECT_THAT(Lines()[4], HasSubstr("new, blacklisted by [GreyListing] HostsBlackList, \"dyn.*\", x.ini:7,"));
}

TEST_F(ExplainGreylistingTest, TheRecordOfTheFile) {
  GreyListingDatabase database;
  const DateTime now = clock_.UniversalNow();
  database.Add({TripleKey("192.0.2", "a@b.test", "c@x.example"), now + 1, now - 0.01, -1});
  SaveDatabaseFile(folder_ / "grey.db", database, now);
  EXPECT_THAT(Recipient({"client=192.0.2.99"}), HasSubstr("greylisting: accepted, known, attempt 2, "));
  EXPECT_THAT(Recipient({"client=192.0.3.1"}), HasSubstr("greylisting: new, "));
  // Nothing of it was written.
  EXPECT_EQ(LoadDatabaseFile(folder_ / "grey.db").Count(), 1U);
}

TEST_F(ExplainGreylistingTest, AFileThatCannotBeRead) {
  WriteFile(folder_ / "grey.db", "nonsense");
  EXPECT_EQ(Run({"client=192.0.2.1", "from=a@b.test", "to=c@x.example"}), 1);
  EXPECT_THAT(err_.str(), StartsWith("Trabex: Unable to load GreyListing database. Error "));
  EXPECT_EQ(Run({"client=192.0.2.1", "from=a@b.test"}), 0) << "nobody asks for a record";
}

TEST_F(ExplainGreylistingTest, ACallbackIsRefusedAtData) {
  WriteIni(
      "[Common]\nLocalDomains=x.example\n[GreyListing]\nEnabled=1\nHostsBlackList=none\nCallbackSenderAction="
      "1\n"
      "CallbackSendersList=check@b.test\n");
  EXPECT_EQ(Run({"client=192.0.2.1", "from=check@b.test", "to=c@x.example"}), 11);
  EXPECT_THAT(Lines()[4],
              HasSubstr("greylisting: callback by [GreyListing] CallbackSendersList, \"check@b.test\", "
                        "x.ini:7"));
  EXPECT_EQ(Lines()[5], "DATA: refused by [GreyListing] CallbackSenderAction, \"1\", x.ini:6");
  WriteIni(
      "[Common]\nLocalDomains=x.example\n[GreyListing]\nEnabled=1\nHostsBlackList=none\nCallbackSenderAction="
      "3\n"
      "CallbackSendersList=check@b.test\n");
  EXPECT_EQ(Run({"client=192.0.2.1", "from=check@b.test", "to=c@x.example"}), 11);
  EXPECT_EQ(Lines().back(), "The connection is closed without a reply. (DATA.Greylisted)");
}

TEST_F(ExplainCommandTest, AsksForNamesAsASessionDoes) {
  WriteIni("[Common]\nLocalDomains=x.example\nHostsBlackList=bad.*\nValidateRDNS=3\nValidateHELO=2\n");
  const auto dependencies = [&] {
    Dependencies all = MakeDependencies();
    all.make_names = [](EventLoop& loop) {
      auto names = std::make_unique<FakeNameLookup>(loop);
      names->SetName(*ParseIPAddress("192.0.2.1"), "bad.test");
      names->SetName(*ParseIPAddress("192.0.2.2"), "not a name");
      names->SetName(*ParseIPAddress("192.0.2.3"), "good.test");
      names->SetAddresses("other.test", {*ParseIPAddress("192.0.2.9")});
      return names;
    };
    return all;
  };
  const auto run = [&](std::string_view client) {
    out_.str("");
    return RunProgram(std::vector<std::string_view>{"--explain", "/I", "x.ini", client, "helo=other.test"},
                      dependencies());
  };
  EXPECT_EQ(run("client=192.0.2.1"), 10);
  EXPECT_EQ(Lines()[1], "name bad.test: refused by [Common] HostsBlackList, \"bad.*\", x.ini:3");
  EXPECT_EQ(run("client=192.0.2.2"), 11);
  EXPECT_EQ(run("client=192.0.2.3"), 10);
  EXPECT_EQ(Lines()[2], "EHLO other.test: refused by [Common] ValidateHELO, \"2\", x.ini:5");
  EXPECT_EQ(Lines().back(),
            "550 Domain other.test doesn't correspond to IP address 192.0.2.3. (HELO.Invalid)");
}

TEST_F(ExplainCommandTest, AFailedLookUpCountsAsTheSettingsSay) {
  constexpr const char* kHead =
      "[Common]\nLocalDomains=x.example\nValidateRDNS=2\nHostsWhiteList=[]\n[GreyListing]\n"
      "Enabled=1\nHostsBlackList=[]\nHostsWhiteList=a\n[Service]\n";
  const std::vector<std::string> arguments{"client=192.0.2.1", "name=dnsfail", "from=a@b.test",
                                           "to=c@x.example"};
  WriteIni(std::string(kHead) + "DnsFailure=0\n");
  EXPECT_EQ(Run(arguments), 11);
  EXPECT_EQ(Lines()[1],
            "name (none): taken by [Common] HostsWhiteList, \"[]\", x.ini:4; the look-up fails for now, "
            "which counts as no name by [Service] DnsFailure, \"0\", x.ini:10");
  EXPECT_THAT(Lines()[4], HasSubstr("blacklisted by [GreyListing] HostsBlackList"));
  WriteIni(std::string(kHead) + "DnsFailure=1\n");
  EXPECT_EQ(Run(arguments), 11);
  EXPECT_EQ(Lines()[1],
            "name (none): refused by [Common] ValidateRDNS, \"2\", x.ini:3; the look-up fails for now, "
            "which does not count as no name by [Service] DnsFailure, \"1\", x.ini:10");
  WriteIni(ReplaceAll(std::string(kHead), "ValidateRDNS=2", "ValidateRDNS=1") + "DnsFailure=1\n");
  EXPECT_EQ(Run(arguments), 11);
  EXPECT_THAT(Lines()[4], testing::Not(HasSubstr("blacklisted")));
}

TEST_F(ExplainCommandTest, LooksIntoLists) {
  WriteIni(std::string(kIni) + "[ListFiles]\nCommon.HostsWhiteList=hosts.list\n");
  WriteFile(folder_ / "hosts.list", "# names\nmail.test\n\n*.test\n");
  const std::string limit =
      "[Common] HostsWhiteList: consulted for remote clients only, by [Common] ValidateRDNS, "
      "\"2\", x.ini:9\n";
  EXPECT_EQ(Run({"list=HostsWhiteList", "value=mail.test"}), 0);
  EXPECT_EQ(out_.str(),
            "[Common] HostsWhiteList, \"mail.test\", hosts.list:2\n[Common] HostsWhiteList, \"*.test\", "
            "hosts.list:4\n" +
                limit);
  EXPECT_EQ(Run({"list=common.hostswhitelist", "value=none"}), 0);
  EXPECT_EQ(out_.str(), "[Common] HostsWhiteList: no entry matches \"\"\n" + limit);
  WriteIni("[Common]\nLocalDomains=x.example\nHostsBlackList=a\nHELOBlackList=a\n");
  const struct {
    const char* list;
    const char* value;
    const char* last;
  } rows[] = {
      {"HostsBlackList", "a", "consulted, by [Common] ValidateRDNS, \"0\", default"},
      {"HostsAllowList", "a", "consulted, by [Common] ValidateRDNS, \"0\", default"},
      {"HELOBlackList", "a", "consulted, by [Common] ValidateHELO, \"0\", default"},
      {"GreyListing.HostsBlackList", "a", "consulted, by [GreyListing] Enabled, \"0\", default"},
      {"CallbackSendersList", "a@b.test", "consulted, by [GreyListing] Enabled, \"0\", default"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Run({std::string("list=") + row.list, std::string("value=") + row.value}), 0) << row.list;
    EXPECT_THAT(Lines().back(), testing::EndsWith(std::string(": not ") + row.last));
  }
}

TEST_F(ExplainCommandTest, SaysWhatIsWrongWithItsArguments) {
  WriteIni(std::string(kIni));
  const struct {
    std::vector<std::string> arguments;
    const char* error;
  } rows[] = {
      {{"client=192.0.2"}, "\"192.0.2\" is no IP address."},
      {{"client="}, "\"\" is no IP address."},
      {{"name=a"}, "\"client=\" is missing."},
      {{"client=::1", "name=a b"}, "\"a b\" is no name of a host."},
      {{"client=::1", "helo=a b"}, "\"a b\" is no name for EHLO."},
      {{"client=::1", "helo=a\nQUIT"}, "\"a\\x0AQUIT\" is no name for EHLO."},
      {{"client=::1", "from=a@b@c@"}, "\"a@b@c@\" is no mail address."},
      {{"client=::1", "from="}, "The empty sender is written \"<>\"."},
      {{"client=::1", "to=<>"}, "A recipient cannot be empty."},
      {{"client=::1", "to=a b@c"}, "\"a b@c\" is no mail address."},
      {{"client=::1", "to=a@b> X <c@d"}, "\"a@b> X <c@d\" is no mail address."},
      {{"client=::1", "size=-1"}, "size: \"-1\" is no whole number from 0 to 922337203685476."},
      {{"client=::1", "seen=1.5"}, "seen: \"1.5\" is no whole number from 0 to 52560000."},
      {{"client=::1", "ext="}, "\"\" is no extension line."},
      {{"client=::1", "client=::1"}, "\"client=\" is given twice."},
      {{"client=::1", "other=1"}, "\"other=\" is not known."},
      {{"client=::1", "word"}, "\"word\" is not known."},
      {{"list=HostsWhiteLst", "value=a"},
       "\"HostsWhiteLst\" is no list that something is looked for in. (did you mean \"HostsWhiteList\"?)"},
      {{"list=MaxSize", "value=a"}, "\"MaxSize\" is no list that something is looked for in."},
      {{"list=HostsWhiteList"}, "\"list=\" and \"value=\" go together."},
      {{"list=HostsWhiteList", "value=a b"}, "\"a b\" is no name of a host."},
      {{"list=IPBlackList", "value=host"}, "\"host\" is no IP address."},
      {{"list=SendersBlackList", "value=a@"}, "\"a@\" is no mail address."},
      {{"list=IPBlackList", "value=::1", "client=::1"}, "\"client=\" does not go with \"list=\"."},
      {{"list=IPBlackList", "value=::1", "--live"}, "--live goes with \"client=\" only."},
      {{}, "Argument expected after \"--explain\"."},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Run(row.arguments), 2) << row.error;
    EXPECT_EQ(err_.str(), std::string("Trabex: ") + row.error + "\n");
    EXPECT_EQ(out_.str(), "");
  }
}

TEST_F(ExplainCommandTest, AFileWithErrorsIsNotExplained) {
  WriteIni("[Common]\nLocalDomains=x.example\nTimeout=x\nLogPath=/no/such/folder/at/all\n");
  EXPECT_EQ(Run({"client=::1"}), 1);
  EXPECT_EQ(out_.str(), "");
  EXPECT_EQ(err_.str(),
            "x.ini:3: error: [Common] Timeout: Value is not a number: \"x\".\n1 errors, 0 warnings\n");
}

TEST_F(ExplainCommandTest, AClientThatMustUseTlsCountsAsUnderIt) {
  WriteIni("[Common]\nLocalDomains=x.example\n[TLS]\nRequire=2\n");
  EXPECT_EQ(Run({"client=192.0.2.1", "from=a@b.test", "to=c@x.example"}), 0);
  EXPECT_THAT(Lines()[0],
              testing::EndsWith("; counts as under TLS, which it must use by [TLS] Require, \"2\", x.ini:4"));
  EXPECT_EQ(Run({"client=127.0.0.1"}), 0);
  EXPECT_THAT(Lines()[0], testing::Not(HasSubstr("TLS")));
}

TEST_F(ExplainCommandTest, AddressesBeyondAsciiNeedTheServersWord) {
  WriteIni("[Common]\nLocalDomains=x.example\n");
  const std::string recipient = "to=j\xC3\xBCrgen@x.example";
  EXPECT_EQ(Run({"client=192.0.2.1", "from=a@b.test", recipient}), 10);
  EXPECT_THAT(Lines()[4], HasSubstr(": refused, RCPT.AddressSyntax"));
  EXPECT_EQ(Run({"client=192.0.2.1", "from=a@b.test", recipient, "ext=SMTPUTF8"}), 0);
}

}  // namespace
}  // namespace trabex

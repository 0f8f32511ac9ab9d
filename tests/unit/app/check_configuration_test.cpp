// A check of the settings finds each thing that may be wrong with them, and where.
#include "app/check_configuration.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "net/socket_errors.h"
#include "platform/files.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

using Lines = std::vector<std::string>;

// A file without anything to find; rows add lines from the fifth on.
class CheckTest : public testing::Test {
 protected:
  std::string Base() const {
    return "[Common]\nBindPort=2525\nLogPath=" + folder_.Path() + "\nLocalDomains=example.org\n";
  }
  CheckedConfiguration Check(const std::string& text) {
    WriteFile(folder_ / "x.ini", text);
    return CheckConfiguration(
        {.file = "x.ini",
         .early = {.ini_path = folder_ / "x.ini", .program_directory = folder_.Path()},
         .context = {.program_directory = folder_.Path(),
                     .local_host_name = [] { return std::string("proxy.test"); },
                     .accepts_ciphers = [](const std::string& list) { return list != "bad"; }},
         .may_listen_on = [](std::int32_t port) { return port >= 1024; }},
        DefaultConfiguration());
  }
  // Without the name of the file.
  Lines Found(const std::string& text) {
    Lines lines;
    for (const Finding& finding : Check(text).findings) {
      const std::string line = FormatFinding(finding);
      EXPECT_TRUE(line.starts_with("x.ini:")) << line;
      lines.push_back(line.substr(6));
    }
    return lines;
  }

  TempFolder folder_;
};

TEST_F(CheckTest, FindsNothingInAGoodFile) {
  EXPECT_EQ(Found(Base()), Lines{});
}

struct Row {
  const char* lines;
  Lines found;
};

TEST_F(CheckTest, FindsWhatTheReadersReport) {
  const Row rows[] = {
      {"novalue\n", {"5: error: [Common]: Invalid line: \"novalue\"."}},
      {"\n; x\r\n\rnovalue", {"8: error: [Common]: Invalid line: \"novalue\"."}},
      {"BindPort=26\n",
       {"5: error: [Common] BindPort: Key \"BindPort\"  in section \"Common\" defined more than once."}},
      {"Timeout=abc\n", {"5: error: [Common] Timeout: Value is not a number: \"abc\"."}},
      {"Timeout=\n", {"5: error: [Common] Timeout: Integer value expected."}},
      {"MaxSize=-3K\n",
       {"5: error: [Common] MaxSize: Value -3 lies out of allowed range: from -2 to 922337203685476. (in "
        "\"-3K\")"}},
      {"Log=3\n", {"5: error: [Common] Log: Value 3 lies out of allowed range: from 0 to 2."}},
      {"IgnoreIniErrors=2\n",
       {"5: error: [Common] IgnoreIniErrors: Value 2 lies out of allowed range: from 0 to 1."}},
      {"IgnoreIniErrors=0\nTimeout=a\nMaxBadSeq=b\n",
       {"6: error: [Common] Timeout: Value is not a number: \"a\".",
        "7: error: [Common] MaxBadSeq: Value is not a number: \"b\"."}},
      {"SendersBlackList=a,[x b\n",
       {"5: error: [Common] SendersBlackList: Invalid Regular Expression in string: \"[x\". (in \"[x b\")"}},
      {"SendersBlackList=a\nTimeout=1\nSendersBlackList=b,A\n",
       {"7: error: [Common] SendersBlackList: Expression \"A\" specified more than once."}},
      {"SendersBlackList=\"a\nSendersBlackList=b\n",
       {"5: error: [Common] SendersBlackList: Unbalanced delimiters in delimited string \"\"a\"."}},
      {"IPBlackList=10.0.0.1\nIPBlackList=10.0.0.2, 1.2.3\n",
       {"6: error: [Common] IPBlackList: Invalid IP address: \"1.2.3\"."}},
      {"ProxyProtocolFrom=10.0.0.1,0.0.0.0/0\n",
       {"5: error: [Common] ProxyProtocolFrom: Invalid IP address range: \"0.0.0.0/0\"."}},
      {"[TLS]\nMinVersion=2\n", {"6: error: [TLS] MinVersion: Inadmissible string: \"2\"."}},
      {"[TLS]\nCiphers=bad\n", {"6: error: [TLS] Ciphers: Inadmissible string: \"bad\"."}},
      {"[TLS]\nClientCertificates=2\n",
       {"6: error: [TLS] ClientCertificates: ClientCA expected. (in \"2\")"}},
      {"BindPortTLS=465\n", {"5: error: [Common] BindPortTLS: Value 465 is no port for TLS."}},
      {"[TLS]\nCertificate=/a.pem, /x y z\n",
       {"6: error: [TLS] Certificate: Invalid certificate entry \"/x y z\"."}},
      {"[GreyListing]\nSaveInterval=5\n",
       {"6: error: [GreyListing] SaveInterval: Value 5 lies out of allowed range: from 10 to 2147483647."}},
      {"[Service]\nStatusHTTP=9425\n", {"6: error: [Service] StatusHTTP: Inadmissible string: \"9425\"."}},
      {"[Service]\nJsonEvents=start,x\n", {"6: error: [Service] JsonEvents: Inadmissible string: \"x\"."}},
      {"[SenderReplacements.Local]\n*[=y\n",
       {"6: error: [SenderReplacements.Local] *[: Invalid Regular Expression in key name."}},
      {"[ResponseChanges]\n550=<a>\n550=<b>,x\n",
       {"7: error: [ResponseChanges] 550: Invalid replace record \"x\"."}},
  };
  for (const Row& row : rows) EXPECT_EQ(Found(Base() + row.lines), row.found) << row.lines;
}

TEST_F(CheckTest, FindsNamesThatThereAreNot) {
  const Row rows[] = {
      {"[Comon]\n", {"5: error: [Comon]: Invalid section name: \"Comon\". (did you mean \"Common\"?)"}},
      {"[Nothing like it]\nx=1\n",
       {"5: error: [Nothing like it]: Invalid section name: \"Nothing like it\".",
        "6: error: Section name expected: \"x=1\"."}},
      {"Timeot=1\n", {"5: error: [Common] Timeot: Unknown key. (did you mean \"Timeout\"?)"}},
      {"Certificate=1\n", {"5: error: [Common] Certificate: Unknown key."}},
      {"[GreyListing]\nenable=1\n",
       {"6: error: [GreyListing] enable: Unknown key. (did you mean \"Enabled\"?)"}},
      {"[TLS]\nServerCa=/x\nServerCAs=/x\n",
       {"7: error: [TLS] ServerCAs: Unknown key. (did you mean \"ServerCA\"?)"}},
      {"[Service]\nServerTimeot=1\n",
       {"6: error: [Service] ServerTimeot: Unknown key. (did you mean \"ServerTimeout\"?)"}},
      {"[ResponseChanges]\nRCPT.Relayin=<x>\n",
       {"6: error: [ResponseChanges] RCPT.Relayin: No reply has this key. (did you mean "
        "\"RCPT.Relaying\"?)"}},
      {"[ResponseChanges]\n550=<550 {%from%} {%CRLF%}>,<a>=<{%fromm%}>\n",
       {"6: error: [ResponseChanges] 550: Unknown macro \"{%fromm%}\". (did you mean \"{%from%}\"?)"}},
      {"[ResponseChanges]\n550=<550 a>\n550=<550 {%nothing of it%}>\n",
       {"7: error: [ResponseChanges] 550: Unknown macro \"{%nothing of it%}\"."}},
      {"[ResponseChanges]\n550=<{%from>\n", {}},
      {"[ResponseChanges]\n550=<{%x%}>=<y>\n", {}},  // what is searched for has no macros
  };
  for (const Row& row : rows) EXPECT_EQ(Found(Base() + row.lines), row.found) << row.lines;
}

TEST_F(CheckTest, FindsRelayingForAll) {
  const std::string text = "Every client may send mail to every domain: ";
  const std::string local = ": error: [Common] LocalIPs: " + text;
  EXPECT_EQ(Found(Base() + "LocalIPs=10.0.0.0/8\nLocalIPs=::1, 0.0.0.0/0,::/0\n"),
            (Lines{"6" + local + "\"0.0.0.0/0\" holds all addresses.",
                   "6" + local + "\"::/0\" holds all addresses."}));
  EXPECT_EQ(Found(Base() + "LocalIPs=128.0.0.0/1,0.0.0.0-127.255.255.255\nLocalIPs=::/0\n"),
            (Lines{"5" + local + "its entries together hold all addresses of IPv4.",
                   "6" + local + "\"::/0\" holds all addresses."}));
  EXPECT_EQ(Found(Base() + "LocalIPs=0.0.0.0/0,0.0.0.0/1\nLocalIPs=::/1,8000::/1\n"),
            (Lines{"5" + local + "\"0.0.0.0/0\" holds all addresses.",
                   "5" + local + "its entries together hold all addresses of IPv6."}));
  EXPECT_EQ(Found(Base() + "LocalIPs=0.0.0.0-255.255.255.254,::/1,8000::1-ffff::\n"), Lines{});
  for (const char* entry : {"*", "?*", "*.*", "*?", "?*.?*", "**.**", "[]example", "* *.*", "???*"}) {
    EXPECT_EQ(Found(Base() + "LocalDomains=a.example," + entry + "\n"),
              (Lines{"5: error: [Common] LocalDomains: " + text + "\"" + entry + "\" matches every domain."}))
        << entry;
  }
  for (const char* entry : {"*.org", "*.example.org", "*.*.*", "?.?", "*.?", "a*", "*[a-z]*", "[]*.org", "[]",
                            "[]x.example", "* *.org", "????*", "#*", "."}) {
    EXPECT_EQ(Found(Base() + "LocalDomains=" + entry + "\n"), Lines{}) << entry;
  }
}

TEST_F(CheckTest, FindsWhatTwoListsName) {
  const struct {
    const char* section;
    const char* white;
    const char* black;
    const char* entry;
    const char* same;
  } rows[] = {
      {"Common", "IPWhiteList", "IPBlackList", "10.0.0.0/8", "10.0.0.0-10.255.255.255"},
      {"Common", "HostsWhiteList", "HostsBlackList", "*.example.org", "*.EXAMPLE.org"},
      {"Common", "SendersWhiteList", "SendersBlackList", "\"a,b\"", "\"A,b\""},
      {"Common", "RecipientsWhiteListLocal", "RecipientsBlackListLocal", "a* *b", "a*  *b"},
      {"Common", "RecipientsWhiteListRemote", "RecipientsBlackListRemote", "x@y", "x@y"},
      {"GreyListing", "IPWhiteList", "IPBlackList", "::1", "0::1"},
      {"GreyListing", "HostsWhiteList", "HostsBlackList", "[]", "[]"},
  };
  for (const auto& row : rows) {
    const std::string lines = "[" + std::string(row.section) + "]\n" + row.white + "=other\n" + row.white +
                              "=x1," + row.entry + "\n" + row.black + "=" + row.same + "\n";
    std::string good = lines;
    if (std::string(row.white) == "IPWhiteList") {
      good = "[" + std::string(row.section) + "]\n" + row.white + "=1.2.3.4\n" + row.white + "=1.2.3.5," +
             row.entry + "\n" + row.black + "=" + row.same + "\n";
    }
    EXPECT_EQ(Found(Base() + good), (Lines{"7: warning: [" + std::string(row.section) + "] " + row.white +
                                           ": \"" + row.entry + "\" stands in " + row.black + " too."}));
  }
  EXPECT_EQ(Found(Base() + "IPWhiteList=10.0.0.1\nIPBlackList=10.0.0.0/8\n"), Lines{})
      << "a part of what is refused may be let in";
}

TEST_F(CheckTest, FindsDefaultsThatAreTaken) {
  const Row rows[] = {
      {"BindIP=localhost\n",
       {"5: error: [Common] BindIP: Inadmissible string: \"localhost\".",
        "5: warning: [Common] BindIP: The default is taken: 0.0.0.0"}},
      {"ServerPort=0\n",
       {"5: error: [Common] ServerPort: Value 0 lies out of allowed range: from 1 to 65535.",
        "5: warning: [Common] ServerPort: The default is taken: 25"}},
      {"IPAllowList=10.0.0/8\n",
       {"5: error: [Common] IPAllowList: Invalid IP address: \"10.0.0\". (in \"10.0.0/8\")",
        "5: warning: [Common] IPAllowList: Bad entries have left the list empty. It refuses everybody."}},
      {"IPAllowList=1.2.3\nIPWhiteList=10.0.0.1\n",
       {"5: error: [Common] IPAllowList: Invalid IP address: \"1.2.3\".",
        "5: warning: [Common] IPAllowList: Bad entries have left the list empty. It refuses everybody who is "
        "not in IPWhiteList."}},
      {"SendersAllowList=[x\n",
       {"5: error: [Common] SendersAllowList: Invalid Regular Expression in string: \"[x\".",
        "5: warning: [Common] SendersAllowList: Bad entries have left the list empty. It refuses "
        "everybody."}},
      {"RecipientsAllowListLocal=[x\n",
       {"5: error: [Common] RecipientsAllowListLocal: Invalid Regular Expression in string: \"[x\".",
        "5: warning: [Common] RecipientsAllowListLocal: Bad entries have left the list empty. It refuses "
        "everybody."}},
      {"HostsAllowList=[x\n",
       {"5: error: [Common] HostsAllowList: Invalid Regular Expression in string: \"[x\".",
        "5: warning: [Common] HostsAllowList: Bad entries have left the list empty."}},
      {"ValidateRDNS=2\nHostsAllowList=[x\n",
       {"6: error: [Common] HostsAllowList: Invalid Regular Expression in string: \"[x\".",
        "6: warning: [Common] HostsAllowList: Bad entries have left the list empty. It refuses everybody."}},
      {"IPBlackList=1.2.3\n",
       {"5: error: [Common] IPBlackList: Invalid IP address: \"1.2.3\".",
        "5: warning: [Common] IPBlackList: Bad entries have left the list empty."}},
      {"IPAllowList=\n", {}},  // it was written so
  };
  for (const Row& row : rows) EXPECT_EQ(Found(Base() + row.lines), row.found) << row.lines;
}

TEST_F(CheckTest, FindsThatNoMailIsTaken) {
  const std::string without = "[Common]\nBindPort=2525\nLogPath=" + folder_.Path() + "\n";
  const std::string text =
      " warning: [Common] LocalDomains: The list is empty: no mail of remote clients is taken.";
  EXPECT_EQ(Found(without), (Lines{text}));
  EXPECT_EQ(Found(without + "LocalDomains=\n"), (Lines{"4:" + text}));
}

TEST_F(CheckTest, FindsThatClientsWithoutANameWait) {
  const std::string grey =
      Base() + "[GreyListing]\nEnabled=1\nBlackListDelay=90\nDatabase=" + (folder_ / "db") + "\n";
  const std::string text =
      " warning: [GreyListing] HostsBlackList: Clients without a name in DNS wait BlackListDelay, 90 "
      "minutes.";
  EXPECT_EQ(Found(grey), (Lines{text}));
  EXPECT_EQ(Found(grey + "HostsBlackList=[]\n"), (Lines{"9:" + text}));
  EXPECT_EQ(Found(grey + "HostsBlackList=\n"), Lines{});
  EXPECT_EQ(Found(grey + "HostsBlackList=[],*.dyn.example\n"), Lines{});
  EXPECT_EQ(Found(Base() + "[GreyListing]\nEnabled=0\n"), Lines{});
}

TEST_F(CheckTest, FindsFoldersThatAreMissing) {
  const std::string start = "[Common]\nBindPort=2525\nLocalDomains=example.org\nLogPath=";
  EXPECT_EQ(Found(start + (folder_ / "new") + "\n"), Lines{}) << "the log makes the last level";
  EXPECT_EQ(Found(start + (folder_ / "new/") + "\n"), Lines{});
  EXPECT_EQ(Found(start + (folder_ / "no/new") + "\n"),
            (Lines{"4: error: [Common] LogPath: The folder of the log, \"" + NativePath(folder_ / "no") +
                   "\", is missing."}));
  WriteFile(folder_ / "file", "");
  EXPECT_EQ(Found(start + (folder_ / "file") + "\n"),
            (Lines{"4: error: [Common] LogPath: The folder of the log, \"" + NativePath(folder_ / "file") +
                   "\", is missing."}));
  EXPECT_EQ(Found(start + (folder_ / "no/new") + "\nLog=0\n"), Lines{}) << "nothing is logged";

  const std::string grey = Base() + "[GreyListing]\nEnabled=1\nHostsBlackList=\n";
  EXPECT_EQ(Found(grey + "Database=" + (folder_ / "no/db") + "\n"),
            (Lines{"8: error: [GreyListing] Database: The folder of the database, \"" +
                   NativePath(folder_ / "no") + "\", is missing."}));
  EXPECT_EQ(Found(grey), (Lines{" error: [GreyListing] Database: The folder of the database, \"" +
                                NativePath(folder_ / "GreyListing") + "\", is missing."}));
  EXPECT_EQ(Found(Base() + "[GreyListing]\nDatabase=/no/such/folder/db\n"), Lines{}) << "it is not used";

  const std::string json = "[Service]\nJsonLog=";
  EXPECT_EQ(Found(start + (folder_ / "new") + "\n" + json + (folder_ / "no/log.json") + "\n"),
            (Lines{"6: error: [Service] JsonLog: The folder of the log in JSON, \"" +
                   NativePath(folder_ / "no") + "\", is missing."}));
  EXPECT_EQ(Found(start + (folder_ / "new") + "\n" + json + (folder_ / "new/log.json") + "\n"), Lines{})
      << "the log has made it by then";
  EXPECT_EQ(Found(start + (folder_ / "new") + "\n" + json + (folder_ / "log.json") + "\n"), Lines{});
  EXPECT_EQ(Found(start + (folder_ / "new") + "\n" + json + "-\n"), Lines{});
}

TEST_F(CheckTest, FindsPortsThatThisUserMayNotListenOn) {
  const std::string start = "[Common]\nLogPath=" + folder_.Path() + "\nLocalDomains=example.org\n";
  const auto text = [](const char* port) {
    return "This user has no right to listen on port " + std::string(port) + ".";
  };
  EXPECT_EQ(Found(start + "BindPort=1023\n"), (Lines{"4: warning: [Common] BindPort: " + text("1023")}));
  EXPECT_EQ(Found(start), (Lines{" warning: [Common] BindPort: " + text("25")})) << "the default";
  EXPECT_EQ(Found(start + "BindPort=1024\n"), Lines{});
  EXPECT_EQ(Found(start + "BindPort=2525\nBindPortTLS=465\n[TLS]\nCertificate=/c.pem\n"),
            (Lines{"5: warning: [Common] BindPortTLS: " + text("465")}));
}

TEST_F(CheckTest, FindsAStatusPageForAll) {
  EXPECT_EQ(Found(Base() + "[Service]\nStatusHTTP=127.0.0.1:9425\n"), Lines{});
  EXPECT_EQ(Found(Base() + "[Service]\nStatusHTTP=[::1]:9425\n"), Lines{});
  EXPECT_EQ(
      Found(Base() + "[Service]\nStatusHTTP=0.0.0.0:9425\n"),
      (Lines{"6: warning: [Service] StatusHTTP: \"0.0.0.0:9425\" is reached from other machines too."}));
}

TEST_F(CheckTest, FindsWhatIsWrongInListFiles) {
  const std::string hosts = folder_ / "hosts";
  WriteFile(hosts, "# x\na.example\n[x\nb.example\n");
  WriteFile(folder_ / "ranges", "10.0.0.1\n0.0.0.0/0\n1.2.3\n");
  WriteFile(folder_ / "x.ini", Base() +
                                   "HostsBlackList=B.example\n[ListFiles]\nCommon.HostsWhiteList=" + hosts +
                                   "\nCommon.LocalIPs=ranges\nCommon.HostWhiteList=/x\nCommon.IPBlackList=" +
                                   (folder_ / "none") + "\n");
  Lines lines;
  for (const Finding& finding : Check(ReadFile(folder_ / "x.ini")).findings) {
    lines.push_back(FormatFinding(finding));
  }
  EXPECT_EQ(
      lines,
      (Lines{"x.ini:9: error: [ListFiles] Common.HostWhiteList: No list has this name. (did you mean "
             "\"Common.HostsWhiteList\"?)",
             "x.ini:10: error: [ListFiles] Common.IPBlackList: Unable to read list file \"" +
                 (folder_ / "none") + "\". File not found.",
             "ranges:2: error: [Common] LocalIPs: Every client may send mail to every domain: "
             "\"0.0.0.0/0\" holds all addresses.",
             "ranges:3: error: [Common] LocalIPs: Invalid IP address: \"1.2.3\".",
             hosts + ":3: error: [Common] HostsWhiteList: Invalid Regular Expression in string: \"[x\".",
             hosts + ":4: warning: [Common] HostsWhiteList: \"b.example\" stands in HostsBlackList too."}));
}

TEST_F(CheckTest, NamesAFileThatIsNotThere) {
  const CheckedConfiguration checked =
      CheckConfiguration({.file = "y.ini",
                          .early = {.ini_path = folder_ / "y.ini", .program_directory = folder_.Path()},
                          .context = {}},
                         DefaultConfiguration());
  EXPECT_FALSE(checked.was_read);
  ASSERT_EQ(checked.findings.size(), 1U);
  EXPECT_EQ(FormatFinding(checked.findings[0]), "y.ini: error: Error reading initialization file \"" +
                                                    (folder_ / "y.ini") +
                                                    "\". Error number: 53, Description: File not found");
}

TEST_F(CheckTest, OrdersWhatItFindsByLines) {
  EXPECT_EQ(Found(Base() + "Timeot=1\nTimeout=x\n[Comon]\n[GreyListing]\nEnabled=1\nDatabase=" +
                  (folder_ / "db") + "\n[Common]\nnovalue\n"),
            (Lines{"5: error: [Common] Timeot: Unknown key. (did you mean \"Timeout\"?)",
                   "6: error: [Common] Timeout: Value is not a number: \"x\".",
                   "7: error: [Comon]: Invalid section name: \"Comon\". (did you mean \"Common\"?)",
                   "12: error: [Common]: Invalid line: \"novalue\".",
                   " warning: [GreyListing] HostsBlackList: Clients without a name in DNS wait "
                   "BlackListDelay, 64 minutes."}));
}

TEST_F(CheckTest, GivesTheConfigurationOfAStart) {
  const CheckedConfiguration checked = Check(Base() + "IgnoreIniErrors=0\nTimeout=x\nMaxBadSeq=7\n");
  EXPECT_TRUE(checked.was_read);
  EXPECT_EQ(checked.configuration.BindPort, 2525);
  EXPECT_FALSE(checked.configuration.IgnoreIniErrors);
  EXPECT_EQ(checked.configuration.Timeout, 300);
  EXPECT_EQ(checked.configuration.MaxBadSeq, 7);
}

TEST_F(CheckTest, FindsALoopAndAServerThatIsNotThere) {
  const std::vector<IPAddress> own = {*ParseIPAddress("192.0.2.7")};
  const struct {
    const char* lines;
    AddressAnswer answer;
    const char* found;
  } rows[] = {
      {"ServerIP=127.0.0.1\nServerPort=2525\n", {0, {*ParseIPAddress("127.0.0.1")}}, "5: error: "},
      {"ServerIP=mail.test\nServerPort=2525\n", {0, {*ParseIPAddress("192.0.2.7")}}, "5: error: "},
      {"ServerIP=mail.test\nServerPort=2525\n", {0, {*ParseIPAddress("192.0.2.8")}}, ""},
      {"BindIP=192.0.2.9\nServerIP=mail.test\nServerPort=2525\n", {0, {*ParseIPAddress("192.0.2.7")}}, ""},
      {"ServerIP=127.0.0.1\n", {0, {*ParseIPAddress("127.0.0.1")}}, ""},
      {"\n\nServerIP=mail.test\n", {11001, {}}, "7: warning: "},
  };
  for (const auto& row : rows) {
    CheckedConfiguration checked = Check(Base() + row.lines);
    CheckServer(row.answer, own, checked);
    if (*row.found == '\0') {
      EXPECT_TRUE(checked.findings.empty()) << row.lines;
      continue;
    }
    const std::string text =
        row.answer.error == 0
            ? "Loop detected: Server IP address and port point to listening address and port."
            : "\"mail.test\" is not found now: " + std::string(SocketErrorText(11001));
    ASSERT_EQ(checked.findings.size(), 1U) << row.lines;
    EXPECT_EQ(FormatFinding(checked.findings[0]),
              "x.ini:" + std::string(row.found) + "[Common] ServerIP: " + text);
  }
}

}  // namespace
}  // namespace trabex

#include "config/configuration_dump.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "config/early_keys.h"
#include "config/settings_table.h"
#include "config_support.h"

namespace trabex {
namespace {

TEST(LogConfiguration, WritesTheWholeConfiguration) {
  LoadedText loaded(
      "[Common]\nBindIP=192.0.2.1\nMaxSize=10M\nLocalDomains=a.test b.test,c.test\nSendersBlackList=\"x "
      "y\",\"p,q\" r\n"
      "[GreyListing]\nEnabled=1\nDelay=30\n[ResponseChanges]\nRCPT.Greylisted=<later>\nMAIL.250=<a>=<b>,<c>=="
      "<d>\n"
      "[SenderReplacements.Local]\n*@a.test=x@b.test\nz=\n[RecipientReplacements.Remote]\n\"a b\",c=d\n",
      false);
  ASSERT_TRUE(loaded.result);
  loaded.configuration.LogPath = WithPathsOfSystem("/var/log");
  loaded.configuration.Log = 2;
  const std::string equals = ";" + std::string(74, '=') + "\n";
  const std::string dashes = ";" + std::string(74, '-') + "\n";
  EXPECT_EQ(
      Joined(DumpLines(loaded.configuration)),
      WithPathsOfSystem(equals +
                        "; Initialization file: x.ini\n"
                        "; Current configuration:\n" +
                        equals +
                        "[Common]\n"
                        "Log = 2\n"
                        "LogPath = /var/log\n"
                        "LogLevelServer = 15\n"
                        "LogLevelRemote = 15\n"
                        "AutoReload = 1\n"
                        "IgnoreIniErrors = 0\n"
                        "BindIP = 192.0.2.1\n"
                        "BindPort = 25\n"
                        "ServerIP = 127.0.0.1\n"
                        "ServerPort = 25\n"
                        "LocalIPs = 127.0.0.0/8, 10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16, 169.254.0.0/16\n"
                        "LocalDomains = a.test b.test, c.test\n"
                        "LocalHostName = proxy.test\n"
                        "EnhancedStatusCodes = 1\n"
                        "MaxConnections = 0\n"
                        "Timeout = 300\n"
                        "ProcessAddressesWithoutBrackets = 0\n"
                        "IPWhiteList =\n"
                        "IPAllowList = 0.0.0.0/0\n"
                        "IPBlackList =\n"
                        "MaxBadSeq = 10\n"
                        "ValidateRDNS = 0\n"
                        "HostsWhiteList =\n"
                        "HostsAllowList = *\n"
                        "HostsBlackList =\n"
                        "RemoveSMTPExtensionsLocal =\n"
                        "RemoveSMTPExtensionsRemote =\n"
                        "AddSMTPExtensionsLocal =\n"
                        "AddSMTPExtensionsRemote =\n"
                        "ValidateHELO = 0\n"
                        "HELOBlackList =\n"
                        "MaxTransactionsLocal = 0\n"
                        "MaxTransactionsRemote = 0\n"
                        "MaxSize = 10M\n"
                        "SendersWhiteList =\n"
                        "SendersAllowList = *\n"
                        "SendersBlackList = \"x y\", \"p,q\" r\n"
                        "MaxRecipientsLocal = 0\n"
                        "MaxRecipientsRemote = 0\n"
                        "RecipientsWhiteListLocal =\n"
                        "RecipientsAllowListLocal = *\n"
                        "RecipientsBlackListLocal =\n"
                        "RecipientsWhiteListRemote =\n"
                        "RecipientsAllowListRemote = *\n"
                        "RecipientsBlackListRemote =\n"
                        "PrivateRecipients =\n"
                        "RestrictedSenders =\n"
                        "AddReceived = 1\n" +
                        dashes +
                        "[GreyListing]\n"
                        "Enabled = 1\n"
                        "Log = 0\n"
                        "Database = /opt/trabex/GreyListing/GreyListing.gldb\n"
                        "MinCount = 1\n"
                        "BlackListMinCount = 2\n"
                        "Delay = 30\n"
                        "BlackListDelay = 64\n"
                        "TTL = 51840\n"
                        "ShortTTL = 240\n"
                        "SaveInterval = 120\n"
                        "IPWhiteList =\n"
                        "HostsWhiteList =\n"
                        "IPBlackList =\n"
                        "HostsBlackList = []\n"
                        "CallbackSendersList = [], postmaster@*\n"
                        "CallbackSenderAction = 1\n" +
                        dashes +
                        "[ResponseChanges]\n"
                        "RCPT.Greylisted = <later>\n"
                        "MAIL.250 = <a>=<b>, <c>==<d>\n" +
                        dashes +
                        "[SenderReplacements.Local]\n"
                        "*@a.test = x@b.test\n"
                        "z = \n" +
                        dashes + "[SenderReplacements.Remote]\n" + dashes +
                        "[RecipientReplacements.Local]\n" + dashes +
                        "[RecipientReplacements.Remote]\n"
                        "\"a b\",c = d\n" +
                        equals));
}

// A dump from before they came stays as it was.
TEST(LogConfiguration, ShowsLaterSettingsOnlyWhenTheyDifferFromTheirDefault) {
  const struct {
    const char* section;
    const char* key;
    const char* default_value;
    const char* other_value;
    const char* line_before;
  } rows[] = {{"Common", "ConfirmHostNames", "0", "1", "AddReceived = 1"},
              {"Common", "ProxyProtocolFrom", "", "192.0.2.0/24, 192.0.3.1", "AddReceived = 1"},
              {"Common", "ProxyProtocolTimeout", "5", "600", "AddReceived = 1"},
              {"Common", "SendClientIP", "0", "3", "AddReceived = 1"},
              {"GreyListing", "MaxPending", "500000", "100", "CallbackSenderAction = 1"},
              {"GreyListing", "MaxPendingPerNetwork", "20000", "2147483647", "CallbackSenderAction = 1"},
              {"GreyListing", "IPv6Prefix", "64", "56", "CallbackSenderAction = 1"}};
  // Written out, since a balancer gives them another default.
  const std::string lists =
      "[Common]\nIPAllowList=0.0.0.0/0\n"
      "LocalIPs=127.0.0.0/8,10.0.0.0/8,172.16.0.0/12,192.168.0.0/16,169.254.0.0/16\n";
  const Lines without = DumpLines(LoadedText("", false).configuration);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.key);
    const auto dump_with = [&](const char* value) {
      return DumpLines(
          LoadedText(lists + "[" + std::string(row.section) + "]\n" + row.key + "=" + value + "\n", false)
              .configuration);
    };
    EXPECT_EQ(dump_with(row.default_value), without);
    Lines expected = without;
    expected.insert(std::find(expected.begin(), expected.end(), row.line_before) + 1,
                    std::string(row.key) + " = " + row.other_value);
    EXPECT_EQ(dump_with(row.other_value), expected);
  }
}

// The section is there with its line above it exactly when one of its settings is.
TEST(LogConfiguration, ShowsTheSectionTLSWhenItHasALine) {
  const Lines without = DumpLines(LoadedText("", false).configuration);
  const auto dump_with = [&](const std::string& lines) {
    return DumpLines(LoadedText("[TLS]\n" + lines, false).configuration);
  };
  const auto expected_with = [&](const Lines& lines) {
    Lines expected = without;
    const auto before = std::find(expected.begin(), expected.end(), "CallbackSenderAction = 1");
    Lines section = {";" + std::string(74, '-'), "[TLS]"};
    section.insert(section.end(), lines.begin(), lines.end());
    expected.insert(before + 1, section.begin(), section.end());
    return expected;
  };
  EXPECT_EQ(dump_with(""), without);
  EXPECT_EQ(dump_with("Certificate=\nMinVersion=1.2\nCiphers=\nRequire=0\nRequireForAUTH=3\n"
                      "ClientCertificates=0\nClientCA=\nSessionTickets=1\nHandshakeTimeout=30\n"
                      "MaxHandshakes=1000\nServer=0\nServerVerify=0\nServerName=\nServerCA=\n"),
            without);
  EXPECT_EQ(dump_with("Server=1\n"), expected_with({"Server = 1"}));

  Lines expected = expected_with(
      {WithPathsOfSystem("Certificate = /c \"/k y\""), "MinVersion = 1.3", "Ciphers = HIGH", "Require = 3",
       "RequireForAUTH = 0", "ClientCertificates = 2", WithPathsOfSystem("ClientCA = /ca"),
       "SessionTickets = 0", "HandshakeTimeout = 1", "MaxHandshakes = 0", "Server = 3", "ServerVerify = 1",
       "ServerName = n", WithPathsOfSystem("ServerCA = /opt/trabex/ca")});
  const Lines common = {"ConfirmHostNames = 1", "BindPortTLS = 465"};
  expected.insert(std::find(expected.begin(), expected.end(), "AddReceived = 1") + 1, common.begin(),
                  common.end());
  EXPECT_EQ(dump_with("ServerCA=ca\nServerName=n\nServerVerify=1\nServer=3\nMaxHandshakes=0\n"
                      "HandshakeTimeout=1\nSessionTickets=0\nClientCA=/ca\nClientCertificates=2\n"
                      "RequireForAUTH=0\nRequire=3\nCiphers=HIGH\nMinVersion=1.3\n"
                      "Certificate=/c \"/k y\"\n[Common]\nBindPortTLS=465\nConfirmHostNames=1\n"),
            expected);
}

TEST(LogConfiguration, WritesNothingWithTheLogOff) {
  Configuration configuration = DefaultConfiguration();
  configuration.Log = 0;
  EXPECT_EQ(DumpLines(configuration), Lines{});
}

TEST(LogConfiguration, LogsAFailureOfItsWriter) {
  RecordedLog log;
  int lines = 0;
  mCommon::LogConfiguration(DefaultConfiguration(), "x.ini", log, [&](std::string_view) {
    if (++lines == 3) throw Error(61, "somewhere", "Disk full");
  });
  EXPECT_EQ(lines, 3);
  EXPECT_EQ(log.Lines(), (Lines{"Error 61 in mCommon.LogConfiguration. Disk full"}));
}

TEST(LogConfiguration, WritesSizesWithTheLargestSuffix) {
  const struct {
    const char* value;
    const char* dumped;
  } rows[] = {{"0", "0"},       {"-1", "-1"},
              {"-2", "-2"},     {"1", "1"},
              {"1023", "1023"}, {"1024", "1K"},
              {"1025", "1025"}, {"1048576", "1M"},
              {"1024K", "1M"},  {"1.5M", "1536K"},
              {"1024M", "1G"},  {"1073741825", "1073741825"},
              {"3G", "3G"},     {"922337203685476", "922337203685476"}};
  for (const auto& row : rows) {
    const LoadedText loaded("[Common]\nMaxSize=" + std::string(row.value) + "\n", false);
    EXPECT_EQ(DumpedValue(loaded.configuration, "Common", "MaxSize"), row.dumped);
  }
}

TEST(LogConfiguration, WritesRangesInTheirShortestForm) {
  const struct {
    const char* value;
    const char* dumped;
  } rows[] = {{"1.2.3.4", "1.2.3.4"},
              {"1.2.3.4/32", "1.2.3.4"},
              {"1.2.3.4-1.2.3.4", "1.2.3.4"},
              {"10.0.0.0/255.0.0.0", "10.0.0.0/8"},
              {"10.0.0.0-10.255.255.255", "10.0.0.0/8"},
              {"0.0.0.0-255.255.255.255", "0.0.0.0/0"},
              {"128.0.0.0/1", "128.0.0.0/1"},
              {"1.2.3.4-1.2.3.5", "1.2.3.4/31"},
              {"1.2.3.5-1.2.3.6", "1.2.3.5-1.2.3.6"},
              {"1.2.3.4-1.2.3.6", "1.2.3.4-1.2.3.6"},
              {"10.0.0.0/8,10.0.0.0/255.0.0.0,11.0.0.0/8", "10.0.0.0/8, 11.0.0.0/8"},  // once
              {"2001:DB8:0::1/128", "2001:db8::1"},
              {"::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "::/0"},
              {"2001:db8::4-2001:db8::5", "2001:db8::4/127"},
              {"2001:db8::5-2001:db8::6", "2001:db8::5-2001:db8::6"},
              {"::ffff:10.0.0.0/104", "10.0.0.0/8"},
              // IPv4 first.
              {"::1,10.0.0.0/8,fc00::/7,::ffff:192.0.2.1,127.0.0.1",
               "10.0.0.0/8, 192.0.2.1, 127.0.0.1, ::1, fc00::/7"}};
  for (const auto& row : rows) {
    const LoadedText loaded("[Common]\nIPBlackList=" + std::string(row.value) + "\n", false);
    EXPECT_EQ(DumpedValue(loaded.configuration, "Common", "IPBlackList"), row.dumped);
  }
}

TEST(LogConfiguration, QuotesWhatWouldNotReadBack) {
  const struct {
    const char* key;
    const char* value;
    const char* dumped;
  } rows[] = {
      {"SendersBlackList", "\"\"", "\"\""},
      {"SendersBlackList", "\" a\",\"a \"", "\" a\", \"a \""},
      {"SendersBlackList", "\"a,b\"", "\"a,b\""},
      {"SendersBlackList", "\"a b\"", "\"a b\""},
      {"SendersBlackList", "\"a\"", "a"},
      {"SendersBlackList", "a\"b", ""},  // not balanced, so not in the list
      {"SendersBlackList", "a\"b\"c", "a\"b\"c"},
      // The quotes inside hold these together; quotes around them would take them apart.
      {"SendersBlackList", "a\"b,c\"d,x\" \"y", "a\"b,c\"d, x\" \"y"},
      {"SendersBlackList", "a\", \"b,\"a,\"\"b\"", "a\", \"b, \"a,\"\"b\""},
      {"SendersBlackList", "x\"a b\" c,x\"a b\"  c", "x\"a b\" c, x\"a b\" \"c\""},
      {"AddSMTPExtensionsLocal", "X \"a,b\",Y \"a b\"", "X \"a,b\", Y \"a b\""},
      {"SendersBlackList", "\"\"\"a\"\"\"", "\"\"\"a\"\"\""},
      {"SendersBlackList", "a b", "a b"},
      {"SendersBlackList", "\"a b\" \"\" \"c,d\" e", "\"a b\" \"\" \"c,d\" e"},
      // Two groups, and a group and a single entry, that would be written alike.
      {"SendersBlackList", "\"a\" b,a b", "a b, \"a\" \"b\""},
      {"SendersBlackList", "\"a\" b,\"a b\"", "\"a\" \"b\", \"a b\""},
      {"SendersBlackList", "\"a b\",\"a\" b", "\"a b\", \"a\" \"b\""},
      {"AddSMTPExtensionsLocal", "SIZE 1,\"X a,b\",\" Y\"", "SIZE 1, \"X a,b\", \" Y\""},
      {"LocalDomains", "\"a b\",c  d", "\"a b\", c  d"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.value);
    const LoadedText loaded("[Common]\n" + std::string(row.key) + "=" + row.value + "\n");
    const std::string dumped = DumpedValue(loaded.configuration, "Common", row.key);
    EXPECT_EQ(dumped, row.dumped);
    const LoadedText again("[Common]\n" + std::string(row.key) + "=" + dumped + "\n", false);
    EXPECT_TRUE(again.result);
    const Setting& setting = *FindSetting("Common", row.key);
    EXPECT_EQ(Entries(FieldOf<ExpressionList>(again.configuration, setting)),
              Entries(FieldOf<ExpressionList>(loaded.configuration, setting)));
  }
}

TEST(LogConfiguration, WritesTheLogFolderSoThatItReadsBack) {
  const struct {
    const char* folder;
    const char* dumped;
  } rows[] = {{"/var/log/trabex", "/var/log/trabex"},
              {"/a b", "/a b"},
              {" a", "\" a\""},
              {"a ", "\"a \""},
              {"\"a\"", "\"\"a\"\""},
              {"'a'", "\"'a'\""},
              {"a'", "a'"}};
  for (const auto& row : rows) {
    Configuration configuration = DefaultConfiguration();
    configuration.LogPath = row.folder;
    EXPECT_EQ(DumpedValue(configuration, "Common", "LogPath"), row.dumped);
    Configuration again = DefaultConfiguration();
    RecordedLog log;
    ReadEarlyKeysFromText(Joined(DumpLines(configuration)), {}, again, log);
    EXPECT_EQ(again.LogPath, row.folder);
  }
}

TEST(LogConfiguration, KeepsRulesApartThatAreWrittenAlike) {
  const LoadedText loaded("[ResponseChanges]\na=<x>=<1>,<x> =<1>,<>=<t>,<t>,<b>==<2>,<b>= =<2>\n", false);
  ASSERT_TRUE(loaded.result) << loaded.log.Lines()[0];
  EXPECT_EQ(DumpedValue(loaded.configuration, "ResponseChanges", "a"),
            "<x>=<1>, <x> =<1>, <t>, <>=<t>, <b>==<2>, <b> ==<2>");
}

// Each call takes up as many entries as it is told, and no more: what a call costs does not depend on how long the
// lists are.
TEST(ConfigurationDump, WritesSoManyEntriesInACall) {
  constexpr int kEntries = 1000;
  const struct {
    const char* section;
    std::string (*entry)(int number);
    int entries;  // that are looked at, of a list that is looked through for what has to be quoted twice
  } rows[] = {
      {"[Common]\n", [](int number) { return "SendersBlackList=x" + std::to_string(number); }, 2 * kEntries},
      {"[Common]\n", [](int number) { return "SendersBlackList=a b" + std::to_string(number); },
       2 * kEntries},
      {"[Common]\n", [](int number) { return "AddSMTPExtensionsLocal=X" + std::to_string(number); },
       kEntries},
      {"[Common]\n", [](int number) { return "IPBlackList=10.0.0." + std::to_string(number % 256); }, 256},
      {"[Common]\n",
       [](int number) {
         return "IPBlackList=10." + std::to_string(number / 250) + ".0." + std::to_string(number % 250);
       },
       kEntries},
      {"[ResponseChanges]\n", [](int number) { return "550=<a>=<" + std::to_string(number) + ">"; },
       kEntries},
      {"[ResponseChanges]\n",
       [](int number) { return "RCPT.Private.a" + std::to_string(number) + "@b=<550 x>"; }, kEntries},
      {"[SenderReplacements.Local]\n", [](int number) { return "a" + std::to_string(number) + "=b"; },
       kEntries},
  };
  for (const auto& row : rows) {
    std::string text = row.section;
    for (int number = 0; number < kEntries; ++number) text += row.entry(number) + "\n";
    SCOPED_TRACE(text.substr(0, 60));
    const LoadedText loaded(text);
    const LoadedText without("");
    const auto calls_for = [](const Configuration& configuration) {
      ConfigurationDump dump(configuration, "x.ini");
      int calls = 1;
      while (dump.WriteSome(10, [](std::string_view) {})) ++calls;
      return calls;
    };
    const int calls = calls_for(loaded.configuration) - calls_for(without.configuration);
    EXPECT_GE(calls, row.entries / 10 - 1);
    EXPECT_LE(calls, row.entries / 10 + 1);
  }
}

TEST(LogConfiguration, BreaksListLinesAtAHundredCharacters) {
  // "IPWhiteList = " and eight of these addresses make 100 characters.
  const LoadedText eight(
      "[Common]\nIPWhiteList=1.1.1.100,1.1.1.101,1.1.1.102,1.1.1.103,1.1.1.104,1.1.1.105,1.1.1.106,1.1.1.107,"
      "1.1.1.1\n",
      false);
  EXPECT_EQ(
      DumpedLines(eight.configuration, "Common", "IPWhiteList"),
      (Lines{"IPWhiteList = 1.1.1.100, 1.1.1.101, 1.1.1.102, 1.1.1.103, 1.1.1.104, 1.1.1.105, 1.1.1.106, "
             "1.1.1.107",
             "IPWhiteList = 1.1.1.1"}));

  const std::string head = "HELOBlackList = ";
  for (const std::size_t length : {99U, 100U, 101U}) {
    // One entry of one character, and one that makes the line just that long.
    const std::string second(length - head.size() - 3, 'b');
    const LoadedText loaded("[Common]\nHELOBlackList=a," + second + ",c\n", false);
    const Lines lines = DumpedLines(loaded.configuration, "Common", "HELOBlackList");
    if (length <= 100) {
      EXPECT_EQ(lines, (Lines{head + "a, " + second, head + "c"})) << length;
    } else {
      EXPECT_EQ(lines, (Lines{head + "a", head + second, head + "c"})) << length;
    }
  }

  const std::string longest(150, 'x');
  const LoadedText loaded("[Common]\nHELOBlackList=a," + longest + ",b,\"" + longest + ",\"\n", false);
  EXPECT_EQ(DumpedLines(loaded.configuration, "Common", "HELOBlackList"),
            (Lines{head + "a", head + longest, head + "b", head + "\"" + longest + ",\""}));
}

}  // namespace
}  // namespace trabex

#include "config/settings_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "config_support.h"

namespace trabex {
namespace {

// The settings as they are promised to the operator, in reading order: kind, default as the dump shows it,
// range.
struct Row {
  const char* key;
  char kind;  // t text, i integer, b boolean, d minutes, s size, a/p/e/r/c/n the lists
  const char* default_value;
  const char* min = "";
  const char* max = "";
  const char* needs = "";  // other lines, without which some of its values cannot be used
};

constexpr const char* kMaxCount = "2147483646";
constexpr const char* kMaxInteger = "2147483647";

const Row kCommonRows[] = {
    {"BindIP", 't', "0.0.0.0"},
    {"BindPortTLS", 'i', "0", "0", "65535", "[TLS]\nCertificate=/c.pem\n"},
    {"ProxyProtocolFrom", 'r', ""},
    {"ProxyProtocolTimeout", 'i', "5", "1", "600"},
    {"SendClientIP", 'i', "0", "0", "3"},
    {"ServerPort", 'i', "25", "1", "65535"},
    {"ServerIP", 't', "127.0.0.1"},
    {"LocalIPs", 'r', "127.0.0.0/8, 10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16, 169.254.0.0/16"},
    {"LocalDomains", 'p', ""},
    {"LocalHostName", 't', "proxy.test"},
    {"IPBlackList", 'r', ""},
    {"IPAllowList", 'r', "0.0.0.0/0"},
    {"IPWhiteList", 'r', ""},
    {"SendersBlackList", 'a', ""},
    {"SendersWhiteList", 'a', ""},
    {"SendersAllowList", 'a', "*"},
    {"RestrictedSenders", 'a', ""},
    {"HostsWhiteList", 'a', ""},
    {"HostsAllowList", 'a', "*"},
    {"HostsBlackList", 'a', ""},
    {"ValidateRDNS", 'i', "0", "0", "3"},
    {"ValidateHELO", 'i', "0", "0", "15"},
    {"HELOBlackList", 'a', ""},
    {"LogLevelServer", 'i', "15", "0", "15"},
    {"LogLevelRemote", 'i', "15", "0", "15"},
    {"AddReceived", 'b', "1", "0", "1"},
    {"EnhancedStatusCodes", 'b', "1", "0", "1"},
    {"ProcessAddressesWithoutBrackets", 'i', "0", "0", "2"},
    {"RemoveSMTPExtensionsLocal", 'e', ""},
    {"RemoveSMTPExtensionsRemote", 'e', ""},
    {"AddSMTPExtensionsLocal", 'e', ""},
    {"AddSMTPExtensionsRemote", 'e', ""},
    {"RecipientsAllowListLocal", 'a', "*"},
    {"RecipientsBlackListLocal", 'a', ""},
    {"RecipientsWhiteListLocal", 'a', ""},
    {"RecipientsAllowListRemote", 'a', "*"},
    {"RecipientsBlackListRemote", 'a', ""},
    {"RecipientsWhiteListRemote", 'a', ""},
    {"PrivateRecipients", 'a', ""},
    {"MaxRecipientsLocal", 'i', "0", "0", kMaxCount},
    {"MaxRecipientsRemote", 'i', "0", "0", kMaxCount},
    {"MaxTransactionsLocal", 'i', "0", "0", kMaxCount},
    {"MaxTransactionsRemote", 'i', "0", "0", kMaxCount},
    {"MaxConnections", 'i', "0", "0", "65535"},
    {"MaxSize", 's', "0", "-2", "922337203685476"},
    {"Timeout", 'i', "300", "0", kMaxInteger},
    {"MaxBadSeq", 'i', "10", "0", kMaxCount},
    {"AutoReload", 'b', "1", "0", "1"},
    {"ConfirmHostNames", 'b', "0", "0", "1"},
};

const Row kGreyListingRows[] = {
    {"Enabled", 'b', "0", "0", "1"},
    {"Log", 'i', "0", "0", "1"},
    {"Database", 't', "/opt/trabex/GreyListing/GreyListing.gldb"},
    {"Delay", 'd', "16", "0", kMaxInteger},
    {"BlackListDelay", 'd', "64", "0", kMaxInteger},
    {"TTL", 'd', "51840", "65", kMaxInteger},
    {"ShortTTL", 'd', "240", "65", kMaxInteger},
    {"SaveInterval", 'd', "120", "10", kMaxInteger},
    {"IPWhiteList", 'r', ""},
    {"HostsWhiteList", 'a', ""},
    {"IPBlackList", 'r', ""},
    {"HostsBlackList", 'a', "[]"},
    {"MinCount", 'i', "1", "1", kMaxInteger},
    {"BlackListMinCount", 'i', "2", "1", kMaxInteger},
    {"CallbackSendersList", 'p', "[], postmaster@*"},
    {"CallbackSenderAction", 'i', "1", "0", "3"},
    {"MaxPending", 'i', "500000", "100", kMaxInteger},
    {"MaxPendingPerNetwork", 'i', "20000", "100", kMaxInteger},
    {"IPv6Prefix", 'i', "64", "16", "128"},
};

const Row kTlsRows[] = {
    {"Certificate", 'c', ""},
    {"MinVersion", 't', "1.2"},
    {"Ciphers", 't', ""},
    {"Require", 'i', "0", "0", "3"},
    {"RequireForAUTH", 'i', "3", "0", "3"},
    {"ClientCertificates", 'i', "0", "0", "2", "ClientCA=/ca.pem\n"},
    {"ClientCA", 't', ""},
    {"SessionTickets", 'b', "1", "0", "1"},
    {"HandshakeTimeout", 'i', "30", "1", "600"},
    {"MaxHandshakes", 'i', "1000", "0", "65535"},
    {"Server", 'i', "0", "0", "3"},
    {"ServerVerify", 'b', "0", "0", "1"},
    {"ServerName", 't', ""},
    {"ServerCA", 't', ""},
};

const Row kServiceRows[] = {
    {"ServerTimeout", 'i', "0", "0", kMaxInteger},
    {"JsonLog", 't', ""},
    {"JsonEvents", 'n', ""},
    {"StatusHTTP", 't', ""},
    {"DnsFailure", 'i', "0", "0", "1"},
    {"EnforceMaxSize", 'b', "0", "0", "1"},
    {"Sandbox", 'i', "1", "0", "2"},
};

struct PlacedRow {
  const char* section;
  Row row;
};
std::vector<PlacedRow> AllRows() {
  std::vector<PlacedRow> rows;
  for (const Row& row : kCommonRows) rows.push_back({"Common", row});
  for (const Row& row : kGreyListingRows) rows.push_back({"GreyListing", row});
  for (const Row& row : kTlsRows) rows.push_back({"TLS", row});
  for (const Row& row : kServiceRows) rows.push_back({"Service", row});
  return rows;
}

std::string FileWith(const PlacedRow& placed, const std::string& value) {
  return "[" + std::string(placed.section) + "]\n" + placed.row.key + "=" + value + "\n" + placed.row.needs;
}

TEST(SettingsTable, HasTheSettingsInReadingOrder) {
  std::vector<std::string> expected = {"Common IgnoreIniErrors", "Common Log", "Common LogPath",
                                       "Common BindPort"};
  for (const PlacedRow& placed : AllRows()) {
    expected.push_back(std::string(placed.section) + " " + placed.row.key);
  }
  std::vector<std::string> found;
  for (const Setting& setting : AllSettings()) {
    EXPECT_EQ(setting.is_early, found.size() < 4) << setting.key;
    found.push_back(std::string(setting.section) + " " + std::string(setting.key));
  }
  EXPECT_EQ(found, expected);
}

TEST(SettingsTable, IsFoundByNamesInAnyCase) {
  ASSERT_NE(FindSetting("COMMON", "timeout"), nullptr);
  EXPECT_EQ(FindSetting("COMMON", "timeout")->key, "Timeout");
  EXPECT_NE(FindSetting("Common", "Log"), FindSetting("GreyListing", "Log"));
  EXPECT_EQ(FindSetting("GreyListing", "Timeout"), nullptr);
}

TEST(SettingsTable, KnowsListKeys) {
  for (const PlacedRow& placed : AllRows()) {
    const bool is_list = std::string("apercn").find(placed.row.kind) != std::string::npos;
    EXPECT_EQ(mCommon::IsListKey(placed.section, placed.row.key), is_list) << placed.row.key;
    EXPECT_EQ(mCommon::IsListKey(ToUpper(std::string_view(placed.section)),
                                 ToLower(std::string_view(placed.row.key))),
              is_list);
    EXPECT_FALSE(mCommon::IsListKey("SenderReplacements.Local", placed.row.key));
    EXPECT_TRUE(mCommon::IsListKey("responsechanges", placed.row.key));
  }
  EXPECT_FALSE(mCommon::IsListKey("GreyListing", "LocalIPs"));
  EXPECT_FALSE(mCommon::IsListKey("Common", "CallbackSendersList"));
  EXPECT_FALSE(mCommon::IsListKey("Common", "Unknown"));
  EXPECT_TRUE(mCommon::IsListKey("ResponseChanges", "Unknown"));
}

// The record that the program and every test begin with.
TEST(Settings, HaveTheirDefaultsBeforeAnyFileIsRead) {
  const Configuration defaults = DefaultConfiguration();
  for (const PlacedRow& placed : AllRows()) {
    const std::string_view key = placed.row.key;
    const bool is_the_machines = key == "LocalHostName" || key == "Database";
    EXPECT_EQ(DumpedValue(defaults, placed.section, key), is_the_machines ? "" : placed.row.default_value)
        << key;
  }
  EXPECT_TRUE(defaults.IgnoreIniErrors);
  EXPECT_EQ(defaults.Log, log_mode::kOn);
  EXPECT_EQ(defaults.LogPath, "");
  EXPECT_EQ(defaults.BindPort, 25);
}

TEST(Settings, HaveTheirDefaults) {
  const LoadedText loaded("", false);
  ASSERT_TRUE(loaded.result);
  for (const PlacedRow& placed : AllRows()) {
    EXPECT_EQ(DumpedValue(loaded.configuration, placed.section, placed.row.key),
              WithPathsOfSystem(placed.row.default_value))
        << placed.row.key;
  }
  EXPECT_EQ(loaded.log.Lines(), Lines{});
}

bool IsNumber(const Row& row) {
  return *row.max != '\0';
}

TEST(Settings, TakeBothEndsOfTheirRange) {
  for (const PlacedRow& placed : AllRows()) {
    if (!IsNumber(placed.row)) continue;
    for (const char* value : {placed.row.min, placed.row.max}) {
      const LoadedText loaded(FileWith(placed, value), false);
      EXPECT_TRUE(loaded.result) << placed.row.key << " " << value;
      EXPECT_EQ(DumpedValue(loaded.configuration, placed.section, placed.row.key), value) << placed.row.key;
    }
  }
}

TEST(Settings, RefuseWhatLiesJustOutsideTheirRange) {
  for (const PlacedRow& placed : AllRows()) {
    const Row& row = placed.row;
    if (!IsNumber(row)) continue;
    const std::string outside[] = {std::to_string(std::stoll(row.min) - 1),
                                   std::to_string(std::stoll(row.max) + 1)};
    for (const std::string& value : outside) {
      SCOPED_TRACE(std::string(row.key) + "=" + value);
      const std::string description =
          value == "2147483648"  // no 32-bit number
              ? "Value is not a number: \"2147483648\"."
              : "Value " + value + " lies out of allowed range: from " + row.min + " to " + row.max + ".";
      const Lines report = {ConfigErrorLine(placed.section, row.key, 380, description)};
      const LoadedText tolerant(FileWith(placed, value), true);
      EXPECT_TRUE(tolerant.result);
      EXPECT_EQ(DumpedValue(tolerant.configuration, placed.section, row.key), row.default_value);
      EXPECT_EQ(tolerant.log.Lines(), report);
      const LoadedText strict(FileWith(placed, value), false);
      EXPECT_FALSE(strict.result);
      EXPECT_EQ(strict.log.Lines(), report);
    }
  }
}

TEST(Settings, RefuseEmptyNumbers) {
  for (const PlacedRow& placed : AllRows()) {
    if (!IsNumber(placed.row)) continue;
    const LoadedText loaded(FileWith(placed, ""));
    EXPECT_EQ(loaded.log.Lines(),
              (Lines{ConfigErrorLine(placed.section, placed.row.key, 380, "Integer value expected.")}));
    EXPECT_EQ(DumpedValue(loaded.configuration, placed.section, placed.row.key), placed.row.default_value);
  }
}

TEST(Settings, KnowSuffixesOnlyWhereTheyAreSizes) {
  for (const PlacedRow& placed : AllRows()) {
    if (!IsNumber(placed.row)) continue;
    const LoadedText loaded(FileWith(placed, "1K"));
    if (placed.row.kind == 's') {
      EXPECT_EQ(DumpedValue(loaded.configuration, placed.section, placed.row.key), "1K");
    } else {
      EXPECT_EQ(
          loaded.log.Lines(),
          (Lines{ConfigErrorLine(placed.section, placed.row.key, 380, "Value is not a number: \"1K\".")}));
    }
  }
}

// Each list setting shows its form by what it makes of one text.
TEST(Settings, ReadListsInTheirForm) {
  const struct {
    char kind;
    const char* text;
    const char* dumped;
    Lines reports;
  } forms[] = {
      {'a',
       "\"a b\",c d,[x",
       "\"a b\", c d",
       {"93, Description: Invalid Regular Expression in string: \"[x\"."}},
      {'p',
       "\"a b\",c  d,[x",
       "\"a b\", c  d",
       {"93, Description: Invalid Regular Expression in string: \"[x\"."}},
      {'e',
       "\"a, b\",c d,[x,C e",
       "\"a, b\", c d, [x",
       {"457, Description: Expression \"C e\" specified more than once."}},
      {'r',
       "10.0.0.0/255.0.0.0,1.1.1.1-1.1.1.2,\"x\"",
       "10.0.0.0/8, 1.1.1.1-1.1.1.2",
       {"380, Description: Invalid IP address: \"\"x\"\"."}},
      {'c',
       "/a.pem,\"/b c\" /k,/x y z",
       "/a.pem, \"/b c\" /k",
       {"380, Description: Invalid certificate entry \"/x y z\"."}},
      {'n', "Stop ,,start,sto", "stop, start", {"380, Description: Inadmissible string: \"sto\"."}},
  };
  for (const PlacedRow& placed : AllRows()) {
    for (const auto& form : forms) {
      if (form.kind != placed.row.kind) continue;
      SCOPED_TRACE(placed.row.key);
      const LoadedText loaded(FileWith(placed, form.text));
      EXPECT_EQ(DumpedValue(loaded.configuration, placed.section, placed.row.key),
                WithPathsOfSystem(form.dumped));
      ASSERT_EQ(loaded.log.Lines().size(), form.reports.size());
      EXPECT_EQ(loaded.log.Lines()[0], "Error parsing initialization file. Section: \"" +
                                           std::string(placed.section) + "\", Key name: \"" + placed.row.key +
                                           "\", Error number: " + WithPathsOfSystem(form.reports[0]));
      // An empty value is an empty list, whatever the default.
      const LoadedText empty(FileWith(placed, ""), false);
      EXPECT_EQ(DumpedValue(empty.configuration, placed.section, placed.row.key), "");
    }
  }
}

TEST(Settings, TakeTextsAsTheyAre) {
  const LoadedText loaded("[Common]\nServerIP=mail host ;x\nLocalHostName=\"h\"\n", false);
  EXPECT_EQ(loaded.configuration.ServerIP, "mail host ;x");
  EXPECT_EQ(loaded.configuration.LocalHostName, "\"h\"");
}

TEST(SettingsTable, HasOnePlaceInTheDumpForEachSetting) {
  for (const std::string_view section : {"Common", "GreyListing", "TLS", "Service"}) {
    const std::vector<const Setting*> dumped = SettingsInDumpOrder(section);
    for (std::size_t at = 1; at < dumped.size(); ++at) {
      EXPECT_LT(dumped[at - 1]->dump_order, dumped[at]->dump_order) << dumped[at]->key;
    }
    std::vector<const Setting*> settings;
    for (const Setting& setting : AllSettings()) {
      if (setting.section == section) settings.push_back(&setting);
    }
    // That of the sections that came first is one of their own.
    EXPECT_EQ(dumped == settings, section == "TLS" || section == "Service");
    EXPECT_TRUE(std::is_permutation(dumped.begin(), dumped.end(), settings.begin(), settings.end()));
  }
}

}  // namespace
}  // namespace trabex

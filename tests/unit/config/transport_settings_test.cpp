// The settings for TLS, balancers and addresses of both families: what counts as bad, and what depends on
// what.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/certificate_list.h"
#include "config_support.h"

namespace trabex {
namespace {

std::string Texts(const std::vector<IPAddress>& addresses) {
  std::string text;
  for (const IPAddress& address : addresses) {
    if (!text.empty()) text += " ";
    text += address.IsNone() ? "none" : FormatIPAddress(address);
  }
  return text;
}

TEST(BindIP, TakesAddressesOfBothFamilies) {
  const struct {
    const char* value;
    const char* read;
    const char* addresses;
  } rows[] = {
      {"", "0.0.0.0", "0.0.0.0"},
      {" , ,", "0.0.0.0", "0.0.0.0"},
      {"192.0.2.1", "192.0.2.1", "192.0.2.1"},
      {"::", "::", "::"},
      {"0.0.0.0,::", "0.0.0.0, ::", "0.0.0.0 ::"},
      {" 2001:DB8::0001 ,,192.0.2.01,", "2001:DB8::0001, 192.0.2.01", "2001:db8::1 192.0.2.1"},
      // The same address in another spelling does not count.
      {"::1,0:0:0:0:0:0:0:1,192.0.2.1,192.0.2.001,::ffff:192.0.2.1", "::1, 192.0.2.1", "::1 192.0.2.1"},
      {"::ffff:192.0.2.1", "::ffff:192.0.2.1", "192.0.2.1"},
      {"::1:25", "::1:25", "::1:25"},  // all of it is the address
      {"300.1.1.1,192.0.2.1", "300.1.1.1, 192.0.2.1", "none 192.0.2.1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.value);
    const LoadedText loaded("[Common]\nBindIP=" + std::string(row.value) + "\n", false);
    EXPECT_TRUE(loaded.result);
    EXPECT_EQ(loaded.log.Lines(), Lines{});
    EXPECT_EQ(loaded.configuration.BindIP, row.read);
    EXPECT_EQ(Texts(loaded.configuration.BindAddresses), row.addresses);
  }
  EXPECT_EQ(Texts(DefaultConfiguration().BindAddresses), "0.0.0.0");
}

TEST(BindIP, RefusesTheWholeValueForOneBadEntry) {
  for (const std::string value : {"localhost", "192.0.2.1,localhost", "[::1]", "::1%lo", "::g",
                                  "192.0.2.1 ::1", "2001:db8::/32", "1.2.3"}) {
    SCOPED_TRACE(value);
    const std::string file = "[Common]\nBindIP=" + value + "\n";
    const Lines report = {
        ConfigErrorLine("Common", "BindIP", 380, "Inadmissible string: \"" + value + "\".")};
    const LoadedText tolerant(file);
    EXPECT_EQ(tolerant.configuration.BindIP, "0.0.0.0");
    EXPECT_EQ(Texts(tolerant.configuration.BindAddresses), "0.0.0.0");
    EXPECT_EQ(tolerant.log.Lines(), report);
    const LoadedText strict(file, false);
    EXPECT_FALSE(strict.result);
    EXPECT_EQ(strict.log.Lines(), report);
  }
}

TEST(BindIP, StandsOnOneLine) {
  const LoadedText loaded("[Common]\nBindIP=192.0.2.1\nBindIP=192.0.2.2\n");
  EXPECT_EQ(loaded.log.Lines(),
            (Lines{SyntaxErrorLine(3, "Key \"BindIP\"  in section \"Common\" defined more than once.")}));
  EXPECT_EQ(loaded.configuration.BindIP, "192.0.2.1");
}

TEST(BindPortTLS, NeedsACertificateAndAPortOfItsOwn) {
  const struct {
    const char* file;
    bool good;
  } rows[] = {
      {"[Common]\nBindPortTLS=465\n[TLS]\nCertificate=c.pem\n", true},
      {"[TLS]\nCertificate=c.pem\n[Common]\nBindPortTLS=465\n", true},
      {"[Common]\nBindPortTLS=0\n", true},
      {"[Common]\nBindPortTLS=465\n", false},
      {"[Common]\nBindPortTLS=465\n[TLS]\nCertificate=,\n", false},
      {"[Common]\nBindPortTLS=2525\n[TLS]\nCertificate=c.pem\n", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file);
    for (const bool tolerant : {true, false}) {
      LoadedText loaded("", tolerant);
      loaded.configuration.BindPort = 2525;
      loaded.Load(row.file);
      EXPECT_EQ(loaded.result, row.good || tolerant);
      const std::string port = std::string(row.file).find("2525") == std::string::npos ? "465" : "2525";
      EXPECT_EQ(loaded.log.Lines(), row.good
                                        ? Lines{}
                                        : (Lines{ConfigErrorLine("Common", "BindPortTLS", 380,
                                                                 "Value " + port + " is no port for TLS.")}));
      if (!row.good && tolerant) {
        EXPECT_EQ(loaded.configuration.BindPortTLS, 0);
      }
    }
  }
  LoadedText without_any_port("", false);
  without_any_port.configuration.BindPort = 0;
  without_any_port.Load("[Common]\nBindPortTLS=0\n");
  EXPECT_TRUE(without_any_port.result) << "0 is no port, so it is not the same one";
}

TEST(ProxyProtocolFrom, HoldsNeverAllAddresses) {
  const struct {
    const char* value;
    const char* dumped;
  } rows[] = {{"0.0.0.0/0", ""},
              {"0.0.0.0/0.0.0.0", ""},
              {"0.0.0.0-255.255.255.255", ""},
              {"::ffff:0:0/96", ""},
              {"::FFFF:0.0.0.0-255.255.255.255", ""},
              {"::/0", ""},
              {"::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", ""},
              {"::/1", "::/1"},
              {"2001:db8::/32", "2001:db8::/32"},
              {"0.0.0.0/1", "0.0.0.0/1"},
              {"0.0.0.0-255.255.255.254", "0.0.0.0-255.255.255.254"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.value);
    const LoadedText loaded("[Common]\nProxyProtocolFrom=192.0.2.1," + std::string(row.value) + "\n");
    const std::string more = row.dumped;
    EXPECT_EQ(DumpedValue(loaded.configuration, "Common", "ProxyProtocolFrom"),
              more.empty() ? "192.0.2.1" : "192.0.2.1, " + more);
    EXPECT_EQ(loaded.log.Lines(),
              more.empty()
                  ? (Lines{ConfigErrorLine("Common", "ProxyProtocolFrom", 380,
                                           "Invalid IP address range: \"" + std::string(row.value) + "\".")})
                  : Lines{});
  }
}

// Without these defaults a listener for IPv6 would turn away every client, and take its own machine for a
// stranger.
TEST(DefaultLists, HoldIPv6WhereItIsUsed) {
  const struct {
    const char* lines;
    bool uses_ipv6;
  } rows[] = {{"", false},
              {"BindIP=0.0.0.0,192.0.2.1\n", false},
              {"BindIP=::ffff:192.0.2.1\n", false},  // IPv4 in another spelling
              {"BindIP=::\n", true},
              {"BindIP=192.0.2.1,::1\n", true},
              {"ProxyProtocolFrom=\n", false},
              {"ProxyProtocolFrom=192.0.2.0/24\n", true}};
  const std::string local = "127.0.0.0/8, 10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16, 169.254.0.0/16";
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lines);
    const std::string file = "[Common]\n" + std::string(row.lines);
    const auto dumped = [](const Configuration& configuration, const char* key) {
      return DumpedValue(configuration, "Common", key);
    };
    const LoadedText loaded(file, false);
    EXPECT_TRUE(loaded.result);
    EXPECT_EQ(dumped(loaded.configuration, "IPAllowList"), row.uses_ipv6 ? "0.0.0.0/0, ::/0" : "0.0.0.0/0");
    EXPECT_EQ(dumped(loaded.configuration, "LocalIPs"), row.uses_ipv6 ? local + ", ::1, fc00::/7" : local);
    // What is written holds, whatever is in use.
    const LoadedText written(file + "LocalIPs=127.0.0.0/8\nIPAllowList=0.0.0.0/0\n", false);
    EXPECT_EQ(dumped(written.configuration, "IPAllowList"), "0.0.0.0/0");
    EXPECT_EQ(dumped(written.configuration, "LocalIPs"), "127.0.0.0/8");
    // Other lists have no second default.
    EXPECT_EQ(dumped(loaded.configuration, "IPWhiteList"), "");
  }
}

TEST(DefaultLists, FollowAReload) {
  LoadedText loaded("[Common]\nBindIP=::\n", false);
  loaded.Load("");
  EXPECT_EQ(DumpedValue(loaded.configuration, "Common", "IPAllowList"), "0.0.0.0/0");
}

TEST(Certificate, NamesOneFileOrTwo) {
  const struct {
    const char* line;
    const char* dumped;
    const char* error = "";
  } rows[] = {
      {"", ""},
      {" , ,", ""},
      {"/a.pem", "/a.pem"},
      {"a.pem", "/opt/trabex/a.pem"},
      {"./a.pem,../b.pem", "./a.pem, ../b.pem"},
      {"/a.pem  /a.key , b.pem b.key", "/a.pem /a.key, /opt/trabex/b.pem /opt/trabex/b.key"},
      {"/a.pem /a.pem", "/a.pem"},
      {"\"/a b.pem\" \"/a,b.key\",\"/c.pem\"", "\"/a b.pem\" \"/a,b.key\", /c.pem"},
      {"\"a b.pem\"", "\"/opt/trabex/a b.pem\""},
      {"/A.pem,/a.pem", "/A.pem, /a.pem"},
      {"/a.pem,a b c,/d.pem", "/a.pem, /d.pem", "380, Description: Invalid certificate entry \"a b c\"."},
      // Without any entry of use the lines stay as they are: what is wanted must not be lost.
      {"\"\"", "\"\"", "380, Description: Invalid certificate entry \"\"\"\"."},
      {"/a.pem \"\"", "/a.pem \"\"", "380, Description: Invalid certificate entry \"/a.pem \"\"\"."},
      {"/a\"b\".pem", "/a\"b\".pem", "380, Description: Invalid certificate entry \"/a\"b\".pem\"."},
      {"\"/a\"\"b\"", "\"/a\"\"b\"", "380, Description: Invalid certificate entry \"\"/a\"\"b\"\"."},
      {"/a.pem,/b.pem,/a.pem", "/a.pem, /b.pem",
       "457, Description: Expression \"/a.pem\" specified more than once."},
      {"/a.pem,\"/b", "/a.pem,\"/b",
       "321, Description: Unbalanced delimiters in delimited string \"/a.pem,\"/b\"."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    const std::string file = "[TLS]\nCertificate=" + std::string(row.line) + "\n";
    const LoadedText loaded(file);
    EXPECT_EQ(DumpedValue(loaded.configuration, "TLS", "Certificate"), WithPathsOfSystem(row.dumped));
    const std::string error = WithPathsOfSystem(row.error);
    const Lines report = {
        "Error parsing initialization file. Section: \"TLS\", Key name: \"Certificate\", "
        "Error number: " +
        error};
    EXPECT_EQ(loaded.log.Lines(), error.empty() ? Lines{} : report);
    EXPECT_EQ(LoadedText(file, false).result, error.empty());
  }
  const LoadedText lines("[TLS]\nCertificate=/a\nCertificate=/b /k\n", false);
  EXPECT_EQ(lines.configuration.TLS.Certificate,
            (std::vector<CertificateFiles>{{WithPathsOfSystem("/a"), WithPathsOfSystem("/a")},
                                           {WithPathsOfSystem("/b"), WithPathsOfSystem("/k")}}));
}

// What is misspelled is no wish to do without TLS.
TEST(Certificate, IsWantedWhenItsLineSaysSomething) {
  const struct {
    std::string_view file;
    bool wanted;
  } rows[] = {
      {"", false},
      {"[TLS]\nRequire=3\n", false},
      {"[TLS]\nCertificate=\n", false},
      {"[TLS]\nCertificate= , ,\n", false},
      {"[TLS]\nCertificate=/c\n", true},
      {"[TLS]\nCertificate=/a /b /c\n", true},
      {"[TLS]\nCertificate=\"/a\n", true},
      {"[TLS]\nCertificate=,\nCertificate=/a /b /c\n", true},
  };
  for (const auto& row : rows) {
    const LoadedText loaded(std::string(row.file));
    EXPECT_EQ(loaded.configuration.TLS.WantsCertificate(), row.wanted) << row.file;
    const LoadedText again(Joined(DumpLines(loaded.configuration)));
    EXPECT_EQ(again.configuration.TLS.WantsCertificate(), row.wanted) << row.file;
    EXPECT_TRUE(again.configuration.TLS == loaded.configuration.TLS) << row.file;
  }
}

TEST(MinVersion, IsOneOfFour) {
  for (const char* value : {"1.0", "1.1", "1.2", "1.3"}) {
    const LoadedText loaded("[TLS]\nMinVersion=" + std::string(value) + "\n", false);
    EXPECT_TRUE(loaded.result);
    EXPECT_EQ(loaded.configuration.TLS.MinVersion, value);
  }
  for (const char* value : {"", "1", "1.20", "1.4", "TLSv1.2", "1.2,1.3"}) {
    const std::string file = "[TLS]\nMinVersion=" + std::string(value) + "\n";
    const LoadedText loaded(file);
    EXPECT_EQ(loaded.configuration.TLS.MinVersion, "1.2");
    EXPECT_EQ(loaded.log.Lines(),
              (Lines{ConfigErrorLine("TLS", "MinVersion", 380,
                                     "Inadmissible string: \"" + std::string(value) + "\".")}));
    EXPECT_FALSE(LoadedText(file, false).result);
  }
}

TEST(Ciphers, AreWhatTheLibraryTakes) {
  EXPECT_EQ(LoadedText("[TLS]\nCiphers=ECDHE+AESGCM:!aNULL\n", false).configuration.TLS.Ciphers,
            "ECDHE+AESGCM:!aNULL");
  const LoadedText refused("[TLS]\nCiphers=bad\n");
  EXPECT_EQ(refused.configuration.TLS.Ciphers, "");
  EXPECT_EQ(refused.log.Lines(),
            (Lines{ConfigErrorLine("TLS", "Ciphers", 380, "Inadmissible string: \"bad\".")}));
  EXPECT_FALSE(LoadedText("[TLS]\nCiphers=bad\n", false).result);
  EXPECT_TRUE(LoadedText("[TLS]\nCiphers=\n", false).result);
}

TEST(ClientCertificates, NeedAnAuthorityWhenTheyAreRequired) {
  const Lines report = {ConfigErrorLine("TLS", "ClientCertificates", 380, "ClientCA expected.")};
  const LoadedText tolerant("[TLS]\nClientCertificates=2\n");
  EXPECT_EQ(tolerant.configuration.TLS.ClientCertificates, client_certificates::kNotAsked);
  EXPECT_EQ(tolerant.log.Lines(), report);
  const LoadedText strict("[TLS]\nClientCertificates=2\nClientCA=\n", false);
  EXPECT_FALSE(strict.result);
  EXPECT_EQ(strict.log.Lines(), report);
  EXPECT_TRUE(LoadedText("[TLS]\nClientCertificates=1\n", false).result);
  EXPECT_TRUE(LoadedText("[TLS]\nClientCA=ca.pem\nClientCertificates=2\n", false).result);
}

TEST(TLSFiles, LieUnderTheProgramsDirectoryUnlessTheyAreGivenOtherwise) {
  const LoadedText loaded("[TLS]\nClientCA=tls/ca.pem\nServerCA=./ca.pem\n", false);
  EXPECT_EQ(loaded.configuration.TLS.ClientCA, WithPathsOfSystem("/opt/trabex/tls/ca.pem"));
  EXPECT_EQ(loaded.configuration.TLS.ServerCA, "./ca.pem");
}

TEST(TLSSettings, AreEqualWhenAllOfThemAre) {
  const TLSSettings defaults = DefaultConfiguration().TLS;
  for (const char* line : {"Certificate=/c", "MinVersion=1.3", "Ciphers=x", "Require=1", "RequireForAUTH=0",
                           "ClientCertificates=1", "ClientCA=/c", "SessionTickets=0", "HandshakeTimeout=1",
                           "MaxHandshakes=0", "Server=1", "ServerVerify=1", "ServerName=n", "ServerCA=/c"}) {
    const LoadedText loaded("[TLS]\n" + std::string(line) + "\n", false);
    ASSERT_TRUE(loaded.result) << line;
    EXPECT_FALSE(loaded.configuration.TLS == defaults) << line;
  }
  EXPECT_TRUE(LoadedText("[Common]\nTimeout=1\n", false).configuration.TLS == defaults);
}

}  // namespace
}  // namespace trabex

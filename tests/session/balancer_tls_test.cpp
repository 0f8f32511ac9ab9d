// The port of TLS behind a load balancer: its header comes in the clear, the handshake behind it, and the server is told
// of both.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "session/session_fixture.h"
#include "support/openings.h"
#include "support/temp_folder.h"
#include "support/test_certificates.h"
#include "tls/tls_context.h"

namespace trabex {
namespace {

using namespace std::string_literals;

// From 192.0.2.7, port 51234, to 203.0.113.5, port 465; with `records` behind the addresses.
std::string Header(const std::string& records) {
  const std::string addresses = "\xC0\x00\x02\x07\xCB\x00\x71\x05\xC8\x22\x01\xD1"s;
  const auto size = static_cast<char>(addresses.size() + records.size());
  return "\r\n\r\n\0\r\nQUIT\n!\x11\0"s + size + addresses + records;
}

std::string Record(char type, const std::string& value) {
  return type + "\0"s + static_cast<char>(value.size()) + value;
}

// What a balancer says that has ended the TLS of somebody else's client, whose certificate was good.
std::string AnotherTls() {
  return Record('\x20', "\x07\0\0\0\0"s + Record('\x21', "TLSv1.0") + Record('\x23', "RC4-MD5") +
                            Record('\x22', "root@local.test"));
}

std::string Message() {
  return Ehlo() + MailAndRcpt() + Data() + R"(
    C: a line
    C: .
    -> Received: from client.test (Unknown [192.0.2.7]) by proxy.test
    ->       with ESMTPS tls TLS_AES_256_GCM_SHA384; Sun, 15 Nov 2026 16:54:24 -0000
    -> a line
    -> .
    S: 250 taken
    <- 250 taken)";
}

void Configure(SessionFixture& fixture) {
  fixture.OfferTls();
  fixture.OnTlsPort = true;
  fixture.HandshakeAtOnce = false;
  fixture.Settings.ProxyProtocolFrom = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
}

std::string Escaped(std::string_view bytes) {
  std::string all;
  for (const char byte : bytes) {
    constexpr const char* kDigits = "0123456789ABCDEF";
    const auto value = static_cast<unsigned char>(byte);
    all.append("\\x") += kDigits[value >> 4];
    all += kDigits[value & 15];
  }
  return all;
}

// What the balancer tells of a TLS that was not ours is not believed, wherever header and hello are cut.
TEST(BalancerTls, TheHandshakeFollowsTheHeader) {
  const std::string header = Header(AnotherTls());
  for (const std::size_t cut : {std::size_t{0}, std::size_t{1}, std::size_t{30}, header.size() - 1}) {
    for (const bool at_once : {false, true}) {
      SCOPED_TRACE(std::to_string(cut) + (at_once ? ", at once" : ""));
      SessionFixture fixture;
      Configure(fixture);
      fixture.Start();
      TestPeer& client = fixture.ClientPeer();
      if (cut > 0) {
        client.SendInClear(std::string_view(header).substr(0, cut));
        fixture.Settle();
      }
      client.SendInClear(std::string_view(header).substr(cut));
      if (!at_once) fixture.Settle();
      EXPECT_TRUE(fixture.MakeHandshake());
      EXPECT_EQ(fixture.Play(Greeting() + Message() + R"(
        log R: {*} [      127.0.0.1] Connection Request.
        log R: {*} [      192.0.2.7] PROXY header: 192.0.2.7:51234 to 203.0.113.5:465.
        log R: {*} [      192.0.2.7] TLS: TLSv1.3, TLS_AES_256_GCM_SHA384.)"),
                "");
    }
  }
}

// Our own record: the client's flags, four bytes that say whether its certificate is good, version and cipher, and
// the name in the certificate if that is good.
std::string OwnTls(char flags, char unverified, const std::string& name) {
  return Record('\x20', flags + "\0\0\0"s + unverified + Record('\x21', "TLSv1.3") +
                            Record('\x23', "TLS_AES_256_GCM_SHA384") +
                            (name.empty() ? "" : Record('\x22', name)));
}

TEST(BalancerTls, TheServerIsToldOfTheTlsThatEndsHere) {
  const TestCertificate authority = MakeTestCertificate({.common_name = "CA", .authority = true});
  const struct {
    TestCertificate certificate;
    std::string told;
  } rows[] = {
      {{}, OwnTls('\x01', '\x01', "")},
      {MakeTestCertificate({.common_name = "good client"}, &authority), OwnTls('\x07', '\0', "good client")},
      {MakeTestCertificate({.common_name = "stranger"}), OwnTls('\x07', '\x01', "")},
  };
  const TempFolder folder;
  const TestCertificate own = MakeTestCertificate({.dns_names = {"proxy.test"}});
  WriteFile(folder / "proxy.pem", own.certificate + own.key);
  WriteFile(folder / "ca.pem", authority.certificate);
  TlsLoadReport report;
  const auto context = TlsContext::ForServer({.certificates = {{folder / "proxy.pem", ""}},
                                              .client_certificates = TlsClientCertificates::kAsked,
                                              .client_ca = folder / "ca.pem"},
                                             report);
  for (const auto& row : rows) {
    SessionFixture fixture;
    Configure(fixture);
    fixture.Tls.for_clients = context;
    fixture.Settings.SendClientIP = send_client_ip::kProxyVersion2;
    fixture.Start();
    fixture.ClientPeer().SendInClear(Header(AnotherTls()));
    fixture.ClientPeer().StartTls({.certificate = row.certificate});
    EXPECT_TRUE(fixture.Until([&] { return fixture.ClientPeer().Secured(); }));
    EXPECT_EQ(fixture.Play("*> " + Escaped(Header(row.told)) + "\n-> nothing\nS: 220 ready\n<- 220 ready\n" +
                           Message()),
              "");
  }
}

// By STARTTLS it comes too late for the header.
TEST(BalancerTls, WithStarttlsTheHeaderTellsNothingOfIt) {
  SessionFixture fixture;
  Configure(fixture);
  fixture.OnTlsPort = false;
  fixture.Settings.SendClientIP = send_client_ip::kProxyVersion2;
  fixture.Start();
  fixture.ClientPeer().SendInClear(Header(AnotherTls()));
  EXPECT_EQ(fixture.Play("*> " + Escaped(Header("")) + R"(
    -> nothing
    S: 220 ready
    <- 220 ready
    C: EHLO client.test
    -> EHLO client.test
    S: 250 server
    <- 250-server
    <- 250 STARTTLS
    C: STARTTLS
    <- 220 2.0.0 Ready to start TLS.
    C starts TLS
)" + Message()),
            "");
}

}  // namespace
}  // namespace trabex

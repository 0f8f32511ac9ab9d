// Servers whose certificate has to be good: which ones are taken, and that no session is made with the others.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "session/session_fixture.h"
#include "support/temp_folder.h"
#include "support/test_certificates.h"
#include "tls/tls_context.h"

namespace trabex {
namespace {

const TestCertificate& Authority() {
  static const TestCertificate authority = MakeTestCertificate({.common_name = "CA", .authority = true});
  return authority;
}

TestCertificate Issued(TestCertificateOptions options) {
  options.dns_names = {"mail.server.test", "*.wild.test"};
  options.addresses = {"127.0.0.1"};
  return MakeTestCertificate(options, &Authority());
}

// The ways to begin TLS that end with it, or with no session.
constexpr std::int32_t kModes[] = {server_tls::kIfOffered, server_tls::kStartTls, server_tls::kImplicit};

// Plays up to the handshake with a server that has this certificate.
void MakeHandshake(SessionFixture& fixture, std::int32_t mode, const std::string& name,
                   const TestCertificate& certificate) {
  const TempFolder folder;
  WriteFile(folder / "ca.pem", Authority().certificate);
  TlsLoadReport report;
  fixture.Tls.for_server =
      TlsContext::ForClient({.verify = true, .server_name = name, .server_ca = folder / "ca.pem"}, report);
  EXPECT_TRUE(report.failures.empty());
  fixture.Settings.TLS.Server = mode;
  EXPECT_EQ(fixture.Play(mode == server_tls::kImplicit ? "S accepts" : R"(
    S: 220 server ready
    -> EHLO proxy.test
    S: 250-server.test
    S: 250 STARTTLS
    -> STARTTLS
    S: 220 go)"),
            "");
  fixture.ServerPeer().StartTls({.server = true, .certificate = certificate});
}

TEST(ServerCertificate, AGoodOneIsTaken) {
  const TestCertificate good = Issued({});
  for (const std::string name : {"mail.server.test", "MAIL.Server.Test", "any.wild.test", "127.0.0.1"}) {
    for (const std::int32_t mode : kModes) {
      SCOPED_TRACE(name + ", mode " + std::to_string(mode));
      SessionFixture fixture;
      MakeHandshake(fixture, mode, name, good);
      EXPECT_TRUE(fixture.Until([&] { return fixture.ServerPeer().Secured(); }));
      EXPECT_EQ(fixture.Play(std::string(mode == server_tls::kImplicit ? "S: 220 server ready\n" : "") + R"(
        <- 220 server ready
        C: EHLO client.test
        -> EHLO client.test
        S: 250 server.test
        <- 250 server.test
        C: MAIL FROM:<a@b.test>
        -> MAIL FROM:<a@b.test>
        log S: * TLS: TLSv1.3, TLS_AES_256_GCM_SHA384, certificate verified.)"),
                "");
    }
  }
}

TEST(ServerCertificate, WithAnyOtherThereIsNoSession) {
  const TestCertificate other_authority = MakeTestCertificate({.common_name = "other", .authority = true});
  const struct {
    const char* what;
    std::string name;
    TestCertificate certificate;
    const char* reason;
  } rows[] = {
      {"another name", "server.test", Issued({}), "hostname mismatch"},
      {"two labels for a star", "a.b.wild.test", Issued({}), "hostname mismatch"},
      {"another address", "127.0.0.2", Issued({}), "IP address mismatch"},
      {"another authority", "mail.server.test",
       MakeTestCertificate({.dns_names = {"mail.server.test"}}, &other_authority),
       "unable to get local issuer certificate"},
      {"itself alone", "mail.server.test", MakeTestCertificate({.dns_names = {"mail.server.test"}}),
       "self-signed certificate"},
      {"expired", "mail.server.test", Issued({.valid_for = std::chrono::hours(-24)}),
       "certificate has expired"},
  };
  for (const auto& row : rows) {
    for (const std::int32_t mode : kModes) {
      SCOPED_TRACE(std::string(row.what) + ", mode " + std::to_string(mode));
      SessionFixture fixture;
      MakeHandshake(fixture, mode, row.name, row.certificate);
      EXPECT_EQ(fixture.Play(std::string("<- 421 proxy.test is temporarily unavailable.\nclosed C\n"
                                         "log S: * Error 40030. TLS failed: ") +
                             row.reason),
                "");
      EXPECT_TRUE(fixture.Until([&] { return fixture.ServerPeer().AtEnd(); }));
      // Nothing was said to it, neither inside nor in the clear.
      EXPECT_EQ(fixture.ServerPeer().Received(), "");
    }
  }
}

}  // namespace
}  // namespace trabex

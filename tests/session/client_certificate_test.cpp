// Clients that show a certificate where one is asked for: what becomes of those that have none, or one that nobody
// vouches for, and what the session knows of it afterwards.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "session/session_fixture.h"
#include "support/openings.h"
#include "support/temp_folder.h"
#include "support/test_certificates.h"
#include "tls/tls_context.h"

namespace trabex {
namespace {

// One that has expired, and one of another authority, are as good as none.
struct Certificates {
  TestCertificate authority = MakeTestCertificate({.common_name = "CA", .authority = true});
  TestCertificate good = MakeTestCertificate({.common_name = "good client"}, &authority);
  TestCertificate late =
      MakeTestCertificate({.common_name = "late", .valid_for = std::chrono::hours(-24)}, &authority);
  TestCertificate stranger = MakeTestCertificate({.common_name = "stranger"});
  TestCertificate none{};
};

const Certificates& All() {
  static const Certificates all;
  return all;
}

std::shared_ptr<const TlsContext> ContextThatAsks(TlsClientCertificates mode) {
  const TempFolder folder;
  const TestCertificate own = MakeTestCertificate({.dns_names = {"proxy.test"}});
  WriteFile(folder / "proxy.pem", own.certificate + own.key);
  WriteFile(folder / "ca.pem", All().authority.certificate);
  TlsLoadReport report;
  return TlsContext::ForServer({.certificates = {{folder / "proxy.pem", ""}},
                                .client_certificates = mode,
                                .client_ca = folder / "ca.pem"},
                               report);
}

// A session on the port of TLS, or one that has said STARTTLS; its client has not begun the handshake.
class AskedClient {
 public:
  AskedClient(TlsClientCertificates mode, bool on_port) : on_port_(on_port) {
    fixture.OfferTls();
    fixture.Tls.for_clients = ContextThatAsks(mode);
    fixture.OnTlsPort = on_port;
    fixture.HandshakeAtOnce = false;
    fixture.Settings.LogLevelRemote = 15;
    cReplaces told;
    told.SetName("BadSeq");
    told.Add("", "503 {%tls%}, {%tlscipher%}, {%tlspeer%}.", true);
    fixture.Settings.ResponseChanges.Add(told);
    EXPECT_EQ(fixture.Play(on_port ? "" : AskedForTls()), "");
    fixture.Start();
  }

  // Whether the handshake ends well for us; of a client under 1.3 that is known only later.
  void MakeHandshake(const TestCertificate& certificate) {
    TestPeer& client = fixture.ClientPeer();
    client.StartTls({.certificate = certificate});
    EXPECT_TRUE(
        fixture.Until([&] { return client.Secured() || client.AtEnd() || !client.TlsError().empty(); }));
    fixture.Settle();
  }

  std::string PlayMessage() {
    return fixture.Play((on_port_ ? Greeting() : "") + Ehlo() + MailAndRcpt() + Data() + R"(
      C: a line
      -> Received: from client.test (Unknown [127.0.0.1]) by proxy.test
      ->       with ESMTPS tls TLS_AES_256_GCM_SHA384; Sun, 15 Nov 2026 16:54:24 -0000
      -> a line)");
  }

  SessionFixture fixture;

 private:
  bool on_port_;
};

// Nothing depends on it. The macro names a client that is vouched for; the log tells of every certificate.
TEST(ClientCertificate, IsToldWhereItIsOnlyAskedFor) {
  const struct {
    const char* what;
    const TestCertificate& certificate;
    const char* name;
    const char* logged;
  } rows[] = {
      {"good", All().good, "good client", ", client certificate \"good client\" verified."},
      {"late", All().late, "", ", client certificate \"late\" not verified: certificate has expired."},
      {"stranger", All().stranger, "",
       ", client certificate \"stranger\" not verified: self-signed certificate."},
      {"none", All().none, "", "."},
  };
  for (const bool on_port : {false, true}) {
    for (const auto& row : rows) {
      SCOPED_TRACE(std::string(row.what) + (on_port ? ", port of TLS" : ", STARTTLS"));
      AskedClient asked(TlsClientCertificates::kAsked, on_port);
      asked.MakeHandshake(row.certificate);
      EXPECT_EQ(
          asked.fixture.Play(std::string(on_port ? "S: 220 ready\n<- 220 ready\n" : "") +
                             "C: MAIL FROM:<a@b.test>\n<- 503 TLSv1.3, TLS_AES_256_GCM_SHA384, " + row.name +
                             ".\nlog R: * TLS: TLSv1.3, TLS_AES_256_GCM_SHA384" + row.logged),
          "");
    }
  }
}

TEST(ClientCertificate, AMessagePassesUnderIt) {
  for (const TlsClientCertificates mode : {TlsClientCertificates::kAsked, TlsClientCertificates::kRequired}) {
    for (const bool on_port : {false, true}) {
      AskedClient asked(mode, on_port);
      asked.MakeHandshake(All().good);
      EXPECT_EQ(asked.PlayMessage(), "");
    }
  }
}

// Under 1.3 such a client has done its part of the handshake, and may say something before it hears of the end.
TEST(ClientCertificate, WithoutAGoodOneThereIsNoSessionWhereItIsNeeded) {
  const struct {
    const char* what;
    const TestCertificate& certificate;
    const char* reason;
  } rows[] = {
      {"late", All().late, "certificate has expired"},
      {"stranger", All().stranger, "self-signed certificate"},
      {"none", All().none, "peer did not return a certificate"},
  };
  for (const bool on_port : {false, true}) {
    for (const auto& row : rows) {
      SCOPED_TRACE(std::string(row.what) + (on_port ? ", port of TLS" : ", STARTTLS"));
      AskedClient asked(TlsClientCertificates::kRequired, on_port);
      asked.MakeHandshake(row.certificate);
      if (asked.fixture.ClientPeer().TlsError().empty()) {
        asked.fixture.ClientPeer().Send("EHLO client.test\r\n");
      }
      EXPECT_TRUE(asked.fixture.Until([&] { return asked.fixture.Sessions().Count() == 0; }));
      EXPECT_EQ(asked.fixture.Play(std::string("log R: * Error 40030. TLS failed: ") + row.reason +
                                   (on_port ? "" : "\n-> nothing\nclosed S")),
                "");
      EXPECT_EQ(asked.fixture.ClientPeer().Received(), "");
      EXPECT_FALSE(asked.fixture.Server().Accept().Open());
    }
  }
}

}  // namespace
}  // namespace trabex

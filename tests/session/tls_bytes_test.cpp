// What is counted under TLS: the mail, as in the clear, and not what TLS makes of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "session/session_fixture.h"
#include "support/openings.h"
#include "support/test_certificates.h"
#include "tls/tls_context.h"

namespace trabex {
namespace {

// What the session tells of its bytes: in a reply, and at its end for either side.
std::vector<std::string> ToldBytes(Security client, bool server_is_secured) {
  static const TestCertificate certificate = MakeTestCertificate({});
  SessionFixture fixture;
  fixture.ClientSecurity = client;
  fixture.Settings.AddReceived = false;
  fixture.Settings.LogLevelRemote = fixture.Settings.LogLevelServer = 8;
  cReplaces told;
  told.SetName("BadSeq");
  told.Add("", "503 {%bytessent%}", true);
  fixture.Settings.ResponseChanges.Add(told);
  if (server_is_secured) {
    TlsLoadReport report;
    fixture.Tls.for_server = TlsContext::ForClient({}, report);
    fixture.Settings.TLS.Server = server_tls::kImplicit;
  }
  fixture.Start();
  EXPECT_TRUE(fixture.NeedServer());
  if (server_is_secured) {
    fixture.ServerPeer().StartTls({.server = true, .certificate = certificate});
    EXPECT_TRUE(fixture.Until([&] { return fixture.ServerPeer().Secured(); }));
  }
  EXPECT_EQ(fixture.Play(Greeting() + "C: DATA\n<- 503 18\n" + Ehlo() + MailAndRcpt() + Data() + R"(
    C+ {2000*a line of content\r\n}.\r\n
    *> {2000*a line of content\r\n}.\r\n
    S: 250 taken
    <- 250 taken
    C: QUIT
    -> QUIT
    S: 221 bye
    <- 221 bye
    S closes
    closed C)"),
            "");
  EXPECT_TRUE(fixture.Until([&] { return fixture.Sessions().Count() == 0; }));
  std::vector<std::string> told_lines;
  for (const std::string& line : fixture.LogLines()) {
    if (line.find("] Disconnected. ") == std::string::npos) continue;
    told_lines.push_back(line.substr(0, 3) + line.substr(line.find("Bytes")));
  }
  std::sort(told_lines.begin(), told_lines.end());
  return told_lines;
}

TEST(TlsBytes, AreThoseOfTheMail) {
  const std::vector<std::string> in_the_clear = ToldBytes(Security::kPlain, false);
  ASSERT_EQ(in_the_clear.size(), 2U);
  EXPECT_NE(in_the_clear[0].find("Bytes received/sent: 38085/"), std::string::npos) << in_the_clear[0];
  for (const Security client : {Security::kPlain, Security::kTlsPort}) {
    for (const bool server : {false, true}) EXPECT_EQ(ToldBytes(client, server), in_the_clear);
  }
}

}  // namespace
}  // namespace trabex

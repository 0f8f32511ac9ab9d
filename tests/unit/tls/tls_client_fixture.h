// Connections to servers whose certificates the test makes.
#pragma once

#include <string>

#include "tls_fixture.h"

namespace trabex {

class TlsClientContextTest : public TlsTest {
 protected:
  void SetUp() override { WriteFile(folder / "ca.pem", authority.certificate); }

  // The facts of a connection to a server with this certificate, or why there is none.
  std::string Try(const TlsClientOptions& options, const TestCertificateOptions& certificate) {
    TlsLoadReport report;
    TlsConnection c(TlsContext::ForClient(options, report),
                    {.server = true, .certificate = MakeTestCertificate(certificate, &authority)});
    if (c.Handshake() != TlsResult::kDone) return "failed: " + c.stream.FailureReason();
    const TlsFacts& facts = c.stream.Facts();
    return facts.peer_verified ? "verified" : "not verified: " + std::string(facts.peer_failure);
  }

  const TestCertificate authority = MakeTestCertificate({.common_name = "CA", .authority = true});
};

}  // namespace trabex

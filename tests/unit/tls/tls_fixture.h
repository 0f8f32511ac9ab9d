// TLS connections without a network: contexts from files that the test makes, and a transport in memory.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "support/memory_transport.h"
#include "support/temp_folder.h"
#include "support/test_certificates.h"
#include "support/tls_peer.h"
#include "tls/tls_context.h"
#include "tls/tls_stream.h"

namespace trabex {

class TlsTest : public testing::Test {
 protected:
  // Files of a certificate with its key in one.
  TlsCertificateFiles Write(const std::string& name, const TestCertificate& certificate) {
    WriteFile(folder / name, certificate.certificate + certificate.key);
    return {folder / name, {}};
  }
  TlsCertificateFiles Write(const std::string& name, const TestCertificateOptions& options,
                            const TestCertificate* issuer = nullptr) {
    return Write(name, MakeTestCertificate(options, issuer));
  }
  // A server's context whose options are all usable.
  static std::shared_ptr<const TlsContext> Server(const TlsServerOptions& options) {
    TlsLoadReport report;
    auto context = TlsContext::ForServer(options, report);
    EXPECT_TRUE(report.failures.empty()) << report.failures.front().reason;
    return context;
  }
  static std::shared_ptr<const TlsContext> Client(const TlsClientOptions& options = {}) {
    TlsLoadReport report;
    return TlsContext::ForClient(options, report);
  }
  std::shared_ptr<const TlsContext> AnyServer() {
    if (!any_server_) any_server_ = Server({.certificates = {Write("any.pem", TestCertificateOptions{})}});
    return any_server_;
  }

  TempFolder folder;

 private:
  std::shared_ptr<const TlsContext> any_server_;
};

// A stream of ours, and the library as its peer.
struct TlsConnection {
  TlsConnection(std::shared_ptr<const TlsContext> context, const TlsPeerOptions& options)
      : stream(std::move(context)), peer(options) {}

  // Carries bytes both ways until nothing moves.
  void Carry() {
    for (;;) {
      const std::string to_stream = peer.Output();
      const std::string to_peer = std::exchange(transport.output, {});
      if (to_stream.empty() && to_peer.empty()) return;
      transport.input += to_stream;
      if (!to_peer.empty()) peer.Feed(to_peer);
    }
  }
  // Makes the handshake, as far as it comes.
  TlsResult Handshake() {
    for (int step = 0; step < 100000; ++step) {
      Carry();
      result = stream.Handshake(transport);
      const bool stuck = result == TlsResult::kWantsRead && transport.input.empty();
      const std::string to_peer = std::exchange(transport.output, {});
      if (!to_peer.empty()) peer.Feed(to_peer);
      const std::string to_stream = peer.Output();
      transport.input += to_stream;
      if (result == TlsResult::kDone || result == TlsResult::kFailed || result == TlsResult::kEnded) break;
      if (stuck && to_stream.empty() && to_peer.empty()) break;
    }
    return result;
  }
  // Everything that can be read now.
  std::string Read(std::size_t portion = 100000) {
    std::string text;
    std::string space(portion, '\0');
    std::size_t received = 0;
    do {
      result = stream.Read(transport, space, received);
      text.append(space, 0, received);
    } while (result == TlsResult::kDone || (result == TlsResult::kWantsRead && !stream.Drained()));
    return text;
  }

  TlsStream stream;
  TlsPeer peer;
  MemoryTransport transport;
  TlsResult result = TlsResult::kDone;
};

}  // namespace trabex

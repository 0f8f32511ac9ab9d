// Tickets that were given for something else: to a client without a certificate, by a listener that wants none, or by
// another program that has the same key.
#include <openssl/ssl.h>

#include <array>
#include <string>

#include "tls/tls_context_impl.h"
#include "tls_fixture.h"

namespace trabex {
namespace {

class TlsTicketPurposeTest : public TlsTest {
 protected:
  // What a client has for its next connection after one to `context`.
  static std::shared_ptr<void> Session(const std::shared_ptr<const TlsContext>& context,
                                       const TlsPeerOptions& options) {
    TlsConnection c(context, options);
    EXPECT_EQ(c.Handshake(), TlsResult::kDone);
    std::size_t written = 0;
    EXPECT_EQ(c.stream.Write(c.transport, "220 ready\r\n", written), TlsResult::kDone);
    c.Carry();
    const auto session = c.peer.Session();
    c.peer.SayGoodbye();  // otherwise the library gives the session up
    return session;
  }
  static bool Resumes(const std::shared_ptr<const TlsContext>& context, TlsPeerOptions options,
                      const std::shared_ptr<void>& session) {
    options.session = session;
    TlsConnection c(context, options);
    EXPECT_EQ(c.Handshake(), TlsResult::kDone);
    return c.stream.Facts().resumed;
  }
  static SSL_CTX* Of(const TlsContext& context) { return context.GetImpl().contexts.front().get(); }
  // As if they were one program's after a load that has changed something else.
  static void ShareTicketKey(const TlsContext& from, const TlsContext& to) {
    std::array<unsigned char, 80> key{};
    EXPECT_EQ(SSL_CTX_get_tlsext_ticket_keys(Of(from), key.data(), key.size()), 1);
    EXPECT_EQ(SSL_CTX_set_tlsext_ticket_keys(Of(to), key.data(), key.size()), 1);
  }
};

// Otherwise whoever was admitted by a listener that asks for nothing could come in by one that asks for a certificate. The
// keys of their tickets are not the same; here they are, so that they do not hide what else there is to it.
TEST_F(TlsTicketPurposeTest, NoneIsTakenWhereCertificatesAreAskedFor) {
  const auto authority = MakeTestCertificate({.authority = true});
  const auto good = MakeTestCertificate({.common_name = "good"}, &authority);
  const auto files = Write("a.pem", TestCertificateOptions{});
  WriteFile(folder / "ca.pem", authority.certificate);
  const auto plain = Server({.certificates = {files}});
  for (const auto mode : {TlsClientCertificates::kAsked, TlsClientCertificates::kRequired}) {
    const auto asking =
        Server({.certificates = {files}, .client_certificates = mode, .client_ca = folder / "ca.pem"});
    for (const bool same_key : {false, true}) {
      if (same_key) {
        ShareTicketKey(*plain, *asking);
      }
      for (const std::string version : {"1.2", "1.3"}) {
        SCOPED_TRACE(version + (same_key ? ", with the same key" : ""));
        TlsPeerOptions options{.max_version = version};
        options.session = Session(plain, options);
        ASSERT_NE(options.session, nullptr);
        TlsConnection without(asking, options);
        if (mode == TlsClientCertificates::kRequired) {
          EXPECT_EQ(without.Handshake(), TlsResult::kFailed);
          EXPECT_EQ(without.stream.FailureReason(), "peer did not return a certificate");
        } else {
          EXPECT_EQ(without.Handshake(), TlsResult::kDone);
          EXPECT_FALSE(without.stream.Facts().resumed);
          EXPECT_FALSE(without.stream.Facts().has_peer_certificate);
        }
        options.certificate = good;
        TlsConnection with(asking, options);
        EXPECT_EQ(with.Handshake(), TlsResult::kDone) << with.stream.FailureReason();
        EXPECT_FALSE(with.stream.Facts().resumed);
        EXPECT_TRUE(with.stream.Facts().peer_verified);
      }
    }
  }
}

// A session belongs to what it was made for; another program's, or another use of the same key, is none of ours.
TEST_F(TlsTicketPurposeTest, OneOfAnotherPurposeIsNotTaken) {
  const auto context = Server({.certificates = {Write("a.pem", TestCertificateOptions{})}});
  for (const std::string version : {"1.2", "1.3"}) {
    SCOPED_TRACE(version);
    const TlsPeerOptions options{.max_version = version};
    const auto session = Session(context, options);
    ASSERT_NE(session, nullptr);
    EXPECT_TRUE(Resumes(context, options, session));
    const auto other = Server({.certificates = {Write("b.pem", TestCertificateOptions{})}});
    ShareTicketKey(*context, *other);
    const unsigned char purpose[] = "another";
    ASSERT_EQ(SSL_CTX_set_session_id_context(Of(*other), purpose, sizeof purpose - 1), 1);
    const auto foreign = Session(other, options);
    ASSERT_NE(foreign, nullptr);
    EXPECT_FALSE(Resumes(context, options, foreign));
  }
}

}  // namespace
}  // namespace trabex

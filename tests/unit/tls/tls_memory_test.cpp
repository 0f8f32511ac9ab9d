// Streams when there is no memory for what the library calls back.
#include <openssl/err.h>

#include <memory>
#include <new>
#include <string>

#include "support/counted_allocations.h"
#include "tls_fixture.h"

namespace trabex {
namespace {

// A connection whose transport takes nothing, so that what is to be sent has to be kept.
std::unique_ptr<TlsConnection> FullConnection(const std::shared_ptr<const TlsContext>& context) {
  auto connection = std::make_unique<TlsConnection>(context, TlsPeerOptions{});
  EXPECT_EQ(connection->Handshake(), TlsResult::kDone) << connection->stream.FailureReason();
  connection->Carry();
  connection->transport.full = true;
  return connection;
}

using TlsMemoryTest = TlsTest;

TEST_F(TlsMemoryTest, WriteThatGetsNoneRaisesAndTheConnectionHasFailed) {
  const auto other = FullConnection(AnyServer());
  const auto c = FullConnection(AnyServer());
  const std::string text(5000, 'x');
  std::size_t written = 0;
  {
    const FailedAllocation failure(0);
    EXPECT_THROW(c->stream.Write(c->transport, text, written), std::bad_alloc);
    EXPECT_TRUE(failure.HasFailed());
  }
  EXPECT_EQ(ERR_peek_error(), 0U);
  c->transport.full = false;
  EXPECT_EQ(c->stream.Write(c->transport, text, written), TlsResult::kFailed);
  EXPECT_EQ(written, 0U);
  std::string space(100, '\0');
  std::size_t received = 0;
  EXPECT_EQ(c->stream.Read(c->transport, space, received), TlsResult::kFailed);
  EXPECT_EQ(c->stream.FailureReason(), "out of memory");
  EXPECT_EQ(c->transport.output, "");

  other->transport.full = false;
  EXPECT_EQ(other->stream.Write(other->transport, text, written), TlsResult::kDone);
  other->Carry();
  EXPECT_EQ(other->peer.Text(), text);
}

TEST_F(TlsMemoryTest, HandshakeThatGetsNoneIsBrokenOffOrGoesOn) {
  const auto context =
      Server({.certificates = {Write("one.pem", {.dns_names = {"one.test"}}),
                               Write("two.pem", {.dns_names = {"two-with-a-long-name.test"}})}});
  std::size_t broken_off = 0;
  for (std::size_t before = 0;; ++before) {
    SCOPED_TRACE(before);
    TlsConnection c(context, {.server_name = "two-with-a-long-name.test"});
    c.Carry();
    bool failed = false;
    bool threw = false;
    {
      const FailedAllocation failure(before);
      try {
        c.stream.Handshake(c.transport);
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      failed = failure.HasFailed();
    }
    // What was not in the library's hands goes on.
    const TlsResult end = c.Handshake();
    EXPECT_EQ(end == TlsResult::kDone, c.peer.Established()) << c.stream.FailureReason();
    if (end != TlsResult::kDone) {
      ++broken_off;
      EXPECT_TRUE(threw);
      EXPECT_EQ(c.stream.FailureReason(), "out of memory");
    }
    if (!failed) break;
    ASSERT_LT(before, 100U);
  }
  EXPECT_GT(broken_off, 0U);
}

}  // namespace
}  // namespace trabex

#include "tls/tls_stream.h"

#include <openssl/err.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tls_fixture.h"

namespace trabex {
namespace {

constexpr std::size_t kMaxRecord = 16384;

std::string Noise(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return text;
}

class TlsStreamTest : public TlsTest {
 protected:
  std::unique_ptr<TlsConnection> Connected(const TlsPeerOptions& options = {}) {
    auto connection = std::make_unique<TlsConnection>(AnyServer(), options);
    EXPECT_EQ(connection->Handshake(), TlsResult::kDone) << connection->stream.FailureReason();
    EXPECT_TRUE(connection->peer.Established());
    return connection;
  }
};

TEST_F(TlsStreamTest, CarriesTextBothWaysInEitherRole) {
  for (const bool server : {true, false}) {
    for (const std::string version : {"1.2", "1.3"}) {
      SCOPED_TRACE(version + (server ? " server" : " client"));
      TlsPeerOptions options{.server = !server, .max_version = version};
      if (!server) options.certificate = MakeTestCertificate({});
      TlsConnection c(server ? AnyServer() : Client(), options);
      ASSERT_EQ(c.Handshake(), TlsResult::kDone) << c.stream.FailureReason();
      EXPECT_EQ(c.stream.Facts().version, "TLSv" + version);
      EXPECT_EQ(c.stream.Facts().cipher, c.peer.Cipher());
      c.peer.Write("EHLO a\r\n");
      c.Carry();
      EXPECT_EQ(c.Read(), "EHLO a\r\n");
      EXPECT_TRUE(c.stream.Drained());
      std::size_t written = 0;
      EXPECT_EQ(c.stream.Write(c.transport, "250 ok\r\n", written), TlsResult::kDone);
      EXPECT_EQ(written, 8U);
      c.Carry();
      EXPECT_EQ(c.peer.Text(), "250 ok\r\n");
    }
  }
}

// Whatever the network gives and takes at a time, and whenever it refuses.
TEST_F(TlsStreamTest, WorksInEverySplit) {
  for (const std::size_t portion : {1U, 2U, 5U, 16U, 1460U, 20000U}) {
    for (const int refuse : {0, 2, 3}) {
      for (const std::string version : {"1.2", "1.3"}) {
        SCOPED_TRACE(version + " " + std::to_string(portion) + "/" + std::to_string(refuse));
        const std::string text = Noise(portion < 100 ? kMaxRecord + 321 : 2 * kMaxRecord + 4321);
        TlsConnection c(AnyServer(), {.max_version = version});
        c.transport.portion = portion;
        c.transport.refuse_receive = refuse;
        c.transport.refuse_send = refuse;
        ASSERT_EQ(c.Handshake(), TlsResult::kDone) << c.stream.FailureReason();
        c.peer.Write(text);
        c.Carry();
        std::string got;
        while (!c.transport.input.empty()) got += c.Read(1000);
        EXPECT_TRUE(got == text);
        std::string queue = text;  // as the owner keeps it: what was not written, and ever more behind it
        std::string grown;
        while (!queue.empty()) {
          std::size_t written = 0;
          const std::string elsewhere = queue;
          const TlsResult result = c.stream.Write(c.transport, elsewhere, written);
          ASSERT_NE(result, TlsResult::kFailed) << c.stream.FailureReason();
          ASSERT_EQ(result == TlsResult::kDone, written == queue.size());
          queue.erase(0, written);
          if (!queue.empty() && refuse != 0 && grown.size() < 50) {
            queue += 'x';
            grown += 'x';
          }
        }
        c.Carry();
        EXPECT_TRUE(c.peer.Text() == text + grown);
      }
    }
  }
}

TEST_F(TlsStreamTest, IsDrainedOnlyWhenTheTransportHadNoMore) {
  auto c = Connected();
  EXPECT_FALSE(c->stream.Drained());  // something may have come with the handshake
  c->peer.Write("one ");
  c->peer.Write("two");
  c->Carry();
  char space[100];
  std::size_t received = 0;
  ASSERT_EQ(c->stream.Read(c->transport, std::span(space, 2), received), TlsResult::kDone);
  EXPECT_EQ(std::string(space, received), "on");
  EXPECT_FALSE(c->stream.Drained());
  EXPECT_EQ(c->stream.Pending(), 2U);
  ASSERT_EQ(c->stream.Read(c->transport, space, received), TlsResult::kDone);
  EXPECT_EQ(std::string(space, received), "e ");
  EXPECT_FALSE(c->stream.Drained());
  ASSERT_EQ(c->stream.Read(c->transport, space, received), TlsResult::kDone);
  EXPECT_EQ(std::string(space, received), "two");
  EXPECT_FALSE(c->stream.Drained());
  EXPECT_EQ(c->stream.Read(c->transport, space, received), TlsResult::kWantsRead);
  EXPECT_TRUE(c->stream.Drained());
}

TEST_F(TlsStreamTest, IsDrainedWithItsLastTextWhenTheTransportKnowsThatItIs) {
  auto c = Connected();
  c->Read();
  c->transport.announces = true;
  c->peer.Write("one ");
  c->peer.Write("two");
  c->Carry();
  // The head of a record of which the rest has not come.
  c->peer.Write("three");
  const std::string record = c->peer.Output();
  c->transport.input += record.substr(0, 3);
  char space[100];
  std::size_t received = 0;
  ASSERT_EQ(c->stream.Read(c->transport, space, received), TlsResult::kDone);
  EXPECT_FALSE(c->stream.Drained());
  ASSERT_EQ(c->stream.Read(c->transport, space, received), TlsResult::kDone);
  EXPECT_EQ(std::string(space, received), "two");
  EXPECT_FALSE(c->stream.Drained());
  EXPECT_EQ(c->stream.Read(c->transport, space, received), TlsResult::kWantsRead);
  EXPECT_TRUE(c->stream.Drained());
  c->transport.input += record.substr(3);
  ASSERT_EQ(c->stream.Read(c->transport, std::span(space, 2), received), TlsResult::kDone);
  EXPECT_FALSE(c->stream.Drained());
  ASSERT_EQ(c->stream.Read(c->transport, space, received), TlsResult::kDone);
  EXPECT_EQ(std::string(space, received), "ree");
  EXPECT_TRUE(c->stream.Drained());
}

TEST_F(TlsStreamTest, TicketsGoOutWithTheFirstWords) {
  auto c = Connected();
  c->Carry();
  EXPECT_EQ(c->peer.Tickets(), 0);
  std::size_t written = 0;
  c->transport.full = true;
  EXPECT_EQ(c->stream.Write(c->transport, "220 ready\r\n", written), TlsResult::kWantsWrite);
  EXPECT_EQ(written, 0U);
  c->transport.full = false;
  c->transport.sends = 0;
  EXPECT_EQ(c->stream.Write(c->transport, "220 ready\r\n", written), TlsResult::kDone);
  EXPECT_EQ(written, 11U);
  EXPECT_EQ(c->transport.sends, 1);
  c->Carry();
  EXPECT_EQ(c->peer.Text(), "220 ready\r\n");
  EXPECT_EQ(c->peer.Tickets(), 1);
}

TEST_F(TlsStreamTest, NothingElseWaitsWithTheTickets) {
  auto c = Connected();
  c->transport.input += std::string("\x17\x03\x03\x00\x20", 5) + std::string(32, 'x');
  EXPECT_EQ(c->Read(), "");
  EXPECT_EQ(c->result, TlsResult::kFailed);
  EXPECT_FALSE(c->transport.output.empty());  // the alert, behind them
  c->Carry();
  EXPECT_EQ(c->peer.Tickets(), 1);
  auto ending = Connected();
  EXPECT_EQ(ending->stream.SayGoodbye(ending->transport), TlsResult::kDone);
  ending->Carry();
  EXPECT_EQ(ending->peer.Text(), "");
  EXPECT_TRUE(ending->peer.Ended());
  EXPECT_EQ(ending->peer.Tickets(), 1);
}

TEST_F(TlsStreamTest, TakesSeveralRecordsWithOneReceive) {
  auto c = Connected();
  c->Read();
  for (int i = 0; i < 20; ++i) c->peer.Write("NOOP\r\n");
  c->Carry();
  c->transport.receives = 0;
  EXPECT_EQ(c->Read().size(), 120U);
  EXPECT_LE(c->transport.receives, 2);
}

TEST_F(TlsStreamTest, NothingBehindTheGoodbyeIsRead) {
  for (const std::string version : {"1.2", "1.3"}) {
    auto c = Connected({.max_version = version});
    c->peer.Write("QUIT\r\n");
    c->peer.SayGoodbye();
    c->Carry();
    c->transport.input += "MAIL FROM:<a@b>\r\n";
    EXPECT_EQ(c->Read(), "QUIT\r\n");
    EXPECT_EQ(c->result, TlsResult::kEnded);
    EXPECT_TRUE(c->stream.Drained());
    EXPECT_TRUE(c->stream.Ended());
    EXPECT_EQ(c->Read(), "");
    EXPECT_EQ(c->result, TlsResult::kEnded);
    std::size_t written = 0;
    EXPECT_EQ(c->stream.Write(c->transport, "221\r\n", written), TlsResult::kDone);
    EXPECT_EQ(c->stream.SayGoodbye(c->transport), TlsResult::kDone);
    c->peer.Feed(c->transport.output);
    EXPECT_EQ(c->peer.Text(), "221\r\n");
    EXPECT_TRUE(c->peer.Ended());
  }
}

TEST_F(TlsStreamTest, AnEndWithoutGoodbyeIsAnEnd) {
  auto c = Connected();
  c->peer.Write("QUIT\r\n");
  c->Carry();
  c->transport.ended = true;
  EXPECT_EQ(c->Read(), "QUIT\r\n");
  EXPECT_EQ(c->result, TlsResult::kEnded);
}

TEST_F(TlsStreamTest, SaysItsGoodbyeOnceAndWaitsForNone) {
  auto c = Connected();
  c->Carry();
  c->transport.full = true;
  EXPECT_EQ(c->stream.SayGoodbye(c->transport), TlsResult::kWantsWrite);
  c->transport.full = false;
  EXPECT_EQ(c->stream.SayGoodbye(c->transport), TlsResult::kDone);
  const std::string said = c->transport.output;
  EXPECT_FALSE(said.empty());
  EXPECT_EQ(c->stream.SayGoodbye(c->transport), TlsResult::kDone);
  EXPECT_EQ(c->transport.output, said);
  c->Carry();
  EXPECT_TRUE(c->peer.Ended());
}

TEST_F(TlsStreamTest, AnEndInTheHandshakeIsNoFailure) {
  TlsConnection c(AnyServer(), {});
  c.transport.ended = true;
  EXPECT_EQ(c.Handshake(), TlsResult::kEnded);
  TlsConnection half(AnyServer(), {});
  half.transport.input = half.peer.Output().substr(0, 50);
  half.transport.ended = true;
  EXPECT_EQ(half.stream.Handshake(half.transport), TlsResult::kEnded);
}

TEST_F(TlsStreamTest, FailsForGoodWithTheReason) {
  struct Case {
    const char* title;
    std::string input;
    std::string reason;
  };
  const Case cases[] = {
      {"plain text", "EHLO client.example\r\n", "wrong version number"},
      {"HTTP", "GET / HTTP/1.1\r\nHost: a\r\n\r\n", "http request"},
      {"a record that is too long", std::string("\x16\x03\x01\xFF\xFF", 5) + std::string(70000, 'x'),
       "packet length too long"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.title);
    TlsConnection c(AnyServer(), {});
    c.transport.input = test.input;
    EXPECT_EQ(c.stream.Handshake(c.transport), TlsResult::kFailed);
    EXPECT_EQ(c.stream.FailureReason(), test.reason);
    EXPECT_EQ(c.stream.NetworkError(), 0);
    EXPECT_EQ(c.stream.Handshake(c.transport), TlsResult::kFailed);
  }
}

TEST_F(TlsStreamTest, ABrokenRecordEndsItAndNothingIsWrittenAnyMore) {
  for (const std::string version : {"1.2", "1.3"}) {
    auto c = Connected({.max_version = version});
    c->peer.Write("EHLO a\r\n");
    c->transport.input = c->peer.Output();
    c->transport.input.back() = static_cast<char>(c->transport.input.back() ^ 1);
    c->transport.output.clear();
    EXPECT_EQ(c->Read(), "");
    EXPECT_EQ(c->result, TlsResult::kFailed);
    EXPECT_EQ(c->stream.FailureReason(), "decryption failed or bad record mac");
    EXPECT_TRUE(c->stream.Drained());
    const std::string alert = std::exchange(c->transport.output, {});
    EXPECT_FALSE(alert.empty());
    std::size_t written = 0;
    EXPECT_EQ(c->stream.Write(c->transport, "x", written), TlsResult::kFailed);
    EXPECT_EQ(c->stream.SayGoodbye(c->transport), TlsResult::kDone);
    EXPECT_EQ(c->transport.output, "");
    c->peer.Feed(alert);
    EXPECT_EQ(c->peer.Error(), "sslv3 alert bad record mac");
  }
}

TEST_F(TlsStreamTest, ANetworkErrorIsToldAsSuch) {
  auto c = Connected();
  c->Read();
  c->transport.ended = true;
  c->transport.receive_error = 10054;
  c->Read();
  EXPECT_EQ(c->result, TlsResult::kFailed);
  EXPECT_EQ(c->stream.NetworkError(), 10054);
  EXPECT_EQ(c->stream.FailureReason(), "");
}

TEST_F(TlsStreamTest, WhatHasComeIsReadThoughNothingCanBeSent) {
  auto c = Connected();
  c->peer.Write("552 too much\r\n");
  c->Carry();
  c->transport.send_error = 10054;
  std::size_t written = 0;
  EXPECT_EQ(c->stream.Write(c->transport, "x", written), TlsResult::kFailed);
  EXPECT_EQ(c->stream.NetworkError(), 10054);
  EXPECT_EQ(c->Read(), "552 too much\r\n");
  EXPECT_EQ(c->result, TlsResult::kWantsRead);
  EXPECT_EQ(c->stream.Write(c->transport, "x", written), TlsResult::kFailed);
}

// Steps of many connections alternate; one that ends in the middle leaves the others alone.
TEST_F(TlsStreamTest, HandshakesOfSeveralConnectionsGoOnTogether) {
  std::vector<std::unique_ptr<TlsConnection>> connections;
  for (const std::string version : {"1.2", "1.3", "1.3", "1.2"}) {
    connections.push_back(
        std::make_unique<TlsConnection>(AnyServer(), TlsPeerOptions{.max_version = version}));
    connections.back()->transport.portion = 100;
  }
  const auto step = [](TlsConnection& c) {
    const TlsResult result = c.stream.Handshake(c.transport);
    EXPECT_NE(result, TlsResult::kFailed) << c.stream.FailureReason();
    return result == TlsResult::kDone;
  };
  for (auto& c : connections) {
    c->transport.input = c->peer.Output();
    EXPECT_FALSE(step(*c));
  }
  connections.erase(connections.begin() + 1);
  std::size_t done = 0;
  for (int turn = 0; turn < 10 && done < connections.size(); ++turn) {
    for (auto& c : connections) {
      if (c->peer.Established() && !c->stream.Facts().version.empty()) continue;
      c->Carry();
      if (step(*c)) ++done;
    }
  }
  ASSERT_EQ(done, connections.size());
  for (auto& c : connections) {
    c->Carry();
    c->peer.Write(c->peer.Version());
    c->transport.input += c->peer.Output();
  }
  for (auto& c : connections) EXPECT_EQ(c->Read(), c->peer.Version());
}

// An error that another connection left in the thread's queue is none of this one.
TEST_F(TlsStreamTest, ErrorsOfOneAreNotThoseOfAnother) {
  auto good = Connected();
  TlsConnection bad(AnyServer(), {});
  bad.transport.input = "EHLO client.example\r\n";
  EXPECT_EQ(bad.stream.Handshake(bad.transport), TlsResult::kFailed);
  EXPECT_FALSE(TlsContext::AcceptsCiphers("no such cipher"));
  EXPECT_EQ(good->Read(), "");
  EXPECT_EQ(good->result, TlsResult::kWantsRead);
  // Not even when nobody took it.
  ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR);
  EXPECT_EQ(good->Read(), "");
  EXPECT_EQ(good->result, TlsResult::kWantsRead);
}

TEST_F(TlsStreamTest, AnswersKeyUpdates) {
  auto c = Connected({.max_version = "1.3"});
  for (int i = 0; i < 5; ++i) {
    c->peer.UpdateKeys(true);
    c->peer.Write("NOOP\r\n");
    c->Carry();
    EXPECT_EQ(c->Read(), "NOOP\r\n");
    std::size_t written = 0;
    EXPECT_EQ(c->stream.Write(c->transport, "250\r\n", written), TlsResult::kDone);
    c->Carry();
    EXPECT_EQ(std::exchange(c->peer.Text(), {}), "250\r\n");
  }
}

// A key update asks for something to be sent, while a record is under way that the network does not take.
TEST_F(TlsStreamTest, AKeyUpdateWhileTheNetworkIsFullBreaksNothing) {
  for (const bool stays_full : {true, false}) {
    for (const std::size_t portion : {1U, 7U, 100U, 100000U}) {
      SCOPED_TRACE(portion);
      auto c = Connected({.max_version = "1.3"});
      c->Carry();
      c->transport.portion = portion;
      const std::string queue = Noise(3 * kMaxRecord);
      std::size_t written = 0;
      c->transport.refuse_send = 2;
      EXPECT_EQ(c->stream.Write(c->transport, queue, written), TlsResult::kWantsWrite);
      // It may take bytes again before anybody hears of it.
      c->transport.full = stays_full;
      if (!stays_full) c->transport.refuse_send = 0;
      c->peer.UpdateKeys(true);
      c->peer.Write("NOOP\r\n");
      c->peer.UpdateKeys(true);
      c->peer.Write("QUIT\r\n");
      c->transport.input += c->peer.Output();
      std::string got;
      for (int i = 0; i < 100 && !c->transport.input.empty(); ++i) got += c->Read();
      ASSERT_NE(c->result, TlsResult::kFailed) << c->stream.FailureReason();
      c->transport.full = false;
      c->transport.refuse_send = 0;
      while (written < queue.size()) {
        std::size_t count = 0;
        ASSERT_NE(c->stream.Write(c->transport, queue.substr(written), count), TlsResult::kFailed)
            << c->stream.FailureReason();
        written += count;
      }
      got += c->Read();
      EXPECT_EQ(got, "NOOP\r\nQUIT\r\n");
      c->Carry();
      EXPECT_TRUE(c->peer.Text() == queue);
      EXPECT_EQ(c->peer.Error(), "");
    }
  }
}

TEST_F(TlsStreamTest, AStormOfKeyUpdatesEndsIt) {
  auto c = Connected({.max_version = "1.3"});
  c->Read();
  for (std::uint32_t i = 0; i < 2 * TlsStream::kMaxKeyUpdates + 2; ++i) {
    c->peer.UpdateKeys(false);
    c->transport.input += c->peer.Output();
  }
  EXPECT_EQ(c->Read(), "");
  EXPECT_EQ(c->result, TlsResult::kFailed);
  EXPECT_EQ(c->stream.FailureReason(), "too many key updates");
}

// New keys cost so much that what came together with one too many is left.
TEST_F(TlsStreamTest, NoKeyUpdateBeyondTheLimitIsMade) {
  auto c = Connected({.max_version = "1.3"});
  c->Carry();
  for (std::uint32_t i = 0; i < 4 * TlsStream::kMaxKeyUpdates; ++i) c->peer.UpdateKeys(true);
  c->transport.input = c->peer.Output();
  c->transport.output.clear();
  EXPECT_EQ(c->Read(), "");
  EXPECT_EQ(c->result, TlsResult::kFailed);
  // Each of those that were made is answered by a record.
  std::size_t records = 0;
  for (std::size_t at = 0; at + 5 <= c->transport.output.size(); ++records) {
    const auto byte = [&](std::size_t index) {
      return static_cast<unsigned char>(c->transport.output[index]);
    };
    at += 5U + byte(at + 3) * 256U + byte(at + 4);
  }
  EXPECT_GE(records, TlsStream::kMaxKeyUpdates);
  EXPECT_LE(records, TlsStream::kMaxKeyUpdates + 1);
}

// What has no plain text in it may go on for as long as the peer likes; one call must not.
TEST_F(TlsStreamTest, OneReadTakesABoundedPartOfTheNetwork) {
  auto c = Connected({.max_version = "1.3", .padding = kMaxRecord});
  c->Read();
  for (int i = 0; i < 40; ++i) c->peer.UpdateKeys(false);
  c->peer.Write("NOOP\r\n");
  c->transport.input += c->peer.Output();
  ASSERT_GT(c->transport.input.size(), 2 * TlsStream::kMaxUnproductive);
  c->transport.taken = 0;
  char space[100];
  std::size_t received = 0;
  EXPECT_EQ(c->stream.Read(c->transport, space, received), TlsResult::kWantsRead);
  EXPECT_FALSE(c->stream.Drained());
  EXPECT_GE(c->transport.taken, TlsStream::kMaxUnproductive);
  EXPECT_LT(c->transport.taken, TlsStream::kMaxUnproductive + 2 * kMaxRecord);
  EXPECT_EQ(c->Read(), "NOOP\r\n");
  EXPECT_TRUE(c->stream.Drained());
}

TEST_F(TlsStreamTest, RefusesANewHandshake) {
  for (const bool client : {false, true}) {
    SCOPED_TRACE(client ? "client" : "server");
    TlsPeerOptions options{.server = client, .max_version = "1.2"};
    if (client) options.certificate = MakeTestCertificate({});
    TlsConnection c(client ? Client() : AnyServer(), options);
    ASSERT_EQ(c.Handshake(), TlsResult::kDone);
    c.Carry();
    c.peer.Renegotiate();
    c.Carry();
    EXPECT_EQ(c.Read(), "");
    EXPECT_EQ(c.result, TlsResult::kWantsRead);
    c.Carry();
    EXPECT_EQ(c.peer.Error(), "no renegotiation");
  }
}

}  // namespace
}  // namespace trabex

// How the network splits what both sides say makes no difference to either of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "session/session_fixture.h"
#include "support/seeds.h"

namespace trabex {
namespace {

// A server whose answers depend on nothing but what it was asked. It reads as a strict one does: lines end in
// CR LF, content in the line with the single dot, and chunks have the octets that were announced.
class AnsweringServer {
 public:
  // Takes bytes; returns what there is to say.
  std::string Take(std::string_view bytes) {
    heard_ += bytes;
    waiting_ += bytes;
    std::string answers;
    while (TakeOne(answers)) {
    }
    return answers;
  }
  const std::string& Heard() const { return heard_; }
  std::size_t Messages() const { return messages_; }

 private:
  bool TakeOne(std::string& answers) {
    if (octets_ > 0) return TakeOctets(answers);
    const std::string_view end = in_content_ ? "\r\n.\r\n" : "\r\n";
    // Content may be the end alone.
    const std::size_t at = in_content_ && waiting_.starts_with(".\r\n") ? 0 : waiting_.find(end);
    if (at == std::string::npos) return false;
    const std::string taken = waiting_.substr(0, at);
    waiting_.erase(0, at == 0 && in_content_ ? 3 : at + end.size());
    if (in_content_) {
      in_content_ = false;
      ++messages_;
      answers += "250 taken\r\n";
    } else {
      answers += Answer(taken);
    }
    return true;
  }

  bool TakeOctets(std::string& answers) {
    if (waiting_.size() < octets_) return false;
    waiting_.erase(0, octets_);
    octets_ = 0;
    ++messages_;
    answers += "250-chunk\r\n250 taken\r\n";
    return true;
  }

  std::string Answer(const std::string& line) {
    const std::string verb = ToUpper(FirstWord(line));
    if (verb == "EHLO") return "250-server\r\n250-PIPELINING\r\n250-CHUNKING\r\n250 SIZE 10000\r\n";
    if (verb == "QUIT") return "221 bye\r\n";
    const bool good = line.size() % 7 != 3;
    if (verb == "DATA") {
      in_content_ = good || ++refused_ % 2 == 0;
      return in_content_ ? "354 go on\r\n" : "554-no\r\n554 now\r\n";
    }
    if (verb == "BDAT") {
      octets_ = std::stoul(line.substr(5));
      return octets_ == 0 ? "250 nothing\r\n" : "";
    }
    return good ? "250 ok\r\n" : "550-not\r\n550 this one\r\n";
  }

  std::string heard_;
  std::string waiting_;
  std::size_t octets_ = 0;
  std::size_t messages_ = 0;
  std::size_t refused_ = 0;
  bool in_content_ = false;
};

// What a client sends ahead, all of it at a time if the network lets it.
std::string AnySession(std::mt19937& random) {
  static const std::vector<std::string> kPieces = {
      "NOOP\r\n",
      "RSET\r\n",
      "VRFY somebody\r\n",
      "EHLO again.test\r\n",
      "HELO old.test\r\n",
      "UNKNOWN x\r\n",
      "\r\n",
      "MAIL FROM:<a@b.test>\r\n",
      "mail\tfrom:<a@b.test> SIZE=100\r\n",
      "MAIL FROM:<a@b.test> SIZE=20000\r\n",
      "MAIL FROM:<black@b.test>\r\n",
      "MAIL FROM:<a@b.test> <c@d.test>\r\n",
      "MAIL FROM:<>\r\n",
      "  NOOP  \r\n",
      "RCPT TO:<u@local.test>\r\n",
      "RCPT TO:<v@local.test>\r\n",
      "RCPT TO:<@r.test:\"w\"@local.test.>\r\n",
      "RCPT TO:<x@far.test>\r\n",
      "RCPT TO:<x%far.test@local.test>\r\n",
      "NO\nOP\r\n",
      std::string("NO\0OP\r\n", 7),
      "STARTTLS\r\n",
      "DATA\r\nfirst line\r\n..stuffed\r\nlast line\r\n.\r\n",
      "DATA\r\n.\r\n",
      "DATA\r\nRCPT TO:<inside@far.test>\r\n.x\r\nQUIT\r\n\r\n.\r\n",
      "DATA\r\nbare \n and \r inside\r\n.\r\n",
      "BDAT 5\r\n12345",
      "BDAT 7 LAST\r\nRSET\r\n\r",
      "BDAT 0 LAST\r\n",
      "BDAT 12\r\n\r\n.\r\nQUIT\r\nx",
      "BDAT 3 last\r\nabc",
      "DATA\r\n" + std::string(3000, 'x') + "\r\n.\r\n"};
  // Most of it makes sense.
  static const std::vector<std::string> kSense = {
      "MAIL FROM:<a@b.test>\r\nRCPT TO:<u@local.test>\r\n",
      "MAIL FROM:<s@b.test> SIZE=50\r\nRCPT TO:<uu@local.test>\r\n"};
  std::string session = "EHLO client.test\r\n";
  for (int count = 0; count < 12; ++count) {
    if (random() % 3 == 0) session += kSense[random() % kSense.size()];
    session += kPieces[random() % kPieces.size()];
  }
  return session + "QUIT\r\n";
}

struct Outcome {
  std::string to_server;
  std::string to_client;
  std::size_t messages = 0;
};

// Plays a session; `piece(size)` says how much of what is on its way arrives next.
template <class Piece>
Outcome Play(const std::string& session, std::mt19937& random, Piece piece) {
  SessionFixture fixture;
  fixture.Settings.LocalIPs = IPRangeList();
  fixture.Settings.MaxBadSeq = 1'000'000;
  fixture.Settings.SendersBlackList.Add("black@*", {{"black@*"}, false});
  fixture.Start();
  EXPECT_TRUE(fixture.NeedServer());
  AnsweringServer server;
  std::string from_server = "220 ready\r\n";
  std::string from_client = session;
  while (!from_server.empty() || !from_client.empty()) {
    const bool client_next = from_server.empty() || (!from_client.empty() && random() % 2 == 0);
    std::string& next = client_next ? from_client : from_server;
    const std::size_t size = piece(next.size());
    (client_next ? fixture.ClientPeer() : fixture.ServerPeer()).Send(std::string_view(next).substr(0, size));
    next.erase(0, size);
    fixture.Settle();
    from_server += server.Take(fixture.ServerPeer().Received());
    fixture.ServerPeer().Received().clear();
  }
  return {server.Heard(), fixture.ClientPeer().Received(), server.Messages()};
}

TEST(Splits, MakeNoDifferenceToEitherSide) {
  std::mt19937 random(20261121);
  std::size_t messages = 0;
  const unsigned rounds = SeedCount(60);
  for (unsigned round = 0; round < rounds; ++round) {
    const std::string session = AnySession(random);
    SCOPED_TRACE(session);
    const Outcome whole = Play(session, random, [](std::size_t size) { return size; });
    ASSERT_TRUE(whole.to_client.ends_with("221 bye\r\n")) << whole.to_client;
    messages += whole.messages;
    const auto expect_same = [&](const Outcome& split) {
      EXPECT_EQ(split.to_server, whole.to_server);
      EXPECT_EQ(split.to_client, whole.to_client);
    };
    expect_same(Play(session, random, [](std::size_t) -> std::size_t { return 1; }));
    for (const std::size_t most : {7U, 40U, 900U}) {
      expect_same(Play(session, random,
                       [&](std::size_t size) { return std::min<std::size_t>(size, 1 + random() % most); }));
    }
    if (HasFailure()) return;
  }
  // They were no empty talk.
  EXPECT_GE(messages, rounds);
}

}  // namespace
}  // namespace trabex

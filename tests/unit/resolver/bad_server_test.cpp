// DNS servers that are silent, late or gone, or that answer with anything.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "name_lookup_fixture.h"

namespace trabex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST_F(NameLookupTest, SilenceFailsWithinTheLimit) {
  server_.SetSilent("silent.test");
  server_.SetSilent(kReverse1);
  std::string forward;
  std::string reverse;
  Ask("silent.test", forward);
  Ask(kAddress1, reverse);
  ASSERT_TRUE(Asked("silent.test"));
  ASSERT_TRUE(Asked(kReverse1));
  clock_.Advance(milliseconds(4800));
  RunUntilIdle(loop_);
  EXPECT_EQ(forward + reverse, "");
  clock_.Advance(milliseconds(200));
  RunUntilIdle(loop_);
  EXPECT_EQ(forward, "11002");
  EXPECT_EQ(reverse, "11002");
}

TEST_F(NameLookupTest, AnswerAfterTheLimitIsDropped) {
  server_.SetAddresses("late.test", {kAddress1});
  server_.Hold();
  std::string outcome;
  Ask("late.test", outcome);
  ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Held() > 0; }));
  clock_.Advance(seconds(5));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "11002");
  server_.Release();
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "11002");
}

// The answer may come from inside an iteration in which everything has stood still for longer than the limit.
TEST_F(NameLookupTest, LateAnswerThatIsThereCounts) {
  server_.SetAddresses("late.test", {kAddress1});
  server_.Hold();
  std::string outcome;
  Ask("late.test", outcome);
  ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Held() > 0; }));
  server_.Release();
  clock_.Advance(seconds(20));
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  EXPECT_EQ(outcome, "192.0.2.1");
}

TEST_F(NameLookupTest, LoopGoesOnWhileLookupsHang) {
  server_.SetDefault([](const DnsQuestion&) { return std::vector<std::string>{}; });
  int answers = 0;
  for (int i = 0; i < 100; ++i) {
    lookup_->FindAddresses("x" + std::to_string(i) + ".test", LookupFamily::kIPv4,
                           [&](const AddressAnswer&) { ++answers; });
  }
  ASSERT_TRUE(Asked("x99.test"));
  int ticks = 0;
  int posts = 0;
  Timer timer(loop_, milliseconds(10), [&] { ++ticks; });
  timer.Enable();
  for (int i = 0; i < 100; ++i) {
    loop_.Post([&] { ++posts; });
    clock_.Advance(milliseconds(10));
    const auto before = std::chrono::steady_clock::now();
    loop_.RunOnce(milliseconds(0));
    EXPECT_LT(std::chrono::steady_clock::now() - before, seconds(1));
  }
  EXPECT_EQ(ticks, 100);
  EXPECT_EQ(posts, 100);
  EXPECT_EQ(answers, 0);
  clock_.Advance(seconds(5));
  RunUntilIdle(loop_);
  EXPECT_EQ(answers, 100);
}

// Everything that a broken or hostile server may send. None of it counts as an answer, so the true one, which
// follows, does; where nothing follows, the look-up fails.
TEST_F(NameLookupTest, GarbageIsNoAnswer) {
  const auto true_answer = [](const DnsQuestion& question) {
    return dns::AddressAnswer(question, {kAddress1});
  };
  const struct {
    const char* what;
    std::function<std::string(const DnsQuestion&)> garbage;
  } cases[] = {
      {"empty id", [](const DnsQuestion&) { return std::string(1, '\0'); }},
      {"cut in the header", [&](const DnsQuestion& q) { return true_answer(q).substr(0, 11); }},
      {"wrong id",
       [&](const DnsQuestion& q) {
         std::string message = dns::AddressAnswer(q, {kAddress2});
         message[0] = static_cast<char>(message[0] ^ 0x55);
         return message;
       }},
      {"another question",
       [&](const DnsQuestion& q) {
         DnsQuestion other = q;
         other.packet[13] = static_cast<char>(other.packet[13] ^ 1);
         return dns::AddressAnswer(other, {kAddress2});
       }},
      {"another type",
       [&](const DnsQuestion& q) {
         DnsQuestion other = q;
         other.packet[other.packet.size() - 3] = dns::kPtr;
         return dns::AddressAnswer(other, {kAddress2});
       }},
      {"noise", [](const DnsQuestion&) { return std::string(512, '\xFF'); }},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string name = "garbage" + std::to_string(i) + ".test";
    server_.Set(name, [&, i](const DnsQuestion& question) {
      return std::vector{cases[i].garbage(question), true_answer(question)};
    });
    EXPECT_EQ(Outcome(std::string_view(name)), "192.0.2.1") << cases[i].what;
  }
}

// Messages that are an answer by id and question, but broken after them.
TEST_F(NameLookupTest, BrokenAnswersFail) {
  const std::string loop_name = "\xC0\x0C";  // at offset 12 + question: a pointer to the question's own name
  const struct {
    const char* what;
    std::function<std::string(const DnsQuestion&)> answer;
  } cases[] = {
      {"cut in the record",
       [](const DnsQuestion& q) {
         std::string message = dns::AddressAnswer(q, {kAddress1});
         message.resize(message.size() - 2);
         return message;
       }},
      {"no record where one is announced",
       [](const DnsQuestion& q) {
         std::string message = dns::Answer(q, {});
         message[7] = 1;
         return message;
       }},
      {"thousands of records announced",
       [](const DnsQuestion& q) {
         std::string message = dns::AddressAnswer(q, {kAddress1});
         message[6] = '\x7F';
         return message;
       }},
      {"owner that points to itself",
       [](const DnsQuestion& q) {
         const std::string self = dns::Number16(0xC000U | q.packet.size());
         return dns::Answer(q, {dns::Record(self, dns::kA, dns::AddressData(kAddress1))});
       }},
      {"owner that points behind the end",
       [](const DnsQuestion& q) {
         return dns::Answer(q, {dns::Record("\xFF\xFF", dns::kA, dns::AddressData(kAddress1))});
       }},
      {"length beyond the end",
       [](const DnsQuestion& q) {
         std::string record = dns::Record(dns::kOwnName, dns::kA, dns::AddressData(kAddress1));
         record[10] = '\x7F';
         return dns::Answer(q, {record});
       }},
      {"alias that points to itself",
       [](const DnsQuestion& q) {
         const std::string self = dns::Number16(0xC000U | (q.packet.size() + 12));
         return dns::Answer(q, {dns::Record(dns::kOwnName, dns::kCname, self),
                                dns::Record(dns::kOwnName, dns::kA, dns::AddressData(kAddress1))});
       }},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string name = "broken" + std::to_string(i) + ".test";
    server_.Set(name, [&, i](const DnsQuestion& question) { return std::vector{cases[i].answer(question)}; });
    EXPECT_EQ(Outcome(std::string_view(name)), "11003") << cases[i].what;
  }
  server_.Set(kReverse1, [](const DnsQuestion& q) {
    const std::string self = dns::Number16(0xC000U | (q.packet.size() + 12));
    return std::vector{dns::Answer(q, {dns::Record(dns::kOwnName, dns::kPtr, self)})};
  });
  EXPECT_EQ(Outcome(kAddress1), "11003");
  server_.SetAddresses("good.test", {kAddress1});
  EXPECT_EQ(Outcome("good.test"), "192.0.2.1");
}

// Every cut and every flipped byte of a true answer: nothing but an end of the look-up may come of it.
TEST_F(NameLookupTest, NoCutAndNoFlippedByteDoesHarm) {
  std::size_t variant = 0;
  const auto spoil = [&variant](std::string message) {
    if (variant < message.size()) {
      message.resize(variant);
    } else {
      message[variant % message.size()] = static_cast<char>(message[variant % message.size()] ^ 0xC0);
    }
    return std::vector{message};
  };
  std::size_t length = 0;
  server_.Set("spoilt.test", [&](const DnsQuestion& question) {
    const std::string message = dns::AddressAnswer(question, {kAddress1, kAddress2});
    length = message.size();
    return spoil(message);
  });
  server_.Set(kReverse1, [&](const DnsQuestion& question) {
    return spoil(dns::NameAnswer(question, {"spoilt.test", "x.test"}));
  });
  int answers = 0;
  int asked = 0;
  for (variant = 0; variant < 200; ++variant) {
    lookup_->FindAddresses("spoilt.test", LookupFamily::kIPv4, [&](const AddressAnswer& answer) {
      EXPECT_EQ(answer.error == 0, !answer.addresses.empty());
      ++answers;
    });
    lookup_->FindName(kAddress1, [&](const NameAnswer& answer) {
      EXPECT_EQ(answer.error == 0, !answer.name.empty());
      ++answers;
    });
    asked += 2;
    const std::size_t questions = server_.Questions();
    ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Questions() >= questions + 2; }));
    RunUntilIdle(loop_);
    clock_.Advance(seconds(5));  // those that are taken for no answer at all
    RunUntilIdle(loop_);
    ASSERT_EQ(answers, asked) << variant;
  }
  ASSERT_LT(2 * length, 200U) << "some variants were not reached";
}

TEST_F(NameLookupTest, TruncatedAnswerIsAskedForOverTcp) {
  std::vector<IPAddress> many;
  for (std::uint32_t i = 0; i < 100; ++i) many.push_back(IPAddress::IPv4(kAddress1.Number() + i));
  server_.Set("big.test", [&](const DnsQuestion& question) {
    return std::vector{question.over_tcp ? dns::AddressAnswer(question, many)
                                         : dns::Answer(question, {}, dns::Rcode::kNone, /*extra_flags=*/2)};
  });
  std::vector<IPAddress> found;
  lookup_->FindAddresses("big.test", LookupFamily::kIPv4,
                         [&](const AddressAnswer& answer) { found = answer.addresses; });
  EXPECT_TRUE(RunUntil(loop_, [&] { return !found.empty(); }));
  EXPECT_EQ(found, many);
}

TEST_F(NameLookupTest, ServerThatIsNotThereFailsAtOnce) {
  std::string address;
  {
    const DnsServer gone(loop_);
    address = gone.Address();
  }
  lookup_ = MakeNameLookup(loop_, {.servers = address, .hosts_file = folder_ / "hosts"});
  EXPECT_EQ(Outcome("x.test"), "11002");
  EXPECT_EQ(Outcome(kAddress1), "11002");
  // With a second server that is there, that one answers.
  lookup_ =
      MakeNameLookup(loop_, {.servers = address + "," + server_.Address(), .hosts_file = folder_ / "hosts"});
  server_.SetAddresses("x.test", {kAddress1});
  EXPECT_EQ(Outcome("x.test"), "192.0.2.1");
}

// The same with time as it is: c-ares asks again by itself, and an unanswered look-up ends in the limit.
class NameLookupInRealTime : public testing::Test {
 protected:
  void Make(Milliseconds limit) {
    lookup_ =
        MakeNameLookup(loop_, {.servers = server_.Address(), .hosts_file = "/nonexistent", .limit = limit});
  }
  SystemClock clock_;
  EventLoop loop_{clock_};
  DnsServer server_{loop_};
  std::unique_ptr<NameLookup> lookup_;
};

TEST_F(NameLookupInRealTime, LostQuestionIsAskedAgain) {
  Make(seconds(5));
  server_.Set("lost.test", [this](const DnsQuestion& question) {
    // The first datagram is lost on the way.
    if (server_.Questions("lost.test") == 1) return std::vector<std::string>{};
    return std::vector{dns::AddressAnswer(question, {kAddress1})};
  });
  std::string outcome;
  lookup_->FindAddresses("lost.test", LookupFamily::kIPv4,
                         [&](const AddressAnswer& answer) { outcome = Shown(answer); });
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  EXPECT_EQ(outcome, "192.0.2.1");
  EXPECT_EQ(server_.Questions("lost.test"), 2U);
}

TEST_F(NameLookupInRealTime, SilenceEndsWithTheLimit) {
  Make(milliseconds(200));
  server_.SetSilent("silent.test");
  std::string outcome;
  const auto start = std::chrono::steady_clock::now();
  lookup_->FindAddresses("silent.test", LookupFamily::kIPv4,
                         [&](const AddressAnswer& answer) { outcome = Shown(answer); });
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  EXPECT_EQ(outcome, "11002");
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(150));
  EXPECT_GE(server_.Questions("silent.test"), 2U);
}

}  // namespace
}  // namespace trabex

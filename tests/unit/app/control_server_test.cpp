#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "app/control_protocol.h"
#include "control_server_fixture.h"

namespace trabex {
namespace {

TEST_F(ControlServerTest, AnswersAndHangsUp) {
  EXPECT_EQ(Answer("ECHO\n"), "X 3\n");
  EXPECT_EQ(Answer("ECHO\ta b\t\n"), "T 7\n[a b][]X 3\n");
  EXPECT_EQ(Answer("ECHO\tx\nECHO\ty\n"), "T 3\n[x]X 3\n") << "one request";
  EXPECT_EQ(Answer("NOTHING\n"), "E 50\nThis instance does not know the request \"NOTHING\".X 1\n");
  EXPECT_EQ(Answer("RAISE\n"), "E 14\nFile not foundX 1\n");
  EXPECT_EQ(server_.CallerCount(), 0U);
}

TEST_F(ControlServerTest, RubbishIsToldSo) {
  const std::string refused = "E 19\nThis is no request.X 2\n";
  for (const std::string& line :
       {std::string("\n"), std::string("\xFF\xFE\n"), std::string("ECHO\t\\x\n"), std::string("\tx\n"),
        std::string(kMaxRequestBytes, 'x'), std::string(kMaxRequestBytes, 'x') + "\n",
        "ECHO\t" + std::string(2 * kMaxRequestBytes, 'x') + "\n"}) {
    EXPECT_EQ(Answer(line), refused) << line.substr(0, 20);
  }
  EXPECT_EQ(Answer("GET / HTTP/1.1\r\n\r\n").substr(0, 4), "E 58");
  const std::string longest = "ECHO\t" + std::string(kMaxRequestBytes - 6, 'x') + "\n";
  EXPECT_EQ(Answer(longest).size(), kMaxRequestBytes - 6 + 2 + std::string("T 65532\nX 3\n").size());
}

TEST_F(ControlServerTest, LineMayComeInPieces) {
  ControlCallerPeer caller(name_);
  for (const char c : std::string("ECHO\thello")) {
    caller.Send({&c, 1});
    Settle();
    Pass(ControlServer::kMaxSilence - Milliseconds{1000});
    ASSERT_FALSE(caller.Ended()) << "each byte begins the time anew";
  }
  caller.Send("\n");
  EXPECT_TRUE(Runs([&] { return caller.Ended(); }));
  EXPECT_EQ(caller.Heard(), "T 7\n[hello]X 3\n");
}

TEST_F(ControlServerTest, OneThatSaysNothingIsHungUpOn) {
  ControlCallerPeer silent(name_);
  ControlCallerPeer half(name_);
  half.Send("ECHO\tx");
  auto gone = std::make_unique<ControlCallerPeer>(name_);
  gone->Send("ECHO\tx");
  ASSERT_TRUE(Runs([&] { return server_.CallerCount() == 3 && half.AllSent() && gone->AllSent(); }));
  gone.reset();
  ASSERT_TRUE(Runs([&] { return server_.CallerCount() == 2; }));
  Settle();
  Pass(ControlServer::kMaxSilence - Milliseconds{100});
  EXPECT_FALSE(silent.Ended() || half.Ended());
  Pass(Milliseconds{200});
  EXPECT_TRUE(silent.Ended() && half.Ended());
  EXPECT_EQ(silent.Heard() + half.Heard(), "");
  EXPECT_EQ(server_.CallerCount(), 0U);
}

TEST_F(ControlServerTest, OneThatDoesNotReadIsHungUpOn) {
  ControlCallerPeer caller(name_);
  caller.Send("MUCH\n");
  ASSERT_TRUE(Runs([&] { return caller.SomethingWaits(); }));
  Settle();
  Pass(ControlServer::kMaxSilence - Milliseconds{100});
  EXPECT_EQ(server_.CallerCount(), 1U);
  Pass(Milliseconds{200});
  EXPECT_EQ(server_.CallerCount(), 0U);
  EXPECT_TRUE(Runs([&] { return caller.Ended(); }));
  EXPECT_LT(caller.Heard().size(), 5'000'000U);
}

TEST_F(ControlServerTest, OneThatReadsSlowlyGetsAll) {
  ControlCallerPeer caller(name_);
  caller.Send("MUCH\n");
  ASSERT_TRUE(Runs([&] { return caller.SomethingWaits(); }));
  while (!caller.Ended()) {
    Settle();
    Pass(ControlServer::kMaxSilence - Milliseconds{100});
  }
  EXPECT_EQ(caller.Heard(), "T 5000000\n" + std::string(5'000'000, 'm') + "X 0\n");
}

TEST_F(ControlServerTest, EightAtOnceAndTheOthersWait) {
  std::vector<std::unique_ptr<ControlCallerPeer>> callers;
  const auto call = [&] {
    callers.push_back(std::make_unique<ControlCallerPeer>(name_));
    ASSERT_TRUE(callers.back()->Connected());
  };
  while (callers.size() < ControlServer::kMaxCallers) {
    call();
    ASSERT_TRUE(Runs([&] { return server_.CallerCount() == callers.size(); }));
  }
  for (int i = 8; i < 20; ++i) {
    call();
    callers.back()->Send("ECHO\t" + std::to_string(i) + "\n");
  }
  RunUntilIdle(loop_);
  EXPECT_EQ(server_.CallerCount(), ControlServer::kMaxCallers);
  callers[3]->Send("ECHO\tx\n");
  EXPECT_TRUE(Runs([&] {
    bool all = true;
    for (std::size_t i = 8; i < 20; ++i) all = all && callers[i]->Ended();
    return all;
  })) << "one place is enough for all who have something to say";
  for (std::size_t i = 8; i < 20; ++i)
    EXPECT_NE(callers[i]->Heard().find("[" + std::to_string(i) + "]X 3\n"), std::string::npos);
  Pass(ControlServer::kMaxSilence + Milliseconds{100});
  EXPECT_EQ(server_.CallerCount(), 0U);
}

TEST_F(ControlServerTest, SlicesAreMadeOneInATurn) {
  ControlCallerPeer first(name_);
  ControlCallerPeer second(name_);
  ASSERT_TRUE(Runs([&] { return server_.CallerCount() == 2; }));
  first.Send("SLICES\t3000\n");
  second.Send("SLICES\t20\n");
  std::size_t made = 0;
  while (!first.Ended() || !second.Ended()) {
    loop_.RunOnce(Milliseconds{5});
    ASSERT_LE(slices_made_.size(), made + 1);
    made = slices_made_.size();
  }
  EXPECT_EQ(made, 3020U);
  // The second may be heard a little later, and a slice may be taken later than it is made.
  EXPECT_EQ(slices_made_.back(), 3000) << "in turns";
  std::string text;
  AnswerReader reader({.text = [&](std::string_view part) { text += part; }, .error = {}});
  ASSERT_EQ(reader.Take(second.Heard()), AnswerReader::State::kComplete);
  EXPECT_EQ(text, "0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,");
  EXPECT_EQ(reader.Status(), 19);
}

TEST_F(ControlServerTest, NoSliceIsMadeForOneThatDoesNotRead) {
  requests_.Add("ENDLESS", [this](const std::vector<std::string>&) {
    return ControlSlices([this](ControlAnswer& slice) {
      slices_made_.push_back(0);
      slice.text = std::string(50'000, 'e');
      return true;
    });
  });
  ControlCallerPeer caller(name_);
  caller.Send("ENDLESS\n");
  ASSERT_TRUE(Runs([&] { return caller.SomethingWaits(); }));
  Settle();
  const std::size_t made = slices_made_.size();
  EXPECT_LT(made, 100U);
  Settle();
  EXPECT_EQ(slices_made_.size(), made);
  caller.Heard();
  EXPECT_TRUE(Runs([&] { return slices_made_.size() > made; }));
  Settle();
  Pass(ControlServer::kMaxSilence + Milliseconds{100});
  EXPECT_EQ(server_.CallerCount(), 0U);
}

TEST_F(ControlServerTest, AnswerMayTakeItsTime) {
  ControlCallerPeer caller(name_);
  caller.Send("LATER\n");
  ASSERT_TRUE(Runs([&] { return later_asked_ == 1; }));
  Pass(10 * ControlServer::kMaxSilence);
  EXPECT_FALSE(caller.Ended());
  later_->Give({.status = 1, .text = "at last\n", .error = {}});
  EXPECT_TRUE(Runs([&] { return caller.Ended(); }));
  EXPECT_EQ(caller.Heard(), "T 8\nat last\nX 1\n");
}

TEST_F(ControlServerTest, AnswerThatIsGivenAtTheEndStillArrives) {
  ControlCallerPeer caller(name_);
  caller.Send("LATER\n");
  ControlCallerPeer silent(name_);
  ASSERT_TRUE(Runs([&] { return server_.CallerCount() == 2 && later_asked_ == 1; }));
  later_->Give({.status = 1, .text = "bye\n", .error = {}});
  server_.Close();
  EXPECT_TRUE(Runs([&] { return caller.Ended() && silent.Ended(); }));
  EXPECT_EQ(caller.Heard(), "T 4\nbye\nX 1\n");
  EXPECT_TRUE(Runs([&] { return !ControlCallerPeer(name_).Connected(); }));
}

TEST_F(ControlServerTest, MayBeClosedByARequestItself) {
  int calls = 0;
  requests_.Add("CLOSE", [&](const std::vector<std::string>&) {
    server_.Close();
    return ControlAnswer{};
  });
  requests_.Add("SLICED", [&](const std::vector<std::string>&) {
    return ControlSlices([&, big = std::string(100, 'x')](ControlAnswer& slice) {
      ++calls;
      server_.Close();
      slice.text = big;
      return true;
    });
  });
  for (const std::string line : {"CLOSE\n", "SLICED\n"}) {
    ControlCallerPeer caller(name_);
    ControlCallerPeer other(name_);
    caller.Send(line);
    EXPECT_TRUE(Runs([&] { return caller.Ended() && other.Ended(); }));
    EXPECT_EQ(caller.Heard(), "");
    ASSERT_TRUE(server_.Open(name_));
    server_.Begin();
  }
  RunUntilIdle(loop_);
  EXPECT_EQ(calls, 1);
}

TEST_F(ControlServerTest, NameMayChangeUnderAWaitingCaller) {
  ControlCallerPeer caller(name_);
  caller.Send("LATER\n");
  ASSERT_TRUE(Runs([&] { return later_asked_ == 1; }));
  ASSERT_TRUE(server_.Open(name_ + "1"));
  ControlCallerPeer other(name_ + "1");
  other.Send("ECHO\n");
  EXPECT_TRUE(Runs([&] { return other.Ended(); }));
  EXPECT_EQ(other.Heard(), "X 3\n");
  later_->Give({});
  EXPECT_TRUE(Runs([&] { return caller.Ended(); }));
  EXPECT_EQ(caller.Heard(), "X 0\n");
  EXPECT_TRUE(Runs([&] { return !ControlCallerPeer(name_).Connected(); }));
}

TEST_F(ControlServerTest, CallersOfTheStartWait) {
  ControlServer early(loop_, requests_);
  ASSERT_TRUE(early.Open(name_ + "2"));
  ControlCallerPeer caller(name_ + "2");
  caller.Send("ECHO\n");
  RunUntilIdle(loop_);
  EXPECT_FALSE(caller.Ended());
  early.Begin();
  EXPECT_TRUE(Runs([&] { return caller.Ended(); }));
  EXPECT_EQ(caller.Heard(), "X 3\n");
}

TEST_F(ControlServerTest, NameOfAnotherIsNotTaken) {
  ControlServer other(loop_, requests_);
  EXPECT_FALSE(other.Open(name_));
}

}  // namespace
}  // namespace trabex

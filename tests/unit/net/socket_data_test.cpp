// Sending, receiving, and how a connection's end is notified.
#include <new>

#include "net_fixture.h"
#include "support/counted_allocations.h"

namespace trabex {
namespace {

std::string Pattern(std::size_t count) {
  std::string text(count, '\0');
  for (std::size_t i = 0; i < count; ++i) text[i] = static_cast<char>((i * 31 + i / 251) & 0xFF);
  return text;
}

class DataTest : public NetTest {
 protected:
  CSocketMaster& Ours() { return **accepted; }
  std::string Get(std::int32_t max_length = 0) {
    std::string data = "old";
    const std::int32_t count = Ours().GetData(data, max_length);
    EXPECT_EQ(count, static_cast<std::int32_t>(data.size()));
    return data;
  }
  std::string Peek(std::int32_t max_length = 0) {
    std::string data = "old";
    const std::int32_t count = Ours().PeekData(data, max_length);
    EXPECT_EQ(count, static_cast<std::int32_t>(data.size()));
    return data;
  }
  SocketHandle Handle() { return {Ours().SocketHandle(), 0}; }
  // The peer's reset has reached our system; the loop has not run.
  void ResetHere() {
    peer->Reset();
    Endpoint nobody;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (sockets.RemoteEndpoint(Handle(), nobody) == 0) ASSERT_LT(std::chrono::steady_clock::now(), end);
  }
  // Makes a send wait; returns what was given to SendData.
  std::string FillUp() {
    std::string all;
    const std::string portion = Pattern(1 << 16);
    while (Ours().PendingBytes() == 0) {
      all += portion;
      Ours().SendData(portion);
    }
    return all;
  }
};

class SendTest : public DataTest {};
class ReceiveTest : public DataTest {};
class EndTest : public DataTest {};

TEST_F(SendTest, WhatTheNetworkTakesIsCompleteBeforeSendDataReturns) {
  Connection();
  Ours().SendData("hello");
  EXPECT_EQ(accepted->Take(), "SendProgress(5,0) SendComplete");
  EXPECT_EQ(Ours().BytesSent(), 5);
  EXPECT_EQ(Ours().PendingBytes(), 0U);
  Ours().SendData(" world");
  EXPECT_EQ(accepted->Take(), "SendProgress(6,0) SendComplete");
  EXPECT_EQ(Ours().BytesSent(), 11);
  EXPECT_EQ(peer->Receive(11), "hello world");
  RunUntilIdle(loop);
  EXPECT_EQ(accepted->Take(), "");
}

TEST_F(SendTest, NothingToSendRaisesNothing) {
  Connection();
  Ours().SendData("");
  EXPECT_EQ(accepted->Take(), "");
  EXPECT_EQ(Ours().BytesSent(), 0);
}

TEST_F(SendTest, BytesOfEveryValuePass) {
  Connection();
  const std::string all = Pattern(100000);
  Ours().SendData(all);
  EXPECT_EQ(peer->Receive(all.size()), all);
}

TEST_F(SendTest, APortionThatFitsIntoTheSendBufferIsOneSend) {
  Connection();
  int size = 0;
  ASSERT_EQ(sockets.SendBufferSize(Handle(), size), 0);
  const std::string data = Pattern(std::min(static_cast<std::size_t>(size), std::size_t{16384}));
  Ours().SendData(data);
  EXPECT_EQ(accepted->Take(), "SendProgress(" + std::to_string(data.size()) + ",0) SendComplete");
}

TEST_F(SendTest, WhatDoesNotFitWaitsAndMoreIsOnlyAppended) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  std::string all = FillUp();
  const std::size_t pending = Ours().PendingBytes();
  const auto sent = static_cast<std::size_t>(Ours().BytesSent());
  EXPECT_EQ(sent + pending, all.size());
  const std::string before = accepted->Take();
  EXPECT_TRUE(before.ends_with("," + std::to_string(pending) + ")")) << before;  // SendProgress(n,pending)

  Ours().SendData("appended");
  all += "appended";
  EXPECT_EQ(accepted->Take(), "");
  EXPECT_EQ(Ours().PendingBytes(), pending + 8);
  EXPECT_EQ(Ours().BytesSent(), static_cast<std::int64_t>(sent));

  EXPECT_EQ(peer->Receive(all.size()), all);
  RunUntilIdle(loop);
  EXPECT_EQ(Ours().PendingBytes(), 0U);
  EXPECT_EQ(Ours().BytesSent(), static_cast<std::int64_t>(all.size()));
  const std::string events = accepted->Take();
  EXPECT_TRUE(events.ends_with(",0) SendComplete")) << events;
  EXPECT_EQ(events.find("SendComplete"), events.rfind("SendComplete"));
}

TEST_F(SendTest, NothingOvertakesWhatWaits) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  std::string all = FillUp();
  // There is room again, and the loop has not said so yet.
  std::string got;
  for (int i = 0; i < 1000; ++i) got += peer->ReceiveNow();
  Ours().SendData("the last");
  all += "the last";
  got += peer->Receive(all.size() - got.size());
  EXPECT_TRUE(got == all);
}

TEST_F(SendTest, ASlowReaderGetsMegabytesInOrder) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  const std::string all = Pattern(12 << 20);
  Ours().SendData(all);
  EXPECT_GT(Ours().PendingBytes(), 0U);
  std::string got;
  peer->RunWith([&] {
    peer->ReceiveSome(got, 20011);
    return got.size() >= all.size();
  });
  EXPECT_TRUE(got == all);
  RunUntilIdle(loop);
  EXPECT_EQ(Ours().PendingBytes(), 0U);
  EXPECT_TRUE(accepted->trace.ends_with(",0) SendComplete"));
}

// The network took the beginning, and there was no memory for the rest. What came behind it would be taken for that.
TEST_F(SendTest, NothingFollowsWhatHasLostItsEnd) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  const std::string all = Pattern(12 << 20);
  {
    const FailedAllocation failure(0, FailedAllocation::kAll);
    EXPECT_THROW(Ours().SendData(all), std::bad_alloc);
  }
  Ours().SendData("421 the last words");
  Ours().SayLast("421 the last words");
  Ours().CloseSck();
  const std::string got = peer->ReceiveToEnd();
  EXPECT_GT(got.size(), 0U);
  EXPECT_LT(got.size(), all.size());
  EXPECT_TRUE(all.starts_with(got));
}

TEST_F(SendTest, TheNextSendMayBeginInsideSendComplete) {
  Connection();
  int left = 3;
  accepted->On("SendComplete", [&] {
    if (left-- > 0) Ours().SendData("x");
  });
  Ours().SendData("x");
  EXPECT_EQ(peer->Receive(4), "xxxx");
  EXPECT_EQ(Ours().BytesSent(), 4);
}

TEST_F(SendTest, SendCompleteIsLeftToASendThatBeganInsideSendProgress) {
  Connection();
  bool first = true;
  std::string all = "x";
  accepted->On("SendProgress", [&] {
    if (std::exchange(first, false)) all += FillUp();
  });
  Ours().SendData("x");
  EXPECT_EQ(accepted->trace.find("SendComplete SendComplete"), std::string::npos);
  EXPECT_EQ(peer->Receive(all.size()), all);
  RunUntilIdle(loop);
  EXPECT_EQ(Ours().PendingBytes(), 0U);
  EXPECT_TRUE(accepted->trace.ends_with("SendComplete"));
}

TEST_F(SendTest, ToAConnectionThatWasResetIsAnErrorEvent) {
  Connection();
  ResetHere();
  Ours().SendData("hello");
  EXPECT_EQ(accepted->Take(), "Error(10054)");
  EXPECT_EQ(accepted->error_source, "CSocketMaster.SendBufferedData");
  EXPECT_EQ(accepted->error_description, "Connection reset by peer.");
  EXPECT_EQ(Ours().State(), SocketState::sckError);
  EXPECT_EQ(Ours().PendingBytes(), 5U);
  Ours().CloseSck();
  EXPECT_EQ(Ours().PendingBytes(), 0U);
  EXPECT_EQ(module.LingeringCount(), 0U);
}

TEST_F(SendTest, ToAConnectionThatWasResetIsAnErrorThoughSomethingWaits) {
  Connection();
  peer->Send("last words");
  ExpectEvents(*accepted, "DataArrival");
  ResetHere();
  Ours().SendData("hello");
  EXPECT_EQ(accepted->Take(), "Error(10054)");
}

TEST_F(SendTest, ToAConnectionThatWasResetLetsWhatThePeerSaidBeforeBeReadFirst) {
  Connection();
  Ours().SetDrainBeforeSendError(true);
  peer->Send("last words");
  ExpectEvents(*accepted, "DataArrival");
  ResetHere();
  Ours().SendData("hello");
  EXPECT_EQ(accepted->Take(), "");
  EXPECT_EQ(Ours().State(), SocketState::sckConnected);
  EXPECT_EQ(Ours().PendingBytes(), 0U);
  Ours().SendData("more");
  EXPECT_EQ(Ours().PendingBytes(), 0U);
  RunUntilIdle(loop);
  EXPECT_EQ(accepted->Take(), "");
  EXPECT_EQ(Get(), "last words");
  ASSERT_TRUE(RunUntil(loop, [&] { return Ours().State() != SocketState::sckConnected; }));
  const std::string end = accepted->Take();
  EXPECT_TRUE(end == "CloseSck" || end == "Error(10054)")
      << end;  // the system may have reported its error before
  // The next connection of the object is whole again.
  Ours().CloseSck();
  PeerListener server(loop);
  Ours().Connect("127.0.0.1", server.port);
  ExpectEvents(*accepted, "Connect");
  Ours().SendData("anew");
  EXPECT_EQ(accepted->Take(), "SendProgress(4,0) SendComplete");
}

TEST_F(SendTest, AWaitingSendLearnsOfAReset) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  FillUp();
  accepted->Take();
  peer->Reset();
  ASSERT_TRUE(RunUntil(loop, [&] { return Ours().State() != SocketState::sckConnected; }));
  EXPECT_TRUE(accepted->Take().starts_with(ResetEvent()));
}

TEST_F(SendTest, GoesOnToAPeerThatOnlyEndedItsSendingUntilCloseSckIsRaised) {
  Connection();
  accepted->On("CloseSck", [&] {
    ExpectError([&] { Ours().SendData("x"); }, 40006, "CSocketMaster.SendData", kWrongState);
  });
  peer->EndSending();
  ExpectEvents(*accepted, "CloseSck");
}

TEST_F(ReceiveTest, DataArrivalIsRaisedOnceUntilDataIsTaken) {
  Connection();
  peer->Send("one");
  ExpectEvents(*accepted, "DataArrival");
  peer->Send("two");
  AllHere();
  ExpectEvents(*accepted, "");
  EXPECT_EQ(Get(), "onetwo");
  ExpectEvents(*accepted, "");
  peer->Send("three");
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Get(), "three");
  EXPECT_EQ(Ours().BytesReceived(), 11);
}

TEST_F(ReceiveTest, WhatIsLeftIsAnnouncedAgain) {
  Connection();
  peer->Send("onetwo");
  AllHere();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Get(3), "one");
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Get(3), "two");
  ExpectEvents(*accepted, "");
  EXPECT_EQ(Ours().BytesReceived(), 6);
}

TEST_F(ReceiveTest, WithoutDataTheResultIsEmpty) {
  Connection();
  EXPECT_EQ(Get(), "");
  EXPECT_EQ(Get(10), "");
  EXPECT_EQ(Peek(), "");
  EXPECT_EQ(Ours().PeekView(), "");
  EXPECT_EQ(Ours().BytesReceived(), 0);
}

TEST_F(ReceiveTest, APeekLeavesTheBytesToBeReadAndCountsThemOnce) {
  Connection();
  peer->Send("hello world");
  AllHere();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Peek(), "hello world");
  EXPECT_EQ(Ours().PeekView(), "hello world");
  EXPECT_EQ(Peek(5), "hello");
  EXPECT_EQ(Ours().PeekView(5), "hello");
  EXPECT_EQ(Ours().BytesReceived(), 0);
  EXPECT_EQ(Get(6), "hello ");
  EXPECT_EQ(Ours().BytesReceived(), 6);
  EXPECT_EQ(Ours().PeekView(), "world");
  EXPECT_EQ(Get(), "world");
  EXPECT_EQ(Ours().BytesReceived(), 11);
  EXPECT_EQ(Ours().PeekView(), "");
}

TEST_F(ReceiveTest, ConsumeTakesWhatWasPeekedAndCountsIt) {
  Connection();
  peer->Send("hello world");
  AllHere();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Ours().PeekView(), "hello world");
  Ours().Consume(0);
  EXPECT_EQ(Ours().BytesReceived(), 0);
  Ours().Consume(6);
  EXPECT_EQ(Ours().BytesReceived(), 6);
  EXPECT_EQ(Ours().UnreadBytes(), 5U);
  EXPECT_EQ(Ours().PeekView(), "world");
  EXPECT_EQ(Get(2), "wo");
  Ours().Consume(3);
  EXPECT_EQ(Ours().BytesReceived(), 11);
  EXPECT_EQ(Ours().PeekView(), "");
}

// What is received and passed on at once lies in the one buffer that all objects share, and nowhere else.
TEST_F(ReceiveTest, WhatIsPassedOnIsNotCopied) {
  Connection();
  const auto first_peer = std::move(peer);
  const auto first = std::move(accepted);
  Connection();
  const auto pass_on = [&](CSocketMaster& from, Peer& from_peer, CSocketMaster& to, Peer& to_peer) {
    const std::string content = Pattern(40000);
    from_peer.Send(content);
    ASSERT_TRUE(RunUntil(loop, [&] { return from_peer.AllDelivered(); }));
    RunUntilIdle(loop);
    const std::string_view view = from.PeekView();
    ASSERT_TRUE(view == content);
    to.SendData(view);
    EXPECT_EQ(to.PendingBytes(), 0U);
    from.Consume(static_cast<std::int32_t>(view.size()));
    EXPECT_EQ(from.UnreadBytes(), 0U);
    EXPECT_TRUE(to_peer.Receive(content.size()) == content);
  };
  for (int round = 0; round < 3; ++round) {
    pass_on(**first, *first_peer, Ours(), *peer);
    pass_on(Ours(), *peer, **first, *first_peer);
  }
  EXPECT_EQ(module.CopiedBytes(), 0U);
}

TEST_F(ReceiveTest, WhatIsLeftOverIsKeptWhileOthersRead) {
  Connection();
  const auto first_peer = std::move(peer);
  const auto first = std::move(accepted);
  Connection();
  first_peer->Send("QUIT\r\nleft ");
  peer->Send("other");
  AllHere();
  ASSERT_TRUE(RunUntil(loop, [&] { return first_peer->AllDelivered(); }));
  RunUntilIdle(loop);
  EXPECT_EQ((*first)->PeekView(), "QUIT\r\nleft ");
  (*first)->Consume(6);
  EXPECT_EQ(Ours().PeekView(3), "oth");
  EXPECT_EQ((*first)->UnreadBytes(), 5U);
  EXPECT_EQ(Ours().UnreadBytes(), 5U);
  first_peer->Send("over");
  ASSERT_TRUE(RunUntil(loop, [&] { return first_peer->AllDelivered(); }));
  RunUntilIdle(loop);
  EXPECT_EQ(module.CopiedBytes(), 5U);  // "left "
  EXPECT_EQ((*first)->PeekView(), "left over");
  EXPECT_EQ(module.CopiedBytes(), 5U + 3U + 5U);  // "oth", and "left " back
  EXPECT_EQ(Get(), "other");
  std::string data;
  EXPECT_EQ((*first)->GetData(data), 9);
  EXPECT_EQ(data, "left over");
  EXPECT_EQ((*first)->BytesReceived(), 15);
}

TEST_F(ReceiveTest, NoMoreThanWasPeekedCanBeConsumed) {
  Connection();
  peer->Send("hello");
  AllHere();
  ExpectError([&] { Ours().Consume(1); }, 40014, "CSocketMaster.Consume", kBadArgument);
  EXPECT_EQ(Ours().PeekView(3), "hel");
  ExpectError([&] { Ours().Consume(4); }, 40014, "CSocketMaster.Consume", kBadArgument);
  ExpectError([&] { Ours().Consume(-1); }, 40014, "CSocketMaster.Consume", kBadArgument);
  EXPECT_EQ(Get(), "hello");
}

TEST_F(ReceiveTest, ConsumeDoesNothingOnceTheObjectIsClosed) {
  Connection();
  peer->Send("hello");
  AllHere();
  EXPECT_EQ(Ours().PeekView(), "hello");
  Ours().CloseSck();
  Ours().Consume(5);
  EXPECT_EQ(Ours().BytesReceived(), 0);
}

TEST_F(ReceiveTest, WhatWasPeekedComesBeforeWhatCameLater) {
  Connection();
  peer->Send("abc");
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Peek(), "abc");
  peer->Send("def");
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Peek(2), "ab");
  EXPECT_EQ(Peek(4), "abcd");
  EXPECT_EQ(Get(5), "abcde");
  EXPECT_EQ(Get(5), "f");
}

TEST_F(ReceiveTest, ALengthBeyondWhatWasPeekedIsFilledFromTheNetwork) {
  Connection();
  peer->Send("abcdef");
  AllHere();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Peek(2), "ab");
  EXPECT_EQ(Get(4), "abcd");
  EXPECT_EQ(Get(4), "ef");
}

TEST_F(ReceiveTest, ALengthOfZeroMeansTheReceiveBuffersSize) {
  Connection();
  int size = 0;
  ASSERT_EQ(sockets.ReceiveBufferSize(Handle(), size), 0);
  const std::string all = Pattern(static_cast<std::size_t>(size) * 3);
  std::string got;
  std::size_t greatest = 0;
  accepted->On("DataArrival", [&] {
    const std::string portion = Get();
    greatest = std::max(greatest, portion.size());
    got += portion;
  });
  peer->Send(all);
  ASSERT_TRUE(RunUntil(loop, [&] { return got.size() == all.size(); }));
  EXPECT_TRUE(got == all);
  EXPECT_LE(greatest, static_cast<std::size_t>(size));
  EXPECT_EQ(Ours().BytesReceived(), static_cast<std::int64_t>(all.size()));
}

TEST_F(ReceiveTest, PeekingHoldsNoMoreThanTheReceiveBuffersSize) {
  Connection();
  int size = 0;
  ASSERT_EQ(sockets.ReceiveBufferSize(Handle(), size), 0);
  const auto limit = static_cast<std::size_t>(size);
  const std::string all = Pattern(limit * 3);
  std::size_t sent = 0;
  ASSERT_TRUE(RunUntil(loop, [&] {
    sent += peer->SendSome(all.substr(sent));
    loop.RunOnce(Milliseconds{0});
    return Ours().PeekView().size() == limit;
  }));
  for (int i = 0; i < 20; ++i) {
    sent += peer->SendSome(all.substr(sent));
    loop.RunOnce(Milliseconds{0});
    ASSERT_EQ(Ours().PeekView().size(), limit);
  }
  EXPECT_TRUE(Ours().PeekView() == std::string_view(all).substr(0, limit));
}

TEST_F(ReceiveTest, OneCallMayTakeMoreThanOneReceiveGives) {
  Connection();
  const std::string all = Pattern(100000);
  peer->Send(all);
  AllHere();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_TRUE(Get(100000) == all);
}

TEST_F(EndTest, CloseSckIsRaisedOnceAndTheSocketStaysUntilTheOwnerCloses) {
  Connection();
  peer->Close();
  ExpectEvents(*accepted, "CloseSck");
  EXPECT_EQ(Ours().State(), SocketState::sckClosing);
  EXPECT_GT(Ours().SocketHandle(), 0);
  ExpectEvents(*accepted, "");
  Ours().CloseSck();
  EXPECT_EQ(Ours().State(), SocketState::sckClosed);
}

TEST_F(EndTest, ThePeersLastWordsAreReadBeforeTheEndIsNotified) {
  Connection();
  peer->Send("last words");
  peer->Close();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Get(4), "last");
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Get(), " words");
  ExpectEvents(*accepted, "CloseSck");
}

TEST_F(EndTest, AnEndFoundByReadingIsNotifiedFromTheLoop) {
  Connection();
  peer->Send("x");
  peer->Close();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Get(1), "x");
  EXPECT_EQ(Get(1), "");
  EXPECT_EQ(Ours().State(), SocketState::sckConnected);
  ExpectEvents(*accepted, "CloseSck");
}

TEST_F(EndTest, AResetIsAnErrorEvent) {
  Connection();
  peer->Reset();
  ExpectEvents(*accepted, ResetEvent());
  if (!ResetsAreTold()) return;
  EXPECT_EQ(accepted->error_source, "CSocketMaster.PostSocket");
  EXPECT_EQ(accepted->error_description, "Connection reset by peer.");
  EXPECT_EQ(Ours().State(), SocketState::sckError);
}

TEST_F(EndTest, DataThatCameBeforeAResetIsReadFirst) {
  Connection();
  peer->Send("last words");
  peer->Reset();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Get(), "last words");
  ExpectEvents(*accepted, ResetEvent());
}

TEST_F(EndTest, AReadThatFindsAResetRaisesAndTheErrorEventFollows) {
  Connection();
  peer->Send("hello");
  ExpectEvents(*accepted, "DataArrival");
  ResetHere();
  EXPECT_EQ(Get(5), "hello");
  if (ResetsAreTold()) {
    std::string data;
    ExpectError([&] { Ours().GetData(data); }, 10054, "CSocketMaster.RecvDataToBuffer",
                "Connection reset by peer.");
    EXPECT_EQ(Ours().State(), SocketState::sckError);
  } else {
    EXPECT_EQ(Get(), "");
  }
  ExpectEvents(*accepted, ResetEvent());
}

TEST_F(EndTest, AReadThatFindsAResetStillGivesWhatWasPeeked) {
  Connection();
  peer->Send("hello");
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Peek(5), "hello");
  ResetHere();
  EXPECT_EQ(Get(10), "hello");
  EXPECT_EQ(Ours().State(), SocketState::sckConnected);
  ExpectEvents(*accepted, ResetEvent());
}

TEST_F(EndTest, CountersBeginAnewAfterCloseSck) {
  Connection();
  peer->Send("hello");
  ExpectEvents(*accepted, "DataArrival");
  Get(2);
  Peek();
  Ours().SendData("abc");
  EXPECT_EQ(Ours().BytesReceived(), 2);
  EXPECT_EQ(Ours().BytesSent(), 3);
  Ours().CloseSck();
  EXPECT_EQ(Ours().BytesReceived(), 0);
  EXPECT_EQ(Ours().BytesSent(), 0);
  PeerListener server(loop);
  accepted->Take();
  Ours().Connect("127.0.0.1", server.port);
  ExpectEvents(*accepted, "Connect");
  EXPECT_EQ(Get(), "");  // nothing of the earlier connection is left
}

// The end that follows bytes which the owner has not read.
TEST_F(EndTest, IsKnownBeforeEverythingHasBeenRead) {
  Connection();
  peer->Send("last words");
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_FALSE(Ours().PeerEnded());
  EXPECT_EQ(Ours().UnreadBytes(), 10U);
  peer->EndSending();
  EXPECT_TRUE(RunUntil(loop, [&] { return Ours().PeerEnded(); }));
  EXPECT_EQ(accepted->Take(), "");
  EXPECT_EQ(Peek(4), "last");
  EXPECT_EQ(Ours().UnreadBytes(), 10U);
  EXPECT_EQ(Get(), "last words");
  EXPECT_EQ(Ours().UnreadBytes(), 0U);
  ExpectEvents(*accepted, "CloseSck");
  Ours().CloseSck();
  EXPECT_FALSE(Ours().PeerEnded());
  EXPECT_EQ(Ours().UnreadBytes(), 0U);
}

TEST_F(EndTest, AResetIsKnownBeforeEverythingHasBeenRead) {
  Connection();
  peer->Send("last words");
  ExpectEvents(*accepted, "DataArrival");
  peer->Reset();
  EXPECT_TRUE(RunUntil(loop, [&] { return Ours().PeerEnded(); }));
  EXPECT_EQ(accepted->Take(), "");
  EXPECT_EQ(Get(), "last words");
  ExpectEvents(*accepted, ResetEvent());
}

}  // namespace
}  // namespace trabex

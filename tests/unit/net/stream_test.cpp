// A socket object whose bytes go through a stream that is not plain: one that packs them into records, as an
// encrypted one does.
#include "net/stream.h"

#include <algorithm>

#include "net_fixture.h"

namespace trabex {
namespace {

constexpr std::size_t kMaxRecord = 1000;
constexpr std::size_t kHeader = 2;
constexpr char kMask = 0x5A;

std::string Record(std::string_view text) {
  std::string record{static_cast<char>(text.size() >> 8), static_cast<char>(text.size() & 0xFF)};
  for (const char c : text) record += static_cast<char>(c ^ kMask);
  return record;
}

// The length of the record at the front of `bytes`, with its header; 0 while it is not complete.
std::size_t RecordSize(std::string_view bytes) {
  if (bytes.size() < kHeader) return 0;
  const auto byte = [&](std::size_t at) { return std::size_t{static_cast<unsigned char>(bytes[at])}; };
  const std::size_t size = kHeader + (byte(0) << 8 | byte(1));
  return bytes.size() < size ? 0 : size;
}

std::string Text(std::string_view record) {
  std::string text(record.substr(kHeader));
  for (char& c : text) c = static_cast<char>(c ^ kMask);
  return text;
}

// What `bytes` say when they are records; "(end)" for an empty one, "(part)" for a broken one at the end.
std::string Unpacked(std::string_view bytes) {
  std::string text;
  while (!bytes.empty()) {
    const std::size_t size = RecordSize(bytes);
    if (size == 0) return text + "(part)";
    text += size == kHeader ? "(end)" : Text(bytes.substr(0, size));
    bytes.remove_prefix(size);
  }
  return text;
}

// An empty record ends what one side says.
class RecordStream final : public Stream {
 public:
  explicit RecordStream(Sockets& sockets, std::string unread = {})
      : sockets_(sockets), input_(std::move(unread)) {}

  int Read(SocketHandle socket, std::span<char> space, std::size_t& received) override {
    received = 0;
    drained_ = true;
    if (text_.empty() && !ended_) {
      if (const int error = NextRecord(socket); error != 0) return error;
    }
    received = text_.copy(space.data(), space.size());
    text_.erase(0, received);
    drained_ = ended_;
    return 0;
  }

  int Write(SocketHandle socket, std::string_view data, std::size_t& sent, bool) override {
    sent = 0;
    while (sent < data.size()) {
      if (output_.empty()) {
        in_output_ = std::min(kMaxRecord, data.size() - sent);
        output_ = Record(data.substr(sent, in_output_));
      }
      if (!Flush(socket, output_)) return sent > 0 ? 0 : socket_error::kWouldBlock;
      sent += in_output_;
    }
    return 0;
  }

  int ShutDownWrite(SocketHandle socket) override {
    if (!std::exchange(end_said_, true)) output_ += Record("");
    if (!Flush(socket, output_)) return socket_error::kWouldBlock;
    return sockets_.ShutDownSending(socket);
  }

  std::size_t Pending(SocketHandle) override { return text_.size(); }
  bool HoldsInput() const override { return !drained_; }

 private:
  // Whether all of `bytes` has been sent.
  bool Flush(SocketHandle socket, std::string& bytes) {
    while (!bytes.empty()) {
      std::size_t sent = 0;
      if (sockets_.Send(socket, bytes, sent) != 0) return false;
      bytes.erase(0, sent);
    }
    return true;
  }

  // Puts the next record into text_.
  int NextRecord(SocketHandle socket) {
    std::size_t size = 0;
    while ((size = RecordSize(input_)) == 0) {
      char space[4096];
      std::size_t received = 0;
      const int error = sockets_.Receive(socket, space, received);
      if (error != 0) return error;
      if (received == 0) {
        ended_ = true;
        return 0;
      }
      input_.append(space, received);
    }
    text_ = Text(std::string_view(input_).substr(0, size));
    input_.erase(0, size);
    ended_ = text_.empty();
    return 0;
  }

  Sockets& sockets_;
  std::string input_;   // received, not unpacked
  std::string text_;    // unpacked, not read
  std::string output_;  // packed, not sent
  std::size_t in_output_ = 0;
  bool drained_ = false;
  bool ended_ = false;
  bool end_said_ = false;
};

class StreamTest : public NetTest {
 protected:
  CSocketMaster& Ours() { return **accepted; }
  // A connection that is packed into records at our end.
  RecordStream& PackedConnection() {
    Connection();
    return Pack();
  }
  RecordStream& Pack() {
    auto stream = std::make_unique<RecordStream>(sockets);
    RecordStream& borrowed = *stream;
    EXPECT_EQ(Ours().SetStream(std::move(stream)), "");
    return borrowed;
  }
  // Takes `portion` bytes at each DataArrival.
  void ReadInPortions(std::int32_t portion) {
    accepted->On("DataArrival", [this, portion] {
      std::string data;
      Ours().GetData(data, portion);
      got += data;
    });
  }

  std::string got;
};

TEST_F(StreamTest, CarriesTheBytesBothWays) {
  PackedConnection();
  Ours().SendData("220 ready\r\n");
  EXPECT_EQ(accepted->Take(), "SendProgress(11,0) SendComplete");
  EXPECT_EQ(peer->Receive(13), Record("220 ready\r\n"));
  ReadInPortions(100);
  peer->Send(Record("EHLO a\r\n") + Record("QUIT\r\n"));
  ASSERT_TRUE(RunUntil(loop, [&] { return got == "EHLO a\r\nQUIT\r\n"; }));
  EXPECT_EQ(Ours().BytesReceived(), 14);
  EXPECT_EQ(Ours().BytesSent(), 11);
}

TEST_F(StreamTest, BeginsWithWhatWasReceivedBeforeIt) {
  Connection();
  const std::string sent = "PROXY\r\n" + Record("EHLO a\r\n");
  peer->Send(sent);
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Ours().PeekView(7), "PROXY\r\n");
  Ours().PeekView();
  Ours().Consume(7);
  std::string unread = Ours().SetStream(std::make_unique<RecordStream>(sockets));
  EXPECT_EQ(unread, Record("EHLO a\r\n"));
  EXPECT_EQ(Ours().SetStream(std::make_unique<RecordStream>(sockets, unread)), "");
  EXPECT_EQ(Ours().PeekView(), "EHLO a\r\n");
}

TEST_F(StreamTest, IsRefusedWithoutAConnectionAndWhileSomethingWaitsToBeSent) {
  CSocketMaster unconnected(module);
  ExpectError([&] { (void)unconnected.SetStream(nullptr); }, 40006, "CSocketMaster.SetStream", kWrongState);
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  Ours().SendData(std::string(8 << 20, 'x'));
  ExpectError([&] { (void)Ours().SetStream(nullptr); }, 40006, "CSocketMaster.SetStream", kWrongState);
}

// The socket announces the records once; what the owner leaves of them is announced all the same.
TEST_F(StreamTest, WhatItHoldsIsAnnouncedUntilItIsRead) {
  for (const std::int32_t portion : {1, 3, 4, 100}) {
    SCOPED_TRACE(portion);
    peer.reset();
    got.clear();
    PackedConnection();
    ReadInPortions(portion);
    peer->Send(Record("one ") + Record("two ") + Record("three"));
    ASSERT_TRUE(RunUntil(loop, [&] { return got == "one two three"; }));
    RunUntilIdle(loop);
    accepted->Take();
    ExpectEvents(*accepted, "");
  }
}

TEST_F(StreamTest, ItsInputIsNotAnnouncedAgainToAnOwnerThatDoesNotRead) {
  PackedConnection();
  peer->Send(Record("one") + Record("two"));
  AllHere();
  ExpectEvents(*accepted, "DataArrival");
  ExpectEvents(*accepted, "");
  EXPECT_EQ(Ours().PeekView(1), "o");
  ExpectEvents(*accepted, "DataArrival");
  ExpectEvents(*accepted, "");
}

TEST_F(StreamTest, ItsInputIsNotAnnouncedAgainToAnOwnerThatOnlyLooks) {
  PackedConnection();
  accepted->On("DataArrival", [this] { EXPECT_EQ(Ours().PeekView(1), "o"); });
  peer->Send(Record("one") + Record("two"));
  AllHere();
  ASSERT_TRUE(RunUntil(loop, [&] { return !accepted->trace.empty(); }));
  for (int i = 0; i < 10; ++i) loop.RunOnce(Milliseconds{0});
  EXPECT_EQ(accepted->Take(), "DataArrival DataArrival");
  ReadInPortions(2);
  Ours().GetData(got, 2);
  ASSERT_TRUE(RunUntil(loop, [&] { return got == "onetwo"; })) << got;
}

TEST_F(StreamTest, TheEndOfTheConnectionComesAfterWhatItHolds) {
  for (const std::int32_t portion : {1, 3, 100}) {
    SCOPED_TRACE(portion);
    peer.reset();
    got.clear();
    PackedConnection();
    ReadInPortions(portion);
    ASSERT_GT(peer->SendSome(Record("one ") + Record("two ") + Record("three")), 0U);
    peer->Close();
    ASSERT_TRUE(RunUntil(loop, [&] { return Ours().State() == SocketState::sckClosing; }));
    EXPECT_EQ(got, "one two three");
    EXPECT_TRUE(accepted->Take().ends_with("DataArrival CloseSck"));
  }
}

TEST_F(StreamTest, ItsEndIsThePeersAlthoughTheConnectionIsOpen) {
  PackedConnection();
  ReadInPortions(100);
  peer->Send(Record("one") + Record("") + Record("two"));
  ASSERT_TRUE(RunUntil(loop, [&] { return Ours().State() == SocketState::sckClosing; }));
  RunUntilIdle(loop);
  EXPECT_EQ(got, "one");
  const std::string events = accepted->Take();
  EXPECT_TRUE(events.ends_with("DataArrival CloseSck")) << events;
}

TEST_F(StreamTest, GoesWithASocketThatIsEndedInOrder) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  PackedConnection();
  peer->Send(Record("unread"));
  const std::string all(8 << 20, 'm');
  Ours().SendData(all);
  Ours().SendData("bye");
  EXPECT_GT(Ours().PendingBytes(), 0U);
  Ours().CloseSck();
  EXPECT_EQ(module.LingeringCount(), 1U);
  accepted.reset();
  EXPECT_TRUE(Unpacked(peer->ReceiveToEnd()) == all + "bye(end)");
  // It takes what the peer still says, and ends with it.
  for (int i = 0; i < 100; ++i) peer->Send(Record(std::string(kMaxRecord, 'p')));
  peer->Send(Record(""));
  EXPECT_TRUE(RunUntil(loop, [&] { return module.LingeringCount() == 0; }));
}

TEST_F(StreamTest, IsGoneWithItsConnection) {
  PackedConnection();
  peer->Send(Record("one") + Record("two"));
  AllHere();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Ours().PeekView(1), "o");  // more of it is to be announced
  Ours().CloseSck();
  PeerListener server(loop);
  Ours().Connect("127.0.0.1", server.port);
  ExpectEvents(*accepted, "Connect");
  Ours().SendData("plain");
  EXPECT_EQ(server.Accept()->Receive(5), "plain");
}

TEST_F(StreamTest, NothingIsAnnouncedAfterTheObjectsEnd) {
  PackedConnection();
  peer->Send(Record("one") + Record("two"));
  AllHere();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Ours().PeekView(1), "o");
  accepted.reset();
  RunUntilIdle(loop);
}

}  // namespace
}  // namespace trabex

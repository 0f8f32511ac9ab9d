// A socket object that speaks TLS from StartTls on, with the library itself at the other end of a connection
// over loopback.
#include <initializer_list>

#include "net_fixture.h"
#include "support/temp_folder.h"
#include "support/test_certificates.h"
#include "support/tls_peer.h"
#include "support/told_by_system.h"

namespace trabex {
namespace {

std::string Noise(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return text;
}

// Contexts for all tests of this file; the files are needed only to load them.
struct Contexts {
  Contexts() {
    TempFolder folder;
    const TestCertificate made = MakeTestCertificate({.dns_names = {"mx.test"}});
    WriteFile(folder / "a.pem", made.certificate + made.key);
    TlsLoadReport report;
    server = TlsContext::ForServer({.certificates = {{folder / "a.pem", {}}}}, report);
    client = TlsContext::ForClient({.server_name = "mx.test"}, report);
    certificate = made;
  }

  static const Contexts& Get() {
    static const Contexts contexts;
    return contexts;
  }

  std::shared_ptr<const TlsContext> server;
  std::shared_ptr<const TlsContext> client;
  TestCertificate certificate;
};

class SocketTlsTest : public NetTest {
 protected:
  CSocketMaster& Ours() { return **accepted; }

  // A connection with TLS begun at our end, its events traced; the other end's hello waits in tls.
  void Begin(TlsPeerOptions options = {}, std::string_view last_words = {}) {
    if (!peer) peer = std::make_unique<Peer>(loop);
    Connection();
    Start(options, last_words);
  }
  void Start(TlsPeerOptions options = {}, std::string_view last_words = {}) {
    got.clear();
    const TlsRole role = options.server ? TlsRole::kClient : TlsRole::kServer;
    if (options.server) options.certificate = Contexts::Get().certificate;
    tls = std::make_unique<TlsPeer>(options);
    Trace();
    Ours().StartTls(role, role == TlsRole::kServer ? Contexts::Get().server : Contexts::Get().client,
                    last_words);
  }
  void Trace() { accepted->Trace(Ours().Events.Secured, "Secured"); }
  void Secure(TlsPeerOptions options = {}) {
    Begin(std::move(options));
    ASSERT_TRUE(Carry([&] { return Ours().Tls() != nullptr && tls->Established(); })) << tls->Error();
    RunUntilIdle(loop);
    accepted->Take();
  }
  // One exchange of what waits at the other end.
  void CarryOnce() {
    if (const std::string bytes = tls->Output(); !bytes.empty()) peer->Send(bytes);
    if (const std::string bytes = peer->ReceiveNow(); !bytes.empty()) tls->Feed(bytes);
  }
  template <class Predicate>
  bool Carry(Predicate predicate, Milliseconds bound = std::chrono::seconds(10)) {
    return RunUntil(
        loop,
        [&] {
          CarryOnce();
          return predicate();
        },
        bound);
  }
  void CarryUntilIdle() {
    do {
      CarryOnce();
    } while (loop.RunOnce(Milliseconds{1}) || !peer->AllDelivered());
    CarryOnce();
  }
  // Takes `portion` bytes at each DataArrival.
  void ReadInPortions(std::int32_t portion) {
    accepted->On("DataArrival", [this, portion] {
      std::string data;
      Ours().GetData(data, portion);
      got += data;
    });
  }
  // Whatever the peer says next in TLS.
  std::string Said(std::string_view text) { return Said({text}); }
  // One record each.
  std::string Said(std::initializer_list<std::string_view> texts) {
    for (const std::string_view text : texts) tls->Write(text);
    return tls->Output();
  }

  std::unique_ptr<TlsPeer> tls;
  std::string got;
};

TEST_F(SocketTlsTest, CarriesTextBothWaysInEitherRole) {
  for (const bool client : {false, true}) {
    for (const std::string version : {"1.2", "1.3"}) {
      SCOPED_TRACE(version + (client ? " client" : " server"));
      Begin({.server = client, .server_name = "mx.test", .max_version = version});
      EXPECT_EQ(Ours().Tls(), nullptr);
      ReadInPortions(100);
      ASSERT_TRUE(Carry([&] { return accepted->trace.find("Secured") != std::string::npos; }));
      ASSERT_NE(Ours().Tls(), nullptr);
      EXPECT_EQ(Ours().Tls()->version, "TLSv" + version);
      EXPECT_EQ(Ours().Tls()->cipher, tls->Cipher());
      EXPECT_EQ(Ours().Tls()->server_name, client ? "" : "mx.test");
      ASSERT_TRUE(Carry([&] { return tls->Established(); }));
      CarryUntilIdle();
      accepted->Take();
      Ours().SendData("250 ready\r\n");
      EXPECT_EQ(accepted->Take(), "SendProgress(11,0) SendComplete");
      ASSERT_TRUE(Carry([&] { return tls->Text() == "250 ready\r\n"; }));
      peer->Send(Said("EHLO a\r\nQUIT\r\n"));
      ASSERT_TRUE(RunUntil(loop, [&] { return got == "EHLO a\r\nQUIT\r\n"; }));
      EXPECT_EQ(Ours().BytesReceived(), 14);
      EXPECT_EQ(Ours().BytesSent(), 11);
      EXPECT_EQ(Ours().UnreadBytes(), 0U);
      peer.reset();
    }
  }
}

TEST_F(SocketTlsTest, LastWordsGoOutInTheClearAndSecuredStandsForThem) {
  Connection();
  Ours().SendData("250 one\r\n");
  accepted->Take();
  Start({}, "220 go on\r\n");
  EXPECT_EQ(accepted->Take(), "");
  Ours().SendData("secret");
  EXPECT_EQ(Ours().PendingBytes(), 6U);
  EXPECT_EQ(peer->Receive(20), "250 one\r\n220 go on\r\n");
  EXPECT_EQ(Ours().BytesSent(), 20);
  ASSERT_TRUE(Carry([&] { return tls->Text() == "secret"; }));
  CarryUntilIdle();
  EXPECT_EQ(accepted->Take(), "Secured SendProgress(6,0) SendComplete DataArrival");
  EXPECT_EQ(Ours().BytesSent(), 26);
}

TEST_F(SocketTlsTest, LastWordsWaitBehindWhatIsQueued) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Connection();
  const std::string queued = Noise(8 << 20);
  Ours().SendData(queued);
  EXPECT_GT(Ours().PendingBytes(), 0U);
  accepted->Take();
  Start({}, "220 go on\r\n");
  Ours().SendData("secret");
  EXPECT_EQ(Ours().PendingBytes(), 6U);
  EXPECT_TRUE(peer->Receive(queued.size() + 11) == queued + "220 go on\r\n");
  EXPECT_EQ(accepted->Take(), "");
  ASSERT_TRUE(Carry([&] { return tls->Text() == "secret"; }));
  EXPECT_EQ(Ours().BytesSent(), static_cast<std::int64_t>(queued.size()) + 17);
}

// What was sent ahead in the clear belongs to nobody: it is the beginning of the handshake, which fails of
// it.
TEST_F(SocketTlsTest, TextThatCameBeforeIsNoTextBehind) {
  for (const bool read : {true, false}) {
    SCOPED_TRACE(read);
    peer.reset();
    Connection();
    peer->Send("STARTTLS\r\nMAIL FROM:<a@b>\r\n");
    AllHere();
    RunUntilIdle(loop);
    EXPECT_EQ(Ours().PeekView(read ? 0 : 10), read ? "STARTTLS\r\nMAIL FROM:<a@b>\r\n" : "STARTTLS\r\n");
    Ours().Consume(10);
    accepted->Take();
    ReadInPortions(100);
    Start();
    EXPECT_EQ(Ours().PeekView(), "");
    ExpectEvents(*accepted, "Error(40030)");
    EXPECT_EQ(accepted->error_description, "TLS failed: wrong version number");
    EXPECT_EQ(got, "");
    Ours().CloseSck();
  }
}

TEST_F(SocketTlsTest, AHelloThatCameBeforeBeginsTheHandshake) {
  for (const std::size_t ahead : {1U, 5U, 100U, 100000U}) {
    SCOPED_TRACE(ahead);
    peer.reset();
    Connection();
    tls = std::make_unique<TlsPeer>(TlsPeerOptions{});
    const std::string hello = tls->Output();
    peer->Send("STARTTLS\r\n" + hello.substr(0, ahead));
    AllHere();
    RunUntilIdle(loop);
    EXPECT_TRUE(Ours().PeekView().starts_with("STARTTLS\r\n"));
    Ours().Consume(10);
    accepted->Take();
    Trace();
    Ours().StartTls(TlsRole::kServer, Contexts::Get().server, {});
    if (ahead < hello.size()) peer->Send(hello.substr(ahead));
    ASSERT_TRUE(Carry([&] { return tls->Established() && Ours().Tls() != nullptr; }));
  }
}

// The owner did not read what the socket had announced; it is not announced again.
TEST_F(SocketTlsTest, AHelloThatWasAnnouncedAndNotReadBeginsTheHandshake) {
  Connection();
  tls = std::make_unique<TlsPeer>(TlsPeerOptions{});
  peer->Send(tls->Output());
  AllHere();
  ExpectEvents(*accepted, "DataArrival");
  Trace();
  Ours().StartTls(TlsRole::kServer, Contexts::Get().server, {});
  ASSERT_TRUE(Carry([&] { return tls->Established() && Ours().Tls() != nullptr; }));
}

TEST_F(SocketTlsTest, TextRightBehindTheHandshakeIsAnnounced) {
  for (const std::string version : {"1.2", "1.3"}) {
    for (const std::int32_t portion : {1, 7, 100}) {
      SCOPED_TRACE(version + " " + std::to_string(portion));
      peer.reset();
      Begin({.max_version = version});
      ReadInPortions(portion);
      std::string all;
      ASSERT_TRUE(RunUntil(loop, [&] {
        if (!tls->Established()) {
          if (const std::string bytes = peer->ReceiveNow(); !bytes.empty()) tls->Feed(bytes);
          if (!tls->Established()) {
            peer->Send(tls->Output());
          } else {
            tls->Write("EHLO a\r\n");
            tls->Write("NOOP\r\n");
            peer->Send(tls->Output());  // the last of the handshake and the text in one
          }
        } else {
          CarryOnce();
        }
        return got == "EHLO a\r\nNOOP\r\n";
      })) << got;
    }
  }
}

TEST_F(SocketTlsTest, EverySplitOfTheWholeConversation) {
  for (const std::string version : {"1.2", "1.3"}) {
    for (const std::size_t step : {1U, 2U, 3U, 17U, 64U, 1000U}) {
      for (const std::int32_t portion : {1, 5, 0}) {
        SCOPED_TRACE(version + " " + std::to_string(step) + " " + std::to_string(portion));
        peer.reset();
        Begin({.max_version = version});
        ReadInPortions(portion);
        std::string waiting;
        bool said = false;
        ASSERT_TRUE(RunUntil(loop, [&] {
          if (const std::string bytes = peer->ReceiveNow(); !bytes.empty()) tls->Feed(bytes);
          if (tls->Established() && !said) {
            said = true;
            tls->Write("EHLO a\r\n");
            tls->Write("MAIL FROM:<a@b>\r\nRCPT TO:<c@d>\r\n");
            tls->SayGoodbye();
          }
          waiting += tls->Output();
          peer->Send(waiting.substr(0, step));
          waiting.erase(0, step);
          return Ours().State() == SocketState::sckClosing;
        })) << got;
        EXPECT_EQ(got, "EHLO a\r\nMAIL FROM:<a@b>\r\nRCPT TO:<c@d>\r\n");
      }
    }
  }
}

// The library has received all of it with the first read; the socket announces nothing more.
TEST_F(SocketTlsTest, WhatTheLibraryHoldsIsAnnouncedUntilItIsRead) {
  for (const std::int32_t portion : {1, 3, 10, 100}) {
    SCOPED_TRACE(portion);
    peer.reset();
    Secure();
    ReadInPortions(portion);
    peer->Send(Said({"one ", "two ", Noise(40)}));
    ASSERT_TRUE(RunUntil(loop, [&] { return got == "one two " + Noise(40); })) << got;
    RunUntilIdle(loop);
    accepted->Take();
    ExpectEvents(*accepted, "");
  }
}

TEST_F(SocketTlsTest, OneReadTakesSeveralRecords) {
  Secure();
  peer->Send(Said({"one ", "two ", "three"}));
  AllHere();
  ExpectEvents(*accepted, "DataArrival");
  EXPECT_EQ(Ours().PeekView(), "one two three");
}

TEST_F(SocketTlsTest, WaitsWithoutReadingForAnOwnerThatDoesNotTake) {
  Secure();
  const std::string much = Noise(16000);
  std::string sent;
  // More than this machine holds for a connection, though the owner reads nothing.
  std::string waiting;
  for (int i = 0; i < 2000; ++i) {
    waiting += Said(much);
    sent += much;
    const std::size_t count = peer->SendSome(waiting);
    waiting.erase(0, count);
    loop.RunOnce(Milliseconds{0});
    if (waiting.size() > 200000) break;
  }
  EXPECT_FALSE(waiting.empty());
  EXPECT_EQ(accepted->Take(), "DataArrival");
  ReadInPortions(1000);
  Ours().GetData(got, 1000);  // and on it goes
  ASSERT_TRUE(RunUntil(loop, [&] {
    waiting.erase(0, peer->SendSome(waiting));
    return got.size() == sent.size();
  }));
  EXPECT_TRUE(got == sent);
}

TEST_F(SocketTlsTest, SendsAsThePeerTakes) {
  for (const std::string version : {"1.2", "1.3"}) {
    SCOPED_TRACE(version);
    peer = std::make_unique<Peer>(loop);
    peer->ReceiveLittle();
    Secure({.max_version = version});
    const std::string all = Noise(8 << 20);
    Ours().SendData(all);
    const std::size_t pending = Ours().PendingBytes();
    EXPECT_GT(pending, 0U);
    EXPECT_EQ(static_cast<std::size_t>(Ours().BytesSent()) + pending, all.size());
    Ours().SendData("bye");  // the queue grows while a record is under way
    accepted->Take();
    ASSERT_TRUE(Carry([&] { return tls->Text().size() == all.size() + 3; }));
    EXPECT_TRUE(tls->Text() == all + "bye");
    RunUntilIdle(loop);
    EXPECT_TRUE(accepted->Take().ends_with(",0) SendComplete"));
    EXPECT_EQ(Ours().BytesSent(), static_cast<std::int64_t>(all.size()) + 3);
  }
}

TEST_F(SocketTlsTest, AKeyUpdateWhileTheNetworkIsFull) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Secure({.max_version = "1.3"});
  ReadInPortions(100);
  const std::string all = Noise(8 << 20);
  Ours().SendData(all);
  EXPECT_GT(Ours().PendingBytes(), 0U);
  for (int i = 0; i < 3; ++i) {
    tls->UpdateKeys(true);
    tls->Write("NOOP\r\n");
  }
  peer->Send(tls->Output());
  ASSERT_TRUE(RunUntil(loop, [&] { return got == "NOOP\r\nNOOP\r\nNOOP\r\n"; }));
  Ours().SendData("bye");
  ASSERT_TRUE(Carry([&] { return tls->Text().size() == all.size() + 3; }));
  EXPECT_TRUE(tls->Text() == all + "bye");
  EXPECT_EQ(accepted->Take().find("Error"), std::string::npos);
}

TEST_F(SocketTlsTest, TheGoodbyeIsTheEndAndNothingBehindItIsRead) {
  for (const std::int32_t portion : {1, 100}) {
    SCOPED_TRACE(portion);
    peer.reset();
    Secure();
    ReadInPortions(portion);
    std::string bytes = Said("QUIT\r\n");
    tls->SayGoodbye();
    bytes += tls->Output();
    peer->Send(bytes + "MAIL FROM:<a@b>\r\n");
    ASSERT_TRUE(RunUntil(loop, [&] { return Ours().State() == SocketState::sckClosing; }));
    RunUntilIdle(loop);
    EXPECT_EQ(got, "QUIT\r\n");
    EXPECT_TRUE(accepted->Take().ends_with("DataArrival CloseSck"));
    peer->Send("RSET\r\n");
    RunUntilIdle(loop);
    EXPECT_EQ(accepted->Take(), "");
    EXPECT_EQ(got, "QUIT\r\n");
    Ours().CloseSck();
    peer->RunWith([&] {
      tls->Feed(peer->ReceiveNow());
      return peer->ended || peer->reset;
    });
    EXPECT_TRUE(tls->Ended());
  }
}

TEST_F(SocketTlsTest, AnEndWithoutGoodbyeComesBehindTheText) {
  for (const std::int32_t portion : {1, 4, 100}) {
    SCOPED_TRACE(portion);
    peer.reset();
    Secure();
    ReadInPortions(portion);
    peer->Send(Said({"one ", "two ", "three"}));
    peer->Close();
    ASSERT_TRUE(RunUntil(loop, [&] { return Ours().State() == SocketState::sckClosing; }));
    EXPECT_EQ(got, "one two three");
    EXPECT_TRUE(accepted->Take().ends_with("DataArrival CloseSck"));
    Ours().CloseSck();
  }
}

TEST_F(SocketTlsTest, ABrokenRecordIsAnErrorBehindTheTextBeforeIt) {
  // The peer's end, which comes before the record is looked at, does not hide it.
  for (const bool closes : {false, true}) {
    SCOPED_TRACE(closes);
    peer.reset();
    Secure();
    ReadInPortions(1);
    const std::string good = Said("one");
    std::string bad = Said("two");
    bad.back() = static_cast<char>(bad.back() ^ 1);
    peer->Send(good + bad);
    if (closes) peer->Close();
    ASSERT_TRUE(RunUntil(loop, [&] {
      return Ours().State() == SocketState::sckError || Ours().State() == SocketState::sckClosing;
    }));
    RunUntilIdle(loop);
    EXPECT_EQ(got, "one");
    EXPECT_TRUE(accepted->Take().ends_with("DataArrival Error(40030)"));
    EXPECT_EQ(accepted->error_description, "TLS failed: decryption failed or bad record mac");
    Ours().CloseSck();
    EXPECT_EQ(module.LingeringCount(), 0U);
  }
}

TEST_F(SocketTlsTest, AResetIsTheErrorOfTheNetwork) {
  Secure();
  ReadInPortions(100);
  peer->Reset();
  ASSERT_TRUE(RunUntil(loop, [&] {
    return Ours().State() == SocketState::sckError || Ours().State() == SocketState::sckClosing;
  }));
  RunUntilIdle(loop);
  EXPECT_TRUE(accepted->Take().ends_with(ResetsAreTold() ? "Error(10054)" : "CloseSck"));
}

TEST_F(SocketTlsTest, EndsInOrderWithWhatIsQueuedAndItsGoodbye) {
  peer = std::make_unique<Peer>(loop);
  peer->ReceiveLittle();
  Secure();
  peer->Send(Said("unread"));
  const std::string all = Noise(8 << 20);
  Ours().SendData(all);
  Ours().SendData("421 bye\r\n");
  EXPECT_GT(Ours().PendingBytes(), 0U);
  Ours().CloseSck();
  EXPECT_EQ(Ours().Tls(), nullptr);
  EXPECT_EQ(module.LingeringCount(), 1U);
  accepted.reset();
  ASSERT_TRUE(Carry([&] { return peer->ended || peer->reset; }));
  EXPECT_TRUE(peer->ended);
  EXPECT_TRUE(tls->Text() == all + "421 bye\r\n");
  EXPECT_TRUE(tls->Ended());
  EXPECT_EQ(tls->Error(), "");
  for (int i = 0; i < 100; ++i) peer->Send(Said(Noise(16000)));
  tls->SayGoodbye();
  peer->Send(tls->Output());
  EXPECT_TRUE(RunUntil(loop, [&] { return module.LingeringCount() == 0; }));
}

TEST_F(SocketTlsTest, SaysGoodbyeToAPeerThatHasEnded) {
  Secure();
  ReadInPortions(100);
  peer->EndSending();
  ASSERT_TRUE(RunUntil(loop, [&] { return Ours().State() == SocketState::sckClosing; }));
  Ours().CloseSck();
  ASSERT_TRUE(Carry([&] { return peer->ended || peer->reset; }));
  EXPECT_TRUE(tls->Ended());
  EXPECT_TRUE(RunUntil(loop, [&] { return module.LingeringCount() == 0; }));
}

TEST_F(SocketTlsTest, ClosesAtOnceDuringTheHandshakeAndSaysNothingInTheClear) {
  Begin();
  Ours().SendData("421 secret\r\n");
  const std::string hello = tls->Output();
  peer->Send(hello.substr(0, 20));
  RunUntilIdle(loop);
  Ours().CloseSck();
  EXPECT_EQ(module.LingeringCount(), 0U);
  EXPECT_EQ(module.UnfinishedHandshakes(), 0U);
  std::string said;
  peer->RunWith([&] {
    said += peer->ReceiveNow();
    return peer->ended || peer->reset;
  });
  EXPECT_EQ(said, "");
}

TEST_F(SocketTlsTest, APeerThatEndsDuringTheHandshakeIsCloseSck) {
  for (const std::size_t ahead : {0U, 1U, 100U}) {
    SCOPED_TRACE(ahead);
    peer.reset();
    Begin();
    peer->Send(tls->Output().substr(0, ahead));
    peer->Close();
    ASSERT_TRUE(RunUntil(loop, [&] { return Ours().State() == SocketState::sckClosing; }));
    RunUntilIdle(loop);
    EXPECT_EQ(accepted->Take(), "CloseSck");
    EXPECT_EQ(module.UnfinishedHandshakes(), 0U);
    Ours().CloseSck();
  }
}

TEST_F(SocketTlsTest, NothingIsReadOrSentDuringTheHandshake) {
  Begin();
  peer->Send(tls->Output().substr(0, 50));
  AllHere();
  RunUntilIdle(loop);
  EXPECT_EQ(accepted->Take(), "");
  EXPECT_EQ(Ours().PeekView(), "");
  std::string data = "x";
  EXPECT_EQ(Ours().GetData(data), 0);
  EXPECT_EQ(Ours().UnreadBytes(), 0U);
  Ours().SendData("one ");
  Ours().SendData("two");
  EXPECT_EQ(Ours().PendingBytes(), 7U);
  EXPECT_EQ(peer->ReceiveNow(), "");
}

TEST_F(SocketTlsTest, TheOwnerMayCloseInsideSecured) {
  Begin();
  accepted->On("Secured", [this] {
    Ours().SendData("421 too late\r\n");
    Ours().CloseSck();
  });
  ASSERT_TRUE(Carry([&] { return peer->ended || peer->reset; }));
  EXPECT_EQ(tls->Text(), "421 too late\r\n");
  EXPECT_TRUE(tls->Ended());
}

TEST_F(SocketTlsTest, TheOwnerMayGoInsideAnyEvent) {
  struct Owner : DeferredDeletable {
    explicit Owner(std::unique_ptr<TracedSocket> its) : socket(std::move(its)) {}
    std::unique_ptr<TracedSocket> socket;
  };
  for (const std::string event :
       {"Secured", "DataArrival", "SendProgress", "SendComplete", "CloseSck", "Error"}) {
    for (const bool closes : {true, false}) {
      SCOPED_TRACE(event + (closes ? " closes" : ""));
      peer.reset();
      Begin();
      const auto leave = [this, closes] {
        if (!accepted) return;
        if (closes) Ours().CloseSck();
        loop.DeferredDelete(std::make_unique<Owner>(std::move(accepted)));
      };
      if (event == "Secured") accepted->On(event, leave);
      Ours().SendData("kept");
      ASSERT_TRUE(Carry([&] { return !accepted || tls->Text() == "kept"; }));
      if (accepted) {
        RunUntilIdle(loop);
        accepted->On("DataArrival", [this] {
          std::string data;
          if (accepted) Ours().GetData(data, 2);
        });
        accepted->On(event, leave);
        std::string bytes = Said({"one", "two"});
        if (event == "CloseSck") tls->SayGoodbye();
        if (event == "Error") tls->Write("three");
        bytes += tls->Output();
        if (event == "Error") bytes.back() = static_cast<char>(bytes.back() ^ 1);
        peer->Send(bytes);
        if (event.starts_with("Send")) Ours().SendData("now");
      }
      EXPECT_TRUE(RunUntil(loop, [&] { return accepted == nullptr; }));
      RunUntilIdle(loop);
      EXPECT_EQ(module.ObjectCount(), 1U);
      EXPECT_EQ(module.UnfinishedHandshakes(), 0U);
    }
  }
}

TEST_F(SocketTlsTest, IsRefusedWhereItCannotBe) {
  const auto& contexts = Contexts::Get();
  CSocketMaster unconnected(module);
  ExpectError([&] { unconnected.StartTls(TlsRole::kClient, contexts.client); }, 40006,
              "CSocketMaster.StartTls", kWrongState);
  Connection();
  ExpectError([&] { Ours().StartTls(TlsRole::kServer, contexts.client); }, 40014, "CSocketMaster.StartTls",
              kBadArgument);
  ExpectError([&] { Ours().StartTls(TlsRole::kServer, nullptr); }, 40014, "CSocketMaster.StartTls",
              kBadArgument);
  Ours().StartTls(TlsRole::kServer, contexts.server);
  ExpectError([&] { Ours().StartTls(TlsRole::kServer, contexts.server); }, 40006, "CSocketMaster.StartTls",
              kWrongState);
}

TEST_F(SocketTlsTest, ConnectsAnewInTheClear) {
  Secure();
  Ours().CloseSck();
  PeerListener server(loop);
  Ours().Connect("127.0.0.1", server.port);
  ExpectEvents(*accepted, "Connect");
  EXPECT_EQ(Ours().Tls(), nullptr);
  Ours().SendData("plain");
  EXPECT_EQ(server.Accept()->Receive(5), "plain");
}

TEST_F(SocketTlsTest, TheOldestOfTooManyHandshakesIsEnded) {
  module.SetMaxHandshakes(2);
  Connection();
  std::vector<std::unique_ptr<TracedSocket>> ours;
  std::vector<std::unique_ptr<Peer>> peers;
  for (int i = 0; i < 3; ++i) {
    if (i > 0) {
      peer = std::make_unique<Peer>(loop);
      Connection();
    }
    Ours().StartTls(TlsRole::kServer, Contexts::Get().server);
    EXPECT_EQ(accepted->Take(), "");  // nobody is told inside the call of another
    ours.push_back(std::move(accepted));
    peers.push_back(std::move(peer));
    RunUntilIdle(loop);
    EXPECT_EQ(module.UnfinishedHandshakes(), i == 0 ? 1U : 2U);
  }
  EXPECT_EQ(ours[0]->Take(), "Error(40031)");
  EXPECT_EQ(ours[0]->error_description, "Too many TLS handshakes.");
  EXPECT_EQ(ours[1]->Take(), "");
  EXPECT_EQ(ours[2]->Take(), "");
  (*ours[0])->CloseSck();
  // One that is done is no longer counted.
  accepted = std::move(ours[1]);
  peer = std::move(peers[1]);
  tls = std::make_unique<TlsPeer>(TlsPeerOptions{});
  ASSERT_TRUE(Carry([&] { return Ours().Tls() != nullptr; }));
  EXPECT_EQ(module.UnfinishedHandshakes(), 1U);
}

TEST_F(SocketTlsTest, AHandshakeAsClientIsNotCounted) {
  module.SetMaxHandshakes(1);
  Begin();
  const auto first = std::move(accepted);
  const auto first_peer = std::move(peer);
  Begin({.server = true});
  EXPECT_EQ(module.UnfinishedHandshakes(), 1U);
  ASSERT_TRUE(Carry([&] { return Ours().Tls() != nullptr; }));
  EXPECT_EQ(first->Take(), "");
}

}  // namespace
}  // namespace trabex

#include "session/session_fixture.h"

#include <gtest/gtest.h>

#include <charconv>
#include <utility>

#include "base/text.h"
#include "match/ip_range.h"
#include "script/escapes.h"
#include "support/counted_allocations.h"
#include "support/dialogue_player.h"
#include "support/temp_folder.h"
#include "support/test_certificates.h"

namespace trabex {

namespace {

// --- the same dialogue with a client of IPv6

constexpr std::string_view kClient = "127.0.0.1";
constexpr std::string_view kClientOnIPv6 = "::1";

bool HasOtherClients(std::string_view text) {
  for (std::size_t at = 0; (at = text.find("127.0.0.", at)) != std::string_view::npos; ++at) {
    if (!text.substr(at).starts_with(kClient)) return true;
  }
  return text.find(kClientOnIPv6) != std::string_view::npos;
}

void Replace(std::string& text, std::string_view from, std::string_view to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
}

// The number behind the first "BDAT " of `line`; 0 when there is none.
int ChunkSize(std::string_view line) {
  constexpr std::string_view kCommand = "BDAT ";
  const std::size_t at = line.find(kCommand);
  int size = 0;
  if (at != std::string_view::npos) {
    std::from_chars(line.data() + at + kCommand.size(), line.data() + line.size(), size);
  }
  return size;
}

// The script with the client's address as it is written where it stands. The lines of the log of the server's
// side have that of the server.
std::string OnIPv6(std::string_view text) {
  std::string all;
  int sent = 0;
  for (const std::string_view line : Split(text, '\n')) {
    std::string changed(line);
    if (line.find("log S:") == std::string_view::npos) {
      Replace(changed, "[      127.0.0.1]", "[            ::1]");
      Replace(changed, "[127.0.0.1]) by", "[IPv6:::1]) by");
      Replace(changed, "HELO [127.0.0.1]", "HELO [IPv6:::1]");
      Replace(changed, "EHLO [127.0.0.1]", "EHLO [IPv6:::1]");
      Replace(changed, kClient, kClientOnIPv6);
    }
    // A chunk that is passed on with more octets than it came with has the Received line before it, where the
    // client's address is a character shorter.
    const int size = ChunkSize(line);
    if (line.find("->") == std::string_view::npos) {
      if (size != 0) sent = size;
    } else if (size > sent) {
      Replace(changed, std::to_string(size), std::to_string(size - 1));
    }
    all.append(changed).append("\n");
  }
  return all;
}

// What the settings and the names say of the client's address, they say of its address of IPv6.
void MeanIPv6(SessionFixture& fixture) {
  Configuration& c = fixture.Settings;
  for (IPRangeList* const list :
       {&c.LocalIPs, &c.IPBlackList, &c.IPAllowList, &c.IPWhiteList, &c.ProxyProtocolFrom}) {
    if (!list->Contains(kIPv4Loopback)) continue;
    std::vector<IPRange> ranges = list->Ranges();
    ranges.push_back({kIPv6Loopback, kIPv6Loopback});
    *list = IPRangeList(ranges);
  }
  fixture.Names.MeanIPv6();
}

// The script as it goes under TLS, which the Received header names.
std::string UnderTls(std::string_view text) {
  constexpr std::string_view kPlain = "with ESMTP;";
  constexpr std::string_view kSecured = "with ESMTPS tls TLS_AES_256_GCM_SHA384;";
  // It gets no "S".
  constexpr std::string_view kHelo = "with SMTP;";
  const int longer =
      static_cast<int>(kSecured.size() - kPlain.size()) - (text.find(kHelo) == text.npos ? 0 : 1);
  std::string all;
  int sent = 0;
  for (const std::string_view line : Split(text, '\n')) {
    std::string changed(line);
    Replace(changed, kPlain, kSecured);
    Replace(changed, kHelo, "with SMTP tls TLS_AES_256_GCM_SHA384;");
    // A chunk that is passed on with more octets than it came with has the header before it.
    const int size = ChunkSize(line);
    if (line.find("->") == std::string_view::npos) {
      if (size != 0) sent = size;
    } else if (size > sent) {
      Replace(changed, std::to_string(size), std::to_string(size + longer));
    }
    all.append(changed).append("\n");
  }
  return all;
}

// Whether the script may come after the greeting and the EHLO that lead to STARTTLS: it begins with a greeting,
// which then passes as any reply that nobody waits for.
bool MayFollowAnother(const SessionFixture& fixture, std::string_view text) {
  return Trim(text).starts_with("S: 220") && fixture.Settings.ResponseChanges.Find(".220") == nullptr;
}

// One for all tests: a certificate is the same for every session.
std::shared_ptr<const TlsContext> TestContext() {
  static const std::shared_ptr<const TlsContext> context = [] {
    const TempFolder folder;
    const TestCertificate certificate = MakeTestCertificate({.dns_names = {"proxy.test"}});
    const std::string file = folder / "proxy.pem";
    WriteFile(file, certificate.certificate + certificate.key);
    TlsServerOptions options;
    options.certificates = {{file, ""}};
    TlsLoadReport report;
    return TlsContext::ForServer(options, report);
  }();
  return context;
}

// The bound of every wait; nothing here takes a thousandth of it.
constexpr std::chrono::seconds kBound{10};

}  // namespace

void SessionFixture::SessionLog::LogLine(std::string_view message) {
  const OwnAllocations own;
  lines_.LogLine(message);
}

SessionFixture::SessionFixture(Delivery delivery, AddressFamily clients)
    : delivery_(delivery), clients_(clients) {
  Settings.BindIP = "127.0.0.1";
  Settings.ServerPort = server_listener_.Port();
  Settings.LocalHostName = "proxy.test";
  Settings.LocalIPs = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
  Settings.LocalDomains.Add("local.test", {.patterns = {"local.test"}});
}

void SessionFixture::OfferTls() {
  Tls.for_clients = TestContext();
  Settings.TLS.Certificate = {{"proxy.pem", "proxy.pem"}};
  Settings.TLS.RequireForAUTH = 0;
}

SessionFixture::~SessionFixture() {
  if (listener_) listener_->CloseSck();
  if (ipv6_listener_) ipv6_listener_->CloseSck();
  // Sessions end on the loop that they live on.
  sessions_.ForEach([](cProxy& session) { session.Close(); });
  Loop.RunOnce(Milliseconds(0));
}

void SessionFixture::Start() {
  if (listener_) return;
  if (ClientSecurity != Security::kPlain) OfferTls();
  if (ClientSecurity == Security::kTlsPort) OnTlsPort = true;
  dependencies_ = std::make_unique<SessionDependencies>(
      SessionDependencies{Settings, log_, Time, Loop, module_, Names, sessions_, Tls, Greylisting, Observer});
  TellTheTime();
  listener_ = ListenOn("127.0.0.1");
  Connect(Loopback());
}

const IPAddress& SessionFixture::Loopback() const {
  return clients_ == AddressFamily::kIPv6 ? kIPv6Loopback : kIPv4Loopback;
}

std::unique_ptr<CSocketMaster> SessionFixture::ListenOn(const std::string& address) {
  auto listener = std::make_unique<CSocketMaster>(module_);
  listener->Events.ConnectionRequest = [this](std::int32_t request) {
    if (BeginsWithoutReserve) module_.Reserve().Release();
    cProxy::Begin(*dependencies_, request, OnTlsPort);
  };
  listener->Bind(0, address);
  listener->Listen();
  return listener;
}

void SessionFixture::Connect(const IPAddress& from) {
  earlier_.push_back(std::move(server_));
  earlier_.push_back(std::move(client_));
  server_ = TestPeer();
  if (from.IsIPv6() && !ipv6_listener_) ipv6_listener_ = ListenOn("::1");
  const CSocketMaster& listener = from.IsIPv6() ? *ipv6_listener_ : *listener_;
  const std::size_t wire_piece = client_.WirePiece();
  client_ = TestPeer::Connect(static_cast<std::uint16_t>(listener.LocalPort()), from);
  client_.CutWire(wire_piece);
  if (OnTlsPort && HandshakeAtOnce) MakeHandshake();
  if (ClientSecurity == Security::kStartTls) SecureByStartTls();
}

void SessionFixture::Poll() {
  if (client_.Open()) client_.Poll();
  if (server_.Open()) server_.Poll();
  if (attended_ != nullptr) PollAttended();
}

void SessionFixture::PollAttended() {
  // Iterations of the loop in which the session takes a segment before the next one of the same reply comes.
  constexpr int kIterations = 3;
  if (!server_.Open()) server_ = server_listener_.Accept();
  if (!server_.Open()) return;
  std::string& received = server_.Received();
  moves_ += received.size();
  if (!received.empty()) polls_since_segment_ = kIterations;
  attended_->Take(std::exchange(received, {}));
  if (++polls_since_segment_ >= kIterations) {
    const std::string segment = attended_->NextSegment();
    moves_ += segment.size();
    if (!segment.empty()) {
      server_.Send(segment);
      polls_since_segment_ = 0;
    } else if (attended_->HasHungUp()) {
      server_listener_.Close();
      server_.Close();
    }
  }
  if (server_.AtEnd()) attended_->TakeEnd();
}

std::string SessionFixture::NextReply() {
  std::string reply;
  std::string& received = client_.Received();
  for (bool goes_on = true; goes_on;) {
    Until([&] { return received.find(kCrLf) != std::string::npos || client_.AtEnd(); });
    const std::size_t end = received.find(kCrLf);
    if (end == std::string::npos) return reply + "(no more than \"" + script::Escape(received) + "\")";
    goes_on = end > 3 && received[3] == '-';
    reply += received.substr(0, end + kCrLf.size());
    received.erase(0, end + kCrLf.size());
  }
  return reply;
}

bool SessionFixture::Until(const std::function<bool()>& done) {
  const auto bound = std::chrono::steady_clock::now() + kBound;
  for (;;) {
    Poll();
    if (done()) return true;
    if (std::chrono::steady_clock::now() > bound) return false;
    Loop.RunOnce(Milliseconds(1));
  }
}

void SessionFixture::Settle() {
  // Loopback hands data over at once, so after a few iterations in which nothing happens nothing is under
  // way.
  for (int quiet = 0; quiet < 3;) {
    const auto moved = [this] { return client_.Received().size() + server_.Received().size() + moves_; };
    const std::size_t before = moved();
    const bool busy = Loop.RunOnce(Milliseconds(0));
    Poll();
    quiet = busy || moved() != before ? 0 : quiet + 1;
  }
}

void SessionFixture::CheckTimeouts() {
  sessions_.ForEach([](cProxy& session) { session.CheckTimeout(); });
}

void SessionFixture::Shutdown() {
  sessions_.ForEach([](cProxy& session) { session.Shutdown(); });
}

std::string SessionFixture::Play(std::string_view text) {
  try {
    return Play(script::ReadScript(text).steps);
  } catch (const script::ScriptError& error) {
    return error.what();
  }
}

std::string SessionFixture::Play(const std::vector<script::Step>& steps) {
  Start();
  for (const script::Step& step : steps) {
    dialogue_.append("    ").append(step.source).append("\n");
    if (!PlayStep(step)) return failure_ + "\n  the dialogue so far:\n" + dialogue_;
  }
  return {};
}

std::string SessionFixture::PlayOnDialogue(Delivery delivery, std::string_view text) {
  DialoguePlayer::Client client;
  client.is_local = mCommon::IPInRangeList(kIPv4Loopback, Settings.LocalIPs);
  Names.FindName(kIPv4Loopback, [&](const NameAnswer& answer) { client.host_name = answer.name; });
  Names.Deliver();
  DialoguePlayer player(Settings, Time, client, Greylisting);
  player.SetDelivery(delivery);
  player.SetNames([this](std::string_view name) {
    std::optional<DialoguePlayer::Addresses> addresses;
    Names.FindAddresses(name, LookupFamily::kIPv4First, [&](const AddressAnswer& answer) {
      if (answer.error == 0) addresses = answer.addresses;
    });
    Names.Deliver();
    return addresses;
  });
  return player.Play(text);
}

bool SessionFixture::PlayStep(const script::Step& step) {
  using script::StepKind;
  // To find that there is nothing, the server need not be connected.
  const bool of_server = step.side == script::Side::kServer && step.kind != StepKind::kGetNothing;
  if (of_server && !NeedServer()) return Fail("the server got no connection");
  TestPeer& peer = Peer(step.side);
  switch (step.kind) {
    case StepKind::kSend:
      return Send(peer, step.sending);
    case StepKind::kGetLine:
      return ExpectLine(step.side, step.pattern);
    case StepKind::kGetNothing:
      return ExpectNothing(step.side);
    case StepKind::kGetBytes:
      return ExpectBytes(step.side, step.bytes);
    case StepKind::kClose:
      return peer.Close(), Settle(), true;
    case StepKind::kReset:
      return peer.Reset(), Settle(), true;
    case StepKind::kShutDown:
      return peer.ShutDownSending(), Settle(), true;
    case StepKind::kClosed:
      return ExpectClosed(step.side);
    case StepKind::kConnect:
      return Connect(step.bytes.empty() ? Loopback() : mCommon::CLngIP(step.bytes)), true;
    case StepKind::kAccept:
      return true;
    case StepKind::kStartTls:
      return MakeHandshake() || Fail("no handshake: " + client_.TlsError());
    case StepKind::kWait:
      Settle();
      // The time is the test's, that of acknowledgements the system's.
      for (const TestPeer* const one : {&client_, &server_}) one->AcknowledgeNow();
      return Time.Advance(Milliseconds(step.milliseconds)), Settle(), true;
    case StepKind::kLog:
      return ExpectLogged(step.pattern);
    case StepKind::kAskName:
      return Until([&] { return Names.IsWaitingFor(step.bytes); }) || Fail("nobody asks for the name");
    case StepKind::kAnswer:
      return Answer(step.answers);
    case StepKind::kStop:
      return Shutdown(), Settle(), true;
  }
  return false;
}

bool SessionFixture::Answer(const script::NameAnswers& answers) {
  if (answers.error) Names.SetAddressError(Names.AskedNames().back(), *answers.error);
  if (!answers.addresses.empty()) {
    std::vector<IPAddress> addresses;
    for (const std::string& address : answers.addresses) addresses.push_back(mCommon::CLngIP(address));
    Names.SetAddresses(Names.AskedNames().back(), std::move(addresses));
  }
  return Names.Deliver(), Settle(), true;
}

bool SessionFixture::ExpectLogged(const script::Pattern& wanted) {
  Settle();
  std::string all = "no such log line; there are:";
  for (const std::string& written : LogLines()) {
    if (wanted.Matches(written)) return true;
    all.append("\n    ").append(written);
  }
  return Fail(all);
}

bool SessionFixture::NeedServer() {
  return server_.Open() || Until([this] {
           server_ = server_listener_.Accept();
           return server_.Open();
         });
}

bool SessionFixture::Send(TestPeer& peer, const script::Sending& sending) {
  std::size_t begin = 0;
  for (const std::size_t end : sending.segments) {
    if (!Deliver(peer, std::string_view(sending.bytes).substr(begin, end - begin))) return false;
    Settle();
    begin = end;
  }
  return Deliver(peer, std::string_view(sending.bytes).substr(begin));
}

bool SessionFixture::Deliver(TestPeer& peer, std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t max_bytes = delivery_ == Delivery::kByteByByte ? 1 : bytes.size();
    std::size_t sent = 0;
    if (!Until([&] { return (sent = peer.Send(bytes.substr(0, max_bytes))) > 0; }))
      return Fail("the peer cannot send");
    bytes.remove_prefix(sent);
    if (delivery_ == Delivery::kByteByByte) Settle();
  }
  return true;
}

bool SessionFixture::ExpectLine(script::Side side, const script::Pattern& wanted) {
  TestPeer& peer = Peer(side);
  std::string& received = peer.Received();
  const bool complete = Until([&] { return received.find(kCrLf) != std::string::npos || peer.AtEnd(); });
  const std::size_t end = received.find(kCrLf);
  if (!complete || end == std::string::npos)
    return Fail("got no such line; what there is: \"" + script::Escape(received) + "\"");
  const std::string line = received.substr(0, end);
  received.erase(0, end + kCrLf.size());
  return wanted.Matches(line) || Fail("got  \"" + script::Escape(line) + "\"");
}

bool SessionFixture::ExpectNothing(script::Side side) {
  Settle();
  const std::string& received = Peer(side).Received();
  return received.empty() || Fail("there is something: \"" + script::Escape(received) + "\"");
}

bool SessionFixture::ExpectBytes(script::Side side, std::string_view wanted) {
  TestPeer& peer = Peer(side);
  std::string& received = peer.Received();
  Until([&] { return received.size() >= wanted.size() || peer.AtEnd(); });
  if (!received.starts_with(wanted)) return Fail("what there is: \"" + script::Escape(received) + "\"");
  received.erase(0, wanted.size());
  return true;
}

bool SessionFixture::MakeHandshake() {
  client_.StartTls({});
  const auto done = [this] { return client_.Secured() || client_.AtEnd() || !client_.TlsError().empty(); };
  return Until(done) && client_.Secured();
}

void SessionFixture::SecureByStartTls() {
  const auto exchange = [this](TestPeer& from, std::string_view line, TestPeer& to) {
    from.Send(line);
    Until([&] { return to.Received().ends_with(kCrLf) || to.AtEnd(); });
    to.Received().clear();
  };
  if (!NeedServer()) return;
  // No name is looked up for what the script does not know.
  const std::int32_t validate = std::exchange(Settings.ValidateHELO, 0);
  exchange(server_, "220 first\r\n", client_);
  exchange(client_, "EHLO first.test\r\n", server_);
  exchange(server_, "250 first\r\n", client_);
  exchange(client_, "STARTTLS\r\n", client_);
  MakeHandshake();
  Settings.ValidateHELO = validate;
}

bool SessionFixture::ExpectClosed(script::Side side) {
  TestPeer& peer = Peer(side);
  if (!Until([&] { return peer.AtEnd(); })) return Fail("it is not closed");
  if (peer.WasReset()) return Fail("it was reset");
  return peer.Received().empty() || Fail("before the end came \"" + script::Escape(peer.Received()) + "\"");
}

bool SessionFixture::Fail(std::string reason) {
  failure_ = std::move(reason);
  return false;
}

void PlayBothWays(const std::function<void(SessionFixture&)>& configure, std::string_view text) {
  for (const Delivery delivery : {Delivery::kWhole, Delivery::kByteByByte}) {
    SessionFixture fixture(delivery);
    if (configure) configure(fixture);
    const std::string failure = fixture.Play(text);
    EXPECT_EQ(failure, "") << (delivery == Delivery::kWhole ? "as written" : "byte by byte");
  }
  if (HasOtherClients(text)) return;
  SessionFixture fixture(Delivery::kWhole, AddressFamily::kIPv6);
  if (configure) configure(fixture);
  MeanIPv6(fixture);
  EXPECT_EQ(fixture.Play(OnIPv6(text)), "") << "on IPv6";
}

void PlayEveryWay(const std::function<void(SessionFixture&)>& configure, std::string_view text) {
  PlayBothWays(configure, text);
  for (const Security security : {Security::kStartTls, Security::kTlsPort}) {
    SessionFixture fixture;
    fixture.ClientSecurity = security;
    if (configure) configure(fixture);
    if (security == Security::kStartTls && !MayFollowAnother(fixture, text)) continue;
    EXPECT_EQ(fixture.Play(UnderTls(text)), "")
        << (security == Security::kStartTls ? "after STARTTLS" : "on the port of TLS");
  }
  for (const Delivery delivery : {Delivery::kWhole, Delivery::kByteByByte}) {
    SessionFixture fixture;
    if (configure) configure(fixture);
    EXPECT_EQ(fixture.PlayOnDialogue(delivery, text), "")
        << (delivery == Delivery::kWhole ? "on the dialogue" : "on the dialogue, byte by byte");
  }
}

}  // namespace trabex

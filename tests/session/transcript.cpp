#include "session/transcript.h"

#include <gtest/gtest.h>

#include <charconv>

#include "base/text.h"
#include "match/ip_range.h"

namespace trabex {

namespace {

// The bound of every wait; nothing here takes a thousandth of it.
constexpr std::chrono::seconds kBound{10};

int HexDigit(char c) {
  return c <= '9' ? c - '0' : ToUpper(c) - 'A' + 10;
}

std::string Unescape(std::string_view text) {
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\\' || at + 1 == text.size()) {
      result += text[at];
      continue;
    }
    switch (text[++at]) {
      case 'r':
        result += '\r';
        break;
      case 'n':
        result += '\n';
        break;
      case 't':
        result += '\t';
        break;
      case '0':
        result += '\0';
        break;
      case 'x':
        result += static_cast<char>(HexDigit(text[at + 1]) * 16 + HexDigit(text[at + 2]));
        at += 2;
        break;
      default:
        result += text[at];
    }
  }
  return result;
}

// Without the indentation that a transcript has in a source file.
std::string_view Unindented(std::string_view line) {
  return Trim(line);
}

}  // namespace

bool HasForm(std::string_view text, std::string_view pattern) {
  const std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) return text == pattern;
  if (!text.starts_with(pattern.substr(0, star))) return false;
  text.remove_prefix(star);
  pattern.remove_prefix(star + 1);
  for (std::size_t from = 0; from <= text.size(); ++from) {
    if (HasForm(text.substr(from), pattern)) return true;
  }
  return false;
}

SessionWorld::SessionWorld(Delivery delivery) : delivery_(delivery) {
  Settings.BindIP = "127.0.0.1";
  Settings.ServerIP = "127.0.0.1";
  Settings.ServerPort = server_listener_.Port();
  Settings.LocalHostName = "proxy.test";
  Settings.IPAllowList = IPRangeList({{0, 0xFFFFFFFF}});
  Settings.LocalIPs = IPRangeList({{0x7F000001, 0x7F000001}});
  for (ExpressionList* list : {&Settings.SendersAllowList, &Settings.HostsAllowList,
                               &Settings.RecipientsAllowListLocal, &Settings.RecipientsAllowListRemote}) {
    list->Add("*", {.patterns = {"*"}});
  }
  Settings.LocalDomains.Add("local.test", {.patterns = {"local.test"}});
}

SessionWorld::~SessionWorld() {
  if (listener_) listener_->CloseSck();
  // Sessions end on the loop that they live on.
  sessions_.ForEach([](cProxy& session) { session.Close(); });
  Loop.RunOnce(Milliseconds(0));
}

void SessionWorld::Start() {
  if (listener_) return;
  host_ = std::make_unique<SessionHost>(
      SessionHost{Settings, log_, Time, Loop, module_, Names, sessions_, *this, Greylisting});
  listener_ = std::make_unique<CSocketMaster>(module_);
  listener_->Events.ConnectionRequest = [this](std::int32_t request) {
    sessions_.Add(std::make_unique<cProxy>(*host_)).Init(request);
  };
  listener_->Bind(0, "127.0.0.1");
  listener_->Listen();
  Connect(0x7F000001);
}

void SessionWorld::Connect(std::uint32_t from) {
  earlier_.push_back(std::move(server_));
  earlier_.push_back(std::move(client_));
  server_ = TestPeer();
  client_ = TestPeer::Connect(Port(), from);
}

void SessionWorld::Poll() {
  if (client_.Open()) client_.Poll();
  if (server_.Open()) server_.Poll();
}

bool SessionWorld::Until(const std::function<bool()>& done) {
  const auto bound = std::chrono::steady_clock::now() + kBound;
  for (;;) {
    Poll();
    if (done()) return true;
    if (std::chrono::steady_clock::now() > bound) return false;
    Loop.RunOnce(Milliseconds(1));
  }
}

void SessionWorld::Settle() {
  // Loopback hands data over at once, so a few turns in which nothing happens mean that nothing is under way.
  for (int quiet = 0; quiet < 3;) {
    const std::size_t before = client_.Received().size() + server_.Received().size();
    const bool busy = Loop.RunOnce(Milliseconds(0));
    Poll();
    quiet = busy || client_.Received().size() + server_.Received().size() != before ? 0 : quiet + 1;
  }
}

void SessionWorld::CheckTimeouts() {
  sessions_.ForEach([](cProxy& session) { session.CheckTimeout(); });
}

void SessionWorld::Shutdown() {
  sessions_.ForEach([](cProxy& session) { session.Shutdown(); });
}

std::string SessionWorld::Play(std::string_view transcript) {
  Start();
  while (!transcript.empty()) {
    const std::size_t end = transcript.find('\n');
    const std::string_view line = Unindented(transcript.substr(0, end));
    transcript = end == std::string_view::npos ? std::string_view() : transcript.substr(end + 1);
    if (line.empty() || line.starts_with("--")) continue;
    dialogue_.append("    ").append(line).append("\n");
    if (!PlayLine(line)) return failure_ + "\n  the dialogue so far:\n" + dialogue_;
  }
  return {};
}

bool SessionWorld::PlayLine(std::string_view line) {
  const char who = line[0];
  if ((who == 'C' || who == 'S') && line.size() > 2 &&
      std::string_view("!>=").find(line[1]) != std::string_view::npos) {
    return PlayPeer(who, line[1], line.substr(line.size() > 3 ? 3 : 2));
  }
  if ((who == 'C' || who == 'S') && line.size() == 2 && (line[1] == '>' || line[1] == '=')) {
    return PlayPeer(who, line[1], "");
  }
  return PlayWord(line);
}

bool SessionWorld::PlayPeer(char who, char what, std::string_view text) {
  if (who == 'S' && text != "nothing" && !NeedServer()) return Fail("the server got no connection");
  switch (what) {
    case '>':
      return Deliver(Peer(who), std::string(text) + "\r\n");
    case '!':
      return Deliver(Peer(who), Unescape(text));
    default:
      return ExpectLine(who, text);
  }
}

bool SessionWorld::PlayWord(std::string_view line) {
  if (line.starts_with("connect")) {
    const std::string_view from = Trim(line.substr(7));
    Connect(from.empty() ? 0x7F000001 : mCommon::CLngIP(from));
    return true;
  }
  if (line == "S accepts") return NeedServer() || Fail("the server got no connection");
  if (line == "C closes") return client_.Close(), Settle(), true;
  if (line == "S closes") return NeedServer() && (server_.Close(), Settle(), true);
  if (line == "C resets") return client_.Reset(), Settle(), true;
  if (line == "S resets") return NeedServer() && (server_.Reset(), Settle(), true);
  if (line == "C shuts") return client_.ShutDownSending(), Settle(), true;
  if (line == "S shuts") return NeedServer() && (server_.ShutDownSending(), Settle(), true);
  if (line == "closed C") return ExpectClosed('C');
  if (line == "closed S") return ExpectClosed('S');
  if (line == "closed both") return ExpectClosed('C') && ExpectClosed('S');
  if (line == "timeouts are checked") return CheckTimeouts(), Settle(), true;
  if (line == "shutdown") return Shutdown(), Settle(), true;
  if (line == "names arrive") return Names.Deliver(), Settle(), true;
  if (line.starts_with("wait ")) {
    int milliseconds = 0;
    std::from_chars(line.data() + 5, line.data() + line.size(), milliseconds);
    Settle();
    Time.Advance(Milliseconds(milliseconds));
    Settle();
    return true;
  }
  if (line.starts_with("log ")) {
    Settle();
    for (const std::string& written : log_.lines) {
      if (HasForm(written, line.substr(4))) return true;
    }
    std::string all = "no such log line; there are:";
    for (const std::string& written : log_.lines) all.append("\n    ").append(written);
    return Fail(all);
  }
  return Fail("the transcript's line is not understood");
}

bool SessionWorld::NeedServer() {
  return server_.Open() || Until([this] {
           server_ = server_listener_.Accept();
           return server_.Open();
         });
}

bool SessionWorld::Deliver(TestPeer& peer, std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t most = delivery_ == Delivery::kByteByByte ? 1 : bytes.size();
    std::size_t sent = 0;
    if (!Until([&] { return (sent = peer.Send(bytes.substr(0, most))) > 0; }))
      return Fail("the peer cannot send");
    bytes.remove_prefix(sent);
    if (delivery_ == Delivery::kByteByByte) Settle();
  }
  return true;
}

bool SessionWorld::ExpectLine(char who, std::string_view wanted) {
  std::string& received = Peer(who).Received();
  if (wanted == "nothing") {
    Settle();
    return received.empty() || Fail("there is something: \"" + received + "\"");
  }
  const bool complete = Until([&] { return received.find(kCrLf) != std::string::npos || Peer(who).AtEnd(); });
  const std::size_t end = received.find(kCrLf);
  if (!complete || end == std::string::npos)
    return Fail("got no such line; what there is: \"" + received + "\"");
  const std::string line = received.substr(0, end);
  received.erase(0, end + kCrLf.size());
  return HasForm(line, Unescape(wanted)) || Fail("got  \"" + line + "\"");
}

bool SessionWorld::ExpectClosed(char who) {
  if (who == 'S' && !NeedServer()) return Fail("the server got no connection");
  if (!Until([&] { return Peer(who).AtEnd(); })) return Fail("it is not closed");
  if (Peer(who).WasReset()) return Fail("it was reset");
  return Peer(who).Received().empty() || Fail("before the end came \"" + Peer(who).Received() + "\"");
}

bool SessionWorld::Fail(std::string reason) {
  failure_ = std::move(reason);
  return false;
}

void PlayBothWays(const std::function<void(SessionWorld&)>& configure, std::string_view text) {
  for (const Delivery delivery : {Delivery::kWhole, Delivery::kByteByByte}) {
    SessionWorld world(delivery);
    if (configure) configure(world);
    const std::string failure = world.Play(text);
    EXPECT_EQ(failure, "") << (delivery == Delivery::kWhole ? "as written" : "byte by byte");
  }
}

}  // namespace trabex

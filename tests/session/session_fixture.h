// Whole sessions over loopback in one process: a scripted client, the proxy, a scripted server.
// What they say is a script (script/README.md).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "config/configuration.h"
#include "net/CSocketMaster.h"
#include "net/modSocketMaster.h"
#include "platform/sockets.h"
#include "proxy/cProxy.h"
#include "proxy/session_collection.h"
#include "proxy/session_dependencies.h"
#include "script/script.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/recorded_log.h"
#include "support/scripted_server.h"
#include "support/test_peer.h"

namespace trabex {

using script::Delivery;

// How the clients are secured when their script begins.
enum class Security {
  kPlain,
  kStartTls,  // by STARTTLS, after a greeting and an EHLO that the script knows nothing of
  kTlsPort,
};

class SessionFixture {
 public:
  // The clients come from the loopback address of the family, unless their script says otherwise, and call
  // there. The server's address is one of IPv4.
  explicit SessionFixture(Delivery delivery = Delivery::kWhole, AddressFamily clients = AddressFamily::kIPv4);
  ~SessionFixture();

  Configuration Settings = DefaultConfiguration();  // set what the test needs before Run
  FakeClock Time;
  EventLoop Loop{Time};
  FakeNameLookup Names{Loop};
  GreylistCheck* Greylisting = nullptr;
  SessionObserver* Observer = nullptr;
  TlsContexts Tls;
  bool OnTlsPort = false;             // whether TLS is spoken from the first byte on
  bool BeginsWithoutReserve = false;  // the memory of the reserve is gone, and not to be had again
  bool HandshakeAtOnce = true;        // there: each client makes the handshake when it has connected
  Security ClientSecurity = Security::kPlain;
  // There is a certificate. AUTH is taken in the clear all the same.
  void OfferTls();
  // The client makes its handshake; false when that fails.
  bool MakeHandshake();

  // Plays the script. Returns "" or what went wrong, with the dialogue so far.
  std::string Play(std::string_view text);
  std::string Play(const std::vector<script::Step>& steps);

  // Plays the script on a dialogue alone, with these settings, names and clock; no session begins.
  std::string PlayOnDialogue(Delivery delivery, std::string_view text);

  // From now on `server` answers in the place of the server's steps. It outlives this object.
  void Attend(ScriptedServer& server) { attended_ = &server; }
  // The client's next reply, all of its lines; what there is of it when it does not come.
  std::string NextReply();

  // For tests that are more than a dialogue.
  std::uint16_t Port() const { return static_cast<std::uint16_t>(listener_->LocalPort()); }
  TestListener& Server() { return server_listener_; }
  TestPeer& ClientPeer() { return client_; }
  TestPeer& ServerPeer() { return server_; }
  SessionCollection& Sessions() { return sessions_; }
  // A session begins whose connection is not there.
  void BeginWithoutConnection() { listener_->Events.ConnectionRequest(-1); }
  const std::vector<std::string>& LogLines() const { return log_.Lines(); }
  modSocketMaster& Sockets_() { return module_; }
  // Accepts the server's connection, unless it has been; false when none comes.
  bool NeedServer();
  // Connects the client, unless it is connected.
  void Start();
  // Runs the loop until `done` or the bound; returns done().
  bool Until(const std::function<bool()>& done);
  // What the program does twice a second: from now on sessions know that it is this late.
  void TellTheTime() { dependencies_->moment = Time.Monotonic(); }
  // Runs the loop until nothing happens any more.
  void Settle();
  void CheckTimeouts();
  void Shutdown();

 private:
  std::unique_ptr<CSocketMaster> ListenOn(const std::string& address);
  void Connect(const IPAddress& from);
  void SecureByStartTls();
  void Poll();
  void PollAttended();
  bool PlayStep(const script::Step& step);
  bool Send(TestPeer& peer, const script::Sending& sending);
  bool Deliver(TestPeer& peer, std::string_view bytes);
  bool ExpectLine(script::Side side, const script::Pattern& wanted);
  bool ExpectNothing(script::Side side);
  bool ExpectBytes(script::Side side, std::string_view wanted);
  bool ExpectClosed(script::Side side);
  bool ExpectLogged(const script::Pattern& wanted);
  bool Answer(const script::NameAnswers& answers);
  TestPeer& Peer(script::Side side) { return side == script::Side::kClient ? client_ : server_; }
  bool Fail(std::string reason);

  const IPAddress& Loopback() const;

  Delivery delivery_;
  AddressFamily clients_;
  Sockets sockets_{Loop};
  // Its memory is the test's.
  class SessionLog final : public Log {
   public:
    void LogLine(std::string_view message) override;
    const std::vector<std::string>& Lines() const { return lines_.Lines(); }

   private:
    RecordedLog lines_;
  };
  SessionLog log_;
  modSocketMaster module_{sockets_, Names, log_};
  SessionCollection sessions_;
  std::unique_ptr<SessionDependencies> dependencies_;
  std::unique_ptr<CSocketMaster> listener_;
  std::unique_ptr<CSocketMaster> ipv6_listener_;  // from the first client of IPv6 on
  TestListener server_listener_;
  TestPeer client_;
  TestPeer server_;
  std::vector<TestPeer> earlier_;  // those of the sessions before a "connect"
  ScriptedServer* attended_ = nullptr;
  int polls_since_segment_ = 0;
  std::size_t moves_ = 0;  // of the attended server
  std::string dialogue_;   // what was played, for the report of a failure
  std::string failure_;
};

// A test that plays `text` with the settings that `configure` makes, once as it is, once byte by byte, and
// once with a client on ::1 in the place of 127.0.0.1 (a text with other clients is not played there).
void PlayBothWays(const std::function<void(SessionFixture&)>& configure, std::string_view text);

// The same, once more under STARTTLS and on the port of TLS, and both ways on the dialogue alone: for what is
// about the dialogue and not about connections.
void PlayEveryWay(const std::function<void(SessionFixture&)>& configure, std::string_view text);

}  // namespace trabex

// Whole sessions over loopback in one process: a scripted client, the proxy, a scripted server.
//
// A transcript is lines of a mark and a text:
//
// clang-format off
//   C> text       the client sends text and CR LF            S> text       the server does
//   C! text       the client sends text as it is             S! text       (escapes: \r \n \t \0 \\ \xHH)
//   C= text       the client must receive this line next     S= text       ("*" stands for any text; it must come)
//   C= nothing    the client has received nothing more       S= nothing
//   C closes      the client closes                          S closes
//   C resets      a reset                                    S resets
//   C shuts       the end of sending only                    S shuts
//   closed C      the client finds its connection closed, everything before it taken; closed S, closed both
//   connect       a new client connects (the first one does by itself); its session is the one spoken with from now on
//   connect 127.0.0.9    from this address
//   S accepts     the server gets its connection (by itself before the first S line)
//   wait 500      the clock goes on by so many milliseconds
//   log text      a log line with this text has been written ("*" as above)
// clang-format on
//
// Blank lines and those that begin with "--" are comments.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/log.h"
#include "config/configuration.h"
#include "net/CSocketMaster.h"
#include "net/modSocketMaster.h"
#include "platform/sockets.h"
#include "proxy/cProxy.h"
#include "proxy/session_collection.h"
#include "proxy/session_host.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/test_peer.h"

namespace trabex {

// How the bytes of both peers are delivered.
enum class Delivery { kWhole, kByteByByte };

class SessionWorld : private ConnectionTable {
 public:
  explicit SessionWorld(Delivery delivery = Delivery::kWhole);
  ~SessionWorld() override;

  Configuration Settings;  // set what the test needs before Run
  FakeClock Time;
  EventLoop Loop{Time};
  FakeNameLookup Names{Loop};
  GreylistCheck* Greylisting = nullptr;

  // Plays the transcript. Returns "" or what went wrong, with the dialogue so far.
  std::string Play(std::string_view transcript);

  // For tests that are more than a dialogue.
  std::uint16_t Port() const { return static_cast<std::uint16_t>(listener_->LocalPort()); }
  TestListener& Server() { return server_listener_; }
  TestPeer& ClientPeer() { return client_; }
  TestPeer& ServerPeer() { return server_; }
  SessionCollection& Sessions() { return sessions_; }
  const std::vector<std::string>& LogLines() const { return log_.lines; }
  const std::vector<std::string>& Rows() const { return rows_; }
  modSocketMaster& Sockets_() { return module_; }
  // Accepts the server's connection, unless it has been; false when none comes.
  bool NeedServer();
  // Connects the client, unless it is connected.
  void Start();
  // Turns the loop until `done` or the bound; returns done().
  bool Until(const std::function<bool()>& done);
  // Turns the loop until nothing happens any more.
  void Settle();
  void CheckTimeouts();
  void Shutdown();

 private:
  struct RecordingLog : Log {
    std::vector<std::string> lines;
    void LogLine(std::string_view message) override { lines.emplace_back(message); }
  };

  void AddRow(cProxy& session) override { rows_.push_back(session.Key()); }
  void RemoveRow(std::string_view key) override { std::erase(rows_, key); }

  void Connect(std::uint32_t from);
  void Poll();
  bool PlayLine(std::string_view line);
  bool PlayPeer(char who, char what, std::string_view text);
  bool PlayWord(std::string_view line);
  bool Deliver(TestPeer& peer, std::string_view bytes);
  bool ExpectLine(char who, std::string_view wanted);
  bool ExpectClosed(char who);
  TestPeer& Peer(char who) { return who == 'C' ? client_ : server_; }
  bool Fail(std::string reason);

  Delivery delivery_;
  Sockets sockets_{Loop};
  RecordingLog log_;
  modSocketMaster module_{sockets_, Names, log_};
  SessionCollection sessions_;
  std::vector<std::string> rows_;
  std::unique_ptr<SessionHost> host_;
  std::unique_ptr<CSocketMaster> listener_;
  TestListener server_listener_;
  TestPeer client_;
  TestPeer server_;
  std::vector<TestPeer> earlier_;  // those of the sessions before a "connect"
  std::string dialogue_;           // what was played, for the report of a failure
  std::string failure_;
};

// Whether `text` has the form of `pattern`, in which "*" stands for any text.
bool HasForm(std::string_view text, std::string_view pattern);

// A test that plays `text` with the settings that `configure` makes, once as it stands and once byte by byte.
void PlayBothWays(const std::function<void(SessionWorld&)>& configure, std::string_view text);

}  // namespace trabex

// A loop with the socket layer on it, sockets that write down their events, and peers that the test drives by
// itself over loopback connections.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "net/CSocketMaster.h"
#include "support/expect_error.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/held_port.h"
#include "support/loop_runner.h"
#include "support/plain_socket.h"
#include "support/recorded_log.h"
#include "support/system_socket.h"
#include "support/told_by_system.h"

namespace trabex {

inline constexpr IPAddress kLoopback = kIPv4Loopback;

inline constexpr const char* kBadState = "Invalid operation at current state";
inline constexpr const char* kBadArgument =
    "The argument passed to a function was not in the correct format or in the specified range.";
inline constexpr const char* kWrongState =
    "Wrong protocol or connection state for the requested transaction or request";

// A socket object that traces its events: "Connect", "DataArrival", "SendProgress(5,0)", "Error(10061)" ...
class TracedSocket {
 public:
  explicit TracedSocket(modSocketMaster& module) : socket(std::make_unique<CSocketMaster>(module)) {
    CSocketMasterEvents& events = socket->Events;
    events.CloseSck = [this] { Note("CloseSck", "CloseSck"); };
    events.Connect = [this] { Note("Connect", "Connect"); };
    events.ConnectionRequest = [this](std::int32_t id) {
      request = id;
      Note("ConnectionRequest", "ConnectionRequest");
    };
    events.DataArrival = [this] { Note("DataArrival", "DataArrival"); };
    events.Error = [this](int number, std::string& description, const std::string& source, bool& cancel) {
      error_description = description;
      error_source = source;
      EXPECT_TRUE(cancel);
      EXPECT_EQ(socket->State(), SocketState::sckError);
      Note("Error", "Error(" + std::to_string(number) + ")");
    };
    events.SendComplete = [this] { Note("SendComplete", "SendComplete"); };
    events.SendProgress = [this](std::size_t sent, std::size_t remaining) {
      Note("SendProgress", "SendProgress(" + std::to_string(sent) + "," + std::to_string(remaining) + ")");
    };
  }

  // Has an event traced, too, that most tests have nothing to do with.
  void Trace(RareHandler<>& handler, const std::string& event) {
    handler = [this, event] { Note(event, event); };
  }

  CSocketMaster* operator->() { return socket.get(); }
  CSocketMaster& operator*() { return *socket; }
  // The events so far, which are then forgotten.
  std::string Take() { return std::exchange(trace, {}); }
  // What happens inside the named event, after it was written down.
  void On(const std::string& event, std::function<void()> action) { actions_[event] = std::move(action); }

  std::unique_ptr<CSocketMaster> socket;
  std::string trace;
  std::int32_t request = 0;
  std::string error_description;
  std::string error_source;

 private:
  void Note(const std::string& event, const std::string& text) {
    if (!trace.empty()) trace += ' ';
    trace += text;
    const auto found = actions_.find(event);
    if (found != actions_.end()) found->second();
  }

  std::map<std::string, std::function<void()>> actions_;
};

// The other end of a connection. Its functions run the loop while they wait.
class Peer {
 public:
  explicit Peer(EventLoop& loop, SystemSocket socket = SystemSocket(Transport::kTcp))
      : loop_(loop), socket_(std::move(socket)) {}
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  // Before Connect: a receive buffer that fills soon.
  void ReceiveLittle() { socket_.LimitReceiveBuffer(4096); }
  void Connect(std::int32_t port) {
    ASSERT_TRUE(socket_.Connect({kLoopback, static_cast<std::uint16_t>(port)}));
  }
  int Port() const { return socket_.Local().port; }
  // That of the end it is connected to.
  int OtherPort() const { return socket_.Remote().port; }
  void Send(const std::string& text) {
    std::size_t sent = 0;
    ASSERT_TRUE(RunUntil(loop_, [&] {
      sent += SendSome(text.substr(sent));
      return sent == text.size();
    }));
  }
  // Sends as much as the system takes at once; returns how much.
  std::size_t SendSome(const std::string& text) { return socket_.Send(text); }
  // Takes what has come, without waiting. Sets ended and reset.
  std::string ReceiveNow() {
    std::string result;
    while (ReceiveSome(result, 65536)) continue;
    return result;
  }
  // As ReceiveNow, but by one call for `max_bytes` at most, which are appended to `result`. False when there
  // is nothing.
  bool ReceiveSome(std::string& result, std::size_t max_bytes) {
    const std::size_t size = result.size();
    result.resize(size + max_bytes);
    std::size_t count = 0;
    const auto outcome = socket_.Receive({result.data() + size, max_bytes}, count);
    result.resize(size + count);
    if (outcome == SystemSocket::Outcome::kEnd) ended = true;
    if (outcome == SystemSocket::Outcome::kReset) reset = true;
    return count > 0;
  }
  std::string Receive(std::size_t count) {
    std::string result;
    RunWith([&] {
      result += ReceiveNow();
      return result.size() >= count;
    });
    return result;
  }
  // Everything until the other end's end.
  std::string ReceiveToEnd() {
    std::string result;
    RunWith([&] {
      result += ReceiveNow();
      return ended || reset;
    });
    EXPECT_TRUE(ended) << "reset";
    return result;
  }
  // Whether nothing of what we sent is still on its way.
  bool AllDelivered() const { return socket_.Undelivered() == 0; }
  // Runs the loop until `predicate()` holds, for a bounded time. The peer's socket is not in the loop, so the
  // loop does not sleep.
  template <class Predicate>
  void RunWith(Predicate predicate) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!predicate()) {
      ASSERT_LT(std::chrono::steady_clock::now(), end);
      if (!loop_.RunOnce(Milliseconds{0})) socket_.AwaitReadable(Milliseconds{1});
    }
  }

  void EndSending() { socket_.ShutDownSending(); }
  void Close() { socket_.Close(); }
  void Reset() { socket_.Reset(); }

  bool ended = false;
  bool reset = false;

 private:
  EventLoop& loop_;
  SystemSocket socket_;
};

// A listening peer, for sockets of ours to connect to.
class PeerListener {
 public:
  explicit PeerListener(EventLoop& loop) : loop_(loop), socket_(held_.Listen(100)) { port = held_.Port(); }
  PeerListener(const PeerListener&) = delete;
  PeerListener& operator=(const PeerListener&) = delete;

  std::unique_ptr<Peer> Accept() {
    SystemSocket accepted;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!accepted.IsOpen() && std::chrono::steady_clock::now() < end) {
      accepted = socket_.Accept();
      if (!accepted.IsOpen() && !loop_.RunOnce(Milliseconds{0})) socket_.AwaitReadable(Milliseconds{1});
    }
    EXPECT_TRUE(accepted.IsOpen());
    return std::make_unique<Peer>(loop_, std::move(accepted));
  }
  // Refuses connections from now on.
  void Close() { socket_.Close(); }

  std::int32_t port = 0;

 private:
  EventLoop& loop_;
  HeldPort held_;
  SystemSocket socket_;
};

// Calls `use(port)` with a port that is free, and with another one when another process was quicker (`use`
// raised 10048).
template <class Use>
void WithFreePort(Use use) {
  for (int attempt = 0; attempt < 30; ++attempt) {
    try {
      return use(FreePort());
    } catch (const Error& error) {
      ASSERT_EQ(error.Number(), socket_error::kAddressInUse);
    }
  }
  ADD_FAILURE() << "no free port";
}

class NetTest : public testing::Test {
 protected:
  // Runs until `socket` has had these events, and on until nothing is left to do; forgets them.
  void ExpectEvents(TracedSocket& socket, const std::string& expected) {
    RunUntil(
        loop, [&] { return socket.trace.size() >= expected.size(); }, std::chrono::seconds(5));
    RunUntilIdle(loop);
    EXPECT_EQ(socket.Take(), expected);
  }

  void StartListener() {
    listener = std::make_unique<TracedSocket>(module);
    (*listener)->Bind(0, "127.0.0.1");
    (*listener)->Listen();
    listener->On("ConnectionRequest", [this] {
      accepted = std::make_unique<TracedSocket>(module);
      (*accepted)->Accept(listener->request);
    });
  }
  // `accepted` is our end, `peer` the other one.
  void Connection() {
    if (!listener) StartListener();
    if (!peer) peer = std::make_unique<Peer>(loop);
    accepted.reset();
    peer->Connect((*listener)->LocalPort());
    ASSERT_TRUE(RunUntil(loop, [&] { return accepted != nullptr; }));
    RunUntilIdle(loop);
    accepted->Take();
  }
  // What a reset of the peer is notified as, where the system tells it.
  static std::string ResetEvent() { return ResetsAreTold() ? "Error(10054)" : "CloseSck"; }
  // Waits until everything the peer sent lies in our receive buffer.
  void AllHere() {
    ASSERT_TRUE(RunUntil(loop, [&] { return peer->AllDelivered(); }));
  }

  FakeClock clock;
  EventLoop loop{clock};
  RecordedLog log;
  FakeNameLookup names{loop};
  Sockets sockets{loop};
  modSocketMaster module{sockets, names, log};
  std::unique_ptr<TracedSocket> listener;
  std::unique_ptr<TracedSocket> accepted;
  std::unique_ptr<Peer> peer;
};

}  // namespace trabex

// A loop with the socket layer on it, sockets that write down their events, and peers that the test drives by
// itself over loopback connections.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
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

// The other end of a connection: a plain non-blocking socket. Its functions run the loop while they wait.
class Peer {
 public:
  explicit Peer(EventLoop& loop, int descriptor = -1)
      : loop_(loop),
        descriptor_(descriptor >= 0 ? descriptor
                                    : ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {}
  ~Peer() { Close(); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  // Before Connect: a receive buffer that fills soon.
  void ReceiveLittle() {
    const int bytes = 4096;
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
  }
  void Connect(std::int32_t port) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(port));
    to.sin_addr.s_addr = htonl(kLoopback.Number());
    const int result = connect(descriptor_, reinterpret_cast<sockaddr*>(&to), sizeof to);
    ASSERT_TRUE(result == 0 || errno == EINPROGRESS) << errno;
  }
  int Port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
  }
  void Send(const std::string& text) {
    std::size_t sent = 0;
    ASSERT_TRUE(RunUntil(loop_, [&] {
      const ssize_t count = send(descriptor_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
      if (count > 0) sent += static_cast<std::size_t>(count);
      return sent == text.size();
    }));
  }
  // Sends as much as the system takes at once; returns how much.
  std::size_t SendSome(const std::string& text) {
    const ssize_t count = send(descriptor_, text.data(), text.size(), MSG_NOSIGNAL);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  // Takes what has come, without waiting. Sets ended and reset.
  std::string ReceiveNow() {
    std::string result;
    char space[65536];
    for (;;) {
      const ssize_t count = recv(descriptor_, space, sizeof space, 0);
      if (count > 0) {
        result.append(space, static_cast<std::size_t>(count));
        continue;
      }
      if (count == 0) ended = true;
      if (count < 0 && errno != EAGAIN) reset = true;
      return result;
    }
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
  bool AllDelivered() const {
    int left = 0;
    return ioctl(descriptor_, TIOCOUTQ, &left) == 0 && left == 0;
  }
  // Runs the loop until `predicate()` holds, for a bounded time. The peer's descriptor is not in the loop, so
  // the loop does not sleep.
  template <class Predicate>
  void RunWith(Predicate predicate) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!predicate()) {
      ASSERT_LT(std::chrono::steady_clock::now(), end);
      if (loop_.RunOnce(Milliseconds{0})) continue;
      pollfd wait{descriptor_, POLLIN, 0};
      poll(&wait, 1, 1);
    }
  }

  void EndSending() { shutdown(descriptor_, SHUT_WR); }
  void Close() {
    if (descriptor_ >= 0) close(descriptor_);
    descriptor_ = -1;
  }
  void Reset() {
    const linger at_once{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    Close();
  }
  int Descriptor() const { return descriptor_; }

  bool ended = false;
  bool reset = false;

 private:
  EventLoop& loop_;
  int descriptor_;
};

// A listening plain socket, for sockets of ours to connect to.
class PeerListener {
 public:
  explicit PeerListener(EventLoop& loop) : loop_(loop), descriptor_(held_.Listen(100)) {
    port = held_.Port();
  }
  ~PeerListener() { Close(); }
  PeerListener(const PeerListener&) = delete;
  PeerListener& operator=(const PeerListener&) = delete;

  std::unique_ptr<Peer> Accept() {
    int accepted = -1;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (accepted < 0 && std::chrono::steady_clock::now() < end) {
      accepted = accept4(descriptor_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (accepted < 0 && !loop_.RunOnce(Milliseconds{0})) {
        pollfd wait{descriptor_, POLLIN, 0};
        poll(&wait, 1, 1);
      }
    }
    EXPECT_GE(accepted, 0);
    return std::make_unique<Peer>(loop_, accepted);
  }
  // Refuses connections from now on.
  void Close() {
    if (descriptor_ >= 0) close(descriptor_);
    descriptor_ = -1;
  }

  std::int32_t port = 0;

 private:
  EventLoop& loop_;
  HeldPort held_;
  int descriptor_;
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

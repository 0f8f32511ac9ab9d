// A socket of the system, for the peers of tests. It does not go through platform/sockets.h, so that what is
// tested is not its own witness there. This is the one place of the tests of other libraries than platform
// that knows the system's sockets.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/sockets.h"

namespace trabex {

// Non-blocking, and owned. What the test cannot do without raises std::runtime_error.
class SystemSocket {
 public:
  // None.
  SystemSocket() = default;
  explicit SystemSocket(Transport transport, AddressFamily family = AddressFamily::kIPv4);
  ~SystemSocket();
  SystemSocket(SystemSocket&& other) noexcept;
  SystemSocket& operator=(SystemSocket&& other) noexcept;

  bool IsOpen() const { return native_ != kNone; }
  // For FdWatcher.
  std::intptr_t Native() const { return native_; }

  // --- before Bind
  // Lets it have an address that another socket has, as long as one of them listens at most.
  void ShareAddress();
  // Lets a bind to port 0 leave the choice of the port to the connect.
  void ChoosePortAtConnect();

  // False when another socket has the address.
  bool Bind(const Endpoint& local);
  bool Listen(int backlog);
  // The next connection, which sends small pieces at once; none when none waits.
  SystemSocket Accept();
  // Before Connect, or while connected: a receive buffer that fills soon.
  void LimitReceiveBuffer(int bytes);
  // Begins to connect. False when the system refuses at once.
  bool Connect(const Endpoint& remote);
  // Whether the connect that was begun succeeds within `limit`; what is sent goes out in small pieces then.
  bool Connected(std::chrono::milliseconds limit);
  // Waits until there is something to be received or accepted, for `limit` at most.
  void AwaitReadable(std::chrono::milliseconds limit) const;

  enum class Outcome { kData, kNothingYet, kEnd, kReset };
  // `received` is 1 or more with kData and 0 otherwise.
  Outcome Receive(std::span<char> buffer, std::size_t& received);
  // Hands over as much as the system takes; returns how much, 0 also for a connection that has ended.
  std::size_t Send(std::string_view bytes);
  // The next datagram; false when there is none.
  bool ReceiveFrom(std::span<char> buffer, std::size_t& received, Endpoint& from);
  void SendTo(std::string_view bytes, const Endpoint& to);

  // Bytes that have come and were not received.
  std::size_t Untaken() const;
  // In how many segments the bytes that have come so far have come. Not on Windows.
  std::uint32_t SegmentsReceived() const;
  // Bytes that were sent and the other system has not acknowledged.
  std::size_t Undelivered() const;
  // Says at once to the other system that what has come is here, which otherwise may wait for more to come. Not on
  // Windows.
  void AcknowledgeNow() const;
  Endpoint Local() const;
  Endpoint Remote() const;

  // Ends the sending side; receiving goes on.
  void ShutDownSending();
  void Close();
  // Closes so that the other end sees a reset.
  void Reset();

 private:
  static constexpr std::intptr_t kNone = -1;

  explicit SystemSocket(std::intptr_t native) : native_(native) {}
  void SetOption(int level, int name, int value);

  std::intptr_t native_ = kNone;
};

// Takes a name that exists once on the machine and goes with the process; no socket is left when another
// process has it.
class SystemName {
 public:
  // Whether the name is ours now. One name per object.
  bool Take(std::string_view name);
  SystemName() = default;
  ~SystemName();
  SystemName(const SystemName&) = delete;
  SystemName& operator=(const SystemName&) = delete;

 private:
  static constexpr std::intptr_t kNone = -1;

  std::intptr_t native_ = kNone;
};

}  // namespace trabex

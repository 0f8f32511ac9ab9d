// One datagram for each message, to the socket that NOTIFY_SOCKET names.
#include "platform/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>

#include "platform/linux/descriptor.h"

namespace trabex {

namespace {

// The value of a variable of the environment; empty when there is none.
std::string_view Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view() : std::string_view(value);
}

// A positive whole number of microseconds or a process id.
std::optional<std::int64_t> Number(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number <= 0) return std::nullopt;
  return number;
}

// Of this process, unless the variable is meant for another one.
std::optional<Milliseconds> ReadWatchdogTime() {
  if (const std::string_view pid = Variable("WATCHDOG_PID"); !pid.empty() && Number(pid) != getpid()) {
    return std::nullopt;
  }
  const std::optional<std::int64_t> time = Number(Variable("WATCHDOG_USEC"));
  if (!time) return std::nullopt;
  return std::chrono::duration_cast<Milliseconds>(std::chrono::microseconds(*time));
}

// The manager compares it with the time of the reload that it waits for.
std::string MonotonicMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::to_string(std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000);
}

std::string MessageOf(ServiceState state) {
  switch (state) {
    case ServiceState::kReady:
      return "READY=1";
    case ServiceState::kReloading:
      return "RELOADING=1\nMONOTONIC_USEC=" + MonotonicMicroseconds();
    case ServiceState::kStopping:
      return "STOPPING=1";
    case ServiceState::kAlive:
      break;
  }
  return "WATCHDOG=1";
}

class NotifySocket final : public ServiceManager {
 public:
  // `path` fits into an address. With "@" in front it is a name in the abstract namespace.
  NotifySocket(Descriptor socket, std::string_view path)
      : socket_(std::move(socket)), watchdog_time_(ReadWatchdogTime()) {
    address_.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address_.sun_path);
    length_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    if (path.front() == '@') {
      address_.sun_path[0] = '\0';
    } else {
      ++length_;
    }
  }

  bool Tell(ServiceState state) override {
    const std::string message = MessageOf(state);
    // Not connected: the socket at the other end may be another one after the manager was updated.
    const ssize_t sent = sendto(socket_.Get(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                                reinterpret_cast<const sockaddr*>(&address_), length_);
    return sent == static_cast<ssize_t>(message.size());
  }

  std::optional<Milliseconds> WatchdogTime() const override { return watchdog_time_; }

 private:
  Descriptor socket_;  // kept, because later there may be no descriptor left
  sockaddr_un address_{};
  socklen_t length_ = 0;
  std::optional<Milliseconds> watchdog_time_;
};

}  // namespace

std::unique_ptr<ServiceManager> FindServiceManager() {
  const std::string_view path = Variable("NOTIFY_SOCKET");
  const bool has_form = path.size() > 1 && (path.front() == '/' || path.front() == '@');
  if (!has_form || path.size() >= sizeof sockaddr_un{}.sun_path) return nullptr;
  Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return nullptr;
  return std::make_unique<NotifySocket>(std::move(socket), path);
}

}  // namespace trabex

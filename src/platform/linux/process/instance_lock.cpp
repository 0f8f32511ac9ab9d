// The instance lock is a datagram socket bound in the abstract namespace: the name is free again the moment
// the process is gone, and nothing is left in a file system. A message on it is the exit request.
#include "platform/instance_lock.h"

#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "base/error.h"
#include "platform/device_error.h"
#include "platform/fd_watcher.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/process/abstract_address.h"
#include "platform/linux/process/unix_socket_table.h"

namespace trabex {

namespace {

constexpr std::string_view kExitMessage = "exit";

// After a message the lock does not listen for this long, so that a flood of messages costs next to nothing:
// the system queues a handful and holds up their sender.
constexpr Milliseconds kPause{100};
constexpr int kMaxMessagesAtOnce = 32;
// How long an exit request waits while the queue of the lock is full.
constexpr timeval kMaxSendWait{1, 0};

constexpr const char* kLockSource = "mInstanceLock.TryLockInstance";

// What one message says. Its sender's identity comes from the system; only root can forge it.
struct Message {
  std::string text;
  bool from_us_or_root = false;
};

void ReadSender(msghdr& header, Message& message) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_CREDENTIALS) continue;
    if (part->cmsg_len < CMSG_LEN(sizeof(ucred))) continue;
    ucred sender{};
    std::memcpy(&sender, CMSG_DATA(part), sizeof sender);
    message.from_us_or_root = sender.uid == 0 || sender.uid == geteuid();
  }
}

// False when nothing waits.
bool ReceiveMessage(int socket, Message& message) {
  std::array<char, 16> text{};
  iovec buffer{text.data(), text.size()};
  // Exactly the size of the credentials: there is no space for file descriptors that a sender attaches, so
  // the system closes them.
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
  msghdr header{};
  header.msg_iov = &buffer;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t length = recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (length < 0) return false;
  message.text.assign(text.data(), static_cast<std::size_t>(length));  // cut, but still longer than ours
  ReadSender(header, message);
  return true;
}

std::string UserName(uid_t number) {
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  while (getpwuid_r(number, &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  return found != nullptr ? found->pw_name : "uid " + std::to_string(number);
}

class SocketInstanceLock final : public InstanceLock {
 public:
  SocketInstanceLock(EventLoop& loop, Descriptor socket, std::function<void()> exit_requested)
      : exit_requested_(std::move(exit_requested)),
        socket_(std::move(socket)),
        watch_(loop, socket_.Get(), [this](FdReadiness) { OnReady(); }),
        pause_(loop, kPause, [this] { GoOn(); }) {
    watch_.SetInterest({.readable = true});
  }

 private:
  void OnReady() {
    bool asked = false;
    for (int i = 0; i < kMaxMessagesAtOnce; ++i) {
      Message message;
      if (!ReceiveMessage(socket_.Get(), message)) break;
      if (message.from_us_or_root && message.text == kExitMessage) asked = true;
    }
    watch_.SetInterest({});
    pause_.Enable();
    if (!asked) return;
    const auto exit_requested = exit_requested_;  // this object may go in the call
    exit_requested();
  }

  void GoOn() {
    try {
      watch_.SetInterest({.readable = true});
      pause_.Disable();
    } catch (const Error&) {
      // Short of memory: the timer tries again.
    }
  }

  std::function<void()> exit_requested_;
  Descriptor socket_;
  FdWatcher watch_;
  Timer pause_;
};

}  // namespace

std::unique_ptr<InstanceLock> TryLockInstance(EventLoop& loop, std::string_view name,
                                              std::function<void()> exit_requested) {
  Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) RaiseDeviceError(kLockSource);
  const int yes = 1;
  if (setsockopt(socket.Get(), SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes) != 0) RaiseDeviceError(kLockSource);
  const AbstractAddress bound(name);
  if (bind(socket.Get(), bound.Get(), bound.Length()) != 0) {
    if (errno == EADDRINUSE) return nullptr;
    RaiseDeviceError(kLockSource);
  }
  return std::make_unique<SocketInstanceLock>(loop, std::move(socket), std::move(exit_requested));
}

std::optional<std::string> OtherUserHolding(std::string_view name) {
  const std::optional<uid_t> owner = OwnerOfDatagramSocket(name);
  if (!owner || *owner == geteuid()) return std::nullopt;
  return UserName(*owner);
}

bool IsInstanceLocked(std::string_view name) {
  const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const AbstractAddress instance(name);
  return connect(socket.Get(), instance.Get(), instance.Length()) == 0;
}

ExitRequest RequestExit(std::string_view name) {
  const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return ExitRequest::kFailed;
  setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &kMaxSendWait, sizeof kMaxSendWait);
  const AbstractAddress instance(name);
  if (connect(socket.Get(), instance.Get(), instance.Length()) != 0) return ExitRequest::kNoInstance;
  // Its request would be dropped there without a word.
  if (geteuid() != 0 && OtherUserHolding(name)) return ExitRequest::kOtherUser;
  const ssize_t sent = send(socket.Get(), kExitMessage.data(), kExitMessage.size(), MSG_NOSIGNAL);
  if (sent == static_cast<ssize_t>(kExitMessage.size())) return ExitRequest::kMade;
  return errno == ECONNREFUSED ? ExitRequest::kNoInstance : ExitRequest::kFailed;
}

}  // namespace trabex

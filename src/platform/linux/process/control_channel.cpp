// The control channel is a stream socket in the abstract namespace, beside the datagram socket that is the lock.
#include "platform/control_channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "base/error.h"
#include "platform/device_error.h"
#include "platform/fd_watcher.h"
#include "platform/instance_lock.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/files/regular_file.h"
#include "platform/linux/process/abstract_address.h"
#include "platform/linux/process/unix_socket_table.h"

namespace trabex {

namespace {

constexpr const char* kSource = "mControlChannel.OpenControlChannel";
constexpr int kBacklog = 64;
constexpr int kMaxCallersAtOnce = 32;
// After somebody who may not ask, and when the system gives no descriptor, nobody is let in for this long, so
// that a flood of callers costs next to nothing.
constexpr Milliseconds kPause{100};

// The user at the other end: who called, or, seen by the caller, who opened the channel.
std::optional<uid_t> PeerOf(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return std::nullopt;
  return peer.uid;
}

// What a send or receive has come to. 0 received is the end.
ChannelResult ResultOf(ssize_t count) {
  if (count > 0) return ChannelResult::kDone;
  const bool waits = count < 0 && (errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM);
  return waits ? ChannelResult::kWouldBlock : ChannelResult::kClosed;
}

// A message with space for one descriptor.
class Message {
 public:
  Message(char* bytes, std::size_t size) : part_{bytes, size} {
    header_.msg_iov = &part_;
    header_.msg_iovlen = 1;
    header_.msg_control = space_.data();
    header_.msg_controllen = space_.size();
  }

  msghdr& Header() { return header_; }
  void Put(int descriptor) {
    cmsghdr* const first = CMSG_FIRSTHDR(&header_);
    first->cmsg_level = SOL_SOCKET;
    first->cmsg_type = SCM_RIGHTS;
    first->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(first), &descriptor, sizeof descriptor);
  }
  Descriptor Take() {
    const cmsghdr* const first = CMSG_FIRSTHDR(&header_);
    if (first == nullptr || first->cmsg_level != SOL_SOCKET || first->cmsg_type != SCM_RIGHTS ||
        first->cmsg_len < CMSG_LEN(sizeof(int))) {
      return Descriptor();
    }
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(first), sizeof descriptor);
    return Descriptor(descriptor);
  }

 private:
  iovec part_;
  msghdr header_{};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> space_{};
};

// More descriptors than one that a peer attaches find no space here, so the system closes them; so are those that nobody
// takes.
ChannelResult ReceiveFrom(int socket, std::span<char> buffer, std::size_t& received, Descriptor& attached) {
  Message message(buffer.data(), buffer.size());
  ssize_t count = -1;
  do count = recvmsg(socket, &message.Header(), MSG_CMSG_CLOEXEC);
  while (count < 0 && errno == EINTR);
  if (count >= 0) {
    if (Descriptor one = message.Take()) attached = std::move(one);
  }
  const ChannelResult result = ResultOf(count);
  received = result == ChannelResult::kDone ? static_cast<std::size_t>(count) : 0;
  return result;
}

// `attached` goes along with the first byte.
ChannelResult SendTo(int socket, std::string_view bytes, std::size_t& sent, int attached = -1) {
  std::string copy;
  if (attached >= 0) copy = bytes;  // a message wants bytes that could be changed
  Message message(copy.data(), copy.size());
  if (attached >= 0) message.Put(attached);
  ssize_t count = -1;
  do {
    count = attached >= 0 ? sendmsg(socket, &message.Header(), MSG_NOSIGNAL)
                          : send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  } while (count < 0 && errno == EINTR);
  const ChannelResult result = ResultOf(count);
  sent = result == ChannelResult::kDone ? static_cast<std::size_t>(count) : 0;
  return result;
}

class SocketCaller final : public ControlCaller {
 public:
  SocketCaller(EventLoop& loop, Descriptor socket)
      : socket_(std::move(socket)), watch_(loop, socket_.Get(), [this](FdReadiness) { OnReady(); }) {}

  void Watch(FdReadiness interest, std::function<void()> ready) override {
    ready_ = std::move(ready);
    watch_.SetInterest(interest);
  }
  ChannelResult Receive(std::span<char> buffer, std::size_t& received) override {
    return ReceiveFrom(socket_.Get(), buffer, received, attached_);
  }
  ChannelResult Send(std::string_view bytes, std::size_t& sent) override {
    return SendTo(socket_.Get(), bytes, sent);
  }
  NativeFile TakeFile() override { return NativeFile(attached_.Release()); }

 private:
  void OnReady() {
    const auto ready = ready_;  // this object may go in the call
    if (ready) ready();
  }

  Descriptor socket_;
  Descriptor attached_;
  std::function<void()> ready_;
  FdWatcher watch_;
};

class SocketChannel final : public ControlChannel {
 public:
  SocketChannel(EventLoop& loop, Descriptor socket,
                std::function<void(std::unique_ptr<ControlCaller>)> called)
      : loop_(loop),
        called_(std::move(called)),
        socket_(std::move(socket)),
        watch_(loop, socket_.Get(), [this](FdReadiness) { OnReady(); }),
        pause_(loop, kPause, [this] { GoOn(); }) {}

  void LetIn(bool let_in) override {
    let_in_ = let_in;
    if (!pause_.Enabled()) watch_.SetInterest({.readable = let_in});
  }

 private:
  void OnReady() {
    const std::weak_ptr<char> still_here = here_;
    for (int i = 0; i < kMaxCallersAtOnce && let_in_; ++i) {
      Descriptor caller(accept4(socket_.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (!caller) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        return errno == EAGAIN ? void() : Pause();
      }
      const std::optional<uid_t> user = PeerOf(caller.Get());
      if (user != uid_t{0} && user != geteuid()) {
        Pause();
        continue;
      }
      const auto called = called_;  // this object may go in the call
      called(std::make_unique<SocketCaller>(loop_, std::move(caller)));
      if (still_here.expired()) return;
    }
  }

  void Pause() {
    watch_.SetInterest({});
    pause_.Enable();
  }

  void GoOn() {
    try {
      watch_.SetInterest({.readable = let_in_});
      pause_.Disable();
    } catch (const Error&) {
      // Short of memory: the timer tries again.
    }
  }

  EventLoop& loop_;
  std::function<void(std::unique_ptr<ControlCaller>)> called_;
  Descriptor socket_;
  FdWatcher watch_;
  Timer pause_;
  bool let_in_ = false;
  std::shared_ptr<char> here_ = std::make_shared<char>();
};

class SocketCall final : public ControlCall {
 public:
  explicit SocketCall(Descriptor socket) : socket_(std::move(socket)) {}

  ChannelResult Send(std::string_view bytes) override {
    ChannelResult result = ChannelResult::kDone;
    while (!bytes.empty() && result == ChannelResult::kDone) {
      std::size_t sent = 0;
      result = SendTo(socket_.Get(), bytes, sent, attached_.Get());
      if (sent > 0) attached_.Close();
      bytes.remove_prefix(sent);
    }
    return result;
  }
  ChannelResult Receive(std::span<char> buffer, std::size_t& received) override {
    Descriptor ignored;
    return ReceiveFrom(socket_.Get(), buffer, received, ignored);
  }
  void Attach(const std::string& path) override { attached_ = OpenRegularFile(path, O_RDONLY); }
  std::intptr_t NativeHandle() const override { return socket_.Get(); }

 private:
  Descriptor socket_;
  Descriptor attached_;  // what goes along with the next bytes
};

}  // namespace

std::unique_ptr<ControlChannel> OpenControlChannel(
    EventLoop& loop, std::string_view name, std::function<void(std::unique_ptr<ControlCaller>)> called) {
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) RaiseDeviceError(kSource);
  const AbstractAddress address(name);
  if (bind(socket.Get(), address.Get(), address.Length()) != 0) {
    if (errno == EADDRINUSE) return nullptr;
    RaiseDeviceError(kSource);
  }
  if (listen(socket.Get(), kBacklog) != 0) RaiseDeviceError(kSource);
  return std::make_unique<SocketChannel>(loop, std::move(socket), std::move(called));
}

std::variant<std::unique_ptr<ControlCall>, CallFailure> CallInstance(std::string_view name,
                                                                     std::chrono::seconds patience) {
  const AbstractAddress address(name);
  if (!IsInstanceLocked(name)) return CallFailure::kNoInstance;
  const std::optional<uid_t> owner = OwnerOfDatagramSocket(name);
  const uid_t we = geteuid();
  if (we != 0 && owner.value_or(we) != we) return CallFailure::kOtherUser;
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval wait{static_cast<time_t>(patience.count()), 0};
  setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
  setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  if (connect(socket.Get(), address.Get(), address.Length()) != 0) return CallFailure::kNoChannel;
  const std::optional<uid_t> peer = PeerOf(socket.Get());
  if (owner ? peer != owner : we != 0 && peer != we) {
    return owner ? CallFailure::kForeignChannel : CallFailure::kOtherUser;
  }
  return std::make_unique<SocketCall>(std::move(socket));
}

}  // namespace trabex

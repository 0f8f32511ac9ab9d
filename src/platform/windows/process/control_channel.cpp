// The control channel is a named pipe that only the instance's own user and administrators may open, and only on this
// machine.
#include "platform/control_channel.h"

#include "platform/windows/win.h"
// Behind windows.h, which it needs.
#include <aclapi.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "platform/device_error.h"
#include "platform/instance_lock.h"
#include "platform/windows/files/disk_file.h"
#include "platform/windows/process/pipe_completions.h"
#include "platform/windows/process/pipe_connection.h"
#include "platform/windows/security.h"

namespace trabex {

namespace {

constexpr const char* kSource = "mControlChannel.OpenControlChannel";
// When the system gives no further pipe, the next try is made after this.
constexpr Milliseconds kPause{100};

std::wstring PipeName(std::string_view name) {
  return L"\\\\.\\pipe\\" + Wide(name);
}

class PipeCaller final : public ControlCaller {
 public:
  PipeCaller(EventLoop& loop, NativeFile pipe)
      : connection_(std::make_shared<PipeConnection>(loop, std::move(pipe))) {
    connection_->Begin();
  }
  ~PipeCaller() override { connection_->HangUp(); }

  void Watch(FdReadiness interest, std::function<void()> ready) override {
    connection_->Watch(interest, std::move(ready));
  }
  ChannelResult Receive(std::span<char> buffer, std::size_t& received) override {
    return connection_->Receive(buffer, received);
  }
  ChannelResult Send(std::string_view bytes, std::size_t& sent) override {
    return connection_->Send(bytes, sent);
  }

 private:
  std::shared_ptr<PipeConnection> connection_;
};

// There is always one pipe that the next caller can open, also while nobody is let in; who comes after that one waits
// for the next.
class PipeChannel final : public ControlChannel, public std::enable_shared_from_this<PipeChannel> {
 public:
  using Called = std::function<void(std::unique_ptr<ControlCaller>)>;

  PipeChannel(EventLoop& loop, std::wstring name, Called called)
      : loop_(loop),
        posts_(ThreadPostsOf(loop)),
        name_(std::move(name)),
        called_(std::move(called)),
        pause_(std::make_unique<Timer>(loop, kPause, [this] { GoOn(); })) {}

  // False with the code in GetLastError.
  bool MakePipe(bool first) {
    OwnSecurity security;
    if (!security.IsValid()) return false;
    const HANDLE made = CreateNamedPipeW(
        name_.c_str(),
        PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | (first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0U),
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
        PIPE_UNLIMITED_INSTANCES, kPipeBytes, kPipeBytes, 0, security.Get());
    if (made == INVALID_HANDLE_VALUE) return false;
    pipe_ = NativeFile(reinterpret_cast<std::intptr_t>(made));
    state_ = State::kFree;
    return WatchOperationsOf(made);
  }

  void LetIn(bool let_in) override {
    let_in_ = let_in;
    if (let_in) Await();
  }

  // The owner has gone.
  void End() {
    let_in_ = false;
    called_ = nullptr;
    pause_.reset();
    if (pipe_.IsOpen()) CancelIoEx(HandleOf(pipe_), nullptr);
    pipe_.Close();
  }

 private:
  enum class State { kFree, kAwaited, kConnected };

  // Lets the next caller in, who may be there already.
  void Await() {
    if (!pipe_.IsOpen()) return pause_->Enable();
    if (state_ == State::kConnected) return TakeSoon();
    if (state_ == State::kAwaited) return;
    auto operation =
        PipeOperation::Make(posts_, [self = shared_from_this()](DWORD code, DWORD) { self->OnCall(code); });
    const bool done = ConnectNamedPipe(HandleOf(pipe_), operation->Overlapped()) != 0;
    const DWORD code = done ? ERROR_IO_PENDING : GetLastError();
    if (code == ERROR_IO_PENDING) {
      state_ = State::kAwaited;
      PipeOperation::Started(std::move(operation));
    } else if (code == ERROR_PIPE_CONNECTED || code == ERROR_NO_DATA) {
      state_ = State::kConnected;  // also one that has gone again: that is told in the first call
      TakeSoon();
    } else {
      pipe_.Close();
      pause_->Enable();
    }
  }

  void OnCall(DWORD code) {
    if (!called_) return;
    state_ = State::kFree;
    if (code != 0) return pause_->Enable();
    state_ = State::kConnected;
    if (let_in_) Take();
  }

  void TakeSoon() {
    loop_.Post([weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->Take();
    });
  }

  void Take() {
    if (!called_ || !let_in_ || state_ != State::kConnected) return;
    NativeFile connected = std::move(pipe_);
    state_ = State::kFree;
    if (!MakePipe(false)) pause_->Enable();
    const auto called = called_;  // the channel may go in the call
    called(std::make_unique<PipeCaller>(loop_, std::move(connected)));
    if (called_ && let_in_) Await();
  }

  void GoOn() {
    pause_->Disable();
    if (!pipe_.IsOpen() && !MakePipe(false)) return pause_->Enable();
    if (let_in_) Await();
  }

  EventLoop& loop_;
  std::shared_ptr<ThreadPosts> posts_;
  std::wstring name_;
  Called called_;                 // empty: the owner has gone
  std::unique_ptr<Timer> pause_;  // goes with the owner, as the loop may
  NativeFile pipe_;
  State state_ = State::kFree;
  bool let_in_ = false;
};

// What is pending may keep the channel for a moment longer than its owner does.
class OwnedChannel final : public ControlChannel {
 public:
  explicit OwnedChannel(std::shared_ptr<PipeChannel> channel) : channel_(std::move(channel)) {}
  ~OwnedChannel() override { channel_->End(); }
  void LetIn(bool let_in) override { channel_->LetIn(let_in); }

 private:
  std::shared_ptr<PipeChannel> channel_;
};

class PipeCall final : public ControlCall {
 public:
  PipeCall(NativeFile pipe, NativeFile event, std::chrono::milliseconds patience)
      : pipe_(std::move(pipe)), event_(std::move(event)), patience_(static_cast<DWORD>(patience.count())) {}

  ChannelResult Send(std::string_view bytes) override {
    ChannelResult result = ChannelResult::kDone;
    while (!bytes.empty() && result == ChannelResult::kDone) {
      const std::string_view part = bytes.substr(0, kPipeBytes);
      DWORD written = 0;
      result = Await(
          [&](OVERLAPPED* overlapped) {
            return ::WriteFile(HandleOf(pipe_), part.data(), static_cast<DWORD>(part.size()), nullptr,
                               overlapped) != 0;
          },
          written);
      bytes.remove_prefix(written);
    }
    return result;
  }

  ChannelResult Receive(std::span<char> buffer, std::size_t& received) override {
    const auto size = static_cast<DWORD>(std::min<std::size_t>(buffer.size(), kPipeBytes));
    DWORD read = 0;
    const ChannelResult result = Await(
        [&](OVERLAPPED* overlapped) {
          return ::ReadFile(HandleOf(pipe_), buffer.data(), size, nullptr, overlapped) != 0;
        },
        read);
    received = read;
    return result;
  }

 private:
  template <class Begin>
  ChannelResult Await(Begin begin, DWORD& count) {
    OVERLAPPED overlapped{};
    overlapped.hEvent = HandleOf(event_);
    if (!begin(&overlapped) && GetLastError() != ERROR_IO_PENDING) return ChannelResult::kClosed;
    const bool in_time = WaitForSingleObject(overlapped.hEvent, patience_) == WAIT_OBJECT_0;
    if (!in_time) CancelIoEx(HandleOf(pipe_), &overlapped);
    const bool well = GetOverlappedResult(HandleOf(pipe_), &overlapped, &count, TRUE) != 0;
    if (well && count > 0) return ChannelResult::kDone;
    count = 0;
    return in_time ? ChannelResult::kClosed : ChannelResult::kWouldBlock;
  }

  NativeFile pipe_;
  NativeFile event_;
  DWORD patience_;
};

// Whether the other end is of our own user, or of one who may do everything.
bool IsTrusted(HANDLE pipe) {
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetSecurityInfo(pipe, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr,
                      &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  const bool trusted = IsOwnUser(owner) || IsWellKnownSid(owner, WinBuiltinAdministratorsSid) != 0 ||
                       IsWellKnownSid(owner, WinLocalSystemSid) != 0;
  LocalFree(descriptor);
  return trusted;
}

// The pipe, or why there is none.
std::variant<NativeFile, CallFailure> OpenPipe(const std::wstring& name, std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  for (;;) {
    // Who opened the channel may know who calls, but not act as the caller.
    const HANDLE opened =
        ::CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                      FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr);
    if (opened != INVALID_HANDLE_VALUE) return NativeFile(reinterpret_cast<std::intptr_t>(opened));
    const DWORD code = GetLastError();
    if (code == ERROR_ACCESS_DENIED) return CallFailure::kOtherUser;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    if (code != ERROR_PIPE_BUSY || left <= 0) return CallFailure::kNoChannel;
    WaitNamedPipeW(name.c_str(), static_cast<DWORD>(left));
  }
}

}  // namespace

std::unique_ptr<ControlChannel> OpenControlChannel(
    EventLoop& loop, std::string_view name, std::function<void(std::unique_ptr<ControlCaller>)> called) {
  auto channel = std::make_shared<PipeChannel>(loop, PipeName(name), std::move(called));
  if (!channel->MakePipe(true)) {
    const DWORD code = GetLastError();
    if (code == ERROR_ACCESS_DENIED || code == ERROR_PIPE_BUSY) return nullptr;
    RaiseDeviceError(kSource);
  }
  return std::make_unique<OwnedChannel>(std::move(channel));
}

std::variant<std::unique_ptr<ControlCall>, CallFailure> CallInstance(std::string_view name,
                                                                     std::chrono::seconds patience) {
  if (!IsInstanceLocked(name)) return CallFailure::kNoInstance;
  auto opened = OpenPipe(PipeName(name), patience);
  if (const auto* failure = std::get_if<CallFailure>(&opened)) return *failure;
  NativeFile& pipe = std::get<NativeFile>(opened);
  if (!IsTrusted(HandleOf(pipe))) return CallFailure::kForeignChannel;
  NativeFile event(reinterpret_cast<std::intptr_t>(CreateEventW(nullptr, TRUE, FALSE, nullptr)));
  return std::make_unique<PipeCall>(std::move(pipe), std::move(event), patience);
}

}  // namespace trabex

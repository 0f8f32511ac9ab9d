#include "support/control_caller.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <stop_token>
#include <thread>

#include "platform/native_file.h"
#include "platform/windows/files/disk_file.h"
#include "platform/windows/win.h"

namespace trabex {

namespace {

// Until the instance has a pipe for the next caller.
constexpr DWORD kPause = 1;

struct Piece {
  explicit Piece(std::string_view text) : bytes(text) {}
  std::string bytes;
  OVERLAPPED overlapped{};
};

}  // namespace

struct ControlCallerPeer::Impl {
  explicit Impl(std::string_view name) : pipe_name(L"\\\\.\\pipe\\" + Wide(name)) {
    connected = Open() || GetLastError() == ERROR_PIPE_BUSY;
    if (connected && !is_open) {
      waiting = std::jthread([this](const std::stop_token& stop) {
        while (!stop.stop_requested() && !Open() && GetLastError() == ERROR_PIPE_BUSY) Sleep(kPause);
        has_given_up = !is_open;
      });
    }
  }
  ~Impl() {
    waiting = {};
    if (!pipe.IsOpen()) return;
    CancelIoEx(HandleOf(pipe), nullptr);
    for (Piece& piece : sent) {
      DWORD count = 0;
      GetOverlappedResult(HandleOf(pipe), &piece.overlapped, &count, TRUE);
    }
  }

  // False with the code in GetLastError.
  bool Open() {
    const HANDLE opened = CreateFileW(pipe_name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    if (opened == INVALID_HANDLE_VALUE) return false;
    const std::lock_guard lock(mutex);
    pipe = NativeFile(reinterpret_cast<std::intptr_t>(opened));
    is_open = true;
    SendUnsent();
    return true;
  }
  // What was to be said before the pipe was there is said when it is. With the lock.
  void SendUnsent() {
    while (is_open && !unsent.empty()) {
      Piece& piece = sent.emplace_back(unsent.front());
      unsent.pop_front();
      WriteFile(HandleOf(pipe), piece.bytes.data(), static_cast<DWORD>(piece.bytes.size()), nullptr,
                &piece.overlapped);
    }
  }
  // How much there is; 0 with `ended` set when there will be nothing more.
  DWORD Available() {
    DWORD available = 0;
    if (has_given_up ||
        (is_open && PeekNamedPipe(HandleOf(pipe), nullptr, 0, nullptr, &available, nullptr) == 0)) {
      ended = true;
    }
    return available;
  }

  const std::wstring pipe_name;
  bool connected = false;
  std::atomic<bool> is_open{false};
  // There is no pipe any more for which it could wait.
  std::atomic<bool> has_given_up{false};
  NativeFile pipe;  // of the waiting thread until it is open
  mutable std::mutex mutex;
  std::deque<std::string> unsent;  // under the mutex
  std::deque<Piece> sent;          // so too
  std::string heard;
  bool ended = false;
  std::jthread waiting;
};

ControlCallerPeer::ControlCallerPeer(std::string_view name) : impl_(std::make_unique<Impl>(name)) {}

ControlCallerPeer::~ControlCallerPeer() = default;

bool ControlCallerPeer::Connected() const {
  return impl_->connected;
}

void ControlCallerPeer::Send(std::string_view bytes) {
  const std::lock_guard lock(impl_->mutex);
  impl_->unsent.emplace_back(bytes);
  impl_->SendUnsent();
}

bool ControlCallerPeer::AllSent() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->unsent.empty();
}

const std::string& ControlCallerPeer::Heard() {
  while (const DWORD available = impl_->Available()) {
    std::string part(available, '\0');
    OVERLAPPED overlapped{};
    DWORD count = 0;
    ReadFile(HandleOf(impl_->pipe), part.data(), available, nullptr, &overlapped);
    if (GetOverlappedResult(HandleOf(impl_->pipe), &overlapped, &count, TRUE) == 0) {
      impl_->ended = true;
      break;
    }
    impl_->heard.append(part, 0, count);
  }
  return impl_->heard;
}

bool ControlCallerPeer::Ended() {
  Heard();
  return impl_->ended;
}

bool ControlCallerPeer::SomethingWaits() const {
  return impl_->Available() > 0;
}

}  // namespace trabex

// The instance lock is a named mutex of the system, and the exit request a message to all windows that has a number of
// its own by the same name.
#include "platform/instance_lock.h"

#include <utility>

#include "platform/device_error.h"
#include "platform/native_file.h"
#include "platform/windows/loop/event_loop_impl.h"
#include "platform/windows/win.h"

namespace trabex {

namespace {

constexpr const char* kLockSource = "mInstanceLock.TryLockInstance";

class MutexInstanceLock final : public InstanceLock {
 public:
  MutexInstanceLock(EventLoop& loop, NativeFile mutex, UINT message, std::function<void()> exit_requested)
      : loop_(loop), mutex_(std::move(mutex)), message_(message) {
    loop_.GetImpl().HandleMessage(message_, [exit_requested = std::move(exit_requested)](WPARAM, LPARAM) {
      exit_requested();
      return LRESULT{0};
    });
  }
  ~MutexInstanceLock() override { loop_.GetImpl().HandleMessage(message_, nullptr); }

 private:
  EventLoop& loop_;
  NativeFile mutex_;
  UINT message_;
};

}  // namespace

std::unique_ptr<InstanceLock> TryLockInstance(EventLoop& loop, std::string_view name,
                                              std::function<void()> exit_requested) {
  const std::wstring wide = Wide(name);
  const UINT message = RegisterWindowMessageW(wide.c_str());
  if (message == 0) RaiseDeviceError(kLockSource);
  const HANDLE mutex = CreateMutexW(nullptr, FALSE, wide.c_str());
  const DWORD code = GetLastError();
  if (mutex == nullptr) {
    if (code == ERROR_ACCESS_DENIED) return nullptr;  // another user's
    RaiseDeviceError(kLockSource);
  }
  NativeFile owned(reinterpret_cast<std::intptr_t>(mutex));
  if (code == ERROR_ALREADY_EXISTS) return nullptr;
  return std::make_unique<MutexInstanceLock>(loop, std::move(owned), message, std::move(exit_requested));
}

// Who may not open the mutex is not told whose it is either.
std::optional<std::string> OtherUserHolding(std::string_view /*name*/) {
  return std::nullopt;
}

bool IsInstanceLocked(std::string_view name) {
  const HANDLE mutex = OpenMutexW(SYNCHRONIZE, FALSE, Wide(name).c_str());
  if (mutex == nullptr) return GetLastError() == ERROR_ACCESS_DENIED;
  CloseHandle(mutex);
  return true;
}

ExitRequest RequestExit(std::string_view name) {
  const UINT message = RegisterWindowMessageW(Wide(name).c_str());
  if (message == 0 || PostMessageW(HWND_BROADCAST, message, 0, 0) == 0) return ExitRequest::kFailed;
  return IsInstanceLocked(name) ? ExitRequest::kMade : ExitRequest::kNoInstance;
}

}  // namespace trabex

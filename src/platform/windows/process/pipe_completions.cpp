#include "platform/windows/process/pipe_completions.h"

#include <cstddef>
#include <system_error>
#include <thread>
#include <utility>

namespace trabex {

// One thread of the process takes what has ended and hands it to the loops. It lives as long as the process does: what is
// pending may outlive every loop.
class PipeCompletions {
 public:
  // nullptr when there is none to be had.
  static HANDLE Port() {
    static const HANDLE port = Begin();
    return port;
  }

 private:
  static HANDLE Begin() {
    const HANDLE port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1);
    if (port == nullptr) return nullptr;
    try {
      std::thread([port] { Run(port); }).detach();
      return port;
    } catch (const std::system_error&) {
      CloseHandle(port);
      return nullptr;
    }
  }

  static void Run(HANDLE port) {
    for (;;) {
      DWORD bytes = 0;
      ULONG_PTR key = 0;
      OVERLAPPED* overlapped = nullptr;
      const bool well = GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, INFINITE) != 0;
      const DWORD code = well ? 0 : GetLastError();
      if (overlapped == nullptr) return;
      const std::shared_ptr<PipeOperation> operation(static_cast<PipeOperation*>(overlapped));
      operation->posts_->Post([operation, code, bytes] {
        const auto done = std::move(operation->done_);  // what it holds goes with this call
        done(code, bytes);
      });
    }
  }
};

std::unique_ptr<PipeOperation> PipeOperation::Make(std::shared_ptr<ThreadPosts> posts, Done done) {
  auto operation = std::make_unique<PipeOperation>();
  operation->posts_ = std::move(posts);
  operation->done_ = std::move(done);
  return operation;
}

void PipeOperation::Started(std::unique_ptr<PipeOperation> operation) {
  static_cast<void>(operation.release());  // until the port gives it back
}

bool WatchOperationsOf(HANDLE pipe) {
  const HANDLE port = PipeCompletions::Port();
  return port != nullptr && CreateIoCompletionPort(pipe, port, 0, 0) != nullptr;
}

}  // namespace trabex

#include "platform/windows/process/stream_writer.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace trabex {

namespace {

// As much as a pipe of another system takes at once.
constexpr std::size_t kMaxWaiting = std::size_t{64} * 1024;
constexpr std::chrono::seconds kMaxWaitAtEnd{1};

DWORD TypeOf(HANDLE handle) {
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return FILE_TYPE_UNKNOWN;
  return GetFileType(handle) & ~DWORD{FILE_TYPE_REMOTE};
}

// 0 when it takes nothing.
std::size_t WriteNow(HANDLE handle, std::string_view text) {
  DWORD written = 0;
  const auto size = static_cast<DWORD>(std::min<std::size_t>(text.size(), 1 << 30));
  return ::WriteFile(handle, text.data(), size, &written, nullptr) != 0 ? written : 0;
}

}  // namespace

bool IsFileOrPipe(DWORD which) {
  const DWORD type = TypeOf(GetStdHandle(which));
  return type == FILE_TYPE_DISK || type == FILE_TYPE_PIPE;
}

// Shared with the thread, which may still wait for a reader when the program ends.
struct StreamWriter::Pipe {
  std::mutex mutex;
  std::condition_variable changed;
  std::string waiting;
  bool is_writing = false;
  bool is_broken = false;

  void Run(HANDLE handle) {
    std::unique_lock lock(mutex);
    for (;;) {
      changed.wait(lock, [this] { return !waiting.empty(); });
      const std::string text = std::exchange(waiting, {});
      is_writing = true;
      lock.unlock();
      std::size_t written = 0;
      while (written < text.size()) {
        const std::size_t count = WriteNow(handle, std::string_view(text).substr(written));
        if (count == 0) break;
        written += count;
      }
      lock.lock();
      is_writing = false;
      is_broken = written < text.size();
      changed.notify_all();
      if (is_broken) return;
    }
  }
};

StreamWriter::StreamWriter(DWORD which) : handle_(GetStdHandle(which)) {
  if (TypeOf(handle_) != FILE_TYPE_PIPE) return;
  pipe_ = std::make_shared<Pipe>();
  try {
    std::thread([pipe = pipe_, handle = handle_] { pipe->Run(handle); }).detach();
  } catch (const std::system_error&) {
    pipe_->is_broken = true;
  }
}

StreamWriter::~StreamWriter() {
  if (!pipe_) return;
  std::unique_lock lock(pipe_->mutex);
  pipe_->changed.wait_for(lock, kMaxWaitAtEnd, [this] {
    return pipe_->is_broken || (pipe_->waiting.empty() && !pipe_->is_writing);
  });
}

std::size_t StreamWriter::Write(std::string_view text) {
  if (TypeOf(handle_) == FILE_TYPE_DISK) return WriteNow(handle_, text);
  if (!pipe_) return 0;
  const std::scoped_lock lock(pipe_->mutex);
  if (pipe_->is_broken) return 0;
  const std::size_t taken = std::min(text.size(), kMaxWaiting - std::min(kMaxWaiting, pipe_->waiting.size()));
  pipe_->waiting += text.substr(0, taken);
  pipe_->changed.notify_all();
  return taken;
}

StreamWriter& StandardOutputWriter() {
  static StreamWriter writer(STD_OUTPUT_HANDLE);
  return writer;
}

StreamWriter& StandardErrorWriter() {
  static StreamWriter writer(STD_ERROR_HANDLE);
  return writer;
}

}  // namespace trabex

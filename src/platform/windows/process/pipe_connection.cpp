#include "platform/windows/process/pipe_connection.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "platform/windows/files/disk_file.h"
#include "platform/windows/process/pipe_completions.h"

namespace trabex {

namespace {

// Connections that were hung up on while something was still being written. A caller that takes nothing keeps one for as
// long as it likes, so there is a limit.
constexpr int kMaxLingering = 32;
std::atomic<int> lingering{0};

}  // namespace

PipeConnection::PipeConnection(EventLoop& loop, NativeFile pipe)
    : loop_(&loop), posts_(ThreadPostsOf(loop)), pipe_(std::move(pipe)) {}

void PipeConnection::StartReading() {
  if (is_reading_ || has_ended_ || !in_.empty() || !pipe_.IsOpen()) return;
  auto operation = PipeOperation::Make(
      posts_, [self = shared_from_this()](DWORD code, DWORD bytes) { self->OnRead(code, bytes); });
  if (::ReadFile(HandleOf(pipe_), read_.data(), static_cast<DWORD>(read_.size()), nullptr,
                 operation->Overlapped()) == 0 &&
      GetLastError() != ERROR_IO_PENDING) {
    has_ended_ = true;
    return;
  }
  is_reading_ = true;
  PipeOperation::Started(std::move(operation));
}

void PipeConnection::OnRead(DWORD code, DWORD bytes) {
  is_reading_ = false;
  if (has_hung_up_) return;
  has_ended_ = code != 0;
  in_.assign(read_.data(), code == 0 ? bytes : 0);
  StartReading();  // a write of nothing is no end
  CallWhenReady();
}

void PipeConnection::OnWritten(DWORD code, DWORD bytes) {
  is_writing_ = false;
  if (code != 0 || bytes < out_.size()) has_ended_ = true;
  out_.clear();
  if (has_hung_up_) {
    --lingering;
    return Close();
  }
  CallWhenReady();
}

bool PipeConnection::IsReady() const {
  return (interest_.readable && (has_ended_ || !in_.empty())) ||
         (interest_.writable && (has_ended_ || !is_writing_));
}

void PipeConnection::CallWhenReady() {
  if (call_is_due_ || !IsReady()) return;
  call_is_due_ = true;
  loop_->Post([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->call_is_due_ = false;
    if (self->has_hung_up_ || !self->IsReady()) return;
    const auto ready = self->ready_;  // it may be replaced in the call
    if (ready) ready();
    if (!self->has_hung_up_) self->CallWhenReady();
  });
}

void PipeConnection::Watch(FdReadiness interest, std::function<void()> ready) {
  interest_ = interest;
  ready_ = std::move(ready);
  CallWhenReady();
}

ChannelResult PipeConnection::Receive(std::span<char> buffer, std::size_t& received) {
  received = std::min(buffer.size(), in_.size());
  if (received == 0) return has_ended_ ? ChannelResult::kClosed : ChannelResult::kWouldBlock;
  std::copy_n(in_.begin(), received, buffer.begin());
  in_.erase(0, received);
  StartReading();
  return ChannelResult::kDone;
}

ChannelResult PipeConnection::Send(std::string_view bytes, std::size_t& sent) {
  sent = 0;
  if (has_ended_) return ChannelResult::kClosed;
  if (is_writing_) return ChannelResult::kWouldBlock;
  out_ = bytes.substr(0, kPipeBytes);
  auto operation = PipeOperation::Make(
      posts_, [self = shared_from_this()](DWORD code, DWORD written) { self->OnWritten(code, written); });
  if (::WriteFile(HandleOf(pipe_), out_.data(), static_cast<DWORD>(out_.size()), nullptr,
                  operation->Overlapped()) == 0 &&
      GetLastError() != ERROR_IO_PENDING) {
    has_ended_ = true;
    return ChannelResult::kClosed;
  }
  is_writing_ = true;
  sent = out_.size();
  PipeOperation::Started(std::move(operation));
  return ChannelResult::kDone;
}

void PipeConnection::HangUp() {
  has_hung_up_ = true;
  interest_ = {};
  ready_ = nullptr;
  if (!is_writing_) return Close();
  if (++lingering > kMaxLingering) Close();
}

// What is pending ends with an error then, and lets go of this object. What was written can still be read.
void PipeConnection::Close() {
  if (pipe_.IsOpen()) CancelIoEx(HandleOf(pipe_), nullptr);
  pipe_.Close();
}

}  // namespace trabex

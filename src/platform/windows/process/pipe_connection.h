// The instance's end of one connection of the control channel.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/control_channel.h"
#include "platform/native_file.h"
#include "platform/windows/loop/thread_posts.h"
#include "platform/windows/win.h"

namespace trabex {

// What pipes of the control channel hold in each direction.
inline constexpr DWORD kPipeBytes = DWORD{64} * 1024;

// Reads ahead, and writes one piece after the other; so it is known without asking whether something can be received or
// sent. All calls come from the loop's thread.
class PipeConnection : public std::enable_shared_from_this<PipeConnection> {
 public:
  // `pipe` is connected, and its operations are watched.
  PipeConnection(EventLoop& loop, NativeFile pipe);

  // To be called once, first.
  void Begin() { StartReading(); }
  // As those of ControlCaller.
  void Watch(FdReadiness interest, std::function<void()> ready);
  ChannelResult Receive(std::span<char> buffer, std::size_t& received);
  ChannelResult Send(std::string_view bytes, std::size_t& sent);
  // Nothing is called any more. A piece that is being written still goes out; then the connection ends.
  void HangUp();

 private:
  static constexpr std::size_t kReadBytes = std::size_t{16} * 1024;

  void StartReading();
  void OnRead(DWORD code, DWORD bytes);
  void OnWritten(DWORD code, DWORD bytes);
  bool IsReady() const;
  void CallWhenReady();
  void Close();

  EventLoop* loop_;
  std::shared_ptr<ThreadPosts> posts_;
  NativeFile pipe_;
  FdReadiness interest_;
  std::function<void()> ready_;
  bool call_is_due_ = false;
  std::array<char, kReadBytes> read_{};
  std::string in_;  // what was received and not yet taken
  bool is_reading_ = false;
  bool has_ended_ = false;  // nothing is received any more
  std::string out_;         // what is being written
  bool is_writing_ = false;
  bool has_hung_up_ = false;
};

}  // namespace trabex

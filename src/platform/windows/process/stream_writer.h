// Standard output and standard error, written to without waiting for a reader.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "platform/windows/win.h"

namespace trabex {

// Whether the standard stream `which` (STD_OUTPUT_HANDLE, STD_ERROR_HANDLE) is a file or a pipe. A program of windows has
// no console, so anything else leads nowhere.
bool IsFileOrPipe(DWORD which);

class StreamWriter {
 public:
  explicit StreamWriter(DWORD which);
  // What was taken still goes out, as far as it does within a second.
  ~StreamWriter();
  StreamWriter(const StreamWriter&) = delete;
  StreamWriter& operator=(const StreamWriter&) = delete;

  // Takes as much from the front of `text` as there is room for, and returns how much that is. A file is written to at
  // once; what is for a pipe is written by a thread, which may have to wait. Nothing when the reader has gone.
  std::size_t Write(std::string_view text);

 private:
  struct Pipe;

  HANDLE handle_;
  std::shared_ptr<Pipe> pipe_;  // nullptr: a file, or nothing
};

// Those of the process, made when they are first asked for.
StreamWriter& StandardOutputWriter();
StreamWriter& StandardErrorWriter();

}  // namespace trabex

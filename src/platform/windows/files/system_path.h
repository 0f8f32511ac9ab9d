// Paths as the system's functions take them.
#pragma once

#include <string>

#include "platform/windows/win.h"

namespace trabex {

// A path of ours, UTF-8 with either separator, made absolute and given the form that may have any length, in which no
// name has a second meaning. Refused, with the code ERROR_INVALID_NAME, is what would name something else than a
// file or folder of exactly that name: text that is no UTF-8, control characters, <>"|?*, a colon anywhere but behind
// a drive letter with a separator behind it (the system would open a hidden stream of another file, or go by the
// drive's current folder), names of devices such as NUL or COM1, and a blank or dot at the end of a name (the system
// would drop it). An empty path is ERROR_FILE_NOT_FOUND.
class SystemPath {
 public:
  explicit SystemPath(const std::string& path);

  // 0, or why there is none; then Get is an empty text, which no function takes.
  DWORD Code() const { return code_; }
  const wchar_t* Get() const { return path_.c_str(); }
  const std::wstring& Text() const { return path_; }

 private:
  std::wstring path_;
  DWORD code_ = 0;
};

// What the system says of the path of an open file, without the mark of its form: a path as people write it.
std::wstring WithoutFormMark(std::wstring path);

}  // namespace trabex

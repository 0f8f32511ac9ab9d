// A file that somebody has open and shares with nobody, as editors and virus scanners do for a while.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/files.h"
#include "platform/windows/win.h"

namespace trabex {

class HeldFile {
 public:
  // The file is there already.
  explicit HeldFile(const std::string& path)
      : file_(CreateFileW(Wide(NativePath(path)).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {
    EXPECT_NE(file_, INVALID_HANDLE_VALUE) << path << ": error " << GetLastError();
  }
  ~HeldFile() { CloseHandle(file_); }
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;

 private:
  HANDLE file_;
};

}  // namespace trabex

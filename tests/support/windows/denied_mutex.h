// A mutex that nobody may open, as one of another user who shares it with nobody.
#pragma once

#include <gtest/gtest.h>

#include <string_view>

#include "platform/windows/win.h"

namespace trabex {

class DeniedMutex {
 public:
  explicit DeniedMutex(std::string_view name) {
    SECURITY_DESCRIPTOR nobody{};
    InitializeSecurityDescriptor(&nobody, SECURITY_DESCRIPTOR_REVISION);
    ACL empty{};
    InitializeAcl(&empty, sizeof empty, ACL_REVISION);
    SetSecurityDescriptorDacl(&nobody, TRUE, &empty, FALSE);
    SECURITY_ATTRIBUTES attributes{sizeof attributes, &nobody, FALSE};
    mutex_ = CreateMutexW(&attributes, FALSE, Wide(name).c_str());
    EXPECT_NE(mutex_, nullptr) << "error " << GetLastError();
  }
  ~DeniedMutex() { CloseHandle(mutex_); }
  DeniedMutex(const DeniedMutex&) = delete;
  DeniedMutex& operator=(const DeniedMutex&) = delete;

 private:
  HANDLE mutex_ = nullptr;
};

}  // namespace trabex

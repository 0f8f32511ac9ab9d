#include "platform/windows/security.h"

// Behind windows.h, which it needs.
#include <sddl.h>

#include <cstddef>

#include "platform/native_file.h"

namespace trabex {

namespace {

// The user of this process.
class OwnUserId {
 public:
  OwnUserId() {
    HANDLE token = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) == 0) return;
    const NativeFile owned(reinterpret_cast<std::intptr_t>(token));
    DWORD size = 0;
    if (GetTokenInformation(token, TokenUser, &space_, sizeof space_, &size) != 0) id_ = space_.user.User.Sid;
  }
  // nullptr when the system does not say.
  PSID Get() const { return id_; }

 private:
  struct {
    TOKEN_USER user;
    std::byte id[SECURITY_MAX_SID_SIZE];
  } space_{};
  PSID id_ = nullptr;  // in the space
};

}  // namespace

std::wstring OwnUser() {
  const OwnUserId id;
  wchar_t* text = nullptr;
  if (id.Get() == nullptr || ConvertSidToStringSidW(id.Get(), &text) == 0) return L"";
  std::wstring user(text);
  LocalFree(text);
  return user;
}

bool IsOwnUser(PSID user) {
  const OwnUserId id;
  return id.Get() != nullptr && EqualSid(id.Get(), user) != 0;
}

OwnSecurity::OwnSecurity() {
  const std::wstring user = OwnUser();
  if (user.empty()) return;
  // The user is the owner, also where an administrator's things would belong to all of them. Protected from what the
  // folder hands down; all access (FA) for the user, the system and the administrators.
  const std::wstring rights = L"O:" + user + L"D:P(A;;FA;;;" + user + L")(A;;FA;;;SY)(A;;FA;;;BA)";
  attributes_.nLength = sizeof attributes_;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorW(rights.c_str(), SDDL_REVISION_1,
                                                           &attributes_.lpSecurityDescriptor, nullptr) == 0) {
    attributes_.lpSecurityDescriptor = nullptr;
  }
}

OwnSecurity::~OwnSecurity() {
  if (IsValid()) LocalFree(attributes_.lpSecurityDescriptor);
}

}  // namespace trabex

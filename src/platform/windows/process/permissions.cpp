#include "platform/permissions.h"

#include <array>

#include "base/text.h"
#include "platform/files.h"
#include "platform/windows/files/open_path.h"
#include "platform/windows/win.h"

namespace trabex {

namespace {

constexpr DWORD kMaxUserName = 257;  // UNLEN and its NUL

std::string OwnUserName() {
  std::array<wchar_t, kMaxUserName> name{};
  DWORD size = kMaxUserName;
  return GetUserNameW(name.data(), &size) != 0 ? Utf8(name.data()) : std::string();
}

bool UserExists(const std::string& name) {
  std::array<std::byte, SECURITY_MAX_SID_SIZE> id{};
  std::array<wchar_t, kMaxUserName> domain{};
  DWORD id_size = static_cast<DWORD>(id.size());
  DWORD domain_size = kMaxUserName;
  SID_NAME_USE kind{};
  return LookupAccountNameW(nullptr, Wide(name).c_str(), id.data(), &id_size, domain.data(), &domain_size,
                            &kind) != 0 &&
         kind == SidTypeUser;
}

}  // namespace

FolderState StateOfFolder(const std::string& path) {
  if (!IsFolder(path)) {
    return OpenPath(path, FILE_READ_ATTRIBUTES).code == ERROR_ACCESS_DENIED ? FolderState::kNotWritable
                                                                            : FolderState::kMissing;
  }
  return OpenPath(path, FILE_ADD_FILE).file.IsOpen() ? FolderState::kUsable : FolderState::kNotWritable;
}

// Everybody may; whether the firewall lets anybody through is another matter.
bool MayListenOn(std::int32_t /*port*/) {
  return true;
}

// A process cannot become another user's without that user's password.
BecomeUserResult BecomeUser(const std::string& name) {
  if (name.empty()) return BecomeUserResult::kUnknownUser;
  if (EqualNoCase(name, OwnUserName())) return BecomeUserResult::kDone;
  return UserExists(name) ? BecomeUserResult::kNotPermitted : BecomeUserResult::kUnknownUser;
}

// The service manager chooses the user of a service.
BecomeUserResult BecomeUserForNow(const std::string& /*name*/) {
  return BecomeUserResult::kNotHere;
}

RootRights::RootRights() = default;

RootRights::~RootRights() {
  static_cast<void>(user_);
}

bool GiveUpRoot() {
  return true;
}

}  // namespace trabex

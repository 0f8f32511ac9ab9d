#include "resolver/host_settings.h"

#include "platform/windows/win.h"

namespace trabex {

// In its full form where the machine belongs to a domain.
std::string MachineName() {
  DWORD size = 0;
  GetComputerNameExW(ComputerNameDnsFullyQualified, nullptr, &size);
  std::wstring name(size, L'\0');
  if (GetComputerNameExW(ComputerNameDnsFullyQualified, name.data(), &size) == 0) return "";
  name.resize(size);
  return Utf8(name);
}

std::string DefaultHostsPath() {
  std::wstring folder(MAX_PATH, L'\0');
  folder.resize(GetSystemDirectoryW(folder.data(), MAX_PATH));
  return Utf8(folder) + "\\drivers\\etc\\hosts";
}

// They belong to the network's cards, and c-ares asks for them.
std::string ResolverSettingsPath() {
  return "";
}

}  // namespace trabex

#include "platform/windows/files/open_path.h"

#include "platform/windows/files/system_path.h"

namespace trabex {

OpenedFile OpenPath(const std::string& path, DWORD access) {
  const SystemPath place(path);
  if (place.Code() != 0) return {{}, place.Code()};
  // The flag is what opens a folder.
  const HANDLE handle = ::CreateFileW(place.Get(), access, kSharedWithAll, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return {{}, GetLastError()};
  return {NativeFile(reinterpret_cast<std::intptr_t>(handle)), 0};
}

std::string FinalPath(const std::string& path) {
  const OpenedFile opened = OpenPath(path, FILE_READ_ATTRIBUTES);
  if (!opened.file.IsOpen()) return "";
  std::wstring final_path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetFinalPathNameByHandleW(HandleOf(opened.file), final_path.data(),
                                                   static_cast<DWORD>(final_path.size()), 0);
    const bool fits = length < final_path.size();
    final_path.resize(length);
    if (fits) return Utf8(WithoutFormMark(std::move(final_path)));
  }
}

}  // namespace trabex

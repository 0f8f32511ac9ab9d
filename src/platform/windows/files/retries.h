// Trying again what others hinder for a moment.
#pragma once

#include <array>

#include "platform/windows/win.h"

namespace trabex {

// Calls `attempt` until it is true, up to six times within 100 milliseconds as long as the system says that the file is in
// use or may not be touched: a virus scanner or an indexer that looks at a new file does not take longer. Otherwise
// false, with the code of the last attempt in GetLastError.
template <class Attempt>
bool TryAgainWhileInUse(Attempt attempt) {
  for (const DWORD pause : std::array<DWORD, 6>{5, 10, 15, 25, 45, 0}) {
    if (attempt()) return true;
    const DWORD code = GetLastError();
    const bool hindered = code == ERROR_SHARING_VIOLATION || code == ERROR_LOCK_VIOLATION ||
                          code == ERROR_ACCESS_DENIED || code == ERROR_DELETE_PENDING;
    if (!hindered || pause == 0) {
      SetLastError(code);
      return false;
    }
    Sleep(pause);
  }
  return false;
}

}  // namespace trabex

#include "platform/open_file_reserve.h"

namespace trabex {

// The system does not limit how many files a process has open.
void OpenFileReserve::Hold() {}

}  // namespace trabex

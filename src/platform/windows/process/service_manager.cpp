#include "platform/service_manager.h"

namespace trabex {

// The program is no service of the system's; what starts it asks nothing of it.
std::unique_ptr<ServiceManager> FindServiceManager() {
  return nullptr;
}

}  // namespace trabex

// Seam of told_by_system to the system.
#pragma once

#include "support/system_socket.h"

namespace trabex {

// Whether the system says how much of what was sent the other end of this connection has acknowledged.
bool AreAcknowledgementsTold(const SystemSocket& connection);

}  // namespace trabex

#include "support/acknowledgements.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

namespace trabex {

bool AreAcknowledgementsTold(const SystemSocket& connection) {
  int count = 0;
  return ioctl(static_cast<int>(connection.Native()), SIOCOUTQ, &count) == 0;
}

}  // namespace trabex

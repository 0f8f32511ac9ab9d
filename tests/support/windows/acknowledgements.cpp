#include "support/acknowledgements.h"

#include "platform/windows/sockets/tcp_info.h"

namespace trabex {

bool AreAcknowledgementsTold(const SystemSocket& connection) {
  TcpInfo info{};
  return AskTcpInfo(static_cast<SOCKET>(connection.Native()), info) == 0;
}

}  // namespace trabex

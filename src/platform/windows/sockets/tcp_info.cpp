#include "platform/windows/sockets/tcp_info.h"

#include <algorithm>

namespace trabex {

namespace {

constexpr DWORD kTcpInfo = _WSAIORW(IOC_VENDOR, 39);
constexpr int kSmallBuffer_bytes = 65536;

}  // namespace

int AskTcpInfo(SOCKET socket, TcpInfo& info) {
  DWORD version = 0;
  DWORD size = 0;
  const int result =
      WSAIoctl(socket, kTcpInfo, &version, sizeof version, &info, sizeof info, &size, nullptr, nullptr);
  return result == SOCKET_ERROR ? WSAGetLastError() : 0;
}

std::uint64_t AcknowledgedBytes(const TcpInfo& info) {
  const std::uint64_t others = std::uint64_t{info.bytes_sent_again} + info.bytes_in_flight;
  return info.bytes_out - std::min<std::uint64_t>(info.bytes_out, others);
}

void LetSendsShowProgress(SOCKET socket) {
  TcpInfo info{};
  if (AskTcpInfo(socket, info) == 0) return;
  const int size = kSmallBuffer_bytes;
  // One that has ended already needs none.
  setsockopt(socket, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<const char*>(&size), sizeof size);
}

}  // namespace trabex

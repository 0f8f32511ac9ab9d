#include "platform/windows/sockets/connection_table.h"

// In this order: the second needs what the first has.
#include "platform/windows/win.h"
//
#include <iphlpapi.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <new>

#include "base/ip_address.h"

namespace trabex {

namespace {

// The system's table of a family; empty when it does not give it.
std::vector<std::max_align_t> SystemTable(ULONG family) {
  // The table may grow between two calls.
  constexpr int kMaxTries = 5;
  std::vector<std::max_align_t> room(1024);
  DWORD error = ERROR_INSUFFICIENT_BUFFER;
  for (int i = 0; i < kMaxTries && error == ERROR_INSUFFICIENT_BUFFER; ++i) {
    auto size = static_cast<DWORD>(room.size() * sizeof(std::max_align_t));
    error = GetExtendedTcpTable(room.data(), &size, FALSE, family, TCP_TABLE_OWNER_PID_CONNECTIONS, 0);
    if (error == ERROR_INSUFFICIENT_BUFFER) room.resize(size / sizeof(std::max_align_t) * 5 / 4 + 1);
  }
  if (error != NO_ERROR) room.clear();
  return room;
}

// The system keeps a port in the network's order in the lower half of a number.
std::uint16_t Port(DWORD port) {
  return ntohs(static_cast<u_short>(port));
}

Endpoint IPv4Endpoint(DWORD address, DWORD port) {
  return {IPAddress::IPv4(ntohl(address)), Port(port)};
}

Endpoint IPv6Endpoint(const UCHAR (&address)[16], DWORD port) {
  IPAddress::IPv6Bytes bytes;
  std::copy(std::begin(address), std::end(address), bytes.begin());
  return {IPAddress::IPv6(bytes), Port(port)};
}

}  // namespace

bool ConnectionTable::HasPeerEnded(const Endpoint& local, const Endpoint& remote) {
  constexpr int kIdleShare = 16;  // so many times as long as it takes it is not read again
  const auto now = std::chrono::steady_clock::now();
  if (!read_ || now - *read_ > age_limit_) {
    try {
      Read();
    } catch (const std::bad_alloc&) {
      has_ipv4_ = has_ipv6_ = false;
    }
    read_ = now;
    age_limit_ = std::min<std::chrono::steady_clock::duration>(
        kMaxAge, (std::chrono::steady_clock::now() - now) * kIdleShare);
  }
  if (!(local.address.IsIPv6() ? has_ipv6_ : has_ipv4_)) return false;
  const std::uint32_t ports = Ports(local, remote);
  const auto begin =
      std::lower_bound(open_.begin(), open_.end(), ports,
                       [](const Row& row, std::uint32_t wanted) { return row.ports < wanted; });
  // One that was broken is not in the table any more.
  return std::none_of(begin, open_.end(), [&](const Row& row) {
    return row.ports == ports && row.local == local && row.remote == remote;
  });
}

void ConnectionTable::Read() {
  open_.clear();
  has_ipv4_ = AddIPv4();
  has_ipv6_ = AddIPv6();
  std::sort(open_.begin(), open_.end(), [](const Row& a, const Row& b) { return a.ports < b.ports; });
}

bool ConnectionTable::AddIPv4() {
  const auto room = SystemTable(AF_INET);
  if (room.empty()) return false;
  const auto& table = reinterpret_cast<const MIB_TCPTABLE_OWNER_PID&>(room.front());
  for (DWORD i = 0; i < table.dwNumEntries; ++i) {
    const MIB_TCPROW_OWNER_PID& row = table.table[i];
    Add(row.dwState, IPv4Endpoint(row.dwLocalAddr, row.dwLocalPort),
        IPv4Endpoint(row.dwRemoteAddr, row.dwRemotePort));
  }
  return true;
}

bool ConnectionTable::AddIPv6() {
  const auto room = SystemTable(AF_INET6);
  if (room.empty()) return false;
  const auto& table = reinterpret_cast<const MIB_TCP6TABLE_OWNER_PID&>(room.front());
  for (DWORD i = 0; i < table.dwNumEntries; ++i) {
    const MIB_TCP6ROW_OWNER_PID& row = table.table[i];
    Add(row.dwState, IPv6Endpoint(row.ucLocalAddr, row.dwLocalPort),
        IPv6Endpoint(row.ucRemoteAddr, row.dwRemotePort));
  }
  return true;
}

void ConnectionTable::Add(std::uint32_t state, const Endpoint& local, const Endpoint& remote) {
  const bool open =
      state == MIB_TCP_STATE_ESTAB || state == MIB_TCP_STATE_FIN_WAIT1 || state == MIB_TCP_STATE_FIN_WAIT2;
  if (open) open_.push_back({Ports(local, remote), local, remote});
}

}  // namespace trabex

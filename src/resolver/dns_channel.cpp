#include "resolver/dns_channel.h"

#include <ares.h>
#include <ares_nameser.h>
#if __has_include(<netdb.h>)  // elsewhere ares.h brings what is needed
#include <netdb.h>
#endif

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "base/error.h"
#include "platform/device_error.h"
#include "platform/sockets.h"

namespace trabex {

namespace {

// Queries that one channel takes in its life.
constexpr int kMaxQueries = 1024;
// How often each server is asked. The bound of a look-up is kept by its owner, not by c-ares; an answer that
// comes later is dropped.
constexpr int kTries = 3;
// Room for the answers of a burst of queries; the system gives as much of it as it likes.
constexpr int kReceiveBufferBytes = 1 << 20;
// No sane host has more addresses; an answer over TCP could hold some thousands.
constexpr int kMaxAddresses = 256;

constexpr const char* kSource = "mNameLookup.DnsChannel";

int LookupError(int status) {
  switch (status) {
    case ARES_ENOTFOUND:
    case ARES_EBADNAME:
      return socket_error::kHostNotFound;
    case ARES_ENODATA:
      return socket_error::kNoData;
    case ARES_EFORMERR:
    case ARES_EBADRESP:
      return socket_error::kNoRecovery;
    default:  // no answer, no server, servers that failed or refused: another time they may do
      return socket_error::kTryAgain;
  }
}

IPAddress FromNetOrder(const in_addr& address) {
  unsigned char bytes[4];
  std::memcpy(bytes, &address, sizeof bytes);
  return IPAddress::IPv4(std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
                         std::uint32_t{bytes[2]} << 8 | bytes[3]);
}

IPAddress FromNetOrder(const ares_in6_addr& address) {
  IPAddress::IPv6Bytes bytes;
  static_assert(sizeof address == sizeof bytes);
  std::memcpy(bytes.data(), &address, sizeof address);
  return IPAddress::IPv6(bytes);
}

// The name under which DNS keeps the names of an address: its bytes from the last to the first (RFC 1035,
// 3.5), of IPv6 its hexadecimal digits (RFC 3596, 2.5).
std::string ReverseName(const IPAddress& address) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  const auto bytes = address.Bytes();
  std::string name;
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte) {
    if (address.IsIPv6()) {
      name.append({kDigits[*byte & 0xF], '.', kDigits[*byte >> 4], '.'});
    } else {
      name += std::to_string(*byte) + ".";
    }
  }
  return name + (address.IsIPv6() ? "ip6.arpa" : "in-addr.arpa");
}

int ReadIPv4Addresses(const unsigned char* message, int length, std::vector<IPAddress>& addresses) {
  std::array<ares_addrttl, kMaxAddresses> found{};
  int count = kMaxAddresses;
  const int status = ares_parse_a_reply(message, length, nullptr, found.data(), &count);
  if (status != ARES_SUCCESS) return status;
  for (int i = 0; i < count; ++i) {
    addresses.push_back(FromNetOrder(found[static_cast<std::size_t>(i)].ipaddr));
  }
  return status;
}

int ReadIPv6Addresses(const unsigned char* message, int length, std::vector<IPAddress>& addresses) {
  std::array<ares_addr6ttl, kMaxAddresses> found{};
  int count = kMaxAddresses;
  const int status = ares_parse_aaaa_reply(message, length, nullptr, found.data(), &count);
  if (status != ARES_SUCCESS) return status;
  for (int i = 0; i < count; ++i) {
    const IPAddress address = FromNetOrder(found[static_cast<std::size_t>(i)].ip6addr);
    // An IPv4 address does not become one of IPv6 by being written as such.
    if (address.IsIPv6()) addresses.push_back(address);
  }
  return status;
}

DnsReply ReadAddresses(const unsigned char* message, int length, bool ipv6) {
  DnsReply reply;
  const int status = ipv6 ? ReadIPv6Addresses(message, length, reply.addresses)
                          : ReadIPv4Addresses(message, length, reply.addresses);
  if (status != ARES_SUCCESS) {
    reply.error = LookupError(status);
    return reply;
  }
  // An answer may lead from alias to alias and end without an address.
  if (reply.addresses.empty()) reply.error = socket_error::kNoData;
  return reply;
}

DnsReply ReadName(const unsigned char* message, int length, const IPAddress& address) {
  DnsReply reply;
  const auto bytes = address.Bytes();
  hostent* host = nullptr;
  const int status = ares_parse_ptr_reply(message, length, bytes.data(), static_cast<int>(bytes.size()),
                                          address.IsIPv6() ? AF_INET6 : AF_INET, &host);
  if (status != ARES_SUCCESS) {
    reply.error = LookupError(status);
    return reply;
  }
  const std::unique_ptr<hostent, decltype(&ares_free_hostent)> owner(host, ares_free_hostent);
  // With several names the first one counts; c-ares has the last one as the name and all of them here.
  const char* const first = host->h_aliases != nullptr ? host->h_aliases[0] : nullptr;
  if (const char* const name = first != nullptr ? first : host->h_name) reply.name = name;
  if (reply.name.ends_with('.')) reply.name.pop_back();
  if (reply.name.empty()) reply.error = socket_error::kNoData;
  return reply;
}

}  // namespace

// One query; c-ares holds it until it calls back, which it does exactly once for each.
struct DnsChannel::Query {
  DnsChannel& channel;
  LookupId id;
  int type;           // T_A, T_AAAA or T_PTR
  IPAddress address;  // of T_PTR: whose name is asked for
};

struct DnsChannel::Callbacks {
  static void OnAnswer(void* argument, int status, int /*timeouts*/, unsigned char* message, int length) {
    const std::unique_ptr<Query> query(static_cast<Query*>(argument));
    DnsChannel& channel = query->channel;
    --channel.in_flight_;
    if (status == ARES_ECANCELLED || status == ARES_EDESTRUCTION) return;
    // Nothing may be thrown through c-ares. An answer that there is no memory for has not come.
    try {
      DnsReply reply;
      if (status != ARES_SUCCESS) {
        reply.error = LookupError(status);
        reply.timed_out = status == ARES_ETIMEOUT;
      } else if (query->type == T_PTR) {
        reply = ReadName(message, length, query->address);
      } else {
        reply = ReadAddresses(message, length, query->type == T_AAAA);
      }
      channel.sink_.OnDnsReply(query->id, std::move(reply));
    } catch (const std::bad_alloc&) {
      return;
    }
  }

  static void OnSocketState(void* argument, ares_socket_t socket, int readable, int writable) {
    static_cast<DnsChannel*>(argument)->WatchSocket(static_cast<std::intptr_t>(socket),
                                                    {.readable = readable != 0, .writable = writable != 0});
  }
};

DnsChannel::DnsChannel(EventLoop& loop, const DnsSettings& settings, DnsSink& sink)
    : loop_(loop), sink_(sink), queries_left_(kMaxQueries) {
  ares_options options{};
  // Names come from strangers: they are not to be looked up in an alias file of the environment.
  options.flags = ARES_FLAG_NOALIASES;
  options.timeout = static_cast<int>(std::max<Milliseconds::rep>(settings.first_wait.count(), 1));
  options.tries = kTries;
  options.socket_receive_buffer_size = kReceiveBufferBytes;
  options.sock_state_cb = Callbacks::OnSocketState;
  options.sock_state_cb_data = this;
  std::string resolver_file = settings.resolver_file;
  options.resolvconf_path = resolver_file.data();
  int given =
      ARES_OPT_FLAGS | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_SOCK_RCVBUF | ARES_OPT_SOCK_STATE_CB;
  if (!resolver_file.empty()) given |= ARES_OPT_RESOLVCONF;
  options.udp_port = settings.port;
  options.tcp_port = settings.port;
  if (settings.port != 0) given |= ARES_OPT_UDP_PORT | ARES_OPT_TCP_PORT;
  if (ares_library_init(ARES_LIB_INIT_ALL) != ARES_SUCCESS) RaiseDeviceError(kSource);
  const int status = ares_init_options(&channel_, &options, given);
  if (status != ARES_SUCCESS ||
      (!settings.servers.empty() &&
       ares_set_servers_ports_csv(channel_, settings.servers.c_str()) != ARES_SUCCESS)) {
    if (status == ARES_SUCCESS) ares_destroy(channel_);
    ares_library_cleanup();
    RaiseDeviceError(kSource);
  }
}

DnsChannel::~DnsChannel() {
  ares_destroy(channel_);  // calls back for every query, and for every socket
  ares_library_cleanup();
}

DnsChannel::Query* DnsChannel::NewQuery(LookupId id, int type, const IPAddress& address) {
  auto query = std::make_unique<Query>(Query{*this, id, type, address});
  --queries_left_;
  ++pending_;
  ++in_flight_;
  return query.release();
}

void DnsChannel::AskAddresses(const std::string& name, bool search, AddressFamily family, LookupId id) {
  const int type = family == AddressFamily::kIPv6 ? T_AAAA : T_A;
  Query* const query = NewQuery(id, type);
  const auto ask = search ? ares_search : ares_query;
  ask(channel_, name.c_str(), C_IN, type, Callbacks::OnAnswer, query);
}

void DnsChannel::AskName(const IPAddress& address, LookupId id) {
  const std::string name = ReverseName(address);
  ares_query(channel_, name.c_str(), C_IN, T_PTR, Callbacks::OnAnswer, NewQuery(id, T_PTR, address));
}

void DnsChannel::HandleTimeouts() {
  ares_process_fd(channel_, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
}

void DnsChannel::DropAbandoned() {
  if (!HasPending() && in_flight_ > 0) ares_cancel(channel_);
}

void DnsChannel::OnReady(std::intptr_t socket, FdReadiness readiness) {
  const auto native = static_cast<ares_socket_t>(socket);
  ares_process_fd(channel_, readiness.readable ? native : ARES_SOCKET_BAD,
                  readiness.writable ? native : ARES_SOCKET_BAD);
}

// Called by c-ares whenever it waits for something else on a socket; for nothing right before it closes it.
void DnsChannel::WatchSocket(std::intptr_t socket, FdReadiness interest) {
  if (!interest.readable && !interest.writable) {
    watches_.erase(socket);
    return;
  }
  try {
    const auto watch = watches_.try_emplace(
        socket, loop_, socket, [this, socket](FdReadiness readiness) { OnReady(socket, readiness); });
    watch.first->second.SetInterest(interest);
  } catch (const std::exception&) {
    // Nothing may be thrown through c-ares. Answers on this socket are not seen, so their look-ups time out.
    watches_.erase(socket);
  }
}

}  // namespace trabex

// Queries to DNS through c-ares: one channel with the sockets and the queries that are under way on it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/ip_address.h"
#include "platform/event_loop.h"
#include "platform/fd_watcher.h"
#include "resolver/name_lookup.h"

struct ares_channeldata;

namespace trabex {

// What became of a query: `error` is 0 or one of 11001 to 11004.
struct DnsReply {
  int error = 0;
  std::vector<IPAddress> addresses;  // at least one, or
  std::string name;                  // not empty, when error is 0
  bool timed_out = false;            // with 11002: no answer came in time
};

class DnsSink {
 public:
  virtual ~DnsSink() = default;
  // The reply to the query asked as `id`. It may come from inside the asking call. Neither the channel nor
  // anything on it may be destroyed in this call.
  virtual void OnDnsReply(LookupId id, DnsReply reply) = 0;
};

struct DnsSettings {
  std::string servers;            // as NameLookupOptions has them
  std::string resolver_file;      // read when there are none
  std::uint16_t port = 0;         // of the servers in it; 0: the usual one
  Milliseconds first_wait{1000};  // for an answer, before it asks again; longer and longer then
};

// c-ares cannot cancel one query. So the owner abandons each query that it no longer waits for, and the
// channel cancels all of them once none is pending. A channel takes 1024 queries in its life, and the next
// ones go to another channel, which has other ports, so that ports and ids stay unpredictable. (Newer
// versions of c-ares can limit the queries of one port themselves; that of Debian 12, 1.18, cannot.)
//
// Answers that are too long for a packet come over TCP, all of a server's by one connection. One of them that never ends
// holds up those behind it, until none is waited for and the sockets are closed, or the queries go to another channel.
class DnsChannel {
 public:
  // Both references outlive the channel. Raises 57 "Device I/O error" when c-ares cannot start.
  DnsChannel(EventLoop& loop, const DnsSettings& settings, DnsSink& sink);
  // No reply comes any more.
  ~DnsChannel();
  DnsChannel(const DnsChannel&) = delete;
  DnsChannel& operator=(const DnsChannel&) = delete;

  // Whether it takes another query.
  bool HasQueriesLeft() const { return queries_left_ > 0; }
  // Whether a socket is open.
  bool HasSocket() const { return !watches_.empty(); }
  // Asks for the addresses of `name` in one family; with `search` also below the domains that the system
  // searches.
  void AskAddresses(const std::string& name, bool search, AddressFamily family, LookupId id);
  void AskName(const IPAddress& address, LookupId id);

  // To be called once for each query: when its reply has come, or when it is no longer waited for.
  void Abandon() { --pending_; }
  // Whether a reply is waited for.
  bool HasPending() const { return pending_ > 0; }
  // Asks again where no answer came in time; to be called every now and then.
  void HandleTimeouts();
  // When none is pending: cancels the abandoned ones and closes the sockets.
  void DropAbandoned();

 private:
  struct Query;
  struct Callbacks;

  // The argument of c-ares for a new query of the type `type`; `address` is that whose name it asks for.
  Query* NewQuery(LookupId id, int type, const IPAddress& address = {});
  void OnReady(std::intptr_t socket, FdReadiness readiness);
  void WatchSocket(std::intptr_t socket, FdReadiness interest);

  EventLoop& loop_;
  DnsSink& sink_;
  ares_channeldata* channel_ = nullptr;
  std::map<std::intptr_t, FdWatcher> watches_;
  int queries_left_;
  int pending_ = 0;    // queries that were not abandoned
  int in_flight_ = 0;  // queries that c-ares has
};

}  // namespace trabex

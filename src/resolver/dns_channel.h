// Questions to DNS through c-ares: one channel with the sockets and the questions that are under way on it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "platform/fd_watcher.h"
#include "resolver/name_lookup.h"

struct ares_channeldata;

namespace trabex {

// What became of a question: `error` is 0 or one of 11001 to 11004.
struct DnsReply {
  int error = 0;
  std::vector<std::uint32_t> addresses;  // at least one, or
  std::string name;                      // not empty, when error is 0
};

class DnsSink {
 public:
  virtual ~DnsSink() = default;
  // The reply to the question asked as `id`. It may come from inside the asking call. Neither the channel nor
  // anything on it may be destroyed in this call.
  virtual void OnDnsReply(LookupId id, DnsReply reply) = 0;
};

struct DnsSettings {
  std::string servers;            // as NameLookupOptions has them
  std::string resolver_file;      // read when there are none
  std::uint16_t port = 0;         // of the servers in it; 0: the usual one
  Milliseconds first_wait{1000};  // for an answer, before it asks again; longer and longer then
};

// c-ares cannot take a single question back. So each is either wanted or not any more, and the channel drops
// all that it has as soon as none is wanted. It also takes only so many questions in its life: the next ones
// go to another channel, which has other ports, so that who wants to forge answers cannot learn them, and
// numbers of questions never run short.
class DnsChannel {
 public:
  // Both references outlive the channel. Raises 57 "Device I/O error" when c-ares cannot start.
  DnsChannel(EventLoop& loop, const DnsSettings& settings, DnsSink& sink);
  // No reply comes any more.
  ~DnsChannel();
  DnsChannel(const DnsChannel&) = delete;
  DnsChannel& operator=(const DnsChannel&) = delete;

  bool HasRoom() const { return room_ > 0; }
  bool HasSocket() const { return !watches_.empty(); }
  // Asks for the addresses of `name`; with `search` also below the domains that the system searches.
  void AskAddresses(const std::string& name, bool search, LookupId id);
  void AskName(std::uint32_t address, LookupId id);

  // To be told once for each question: its reply came or nobody waits for it any more.
  void Unwant() { --wanted_; }
  bool IsWanted() const { return wanted_ > 0; }
  // Asks again where no answer came in time; to be called every now and then.
  void HandleTimeouts();
  // Without wanted questions: drops the others and closes the sockets.
  void DropUnwanted();

 private:
  struct Question;
  struct Callbacks;

  // The argument of c-ares for a new question.
  Question* NewQuestion(LookupId id, bool for_name, std::uint32_t address);
  void OnReady(std::intptr_t socket, FdReadiness readiness);
  void WatchSocket(std::intptr_t socket, FdReadiness interest);

  EventLoop& loop_;
  DnsSink& sink_;
  ares_channeldata* channel_ = nullptr;
  std::map<std::intptr_t, FdWatcher> watches_;
  int room_;
  int wanted_ = 0;     // questions that somebody waits for
  int under_way_ = 0;  // questions that c-ares has
};

}  // namespace trabex

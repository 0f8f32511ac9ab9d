// Names and addresses of hosts, of IPv4 and of IPv6, looked up without waiting: in the system's file, then by DNS.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/ip_address.h"
#include "platform/event_loop.h"
#include "platform/sockets.h"

namespace trabex {

// The outcome of a look-up. `error` is 0 or one of 11001 to 11004 (no answer in time is 11002).
struct AddressAnswer {
  int error = 0;
  std::vector<IPAddress> addresses;  // at least one when error is 0, all of one family
  bool timed_out = false;            // with 11002: no answer came in time
};
struct NameAnswer {
  int error = 0;
  std::string name;  // from DNS, so whatever the address's owner wants; without a trailing dot
  // FindConfirmedName: one of the name's own addresses is the one that was asked about (RFC 8601, 3).
  bool confirmed = false;
  bool timed_out = false;  // with 11002: no answer came in time
  // FindConfirmedName, where confirmed is false: DNS did not say what addresses the name has.
  bool confirmation_failed = false;
};

// Whether a look-up with this error may succeed at another time: there was no answer, or no server that could
// say. With any other error there is nothing to be found, or nothing that would count.
constexpr bool IsTemporary(int error) {
  return error == socket_error::kTryAgain;
}

// Which addresses of a name are wanted.
enum class LookupFamily : std::uint8_t {
  kIPv4,
  kIPv6,
  // Those of IPv4, and only for a name that exists and has none those of IPv6.
  kIPv4First,
};

constexpr LookupFamily LookupFamilyOf(const IPAddress& address) {
  return address.IsIPv6() ? LookupFamily::kIPv6 : LookupFamily::kIPv4;
}

using LookupId = std::uint64_t;  // 0: none

// An interface, so that a test gives the answers.
class NameLookup {
 public:
  virtual ~NameLookup() = default;

  // `answer` is called once, from the loop, within 5 seconds, never from inside this call; not after Cancel.
  // An address resolves to itself (one of a family that is not wanted fails with 11004), an empty name fails
  // with 11001.
  virtual LookupId FindAddresses(std::string_view name, LookupFamily family,
                                 std::function<void(const AddressAnswer&)> answer) = 0;
  // The name of an address of either family.
  virtual LookupId FindName(const IPAddress& address, std::function<void(const NameAnswer&)> answer) = 0;
  // The same, and then whether the name leads back to the address; both within the 5 seconds. A name that
  // does not, or not in time, is answered all the same.
  virtual LookupId FindConfirmedName(const IPAddress& address,
                                     std::function<void(const NameAnswer&)> answer) = 0;
  // An id that was answered already, or 0, is ignored.
  virtual void Cancel(LookupId id) = 0;

  // An address of `name`, one of IPv4 before others, if one is known without asking DNS: an address is its
  // own, others are in the file of hosts.
  virtual std::optional<IPAddress> ResolveLocally(std::string_view name) = 0;
  // This machine's own name, in its full form where the file of hosts has one. `error` as above.
  virtual NameAnswer LocalHostName() = 0;
};

// How the real one asks. The defaults are the system's own.
struct NameLookupOptions {
  std::string servers{};        // "127.0.0.1:5353", several separated by commas; empty: those of the system
  std::string hosts_file{};     // empty: the system's
  std::string resolver_file{};  // that names the servers; empty: the system's, if it has one
  std::uint16_t port = 0;       // of the servers that resolver_file names; 0: 53
  Milliseconds limit = std::chrono::seconds(5);  // for one look-up in all
};

// c-ares on the loop. `loop` outlives it. A changed file counts for the look-ups that begin a second later; where no file
// names the servers, changed servers count a minute later. A name without a dot is also looked for in the domains that
// the system's settings search; any other is asked for as it is. "localhost" is 127.0.0.1, for IPv6 ::1, without being
// asked for (RFC 6761, 6.3). What cannot be a host's name fails with 11001 at once. Raises 57 "Device I/O error" when
// c-ares cannot start.
std::unique_ptr<NameLookup> MakeNameLookup(EventLoop& loop, const NameLookupOptions& options = {});

}  // namespace trabex

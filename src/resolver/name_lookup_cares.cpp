// Look-ups of names and addresses: the hosts file is read here, DNS is asked through c-ares. Every answer is
// posted to the loop, and c-ares's own callbacks only record what they are given; so a receiver of an answer
// may do anything, ending all look-ups included.
#include <algorithm>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "base/error.h"
#include "base/text.h"
#include "platform/open_file_reserve.h"
#include "platform/sockets.h"
#include "resolver/dns_channel.h"
#include "resolver/host_settings.h"
#include "resolver/hosts_file.h"
#include "resolver/name_lookup.h"

namespace trabex {

namespace {

constexpr std::size_t kMaxNameBytes = 253;  // RFC 1035, 2.3.4, without the dots at both ends

// The time for all tries of one query, in waits for the first: each wait is twice the one before.
constexpr int kFirstWaitsInLimit = 5;
// How finely the end of a look-up is timed; it is never later than the limit.
constexpr int kTicksInLimit = 50;

// Whether a host could have this name. DNS allows more, but no host is called so.
bool IsHostName(std::string_view name) {
  if (name.size() > kMaxNameBytes) return false;
  const auto labels = Split(name, '.');
  return std::all_of(labels.begin(), labels.end(), [](std::string_view label) {
    return !label.empty() && std::all_of(label.begin(), label.end(), IsHostNameByte);
  });
}

bool IsWanted(const IPAddress& address, LookupFamily family) {
  return family == LookupFamily::kIPv4First || family == LookupFamilyOf(address);
}

// RFC 6761, 6.3: these are never asked for.
bool IsLocalhost(std::string_view name) {
  return EqualNoCase(name, "localhost") || EndsWithNoCase(name, ".localhost");
}

class Lookups final : public DnsSink, public std::enable_shared_from_this<Lookups> {
 public:
  using AddressReceiver = std::function<void(const AddressAnswer&)>;
  using NameReceiver = std::function<void(const NameAnswer&)>;

  Lookups(EventLoop& loop, const NameLookupOptions& options)
      : loop_(loop),
        limit_(options.limit),
        tick_length_(std::max(options.limit / kTicksInLimit, Milliseconds{1})),
        tick_(loop, tick_length_, [this] { Tick(); }),
        hosts_(options.hosts_file.empty() ? DefaultHostsPath() : options.hosts_file),
        dns_{options.servers, options.resolver_file, options.port, options.limit / kFirstWaitsInLimit},
        resolver_change_(options.resolver_file.empty() ? ResolverSettingsPath() : options.resolver_file) {
    ResolverChanged();
    NewChannel();
  }

  // No receiver is called any more. The object itself may live on for a moment, below the call that ended it.
  void Close() {
    tick_.Disable();
    requests_.clear();
    channels_.clear();
  }

  LookupId FindAddresses(std::string_view name, LookupFamily family, AddressReceiver receiver) {
    return Begin(std::move(receiver), [&](LookupId id) { BeginAddresses(id, name, family); });
  }

  LookupId FindName(const IPAddress& address, bool confirm, NameReceiver receiver) {
    return Begin(std::move(receiver), [&](LookupId id) { BeginName(id, address, confirm); });
  }

  void Cancel(LookupId id) {
    const auto found = requests_.find(id);
    if (found == requests_.end()) return;
    if (found->second.channel != nullptr) found->second.channel->Abandon();
    requests_.erase(found);
  }

  // All of one family.
  std::vector<IPAddress> ResolveLocally(std::string_view host, LookupFamily family) {
    if (family == LookupFamily::kIPv4First) {
      auto known = ResolveLocally(host, LookupFamily::kIPv4);
      return known.empty() ? ResolveLocally(host, LookupFamily::kIPv6) : known;
    }
    std::vector<IPAddress> known = hosts_.Table(Now()).Addresses(host);
    std::erase_if(known, [family](const IPAddress& address) { return !IsWanted(address, family); });
    if (known.empty() && IsLocalhost(host)) {
      return {family == LookupFamily::kIPv6 ? kIPv6Loopback : kIPv4Loopback};
    }
    return known;
  }

  std::string HostsText() const { return hosts_.Text(); }

 private:
  struct Request {
    std::variant<AddressReceiver, NameReceiver> receiver;
    MonotonicTime deadline;
    DnsChannel* channel = nullptr;  // that was asked and has not replied yet
    DnsReply reply;
    std::optional<IPAddress> to_confirm;  // the address that the name shall lead back to
    std::string name;                     // that was found, while its addresses are asked for
    struct IPv6Question {
      std::string name;
      bool search = false;
    };
    std::optional<IPv6Question> ipv6_next;  // to be asked should the name have no IPv4 address
  };

  // A look-up that cannot begin has no number to cancel it by, so its receiver is dropped.
  template <class BeginLookup>
  LookupId Begin(std::variant<AddressReceiver, NameReceiver> receiver, BeginLookup begin) {
    const LookupId id = NewRequest(std::move(receiver));
    try {
      begin(id);
    } catch (...) {
      Cancel(id);
      throw;
    }
    return id;
  }

  void BeginAddresses(LookupId id, std::string_view name, LookupFamily family) {
    const bool absolute = name.ends_with('.');
    const std::string host(name.substr(0, name.size() - (absolute ? 1 : 0)));
    if (const auto address = ParseIPAddress(name)) {
      Finish(id, IsWanted(*address, family) ? DnsReply{0, {*address}, {}}
                                            : DnsReply{socket_error::kNoData, {}, {}});
    } else if (!IsHostName(host)) {
      Finish(id, {socket_error::kHostNotFound, {}, {}});
    } else if (auto known = ResolveLocally(host, family); !known.empty()) {
      Finish(id, {0, std::move(known), {}});
    } else {
      // The domains of the system are searched for a plain name only: a stranger's "x.test" is never taken
      // for "x.test.example.org", even if everything below that exists.
      const bool search = !absolute && host.find('.') == std::string::npos;
      const bool ipv6 = family == LookupFamily::kIPv6;
      if (family == LookupFamily::kIPv4First) requests_.find(id)->second.ipv6_next = {host, search};
      AskDns(id, [&](DnsChannel& channel) {
        channel.AskAddresses(host, search, ipv6 ? AddressFamily::kIPv6 : AddressFamily::kIPv4, id);
      });
    }
  }

  void BeginName(LookupId id, const IPAddress& address, bool confirm) {
    if (confirm) requests_.find(id)->second.to_confirm = address;
    const std::string& known = hosts_.Table(Now()).Name(address);
    if (!known.empty()) {
      Finish(id, {0, {}, known});
    } else {
      AskDns(id, [&](DnsChannel& channel) { channel.AskName(address, id); });
    }
  }

  MonotonicTime Now() const { return loop_.GetClock().Monotonic(); }

  LookupId NewRequest(std::variant<AddressReceiver, NameReceiver> receiver) {
    requests_.emplace(++last_id_, Request{std::move(receiver), Now() + limit_, nullptr, {}, {}, {}, {}});
    return last_id_;
  }

  // A channel reads files when it starts. It must be able to open them even when sessions have used up all
  // descriptors, or it would ask the wrong server with numbers that can be guessed.
  void NewChannel() {
    for_files_.Release();
    try {
      channels_.push_back(std::make_unique<DnsChannel>(loop_, dns_, *this));
    } catch (...) {
      for_files_.Hold();
      throw;
    }
    for_files_.Hold();
  }

  bool ResolverChanged() { return dns_.servers.empty() && resolver_change_.Changed(Now()); }

  // The last channel is the one that is asked; those before it only wait for their replies.
  DnsChannel& CurrentChannel() {
    if (ResolverChanged() || !channels_.back()->HasQueriesLeft()) {
      try {
        NewChannel();
      } catch (const Error&) {
        resolver_change_.Forget();
        throw;
      }
    }
    return *channels_.back();
  }

  template <class Ask>
  void AskDns(LookupId id, Ask ask) {
    DnsChannel* channel = nullptr;
    try {
      channel = &CurrentChannel();
    } catch (const Error&) {
      Finish(id, {socket_error::kTryAgain, {}, {}});
      return;
    }
    Request& request = requests_.find(id)->second;
    AddDeadline({request.deadline, id});
    if (!tick_.Enabled()) tick_.Enable();
    if (!HasSocket()) for_socket_.Release();
    request.channel = channel;
    try {
      ask(*channel);
    } catch (const std::bad_alloc&) {
      request.channel = nullptr;  // it was not asked
      throw;
    }
    KeepSocketReserve();
  }

  bool HasSocket() const {
    return std::any_of(channels_.begin(), channels_.end(),
                       [](const auto& channel) { return channel->HasSocket(); });
  }
  // While no query needs a socket, the right to open one is kept for the next query.
  void KeepSocketReserve() {
    if (!HasSocket()) for_socket_.Hold();
  }

  void OnDnsReply(LookupId id, DnsReply reply) override { Finish(id, std::move(reply)); }

  // Records the outcome; its receiver is called from the loop.
  void Finish(LookupId id, DnsReply reply) {
    const auto found = requests_.find(id);
    if (found == requests_.end()) return;  // too late
    Request& request = found->second;
    // Before anything else: without memory for it the request is as before, and its time will be over.
    loop_.Post([weak = weak_from_this(), id] {
      if (const auto self = weak.lock()) self->Answer(id);
    });
    if (request.channel != nullptr) std::exchange(request.channel, nullptr)->Abandon();
    request.reply = std::move(reply);
  }

  void Answer(LookupId id) {
    KeepSocketReserve();
    const auto found = requests_.find(id);
    if (found == requests_.end()) return;  // cancelled meanwhile
    if (AsksFurther(id, found->second)) return;
    Request request = std::move(found->second);
    requests_.erase(found);
    Give(request);
  }

  // Whoever waits gets an answer, also when there is no memory for the next question.
  bool AsksFurther(LookupId id, Request& request) {
    try {
      return AskForIPv6(id, request) || AskForConfirmation(id, request);
    } catch (const std::bad_alloc&) {
      request.reply = {socket_error::kTryAgain, {}, {}};
      return false;
    }
  }

  static void Give(Request& request) {
    DnsReply& reply = request.reply;
    if (const auto* const receiver = std::get_if<AddressReceiver>(&request.receiver)) {
      (*receiver)({reply.error, std::move(reply.addresses), reply.timed_out});
      return;
    }
    NameAnswer answer{reply.error, std::move(reply.name), false, reply.timed_out};
    if (!request.name.empty()) {
      answer = {0, std::move(request.name), Holds(reply.addresses, *request.to_confirm)};
      answer.confirmation_failed = !answer.confirmed && IsTemporary(reply.error);
    }
    std::get<NameReceiver>(request.receiver)(answer);
  }

  static bool Holds(const std::vector<IPAddress>& addresses, const IPAddress& address) {
    return std::find(addresses.begin(), addresses.end(), address) != addresses.end();
  }

  // Goes on with the IPv6 addresses of a name that has none of IPv4; false when there is nothing to wait for.
  bool AskForIPv6(LookupId id, Request& request) {
    if (request.reply.error != socket_error::kNoData) return false;
    const auto next = std::exchange(request.ipv6_next, std::nullopt);
    if (!next) return false;
    if (IsLate(request.deadline)) {
      request.reply.error = socket_error::kTryAgain;
      request.reply.timed_out = true;
      return false;
    }
    AskDns(id, [&](DnsChannel& channel) {
      channel.AskAddresses(next->name, next->search, AddressFamily::kIPv6, id);
    });
    return true;
  }

  // Goes on with the addresses of a name that was found and is to be confirmed; false when there is nothing
  // to wait for. Never in the domains that the system searches: in these a stranger's name is one of ours.
  bool AskForConfirmation(LookupId id, Request& request) {
    if (!request.to_confirm || !request.name.empty() || request.reply.error != 0) return false;
    request.name = std::exchange(request.reply, {}).name;
    // An address is no name, whatever it leads to.
    if (!IsHostName(request.name) || ParseIPv4Address(request.name)) return false;
    request.reply.addresses = ResolveLocally(request.name, LookupFamilyOf(*request.to_confirm));
    // Where both know the name, either may confirm it.
    if (Holds(request.reply.addresses, *request.to_confirm) || IsLocalhost(request.name)) return false;
    if (IsLate(request.deadline)) {
      request.reply.error = socket_error::kTryAgain;
      return false;
    }
    AskDns(id, [&](DnsChannel& channel) {
      channel.AskAddresses(request.name, false, FamilyOf(*request.to_confirm), id);
    });
    return true;
  }

  void Tick() {
    for (const auto& channel : channels_) {
      if (channel->HasPending()) channel->HandleTimeouts();
    }
    while (!deadlines_.empty() && IsLate(deadlines_.front().time)) {
      const LookupId id = deadlines_.front().id;
      const auto found = requests_.find(id);
      if (found != requests_.end() && found->second.channel != nullptr) {
        try {
          Finish(id, {socket_error::kTryAgain, {}, {}, true});
        } catch (const std::bad_alloc&) {
          return;  // the next tick tries again
        }
      }
      deadlines_.pop_front();
    }
    for (const auto& channel : channels_) channel->DropAbandoned();
    const DnsChannel* const current = channels_.back().get();
    std::erase_if(channels_, [current](const auto& channel) {
      return channel.get() != current && !channel->HasPending();
    });
    KeepSocketReserve();
    if (channels_.size() == 1 && !current->HasPending()) {
      deadlines_.clear();
      tick_.Disable();
    }
  }

  // What would be late by the next tick has failed now.
  bool IsLate(MonotonicTime deadline) const { return deadline <= Now() + tick_length_; }

  struct Deadline {
    MonotonicTime time;
    LookupId id;
  };

  // Nearly always at the end: only the second query of a look-up has less time than one that is new.
  void AddDeadline(Deadline deadline) {
    const auto after = std::upper_bound(deadlines_.begin(), deadlines_.end(), deadline,
                                        [](const Deadline& a, const Deadline& b) { return a.time < b.time; });
    deadlines_.insert(after, deadline);
  }

  EventLoop& loop_;
  const Milliseconds limit_;
  const Milliseconds tick_length_;
  Timer tick_;  // runs while DNS is being asked
  HostsFile hosts_;
  const DnsSettings dns_;
  FileChange resolver_change_;
  OpenFileReserve for_files_;
  OpenFileReserve for_socket_;
  std::vector<std::unique_ptr<DnsChannel>> channels_;
  std::unordered_map<LookupId, Request> requests_;
  std::deque<Deadline> deadlines_;  // the next one first
  LookupId last_id_ = 0;
};

class CaresNameLookup final : public NameLookup {
 public:
  CaresNameLookup(EventLoop& loop, const NameLookupOptions& options)
      : lookups_(std::make_shared<Lookups>(loop, options)) {}
  ~CaresNameLookup() override { lookups_->Close(); }
  CaresNameLookup(const CaresNameLookup&) = delete;
  CaresNameLookup& operator=(const CaresNameLookup&) = delete;

  LookupId FindAddresses(std::string_view name, LookupFamily family,
                         std::function<void(const AddressAnswer&)> answer) override {
    return lookups_->FindAddresses(name, family, std::move(answer));
  }
  LookupId FindName(const IPAddress& address, std::function<void(const NameAnswer&)> answer) override {
    return lookups_->FindName(address, false, std::move(answer));
  }
  LookupId FindConfirmedName(const IPAddress& address,
                             std::function<void(const NameAnswer&)> answer) override {
    return lookups_->FindName(address, true, std::move(answer));
  }
  void Cancel(LookupId id) override { lookups_->Cancel(id); }

  std::optional<IPAddress> ResolveLocally(std::string_view name) override {
    if (const auto address = ParseIPAddress(name)) return address;
    if (name.ends_with('.')) name.remove_suffix(1);
    const auto known = lookups_->ResolveLocally(name, LookupFamily::kIPv4First);
    return known.empty() ? std::nullopt : std::optional(known.front());
  }

  NameAnswer LocalHostName() override {
    const std::string name = MachineName();
    if (name.empty()) return {socket_error::kHostNotFound, ""};
    const std::string full = FullNameInHosts(lookups_->HostsText(), name);
    return {0, full.empty() ? name : full};
  }

 private:
  std::shared_ptr<Lookups> lookups_;  // the loop's calls may hold it for a moment longer
};

}  // namespace

std::unique_ptr<NameLookup> MakeNameLookup(EventLoop& loop, const NameLookupOptions& options) {
  return std::make_unique<CaresNameLookup>(loop, options);
}

}  // namespace trabex

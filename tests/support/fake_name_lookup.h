// Host names and addresses whose answers a test sets.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text.h"
#include "resolver/name_lookup.h"
#include "support/ip_address.h"

namespace trabex {

// Answers in the loop's next iteration, or, after HoldAnswers, only when the test says Deliver. What was not
// set fails with 11001. An answer is that of the table at the moment it is given, so a test may set it while
// it is held.
class FakeNameLookup final : public NameLookup {
 public:
  // `loop` outlives this object.
  explicit FakeNameLookup(EventLoop& loop) : loop_(loop) {}

  void SetAddresses(std::string_view name, std::vector<IPAddress> addresses) {
    addresses_[ToLower(name)] = AddressAnswer{0, std::move(addresses)};
  }
  void SetAddressError(std::string_view name, int error) {
    addresses_[ToLower(name)] = AddressAnswer{error, {}};
  }
  void SetName(const IPAddress& address, std::string_view name) {
    names_[address] = NameAnswer{0, std::string(name)};
  }
  void SetNameError(const IPAddress& address, int error) { names_[address] = NameAnswer{error, {}}; }
  // A line of the hosts file: what ResolveLocally gives. FindAddresses answers it too, unless set otherwise.
  void SetLocalAddress(std::string_view name, const IPAddress& address) { known_[ToLower(name)] = address; }
  void SetLocalHostName(std::string_view name) { local_ = NameAnswer{0, std::string(name)}; }
  void SetLocalHostNameError(int error) { local_ = NameAnswer{error, {}}; }

  // From now on what is set for 127.0.0.1 holds for ::1 too, and every name that has addresses of IPv4 has
  // one of IPv6 for each of them: ::1 for 127.0.0.1, 64:ff9b::a.b.c.d (RFC 6052) for others.
  void MeanIPv6() { mean_ipv6_ = true; }
  // From now on everything that takes time is asked of `names`; nullptr: no longer.
  void AskInstead(NameLookup* names) { instead_ = names; }
  // From now on no answer comes before Deliver.
  void HoldAnswers() { held_ = true; }
  // Gives every waiting answer now, in the order of asking; those asked for meanwhile wait for the next time.
  // Returns how many were given. Call it from outside of the code that asks.
  std::size_t Deliver() {
    const LookupId last = last_id_;
    std::size_t given = 0;
    while (!waiting_->empty() && waiting_->begin()->first <= last) {
      Give(*waiting_, waiting_->begin());
      ++given;
    }
    return given;
  }

  // How often something was asked for, cancelled ones included, and what still waits.
  std::size_t AddressRequests() const { return asked_names_.size(); }
  std::size_t NameRequests() const { return asked_addresses_.size(); }
  // How many of these asked for confirmed names.
  std::size_t ConfirmedNameRequests() const { return confirmed_requests_; }
  std::size_t Requests() const { return AddressRequests() + NameRequests(); }
  std::size_t Waiting() const { return waiting_->size(); }
  std::size_t Cancelled() const { return cancelled_; }
  // Whether the name was the last one asked for, and its answer is owed.
  bool IsWaitingFor(std::string_view name) const {
    return Waiting() > 0 && !asked_names_.empty() && asked_names_.back() == name;
  }
  // In the order of asking.
  const std::vector<std::string>& AskedNames() const { return asked_names_; }
  const std::vector<IPAddress>& AskedAddresses() const { return asked_addresses_; }

  // SetAddresses sets those of both families; the answer has those that are wanted.
  LookupId FindAddresses(std::string_view name, LookupFamily family,
                         std::function<void(const AddressAnswer&)> answer) override {
    if (instead_ != nullptr) return instead_->FindAddresses(name, family, std::move(answer));
    asked_names_.emplace_back(name);
    return Ask([this, name = std::string(name), family, answer = std::move(answer)] {
      answer(Wanted(WithIPv6(AddressesOf(name)), family));
    });
  }
  LookupId FindName(const IPAddress& address, std::function<void(const NameAnswer&)> answer) override {
    if (instead_ != nullptr) return instead_->FindName(address, std::move(answer));
    asked_addresses_.push_back(address);
    return Ask([this, address, answer = std::move(answer)] { answer(NameOf(address)); });
  }
  // A name is confirmed by what SetAddresses and SetLocalAddress have set for it.
  LookupId FindConfirmedName(const IPAddress& address,
                             std::function<void(const NameAnswer&)> answer) override {
    if (instead_ != nullptr) return instead_->FindConfirmedName(address, std::move(answer));
    asked_addresses_.push_back(address);
    ++confirmed_requests_;
    return Ask([this, address, answer = std::move(answer)] {
      NameAnswer found = NameOf(address);
      const AddressAnswer own = WithIPv6(AddressesOf(found.name));
      found.confirmed = std::find(own.addresses.begin(), own.addresses.end(), address) != own.addresses.end();
      found.confirmation_failed = !found.confirmed && IsTemporary(own.error);
      answer(found);
    });
  }
  void Cancel(LookupId id) override {
    if (instead_ != nullptr) return instead_->Cancel(id);
    cancelled_ += waiting_->erase(id);
  }

  std::optional<IPAddress> ResolveLocally(std::string_view name) override {
    if (const auto address = ParseIPAddress(name)) return address;
    const auto found = known_.find(ToLower(name));
    return found == known_.end() ? std::nullopt : std::optional(found->second);
  }
  NameAnswer LocalHostName() override { return local_; }

 private:
  using Waiting_ = std::map<LookupId, std::function<void()>>;  // in the order of asking

  // Forgets the request first, so that the answer's receiver may cancel or ask anew.
  static void Give(Waiting_& waiting, Waiting_::iterator request) {
    const auto answer = std::move(request->second);
    waiting.erase(request);
    answer();
  }

  LookupId Ask(std::function<void()> answer) {
    const LookupId id = ++last_id_;
    waiting_->emplace(id, std::move(answer));
    if (!held_) {
      loop_.Post([waiting = std::weak_ptr(waiting_), id] {
        const auto alive = waiting.lock();
        if (!alive) return;
        const auto found = alive->find(id);
        if (found != alive->end()) Give(*alive, found);
      });
    }
    return id;
  }

  AddressAnswer AddressesOf(const std::string& name) {
    const auto set = addresses_.find(ToLower(name));
    if (set != addresses_.end()) return set->second;
    if (const auto known = ResolveLocally(name)) return AddressAnswer{0, {*known}};
    return AddressAnswer{11001, {}};
  }
  static AddressAnswer Wanted(AddressAnswer answer, LookupFamily family) {
    if (answer.error != 0) return answer;
    const auto has_ipv4 = std::any_of(answer.addresses.begin(), answer.addresses.end(),
                                      [](const IPAddress& address) { return address.IsIPv4(); });
    const bool ipv6 = family == LookupFamily::kIPv6 || (family == LookupFamily::kIPv4First && !has_ipv4);
    std::erase_if(answer.addresses, [ipv6](const IPAddress& address) { return address.IsIPv6() != ipv6; });
    if (answer.addresses.empty()) answer.error = 11004;
    return answer;
  }
  AddressAnswer WithIPv6(AddressAnswer answer) const {
    if (!mean_ipv6_) return answer;
    for (const IPAddress& address : std::vector(answer.addresses)) {
      if (!address.IsIPv4()) continue;
      IPAddress::IPv6Bytes bytes{0x00, 0x64, 0xFF, 0x9B};
      std::copy(address.Bytes().begin(), address.Bytes().end(), bytes.end() - 4);
      answer.addresses.push_back(address == kIPv4Loopback ? kIPv6Loopback : IPAddress::IPv6(bytes));
    }
    return answer;
  }
  NameAnswer NameOf(const IPAddress& address) {
    const auto set = names_.find(mean_ipv6_ && address == kIPv6Loopback ? kIPv4Loopback : address);
    return set == names_.end() ? NameAnswer{11001, {}} : set->second;
  }

  EventLoop& loop_;
  NameLookup* instead_ = nullptr;
  std::map<std::string, AddressAnswer> addresses_;
  std::map<IPAddress, NameAnswer> names_;
  std::map<std::string, IPAddress> known_;
  NameAnswer local_{0, "proxy.test"};
  bool held_ = false;
  bool mean_ipv6_ = false;
  LookupId last_id_ = 0;
  std::shared_ptr<Waiting_> waiting_ = std::make_shared<Waiting_>();  // posts outlive this object
  std::size_t cancelled_ = 0;
  std::size_t confirmed_requests_ = 0;
  std::vector<std::string> asked_names_;
  std::vector<IPAddress> asked_addresses_;
};

}  // namespace trabex

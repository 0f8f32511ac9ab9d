#include "report/counted_lookup.h"

#include <utility>

#include "platform/sockets.h"

namespace trabex {

namespace {

enum class Kind { kName, kAddress };

template <class Answer>
LookupResult ResultOf(const Answer& answer) {
  switch (answer.error) {
    case 0:
      return LookupResult::kFound;
    case socket_error::kHostNotFound:
    case socket_error::kNoData:
      return LookupResult::kNone;
    default:
      return answer.timed_out ? LookupResult::kTimedOut : LookupResult::kFailed;
  }
}

class CountedLookup final : public NameLookup {
 public:
  CountedLookup(std::unique_ptr<NameLookup> names, const Clock& clock, Counters& counters)
      : names_(std::move(names)), clock_(clock), counters_(counters) {}

  LookupId FindAddresses(std::string_view name, LookupFamily family,
                         std::function<void(const AddressAnswer&)> answer) override {
    return names_->FindAddresses(name, family, Counted(Kind::kAddress, std::move(answer)));
  }
  LookupId FindName(const IPAddress& address, std::function<void(const NameAnswer&)> answer) override {
    return names_->FindName(address, Counted(Kind::kName, std::move(answer)));
  }
  LookupId FindConfirmedName(const IPAddress& address,
                             std::function<void(const NameAnswer&)> answer) override {
    return names_->FindConfirmedName(address, Counted(Kind::kName, std::move(answer)));
  }
  void Cancel(LookupId id) override { names_->Cancel(id); }
  std::optional<IPAddress> ResolveLocally(std::string_view name) override {
    return names_->ResolveLocally(name);
  }
  NameAnswer LocalHostName() override { return names_->LocalHostName(); }

 private:
  template <class Answer>
  std::function<void(const Answer&)> Counted(Kind kind, std::function<void(const Answer&)> receiver) {
    return [this, kind, began = clock_.Monotonic(), receiver = std::move(receiver)](const Answer& answer) {
      ++counters_.lookups[static_cast<std::size_t>(kind)][static_cast<std::size_t>(ResultOf(answer))];
      counters_.lookup_time.Observe(clock_.Monotonic() - began);
      receiver(answer);
    };
  }

  std::unique_ptr<NameLookup> names_;
  const Clock& clock_;
  Counters& counters_;
};

}  // namespace

std::unique_ptr<NameLookup> CountLookups(std::unique_ptr<NameLookup> names, const Clock& clock,
                                         Counters& counters) {
  return std::make_unique<CountedLookup>(std::move(names), clock, counters);
}

}  // namespace trabex

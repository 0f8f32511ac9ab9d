#include "app/greylisting.h"

#include <utility>

namespace trabex {

GreyListing::GreyListing(const GreyListingSettings& settings, Log& log, const Clock& clock, EventLoop& loop)
    : warning_(log, loop),
      decision_(settings, log, clock, database_, warning_),
      store_(settings, log, clock, loop, database_, warning_) {}

GreylistVerdict ForSession(const GreyListingVerdict& verdict) {
  GreylistVerdict result(IsDelayed(verdict.outcome));
  switch (verdict.outcome) {
    case GreyListingOutcome::kWhitelisted:
      result.outcome = GreylistVerdict::Outcome::kWhitelisted;
      break;
    case GreyListingOutcome::kDelayed:
    case GreyListingOutcome::kExpired:
      result.outcome = GreylistVerdict::Outcome::kDelayed;
      break;
    case GreyListingOutcome::kNew:
    case GreyListingOutcome::kAccepted:
      break;
  }
  result.blacklisted = verdict.blacklisted;
  if (verdict.record != nullptr) {
    result.attempts = verdict.record->Attempts();
    result.delayed_until = verdict.record->DelayedUntil();
    result.expires = verdict.record->ExpireAt();
  }
  return result;
}

GreylistVerdict GreyListing::ShouldDefer(std::optional<std::string_view> host_name, const IPAddress& ip,
                                         std::string_view sender, std::string_view recipient) {
  return ForSession(decision_.Judge(host_name, ip, sender, recipient));
}

bool GreyListing::HoldSaves(std::function<void()> complete) {
  if (complete_) return false;
  complete_ = std::move(complete);
  return true;
}

void GreyListing::Load() {
  ++loads_;
  store_.LoadGreyListingDatabase();
}

void GreyListing::Clear() {
  ++loads_;
  store_.ClearGreyListingDatabase();
}

GreyListingSaveResult GreyListing::Save() {
  if (complete_) std::exchange(complete_, nullptr)();
  const GreyListingSaveResult result = store_.SaveGreyListingDatabase();
  Observe(result);
  return result;
}

GreyListingSaveResult GreyListing::FailToSave() {
  if (complete_) std::exchange(complete_, nullptr)();
  const GreyListingSaveResult result = store_.FailToSave();
  Observe(result);
  return result;
}

bool GreyListing::SaveInBackground(std::function<void(DateTime time)> saved) {
  if (complete_) return false;
  const auto done = [this, saved = std::move(saved)](const GreyListingSaveResult& result) {
    Observe(result);
    if (result.kind == GreyListingSaveResult::Kind::kSaved) saved(result.time);
  };
  return store_.SaveInBackground(done) || store_.SavingInBackground();
}

void GreyListing::Observe(const GreyListingSaveResult& result) const {
  if (save_observer_ && result.kind != GreyListingSaveResult::Kind::kUnchanged) save_observer_(result);
}

std::string GreyListing::Database() const {
  return store_.LoadedPath().value_or("");
}

}  // namespace trabex

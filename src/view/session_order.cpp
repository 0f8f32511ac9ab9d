#include "view/session_order.h"

#include <algorithm>
#include <utility>

#include "base/text.h"

namespace trabex {

namespace {

constexpr std::uint32_t kGone = 0xFFFFFFFF;

constexpr std::array<std::string_view, kSortColumns> kNames = {
    "arrival", "handle", "bytes received", "bytes sent", "duration", "address",
    "name",    "state",  "HELO",           "sender",     "recipient"};

// Ids may go on from 0 after the greatest number.
bool IsBeforeId(SessionId a, SessionId b) {
  return static_cast<std::int64_t>(a - b) < 0;
}

bool HoldsNoCase(std::string_view text, std::string_view search) {
  return FindNoCase(text, search) != std::string_view::npos;
}

bool MayBeAddress(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    const char lower = ToLower(c);
    return IsDigit(c) || c == '.' || c == ':' || (lower >= 'a' && lower <= 'f');
  });
}

// As addresses sort: the family first, then the number.
template <class SortKey>
SortKey AddressKey(const IPAddress& address) {
  SortKey key{static_cast<std::uint64_t>(address.BitCount())};
  const auto bytes = address.Bytes();
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    key[1 + i / 8] |= static_cast<std::uint64_t>(bytes[i]) << (56 - i % 8 * 8);
  }
  return key;
}

// The first bytes of `text` in lower case. Two texts with the same ones stay in the order in which they came.
template <class SortKey>
SortKey TextKey(std::string_view text) {
  SortKey key{};
  for (std::size_t i = 0; i < std::min(text.size(), key.size() * 8); ++i) {
    key[i / 8] |= static_cast<std::uint64_t>(static_cast<unsigned char>(ToLower(text[i])))
                  << (56 - i % 8 * 8);
  }
  return key;
}

}  // namespace

std::string_view SortColumnName(SortColumn column) {
  return kNames[static_cast<std::size_t>(column)];
}

std::optional<std::size_t> FindSession(SessionId id, const ViewSource& source) {
  std::size_t begin = 0;
  std::size_t end = source.SessionCount();
  while (begin < end) {
    const std::size_t middle = begin + (end - begin) / 2;
    const SessionId found = source.SessionAt(middle);
    if (found == id) return middle;
    if (IsBeforeId(found, id)) {
      begin = middle + 1;
    } else {
      end = middle;
    }
  }
  return std::nullopt;
}

void SessionOrder::SetFilter(std::string_view text) {
  filter_ = text;
  filter_may_be_address_ = MayBeAddress(text);
  BeginAnew();
}

void SessionOrder::SetSort(SortColumn column, bool reversed) {
  reversed_ = reversed;
  if (std::exchange(sort_, column) != column) BeginAnew();
}

std::size_t SessionOrder::Unreversed(std::size_t index) const {
  // The shortest duration is that of the session that came last.
  return reversed_ != (sort_ == SortColumn::kDuration) ? count_ - 1 - index : index;
}

bool SessionOrder::LooksAtSessions() const {
  return !filter_.empty() || (sort_ != SortColumn::kArrival && sort_ != SortColumn::kDuration);
}

void SessionOrder::BeginAnew() {
  entries_.clear();
  order_.clear();
  next_ = 0;
  not_looked_at_ = 0;
}

void SessionOrder::Freeze(bool frozen, const ViewSource& source) {
  if (frozen == frozen_) return;
  std::vector<SessionId> ids;
  if (frozen) {
    ids.reserve(count_);
    for (std::size_t i = 0; i < count_; ++i) ids.push_back(IdAt(i, source));
  }
  frozen_ids_ = std::move(ids);
  frozen_ = frozen;
}

void SessionOrder::Update(const ViewSource& source) {
  if (frozen_) {
    count_ = frozen_ids_.size();
    return;
  }
  if (!LooksAtSessions()) {
    count_ = source.SessionCount();
    return;
  }
  Follow(source);
  LookAtSome(source);
  PutInOrder();
  count_ = order_.size();
}

// Brings entries_ and order_ to the sessions of now. Both sides grow with the id.
void SessionOrder::Follow(const ViewSource& source) {
  const std::size_t before = entries_.size();
  moved_.assign(before, kGone);
  const std::size_t now = source.SessionCount();
  std::size_t old = 0;
  std::size_t kept = 0;
  for (; kept < now && old < before; ++old) {
    if (entries_[old].id != source.SessionAt(kept)) {
      if (!entries_[old].looked_at) --not_looked_at_;
      continue;
    }
    moved_[old] = static_cast<std::uint32_t>(kept);
    if (old != kept) entries_[kept] = entries_[old];
    if (old == next_) next_ = kept;
    ++kept;
  }
  for (; old < before; ++old) {
    if (!entries_[old].looked_at) --not_looked_at_;
  }
  entries_.resize(kept);
  for (std::size_t i = kept; i < now; ++i) {
    Entry& entry = entries_.emplace_back();
    entry.id = source.SessionAt(i);
    ++not_looked_at_;
  }
  if (next_ > entries_.size()) next_ = 0;
  std::size_t left = 0;
  for (const std::uint32_t place : order_) {
    if (moved_[place] != kGone) order_[left++] = moved_[place];
  }
  order_.resize(left);
}

// Those that nobody has looked at come first.
void SessionOrder::LookAtSome(const ViewSource& source) {
  std::size_t looked_at = 0;
  for (std::size_t i = entries_.size(); i > 0 && looked_at < kMaxLookedAt && not_looked_at_ > 0; --i) {
    Entry& entry = entries_[i - 1];
    if (entry.looked_at) continue;
    LookAt(entry, source.SnapshotAt(i - 1));
    ++looked_at;
  }
  for (const std::size_t again = std::min(kMaxLookedAtAgain, entries_.size()); looked_at < again;
       ++looked_at) {
    if (next_ >= entries_.size()) next_ = 0;
    LookAt(entries_[next_], source.SnapshotAt(next_));
    ++next_;
  }
}

void SessionOrder::LookAt(Entry& entry, const SessionSnapshot& snapshot) {
  if (!entry.looked_at) --not_looked_at_;
  entry.looked_at = true;
  const bool matches = Matches(snapshot);
  const SortKey key = KeyOf(snapshot);
  if (entry.in_order && (!matches || key != entry.key)) entry.in_order = false;
  entry.matches = matches;
  entry.key = key;
}

// What has not changed stays as it is; the others are sorted and put between them.
void SessionOrder::PutInOrder() {
  std::erase_if(order_, [this](std::uint32_t place) { return !entries_[place].in_order; });
  const auto stays = static_cast<std::ptrdiff_t>(order_.size());
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    Entry& entry = entries_[i];
    if (!entry.matches || entry.in_order) continue;
    entry.in_order = true;
    order_.push_back(static_cast<std::uint32_t>(i));
  }
  const auto before = [this](std::uint32_t a, std::uint32_t b) { return IsBefore(a, b); };
  std::sort(order_.begin() + stays, order_.end(), before);
  std::inplace_merge(order_.begin(), order_.begin() + stays, order_.end(), before);
}

bool SessionOrder::IsBefore(std::uint32_t a, std::uint32_t b) const {
  if (entries_[a].key != entries_[b].key) return entries_[a].key < entries_[b].key;
  return a < b;
}

bool SessionOrder::Matches(const SessionSnapshot& snapshot) const {
  if (filter_.empty()) return true;
  for (const std::string_view text : {snapshot.name, snapshot.helo, snapshot.sender, snapshot.recipient}) {
    if (HoldsNoCase(text, filter_)) return true;
  }
  if (snapshot.recipients != nullptr) {
    const TextList& first = snapshot.recipients->first;
    for (std::size_t i = 0; i < first.size(); ++i) {
      if (HoldsNoCase(first[i], filter_)) return true;
    }
  }
  return filter_may_be_address_ && HoldsNoCase(FormatIPAddress(snapshot.client), filter_);
}

SessionOrder::SortKey SessionOrder::KeyOf(const SessionSnapshot& snapshot) const {
  switch (sort_) {
    case SortColumn::kArrival:
    case SortColumn::kDuration:
      return {};
    case SortColumn::kHandle:
      return {static_cast<std::uint64_t>(std::int64_t{snapshot.client_handle} + 1)};
    case SortColumn::kReceived:
      return {static_cast<std::uint64_t>(snapshot.client_bytes.in)};
    case SortColumn::kSent:
      return {static_cast<std::uint64_t>(snapshot.client_bytes.out)};
    case SortColumn::kAddress:
      return AddressKey<SortKey>(snapshot.client);
    case SortColumn::kName:
      return TextKey<SortKey>(snapshot.name);
    case SortColumn::kState:
      return {static_cast<std::uint64_t>(snapshot.state)};
    case SortColumn::kHelo:
      return TextKey<SortKey>(snapshot.helo);
    case SortColumn::kSender:
      return TextKey<SortKey>(snapshot.sender);
    case SortColumn::kRecipient:
      return TextKey<SortKey>(snapshot.recipient);
  }
  return {};
}

SessionId SessionOrder::IdAt(std::size_t index, const ViewSource& source) const {
  if (frozen_) return frozen_ids_[index];
  const std::size_t place = Unreversed(index);
  return LooksAtSessions() ? entries_[order_[place]].id : source.SessionAt(place);
}

std::optional<std::size_t> SessionOrder::SourceIndex(std::size_t index, const ViewSource& source) const {
  if (frozen_) return FindSession(frozen_ids_[index], source);
  const std::size_t place = Unreversed(index);
  return LooksAtSessions() ? order_[place] : place;
}

std::optional<std::size_t> SessionOrder::IndexOf(SessionId id, const ViewSource& source) const {
  if (frozen_) {
    const auto found = std::find(frozen_ids_.begin(), frozen_ids_.end(), id);
    if (found == frozen_ids_.end()) return std::nullopt;
    return static_cast<std::size_t>(found - frozen_ids_.begin());
  }
  const std::optional<std::size_t> place = FindSession(id, source);
  if (!place || !LooksAtSessions()) return place ? std::optional(Unreversed(*place)) : place;
  const auto found = std::find(order_.begin(), order_.end(), static_cast<std::uint32_t>(*place));
  if (found == order_.end()) return std::nullopt;
  return Unreversed(static_cast<std::size_t>(found - order_.begin()));
}

}  // namespace trabex

// The list of entries behind ExpressionList.
//
// Nearly every entry of a long list is one pattern that is its own key. Such an entry is a record of eight
// bytes and its text in one common buffer, and one hash table serves three questions: whether a key is taken,
// which entry is equal to a text, and which "*" entry ends a text. For the last one keys are hashed from
// their last byte to the first: the hash of each suffix of a text then comes for free on the way to that of
// all of it, and one step more, for the "*", gives the hash of the entry's key. Only the lengths that
// suffixes have in this list are looked up.
//
// An entry with letters beyond ASCII is found by its folded pattern, in tables of its own; a text with such
// letters is folded before it is looked for. Keys stay what they are.
#include <algorithm>
#include <cassert>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "base/error.h"
#include "base/text.h"
#include "base/unicode_fold.h"
#include "match/mText.h"
#include "match/pattern.h"

namespace trabex {

namespace {

constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

// A hash of a text that is taken from its last byte to the first, without regard to case.
class BackwardHash {
 public:
  void Take(char c) { state_ = Step(state_, c); }
  std::uint32_t Value() const { return Finish(state_); }
  // The value that taking `c` would give.
  std::uint32_t ValueWith(char c) const { return Finish(Step(state_, c)); }

  static std::uint32_t Of(std::string_view text) {
    BackwardHash hash;
    for (std::size_t at = text.size(); at > 0; --at) hash.Take(text[at - 1]);
    return hash.Value();
  }

 private:
  // FNV-1a; the last multiplication spreads it to the upper bits, which choose the place in the table.
  static std::uint64_t Step(std::uint64_t state, char c) {
    return (state ^ static_cast<unsigned char>(ToLower(c))) * 1099511628211ULL;
  }
  static std::uint32_t Finish(std::uint64_t state) {
    return static_cast<std::uint32_t>((state * 0x9E3779B97F4A7C15ULL) >> 32);
  }

  std::uint64_t state_ = 14695981039346656037ULL;
};

// The numbers of the entries by the hash of their keys, open addressing with linear probing.
class HashTable {
 public:
  // The entry of that hash that `is_it(entry)` accepts, or kNone.
  template <class IsIt>
  std::uint32_t Find(std::uint32_t hash, IsIt is_it) const {
    if (slots_.empty()) return kNone;
    for (std::size_t at = Home(hash); slots_[at].entry != kNone; at = Next(at)) {
      if (slots_[at].hash == hash && is_it(slots_[at].entry)) return slots_[at].entry;
    }
    return kNone;
  }

  // Makes room for one more entry, so that Insert cannot fail.
  void Reserve() {
    // Up to three quarters full; a look-up then passes eight others or so.
    if ((count_ + 1) * 4 <= slots_.size() * 3) return;
    std::vector<Slot> old(slots_.empty() ? 8 : slots_.size() * 2);
    old.swap(slots_);
    shift_ = 32;
    for (std::size_t size = slots_.size(); size > 1; size /= 2) --shift_;
    for (const Slot& slot : old) {
      if (slot.entry != kNone) Place(slot);
    }
  }

  void Insert(std::uint32_t hash, std::uint32_t entry) {
    Place({hash, entry});
    ++count_;
  }

 private:
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t entry = kNone;
  };

  std::size_t Home(std::uint32_t hash) const { return hash >> shift_; }
  std::size_t Next(std::size_t at) const { return (at + 1) & (slots_.size() - 1); }
  void Place(const Slot& slot) {
    std::size_t at = Home(slot.hash);
    while (slots_[at].entry != kNone) at = Next(at);
    slots_[at] = slot;
  }

  std::vector<Slot> slots_;  // a power of two, 8 and more
  std::size_t count_ = 0;
  int shift_ = 32;  // leaves as many upper bits of a hash as number the slots
};

[[noreturn]] void RaiseOutOfMemory() {
  throw Error(error_number::kOutOfMemory, "mText.ExpressionList", "Out of memory");
}

}  // namespace

struct ExpressionList::Impl {
  std::size_t Count() const { return records_.size(); }
  bool HasKey(std::uint32_t hash, std::string_view key) const {
    return keys_.Find(hash, [&](std::uint32_t entry) { return EqualNoCase(Key(entry), key); }) != kNone;
  }
  void Add(std::uint32_t hash, std::string_view key, ListEntry&& entry);
  ListEntry Entry(std::size_t index) const;
  const std::vector<ListEntry>& Entries();
  void ForgetEntries() { entries_.reset(); }
  // The number of the first entry that matches, or kNone. A text with bytes from 80 on has been folded.
  std::uint32_t Find(std::string_view text) { return Search(text, true); }
  bool Contains(std::string_view text) { return Search(text, false) != kNone; }

 private:
  enum class RecordKind : std::uint32_t { kText, kSuffix, kOther, kSpecial };
  struct Record {
    std::uint32_t offset;  // into texts_; of kSpecial the index in specials_
    std::uint32_t size : 30;
    std::uint32_t kind : 2;
    RecordKind Kind() const { return static_cast<RecordKind>(kind); }
  };
  // A group, an empty entry, or one whose key is not its pattern.
  struct Special {
    std::string key;
    ListEntry entry;
  };
  // An entry that has to be tried: all of its programs must match.
  struct Candidate {
    std::uint32_t entry;
    std::uint32_t first_pattern;
    std::uint32_t count;
  };

  // Entries to be tried whose texts begin alike, in their order: most texts begin otherwise, and all of them
  // are passed by at once.
  struct Group {
    std::uint32_t first_byte;
    std::vector<Candidate> candidates;
  };

  // The first entry of each text or suffix that entries with letters beyond ASCII fold to.
  using FoldedEntries = std::unordered_map<std::string, std::uint32_t, HashNoCase, SameNoCase>;

  std::string_view Text(const Record& record) const {
    return std::string_view(texts_).substr(record.offset, record.size);
  }
  std::string_view Key(std::uint32_t entry) const {
    const Record& record = records_[entry];
    return record.Kind() == RecordKind::kSpecial ? specials_[record.offset].key : Text(record);
  }
  static RecordKind KindOf(std::string_view pattern);

  void Compile();
  void CompileRecord(std::uint32_t entry);
  void CompileFolded(std::uint32_t entry);
  bool AddPattern(std::string_view pattern);
  void AddCandidate(const Candidate& candidate);
  // Of what matches the first entry, or any one when `first` is not asked for.
  std::uint32_t Search(std::string_view text, bool first);
  std::uint32_t SearchByHash(std::string_view text, bool first) const;
  std::uint32_t SearchFolded(std::string_view text) const;
  std::uint32_t SearchGroups(std::string_view text, std::string_view folded_text, std::uint32_t found,
                             bool first) const;
  bool Matches(const Candidate& candidate, std::string_view text, std::string_view folded_text) const;

  std::string texts_;
  std::vector<Record> records_;
  std::vector<Special> specials_;
  HashTable keys_;
  std::optional<std::vector<ListEntry>> entries_;  // what Entries() has unpacked

  // Made of the first compiled_ records.
  std::size_t compiled_ = 0;
  bool has_texts_ = false;
  std::vector<bool> suffix_sizes_;  // by size: whether there is a "*" entry with a suffix of that size
  FoldedEntries folded_texts_;
  FoldedEntries folded_suffixes_;
  std::vector<std::size_t> folded_suffix_sizes_;  // each once
  std::vector<Group> groups_;
  std::unordered_map<std::uint32_t, std::uint32_t> group_of_;  // by the class of the first byte
  std::vector<Candidate> malformed_;                           // entries with a malformed pattern
  std::vector<pattern::CompiledPattern> patterns_;
  pattern::PatternStore compiled_patterns_;
};

ExpressionList::Impl::RecordKind ExpressionList::Impl::KindOf(std::string_view pattern) {
  switch (pattern::Classify(pattern)) {
    case pattern::Kind::kText:
      return RecordKind::kText;
    case pattern::Kind::kSuffix:
      return RecordKind::kSuffix;
    default:
      return RecordKind::kOther;
  }
}

void ExpressionList::Impl::Add(std::uint32_t hash, std::string_view key, ListEntry&& entry) {
  constexpr std::size_t kMaxSize = (std::size_t{1} << 30) - 1;
  const bool is_plain = !entry.is_group && entry.patterns.size() == 1 && entry.patterns.front() == key;
  if (records_.size() >= kNone - 1 ||
      (is_plain && (key.size() > kMaxSize || texts_.size() + key.size() > kNone))) {
    RaiseOutOfMemory();
  }
  keys_.Reserve();
  if (entries_) entries_->push_back(entry);
  Record record{};
  if (is_plain) {
    record.offset = static_cast<std::uint32_t>(texts_.size());
    record.size = static_cast<std::uint32_t>(key.size()) & kMaxSize;
    record.kind = static_cast<std::uint32_t>(KindOf(key)) & 3U;
    texts_.append(key);
  } else {
    record.offset = static_cast<std::uint32_t>(specials_.size());
    record.kind = static_cast<std::uint32_t>(RecordKind::kSpecial);
    specials_.push_back({std::string(key), std::move(entry)});
  }
  records_.push_back(record);
  keys_.Insert(hash, static_cast<std::uint32_t>(records_.size() - 1));
}

ListEntry ExpressionList::Impl::Entry(std::size_t index) const {
  const Record& record = records_[index];
  if (record.Kind() == RecordKind::kSpecial) return specials_[record.offset].entry;
  return {{std::string(Text(record))}, false};
}

const std::vector<ListEntry>& ExpressionList::Impl::Entries() {
  if (!entries_) {
    std::vector<ListEntry> entries;
    entries.reserve(Count());
    for (std::size_t index = 0; index < Count(); ++index) entries.push_back(Entry(index));
    entries_ = std::move(entries);
  }
  return *entries_;
}

// Whether the pattern is well-formed.
bool ExpressionList::Impl::AddPattern(std::string_view pattern) {
  if (IsAscii(pattern) || mText::IsInvalidPattern(pattern)) {
    patterns_.push_back(compiled_patterns_.Compile(pattern));
  } else {
    patterns_.push_back(compiled_patterns_.Compile(pattern::FoldPattern(pattern)));
  }
  return !patterns_.back().malformed;
}

void ExpressionList::Impl::AddCandidate(const Candidate& candidate) {
  // With very many first bytes there is nothing to be gained any more.
  constexpr std::size_t kMaxGroups = 512;
  std::uint32_t first_byte = compiled_patterns_.FirstByteClass(patterns_[candidate.first_pattern]);
  if (groups_.size() >= kMaxGroups && !group_of_.contains(first_byte)) {
    first_byte = pattern::PatternStore::kAnyFirstByte;
  }
  const auto [group, is_new] = group_of_.try_emplace(first_byte, static_cast<std::uint32_t>(groups_.size()));
  if (is_new) groups_.push_back({first_byte, {}});
  groups_[group->second].candidates.push_back(candidate);
}

void ExpressionList::Impl::CompileRecord(std::uint32_t entry) {
  const Record& record = records_[entry];
  const bool is_short_cut = record.Kind() == RecordKind::kText || record.Kind() == RecordKind::kSuffix;
  if (is_short_cut && !IsAscii(Text(record))) {
    CompileFolded(entry);
    return;
  }
  const auto first = static_cast<std::uint32_t>(patterns_.size());
  bool well_formed = true;
  switch (record.Kind()) {
    case RecordKind::kText:
      has_texts_ = true;
      return;
    case RecordKind::kSuffix:
      if (suffix_sizes_.size() < record.size) suffix_sizes_.resize(record.size);
      suffix_sizes_[record.size - 1] = true;
      return;
    case RecordKind::kOther:
      well_formed = AddPattern(Text(record));
      break;
    case RecordKind::kSpecial:
      // One without any pattern never matches.
      for (const std::string& pattern : specials_[record.offset].entry.patterns) {
        well_formed = AddPattern(pattern) && well_formed;
      }
      break;
  }
  const auto count = static_cast<std::uint32_t>(patterns_.size() - first);
  if (count == 0) return;
  const Candidate candidate{entry, first, count};
  if (well_formed) {
    AddCandidate(candidate);
  } else {
    malformed_.push_back(candidate);
  }
}

// A text or a suffix with letters beyond ASCII.
void ExpressionList::Impl::CompileFolded(std::uint32_t entry) {
  const std::string folded = pattern::FoldPattern(Text(records_[entry]));
  switch (pattern::Classify(folded)) {
    case pattern::Kind::kText:
      folded_texts_.try_emplace(folded, entry);
      break;
    case pattern::Kind::kSuffix: {
      const std::size_t size = folded.size() - 1;
      folded_suffixes_.try_emplace(folded.substr(1), entry);
      if (std::find(folded_suffix_sizes_.begin(), folded_suffix_sizes_.end(), size) ==
          folded_suffix_sizes_.end()) {
        folded_suffix_sizes_.push_back(size);
      }
      break;
    }
    case pattern::Kind::kOther: {
      const auto pattern = static_cast<std::uint32_t>(patterns_.size());
      patterns_.push_back(compiled_patterns_.Compile(folded));
      AddCandidate({entry, pattern, 1});
      break;
    }
  }
}

void ExpressionList::Impl::Compile() {
  if (compiled_ == Count()) return;
  const bool is_first_time = compiled_ == 0;
  for (; compiled_ < Count(); ++compiled_) CompileRecord(static_cast<std::uint32_t>(compiled_));
  // The list of a configuration is complete by now. Later growth is left its room, or a list that grows and
  // is matched by turns would be copied at each turn.
  if (!is_first_time) return;
  texts_.shrink_to_fit();
  records_.shrink_to_fit();
  for (Group& group : groups_) group.candidates.shrink_to_fit();
  patterns_.shrink_to_fit();
  compiled_patterns_.Shrink();
}

std::uint32_t ExpressionList::Impl::SearchByHash(std::string_view text, bool first) const {
  std::uint32_t found = kNone;
  BackwardHash hash;
  for (std::size_t size = 0; size <= text.size(); ++size) {
    if (size < suffix_sizes_.size() && suffix_sizes_[size]) {
      const std::string_view suffix = text.substr(text.size() - size);
      found = std::min(found, keys_.Find(hash.ValueWith('*'), [&](std::uint32_t entry) {
        const Record& record = records_[entry];
        return record.Kind() == RecordKind::kSuffix && EqualNoCase(Text(record).substr(1), suffix);
      }));
      if (found != kNone && !first) return found;
    }
    if (size >= suffix_sizes_.size() && !has_texts_) return found;
    if (size < text.size()) hash.Take(text[text.size() - size - 1]);
  }
  if (!has_texts_) return found;
  return std::min(found, keys_.Find(hash.Value(), [&](std::uint32_t entry) {
    const Record& record = records_[entry];
    return record.Kind() == RecordKind::kText && EqualNoCase(Text(record), text);
  }));
}

std::uint32_t ExpressionList::Impl::SearchFolded(std::string_view text) const {
  std::uint32_t found = kNone;
  const auto look_up = [&found](const FoldedEntries& entries, std::string_view what) {
    const auto entry = entries.find(what);
    if (entry != entries.end()) found = std::min(found, entry->second);
  };
  look_up(folded_texts_, text);
  for (const std::size_t size : folded_suffix_sizes_) {
    if (size <= text.size()) look_up(folded_suffixes_, text.substr(text.size() - size));
  }
  return found;
}

// `found` has been found so far; what comes behind it is not looked at.
std::uint32_t ExpressionList::Impl::SearchGroups(std::string_view text, std::string_view folded_text,
                                                 std::uint32_t found, bool first) const {
  for (const Group& group : groups_) {
    if (!compiled_patterns_.BeginsWith(folded_text, group.first_byte)) continue;
    for (const Candidate& candidate : group.candidates) {
      if (candidate.entry > found) break;
      if (!Matches(candidate, text, folded_text)) continue;
      found = candidate.entry;
      if (!first) return found;
      break;
    }
  }
  return found;
}

bool ExpressionList::Impl::Matches(const Candidate& candidate, std::string_view text,
                                   std::string_view folded_text) const {
  for (std::uint32_t at = 0; at < candidate.count; ++at) {
    const auto& pattern = patterns_[candidate.first_pattern + at];
    // LikeText raises the error of a malformed pattern.
    const bool matches = pattern.malformed ? mText::LikeText(text, Entry(candidate.entry).patterns[at])
                                           : compiled_patterns_.Matches(pattern, folded_text);
    if (!matches) return false;
  }
  return true;
}

std::uint32_t ExpressionList::Impl::Search(std::string_view text, bool first) {
  Compile();
  // Whether an entry that raises comes first matters in any case.
  first = first || !malformed_.empty();
  std::uint32_t found = SearchByHash(text, first);
  if (!folded_texts_.empty() || !folded_suffixes_.empty()) found = std::min(found, SearchFolded(text));
  if ((found != kNone && !first) || (groups_.empty() && malformed_.empty())) return found;
  const std::string folded_text = ToLower(text);
  found = SearchGroups(text, folded_text, found, first);
  for (const Candidate& candidate : malformed_) {
    if (candidate.entry > found) break;
    if (Matches(candidate, text, folded_text)) return candidate.entry;
  }
  return found;
}

ExpressionList::ExpressionList() = default;
ExpressionList::~ExpressionList() = default;
ExpressionList::ExpressionList(const ExpressionList&) = default;
ExpressionList& ExpressionList::operator=(const ExpressionList&) = default;
ExpressionList::ExpressionList(ExpressionList&&) noexcept = default;
ExpressionList& ExpressionList::operator=(ExpressionList&&) noexcept = default;

void ExpressionList::Add(std::string_view key, ListEntry entry) {
  const std::uint32_t hash = BackwardHash::Of(key);
  if (impl_ && impl_->HasKey(hash, key)) {
    throw Error(error_number::kDuplicateKey, "mText.ExpressionList",
                "This key is already associated with an element of this collection");
  }
  if (!impl_) {
    impl_ = std::make_shared<Impl>();
  } else if (impl_.use_count() > 1) {
    impl_ = std::make_shared<Impl>(*impl_);
    impl_->ForgetEntries();
  }
  impl_->Add(hash, key, std::move(entry));
}

ListEntry ExpressionList::Entry(std::size_t index) const {
  assert(index < Count());
  return impl_->Entry(index);
}

const std::vector<ListEntry>& ExpressionList::Entries() const {
  static const std::vector<ListEntry> kEmpty;
  return impl_ ? impl_->Entries() : kEmpty;
}

std::size_t ExpressionList::Count() const {
  return impl_ ? impl_->Count() : 0;
}

bool ExpressionList::Contains(std::string_view text) const {
  return impl_ && (IsAscii(text) ? impl_->Contains(text) : impl_->Contains(FoldText(text)));
}

std::optional<std::size_t> ExpressionList::Find(std::string_view text) const {
  if (!impl_) return std::nullopt;
  const std::uint32_t found = IsAscii(text) ? impl_->Find(text) : impl_->Find(FoldText(text));
  if (found == kNone) return std::nullopt;
  return found;
}

}  // namespace trabex

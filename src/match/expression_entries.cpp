#include "match/expression_entries.h"

#include <limits>
#include <utility>

#include "base/error.h"
#include "match/pattern.h"

namespace trabex {

namespace {

constexpr std::size_t kMaxText = (std::size_t{1} << 30) - 1;
constexpr std::size_t kMaxTexts = std::numeric_limits<std::uint32_t>::max();

ExpressionEntries::Kind KindOfPattern(std::string_view pattern) {
  switch (pattern::Classify(pattern)) {
    case pattern::Kind::kText:
      return ExpressionEntries::Kind::kText;
    case pattern::Kind::kSuffix:
      return ExpressionEntries::Kind::kSuffix;
    default:
      return ExpressionEntries::Kind::kPattern;
  }
}

}  // namespace

bool ExpressionEntries::HasKey(std::uint32_t hash, std::string_view key) const {
  return index_.Find(hash, [&](std::uint32_t entry) { return EqualNoCase(Key(entry), key); }) != kNone;
}

void ExpressionEntries::Add(std::uint32_t hash, std::string_view key, ListEntry&& entry) {
  const bool is_plain = !entry.is_group && entry.patterns.size() == 1 && entry.patterns.front() == key;
  if (records_.size() >= kNone - 1 ||
      (is_plain && (key.size() > kMaxText || texts_.size() + key.size() > kMaxTexts))) {
    throw Error(error_number::kOutOfMemory, "mText.ExpressionList", "Out of memory");
  }
  index_.Reserve(records_.size() + 1);
  if (unpacked_) unpacked_->push_back(entry);
  Record record{};
  if (is_plain) {
    record.offset = static_cast<std::uint32_t>(texts_.size());
    record.size = static_cast<std::uint32_t>(key.size()) & kMaxText;
    record.kind = static_cast<std::uint32_t>(KindOfPattern(key)) & 3U;
    texts_.append(key);
  } else {
    record.offset = static_cast<std::uint32_t>(specials_.size());
    record.kind = static_cast<std::uint32_t>(Kind::kSpecial);
    specials_.push_back({std::string(key), std::move(entry)});
  }
  records_.push_back(record);
  index_.Add(hash, static_cast<std::uint32_t>(records_.size() - 1));
}

ListEntry ExpressionEntries::Entry(std::size_t index) const {
  const Record& record = records_[index];
  if (record.GetKind() == Kind::kSpecial) return specials_[record.offset].entry;
  return {{std::string(Text(record))}, false};
}

void ExpressionEntries::AppendEntryText(std::size_t index, std::string& out) const {
  const Record& record = records_[index];
  if (record.GetKind() != Kind::kSpecial) {
    out.append(Text(record));
    return;
  }
  const ListEntry& entry = specials_[record.offset].entry;
  if (entry.is_group) out += '(';
  for (std::size_t i = 0; i < entry.patterns.size(); ++i) {
    if (i > 0) out += ' ';
    out.append(entry.patterns[i]);
  }
  if (entry.is_group) out += ')';
}

const std::vector<ListEntry>& ExpressionEntries::Unpacked() {
  if (!unpacked_) {
    std::vector<ListEntry> entries;
    entries.reserve(Count());
    for (std::size_t index = 0; index < Count(); ++index) entries.push_back(Entry(index));
    unpacked_ = std::move(entries);
  }
  return *unpacked_;
}

void ExpressionEntries::Shrink() {
  texts_.shrink_to_fit();
  records_.shrink_to_fit();
}

}  // namespace trabex

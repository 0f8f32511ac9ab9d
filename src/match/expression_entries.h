// The entries of an expression list as they were added, and the index of their keys.
//
// Nearly every entry of a long list is one pattern that is its own key. Such an entry is a record of eight
// bytes and its text in one common buffer, and one index serves three questions: whether a key is taken,
// which entry is equal to a text, and which "*" entry is a suffix of a text. For the last one keys are hashed
// from their last byte to the first: the hash of each suffix of a text then comes for free on the way to that
// of all of it, and one step more, for the "*", gives the hash of the entry's key.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/hash_index.h"
#include "base/text.h"
#include "match/mText.h"

namespace trabex {

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
  // FNV-1a; the last multiplication spreads it to the upper bits, which choose the place in the index.
  static std::uint64_t Step(std::uint64_t state, char c) {
    return (state ^ static_cast<unsigned char>(ToLower(c))) * 1099511628211ULL;
  }
  static std::uint32_t Finish(std::uint64_t state) {
    return static_cast<std::uint32_t>((state * 0x9E3779B97F4A7C15ULL) >> 32);
  }

  std::uint64_t state_ = 14695981039346656037ULL;
};

// Entries are numbered from 0 in the order in which they were added.
class ExpressionEntries {
 public:
  static constexpr std::uint32_t kNone = HashIndex::kNone;

  enum class Kind : std::uint32_t {
    kText,     // one pattern without wildcards, which is its own key
    kSuffix,   // likewise "*" and plain text
    kPattern,  // likewise any other
    kSpecial,  // a group, an empty entry, or one whose key is not its pattern
  };

  std::size_t Count() const { return records_.size(); }
  // `hash` is that of the key, here and below.
  bool HasKey(std::uint32_t hash, std::string_view key) const;
  // Raises 7 "Out of memory" (source "mText.ExpressionList") when the texts reach 4 GB; nothing is changed
  // then.
  void Add(std::uint32_t hash, std::string_view key, ListEntry&& entry);

  ListEntry Entry(std::size_t index) const;
  // As in mText.h.
  void AppendEntryText(std::size_t index, std::string& out) const;
  // All of them, unpacked at the first call and kept until ForgetUnpacked; valid until then, or until one is
  // added.
  const std::vector<ListEntry>& Unpacked();
  void ForgetUnpacked() { unpacked_.reset(); }

  Kind KindOf(std::uint32_t entry) const { return records_[entry].GetKind(); }
  // The pattern of an entry that is not kSpecial.
  std::string_view Text(std::uint32_t entry) const { return Text(records_[entry]); }
  // The patterns of one that is.
  const std::vector<std::string>& Patterns(std::uint32_t entry) const {
    return specials_[records_[entry].offset].entry.patterns;
  }
  std::size_t PatternCount(std::uint32_t entry) const {
    return KindOf(entry) == Kind::kSpecial ? Patterns(entry).size() : 1;
  }

  // As HashIndex::Prefetch, for the next two.
  void Prefetch(std::uint32_t hash) const { index_.Prefetch(hash); }
  // The entry of kind kText that is `text`, or kNone.
  std::uint32_t FindText(std::uint32_t hash, std::string_view text) const {
    return index_.Find(hash, [&](std::uint32_t entry) {
      const Record& record = records_[entry];
      return record.GetKind() == Kind::kText && EqualNoCase(Text(record), text);
    });
  }
  // The entry of kind kSuffix that is "*" and `suffix`, or kNone.
  std::uint32_t FindSuffix(std::uint32_t hash, std::string_view suffix) const {
    return index_.Find(hash, [&](std::uint32_t entry) {
      const Record& record = records_[entry];
      return record.GetKind() == Kind::kSuffix && EqualNoCase(Text(record).substr(1), suffix);
    });
  }

  // Gives back room that was kept for more entries.
  void Shrink();

 private:
  struct Record {
    std::uint32_t offset;  // into texts_; of kSpecial the index in specials_
    std::uint32_t size : 30;
    std::uint32_t kind : 2;
    Kind GetKind() const { return static_cast<Kind>(kind); }
  };
  struct Special {
    std::string key;
    ListEntry entry;
  };

  std::string_view Text(const Record& record) const {
    return std::string_view(texts_).substr(record.offset, record.size);
  }
  std::string_view Key(std::uint32_t entry) const {
    const Record& record = records_[entry];
    return record.GetKind() == Kind::kSpecial ? specials_[record.offset].key : Text(record);
  }

  std::string texts_;
  std::vector<Record> records_;
  std::vector<Special> specials_;
  HashIndex index_;  // by key
  std::optional<std::vector<ListEntry>> unpacked_;
};

}  // namespace trabex

// What the entries of an expression list are compiled into, so that a text is looked for among them in less
// than a scan.
//
// Texts and suffixes are found by hash, with the index of the entries themselves; only the lengths that
// suffixes have in this list are looked up. An entry with letters beyond ASCII is found by its folded
// pattern, in tables of its own. All other entries are candidates: their patterns are compiled once, and of those
// with a plain text in them only the ones whose text may be in the one that is looked for are tried.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/text.h"
#include "match/expression_entries.h"
#include "match/literal_index.h"
#include "match/pattern.h"

namespace trabex {

// An entry that has to be tried: all of its patterns must match.
struct CandidateEntry {
  std::uint32_t entry;
  std::uint32_t first_pattern;  // its patterns have this number and the next ones
};

// Candidates in their order whose texts begin with the same class of bytes: most texts begin otherwise, and
// all of them are passed by at once.
struct CandidateGroup {
  std::uint32_t first_byte_class;
  std::vector<CandidateEntry> candidates;
};

class CompiledExpressions {
 public:
  // Compiles the entries that were added since the last time. Raises what ExpressionList::Add raises when the
  // compiled patterns reach 4 GB.
  void CompileNew(const ExpressionEntries& entries);
  // Whether CompileNew has come to the last of `count` entries.
  bool Covers(std::size_t count) const { return compiled_ == count; }

  bool HasTexts() const { return has_texts_; }
  // Whether there is an entry of kind kSuffix with a suffix of `size` bytes, and whether there may be of
  // more.
  bool HasSuffixOf(std::size_t size) const { return size < suffix_sizes_.size() && suffix_sizes_[size]; }
  bool HasSuffixFrom(std::size_t size) const { return size < suffix_sizes_.size(); }

  bool HasFolded() const { return !folded_texts_.empty() || !folded_suffixes_.empty(); }
  // The first entry whose folded pattern `folded_text` is, or has as its suffix; kNone when there is none.
  std::uint32_t FindFolded(std::string_view folded_text) const;

  bool HasCandidates() const { return !groups_.empty() || !indexed_.empty() || !malformed_.empty(); }
  // Calls `visit(candidate)` for each candidate that is found by a piece of its plain text, in no order, until
  // it returns false.
  template <class Visit>
  void ForEachIndexed(std::string_view folded_text, Visit visit) const {
    index_.ForEachIn(folded_text, [&](std::uint32_t number) { return visit(indexed_[number]); });
  }
  // The candidates without plain text, and the first ones of all.
  const std::vector<CandidateGroup>& Groups() const { return groups_; }
  // Candidates with a malformed pattern, which raises an error when it is tried.
  const std::vector<CandidateEntry>& Malformed() const { return malformed_; }
  bool MayMatch(const CandidateGroup& group, std::string_view folded_text) const {
    return store_.BeginsWith(folded_text, group.first_byte_class);
  }
  bool IsMalformed(std::uint32_t pattern) const { return store_.IsMalformed(pattern); }
  // Whether `folded_text` matches the pattern, which is not malformed.
  bool Matches(std::uint32_t pattern, std::string_view folded_text) const {
    return store_.Matches(pattern, folded_text);
  }

 private:
  // The first entry of each text or suffix that entries with letters beyond ASCII fold to.
  using FoldedEntries = std::unordered_map<std::string, std::uint32_t, HashNoCase, SameNoCase>;

  void CompileEntry(const ExpressionEntries& entries, std::uint32_t entry);
  void CompileFolded(std::string_view pattern, std::uint32_t entry);
  bool AddPattern(std::string_view pattern);
  void AddCandidate(const CandidateEntry& candidate);
  bool AddToIndex(const CandidateEntry& candidate);
  void Shrink();

  std::size_t compiled_ = 0;  // entries
  bool has_texts_ = false;
  std::vector<bool> suffix_sizes_;  // by size
  FoldedEntries folded_texts_;
  FoldedEntries folded_suffixes_;
  std::vector<std::size_t> folded_suffix_sizes_;  // each once
  std::vector<CandidateGroup> groups_;
  std::unordered_map<std::uint32_t, std::uint32_t> group_of_;  // by the class of the first byte
  std::vector<CandidateEntry> malformed_;
  LiteralIndex index_;
  std::vector<CandidateEntry> indexed_;  // by their numbers in index_
  std::uint32_t unindexed_ = 0;          // candidates in groups that could be indexed
  pattern::PatternStore store_;
};

}  // namespace trabex

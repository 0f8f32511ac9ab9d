#include "match/compiled_expressions.h"

#include <algorithm>

#include "base/unicode_fold.h"
#include "match/mText.h"

namespace trabex {

void CompiledExpressions::CompileNew(const ExpressionEntries& entries) {
  const bool is_first_time = compiled_ == 0;
  for (; compiled_ < entries.Count(); ++compiled_) {
    CompileEntry(entries, static_cast<std::uint32_t>(compiled_));
  }
  // The list of a configuration is complete by now. Later growth is left its room, or a list that grows and
  // is matched by turns would be copied at each turn.
  if (is_first_time) Shrink();
}

std::uint32_t CompiledExpressions::FindFolded(std::string_view folded_text) const {
  std::uint32_t found = ExpressionEntries::kNone;
  const auto look_up = [&found](const FoldedEntries& entries, std::string_view what) {
    const auto entry = entries.find(what);
    if (entry != entries.end()) found = std::min(found, entry->second);
  };
  look_up(folded_texts_, folded_text);
  for (const std::size_t size : folded_suffix_sizes_) {
    if (size <= folded_text.size()) look_up(folded_suffixes_, folded_text.substr(folded_text.size() - size));
  }
  return found;
}

void CompiledExpressions::CompileEntry(const ExpressionEntries& entries, std::uint32_t entry) {
  using Kind = ExpressionEntries::Kind;
  const Kind kind = entries.KindOf(entry);
  const bool is_found_by_hash = kind == Kind::kText || kind == Kind::kSuffix;
  if (is_found_by_hash && !IsAscii(entries.Text(entry))) {
    CompileFolded(entries.Text(entry), entry);
    return;
  }
  const auto first = static_cast<std::uint32_t>(patterns_.size());
  bool well_formed = true;
  switch (kind) {
    case Kind::kText:
      has_texts_ = true;
      return;
    case Kind::kSuffix: {
      const std::size_t size = entries.Text(entry).size() - 1;  // without the "*"
      if (suffix_sizes_.size() <= size) suffix_sizes_.resize(size + 1);
      suffix_sizes_[size] = true;
      return;
    }
    case Kind::kPattern:
      well_formed = AddPattern(entries.Text(entry));
      break;
    case Kind::kSpecial:
      // One without any pattern never matches.
      for (const std::string& pattern : entries.Patterns(entry)) {
        well_formed = AddPattern(pattern) && well_formed;
      }
      break;
  }
  const auto count = static_cast<std::uint32_t>(patterns_.size() - first);
  if (count == 0) return;
  const CandidateEntry candidate{entry, first, count};
  if (well_formed) {
    AddCandidate(candidate);
  } else {
    malformed_.push_back(candidate);
  }
}

// `pattern` is a text or a suffix with letters beyond ASCII.
void CompiledExpressions::CompileFolded(std::string_view pattern, std::uint32_t entry) {
  const std::string folded = pattern::FoldPattern(pattern);
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
      const auto compiled = static_cast<std::uint32_t>(patterns_.size());
      patterns_.push_back(store_.Compile(folded));
      AddCandidate({entry, compiled, 1});
      break;
    }
  }
}

// Whether the pattern is well-formed.
bool CompiledExpressions::AddPattern(std::string_view pattern) {
  if (IsAscii(pattern) || mText::IsInvalidPattern(pattern)) {
    patterns_.push_back(store_.Compile(pattern));
  } else {
    patterns_.push_back(store_.Compile(pattern::FoldPattern(pattern)));
  }
  return !patterns_.back().malformed;
}

void CompiledExpressions::AddCandidate(const CandidateEntry& candidate) {
  // With very many groups there is nothing to be gained any more.
  constexpr std::size_t kMaxGroups = 512;
  std::uint32_t first_byte_class = store_.FirstByteClass(patterns_[candidate.first_pattern]);
  if (groups_.size() >= kMaxGroups && !group_of_.contains(first_byte_class)) {
    first_byte_class = pattern::PatternStore::kAnyFirstByte;
  }
  const auto [group, is_new] =
      group_of_.try_emplace(first_byte_class, static_cast<std::uint32_t>(groups_.size()));
  if (is_new) groups_.push_back({first_byte_class, {}});
  groups_[group->second].candidates.push_back(candidate);
}

void CompiledExpressions::Shrink() {
  for (CandidateGroup& group : groups_) group.candidates.shrink_to_fit();
  patterns_.shrink_to_fit();
  store_.Shrink();
}

}  // namespace trabex

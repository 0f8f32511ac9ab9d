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
  const std::uint32_t first = store_.Count();
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
  if (store_.Count() == first) return;
  const CandidateEntry candidate{entry, first};
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
    case pattern::Kind::kOther:
      AddCandidate({entry, store_.Compile(folded)});
      break;
  }
}

// Whether the pattern is well-formed.
bool CompiledExpressions::AddPattern(std::string_view pattern) {
  const bool as_written = IsAscii(pattern) || mText::IsInvalidPattern(pattern);
  return !store_.IsMalformed(store_.Compile(as_written ? pattern : pattern::FoldPattern(pattern)));
}

// `candidate` is the one that was compiled last.
void CompiledExpressions::AddCandidate(const CandidateEntry& candidate) {
  if (AddToIndex(candidate)) return;
  // With very many groups there is nothing to be gained any more.
  constexpr std::size_t kMaxGroups = 512;
  std::uint32_t first_byte_class = store_.FirstByteClass(candidate.first_pattern);
  if (groups_.size() >= kMaxGroups && !group_of_.contains(first_byte_class)) {
    first_byte_class = pattern::PatternStore::kAnyFirstByte;
  }
  const auto [group, is_new] =
      group_of_.try_emplace(first_byte_class, static_cast<std::uint32_t>(groups_.size()));
  if (is_new) groups_.push_back({first_byte_class, {}});
  groups_[group->second].candidates.push_back(candidate);
}

bool CompiledExpressions::AddToIndex(const CandidateEntry& candidate) {
  // So many are tried in the time that the look-up takes.
  constexpr std::uint32_t kMaxUnindexed = 16;
  std::vector<std::string_view> texts;
  for (std::uint32_t pattern = candidate.first_pattern; pattern < store_.Count(); ++pattern) {
    store_.AppendRequiredTexts(pattern, LiteralIndex::kMinPiece, texts);
  }
  if (texts.empty()) return false;
  if (unindexed_ < kMaxUnindexed) {
    ++unindexed_;
    return false;
  }
  indexed_.push_back(candidate);
  index_.Add(texts);
  return true;
}

void CompiledExpressions::Shrink() {
  for (CandidateGroup& group : groups_) group.candidates.shrink_to_fit();
  indexed_.shrink_to_fit();
  index_.Shrink();
  store_.Shrink();
}

}  // namespace trabex

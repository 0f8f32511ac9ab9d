// How a list is matched: by hash as far as possible, then the candidates that come before what was found.
#include <algorithm>
#include <array>
#include <cassert>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/error.h"
#include "base/text.h"
#include "base/unicode_fold.h"
#include "match/compiled_expressions.h"
#include "match/expression_entries.h"
#include "match/mText.h"

namespace trabex {

namespace {

constexpr std::uint32_t kNone = ExpressionEntries::kNone;

}  // namespace

struct ExpressionList::Impl {
  // The number of the first entry that matches, or, when `first` is not asked for, of any one; kNone when
  // there is none. A `text` with bytes from 80 on has been folded.
  std::uint32_t Search(std::string_view text, bool first);

  ExpressionEntries entries;

 private:
  void Compile();
  std::uint32_t SearchByHash(std::string_view text, bool first) const;
  std::uint32_t SearchGroups(std::string_view text, std::string_view folded_text, std::uint32_t found,
                             bool first) const;
  std::uint32_t SearchIndexed(std::string_view text, std::string_view folded_text, std::uint32_t found,
                              bool first) const;
  bool Matches(const CandidateEntry& candidate, std::string_view text, std::string_view folded_text) const;

  CompiledExpressions compiled_;
};

std::uint32_t ExpressionList::Impl::Search(std::string_view text, bool first) {
  Compile();
  // Whether an entry that raises comes first matters in any case.
  first = first || !compiled_.Malformed().empty();
  std::uint32_t found = SearchByHash(text, first);
  if (compiled_.HasFolded()) found = std::min(found, compiled_.FindFolded(text));
  if ((found != kNone && !first) || !compiled_.HasCandidates()) return found;
  const std::string folded_text = ToLower(text);
  found = SearchGroups(text, folded_text, found, first);
  if (found == kNone || first) found = SearchIndexed(text, folded_text, found, first);
  for (const CandidateEntry& candidate : compiled_.Malformed()) {
    if (candidate.entry > found) break;
    if (Matches(candidate, text, folded_text)) return candidate.entry;
  }
  return found;
}

void ExpressionList::Impl::Compile() {
  if (compiled_.Covers(entries.Count())) return;
  const bool is_first_time = compiled_.Covers(0);
  compiled_.CompileNew(entries);
  if (is_first_time) entries.Shrink();
}

std::uint32_t ExpressionList::Impl::SearchByHash(std::string_view text, bool first) const {
  struct Suffix {
    std::uint32_t hash;
    std::size_t size;
  };
  std::array<Suffix, 32> prefetched;
  std::size_t waiting = 0;
  std::uint32_t found = kNone;
  const auto look_up = [&] {
    for (std::size_t at = 0; at < waiting; ++at) {
      const auto [hash, size] = prefetched[at];
      found = std::min(found, entries.FindSuffix(hash, text.substr(text.size() - size)));
    }
    waiting = 0;
    return found != kNone && !first;
  };
  BackwardHash hash;
  for (std::size_t size = 0; size <= text.size(); ++size) {
    if (compiled_.HasSuffixOf(size)) {
      prefetched[waiting] = {hash.ValueWith('*'), size};
      entries.Prefetch(prefetched[waiting].hash);
      if (++waiting == prefetched.size() && look_up()) return found;
    }
    if (!compiled_.HasSuffixFrom(size) && !compiled_.HasTexts()) break;
    if (size < text.size()) hash.Take(text[text.size() - size - 1]);
  }
  if (compiled_.HasTexts()) entries.Prefetch(hash.Value());
  if (look_up() || !compiled_.HasTexts()) return found;
  return std::min(found, entries.FindText(hash.Value(), text));
}

// `found` is the first entry found so far; those after it are not tried.
std::uint32_t ExpressionList::Impl::SearchGroups(std::string_view text, std::string_view folded_text,
                                                 std::uint32_t found, bool first) const {
  for (const CandidateGroup& group : compiled_.Groups()) {
    if (!compiled_.MayMatch(group, folded_text)) continue;
    for (const CandidateEntry& candidate : group.candidates) {
      if (candidate.entry > found) break;
      if (!Matches(candidate, text, folded_text)) continue;
      found = candidate.entry;
      if (!first) return found;
      break;
    }
  }
  return found;
}

std::uint32_t ExpressionList::Impl::SearchIndexed(std::string_view text, std::string_view folded_text,
                                                  std::uint32_t found, bool first) const {
  compiled_.ForEachIndexed(folded_text, [&](const CandidateEntry& candidate) {
    if (candidate.entry > found || !Matches(candidate, text, folded_text)) return true;
    found = candidate.entry;
    return first;
  });
  return found;
}

bool ExpressionList::Impl::Matches(const CandidateEntry& candidate, std::string_view text,
                                   std::string_view folded_text) const {
  const auto matches = [&](std::uint32_t at) {
    const std::uint32_t pattern = candidate.first_pattern + at;
    // LikeText raises the error of a malformed pattern.
    return compiled_.IsMalformed(pattern) ? mText::LikeText(text, entries.Entry(candidate.entry).patterns[at])
                                          : compiled_.Matches(pattern, folded_text);
  };
  // Most fail by the first one.
  if (!matches(0)) return false;
  const std::size_t count = entries.PatternCount(candidate.entry);
  for (std::uint32_t at = 1; at < count; ++at) {
    if (!matches(at)) return false;
  }
  return true;
}

ExpressionList::ExpressionList() = default;
ExpressionList::~ExpressionList() = default;
ExpressionList::ExpressionList(const ExpressionList&) = default;
ExpressionList& ExpressionList::operator=(const ExpressionList&) = default;
ExpressionList::ExpressionList(ExpressionList&&) noexcept = default;
ExpressionList& ExpressionList::operator=(ExpressionList&&) noexcept = default;

void ExpressionList::Add(std::string_view key, ListEntry entry) {
  const std::uint32_t hash = BackwardHash::Of(key);
  if (impl_ && impl_->entries.HasKey(hash, key)) {
    throw Error(error_number::kDuplicateKey, "mText.ExpressionList",
                "This key is already associated with an element of this collection");
  }
  if (!impl_) {
    impl_ = std::make_shared<Impl>();
  } else if (impl_.use_count() > 1) {
    impl_ = std::make_shared<Impl>(*impl_);
    impl_->entries.ForgetUnpacked();
  }
  impl_->entries.Add(hash, key, std::move(entry));
}

ListEntry ExpressionList::Entry(std::size_t index) const {
  assert(index < Count());
  return impl_->entries.Entry(index);
}

void ExpressionList::AppendEntryText(std::size_t index, std::string& out) const {
  assert(index < Count());
  impl_->entries.AppendEntryText(index, out);
}

const std::vector<ListEntry>& ExpressionList::Entries() const {
  static const std::vector<ListEntry> kEmpty;
  return impl_ ? impl_->entries.Unpacked() : kEmpty;
}

std::size_t ExpressionList::Count() const {
  return impl_ ? impl_->entries.Count() : 0;
}

bool ExpressionList::Contains(std::string_view text) const {
  if (!impl_) return false;
  return impl_->Search(IsAscii(text) ? text : std::string_view(FoldText(text)), false) != kNone;
}

std::optional<std::size_t> ExpressionList::Find(std::string_view text) const {
  if (!impl_) return std::nullopt;
  const std::uint32_t found = impl_->Search(IsAscii(text) ? text : std::string_view(FoldText(text)), true);
  if (found == kNone) return std::nullopt;
  return found;
}

}  // namespace trabex

#include "base/text_counts.h"

#include <algorithm>

namespace trabex {

namespace {

constexpr std::size_t kBlockBytes = std::size_t{64} * 1024;

}  // namespace

std::uint32_t& TextCounts::Of(std::uint64_t hash, std::string_view text) {
  const std::uint32_t known = index_.Find(hash, [&](std::uint32_t number) {
    return entries_[number].hash == hash && entries_[number].text == text;
  });
  if (known != KeyIndex::kNone) return entries_[known].count;
  const auto number = static_cast<std::uint32_t>(entries_.size());
  entries_.push_back({Keep(text), hash, 0});
  index_.Add(hash, number);
  return entries_.back().count;
}

std::string_view TextCounts::Keep(std::string_view text) {
  if (text.empty()) return {};
  if (text.size() > kBlockBytes) {
    // In a block of its own, before the one that still has room.
    auto own = std::make_unique<char[]>(text.size());
    char* const place = own.get();
    std::copy(text.begin(), text.end(), place);
    blocks_.insert(blocks_.empty() ? blocks_.end() : blocks_.end() - 1, std::move(own));
    return {place, text.size()};
  }
  if (text.size() > room_) {
    blocks_.push_back(std::make_unique<char[]>(kBlockBytes));
    room_ = kBlockBytes;
  }
  char* const place = blocks_.back().get() + (kBlockBytes - room_);
  std::copy(text.begin(), text.end(), place);
  room_ -= text.size();
  return {place, text.size()};
}

}  // namespace trabex

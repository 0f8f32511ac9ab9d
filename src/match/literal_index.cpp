#include "match/literal_index.h"

#include <cstring>

namespace trabex {

namespace {

// Of one pattern so many pieces of a size are compared, spread over its texts.
constexpr std::size_t kMaxCompared = 16;
// So many patterns under a piece are counted when it has to be done one by one; beyond that there are taken to
// be very many.
constexpr std::size_t kMaxCounted = 16;
constexpr std::size_t kVeryMany = 1000;

template <std::size_t size>
std::uint32_t HashOf(const char* piece) {
  std::uint64_t bytes = 0;
  std::memcpy(&bytes, piece, size);
  bytes = (bytes + size) * 0x9E3779B97F4A7C15ULL;
  bytes ^= bytes >> 32;
  return static_cast<std::uint32_t>((bytes * 0xD6E8FEB86659FD93ULL) >> 32);
}

std::uint32_t HashOf(const char* piece, std::size_t size) {
  return size == 8 ? HashOf<8>(piece) : size == 4 ? HashOf<4>(piece) : HashOf<2>(piece);
}

std::size_t PiecesIn(std::string_view text, std::size_t size) {
  return text.size() < size ? 0 : text.size() - size + 1;
}

}  // namespace

bool LiteralIndex::Add(std::span<const std::string_view> texts) {
  Choice best;
  for (std::size_t size = 0; size < kSizes.size() && best.weight > kSizes[size].weight; ++size) {
    Compare(texts, size, best);
  }
  if (best.weight == Choice().weight) return false;
  const auto number = static_cast<std::uint32_t>(next_.size());
  const std::uint32_t first = FirstUnder(best.hash);
  next_.push_back(HashIndex::kNone);
  if (!is_shrunk_) count_.push_back(1);
  if (first == HashIndex::kNone) {
    firsts_.Add(best.hash, number);
  } else {
    // After the first, so that the index stays as it is.
    next_[number] = next_[first];
    next_[first] = number;
    if (!is_shrunk_) ++count_[first];
  }
  is_used_[best.size] = true;
  return true;
}

void LiteralIndex::Shrink() {
  next_.shrink_to_fit();
  count_ = std::vector<std::uint32_t>();  // gives its room back, as {} would not
  is_shrunk_ = true;
}

std::size_t LiteralIndex::CountUnder(std::uint32_t hash) const {
  const std::uint32_t first = FirstUnder(hash);
  if (first != HashIndex::kNone && !is_shrunk_) return count_[first];
  std::size_t count = 0;
  for (std::uint32_t at = first; at != HashIndex::kNone && count < kMaxCounted; at = next_[at]) ++count;
  return count < kMaxCounted ? count : kVeryMany;
}

// Takes the piece of that size with the least weight if that is less than the best one's.
void LiteralIndex::Compare(std::span<const std::string_view> texts, std::size_t size, Choice& best) const {
  const auto [bytes, weight] = kSizes[size];
  std::size_t pieces = 0;
  for (const std::string_view text : texts) pieces += PiecesIn(text, bytes);
  const std::size_t step = (pieces + kMaxCompared - 1) / kMaxCompared;
  std::size_t next = 0;  // in `text`, perhaps beyond its end
  for (const std::string_view text : texts) {
    const std::size_t count = PiecesIn(text, bytes);
    for (; next < count; next += step) {
      const std::uint32_t hash = HashOf(text.data() + next, bytes);
      const std::size_t its_weight = (CountUnder(hash) + 1) * weight;
      if (its_weight < best.weight) best = {hash, size, its_weight};
      if (best.weight == weight) return;
    }
    next -= count;
  }
}

// The first pattern of each piece of `text`, each once.
std::vector<std::uint32_t> LiteralIndex::FirstsIn(std::string_view text) const {
  std::vector<std::uint32_t> firsts;
  std::array<std::uint32_t, 64> prefetched;
  std::size_t waiting = 0;
  const auto look_up = [&] {
    for (std::size_t at = 0; at < waiting; ++at) {
      const std::uint32_t first = FirstUnder(prefetched[at]);
      if (first != HashIndex::kNone) firsts.push_back(first);
    }
    waiting = 0;
  };
  for (std::size_t size = 0; size < kSizes.size(); ++size) {
    if (!is_used_[size]) continue;
    const std::size_t bytes = kSizes[size].bytes;
    for (std::size_t piece = 0; piece < PiecesIn(text, bytes); ++piece) {
      prefetched[waiting] = HashOf(text.data() + piece, bytes);
      firsts_.Prefetch(prefetched[waiting]);
      if (++waiting == prefetched.size()) look_up();
    }
  }
  look_up();
  // A piece may come again.
  std::sort(firsts.begin(), firsts.end());
  firsts.erase(std::unique(firsts.begin(), firsts.end()), firsts.end());
  return firsts;
}

}  // namespace trabex

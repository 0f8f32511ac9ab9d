// Different texts, and a number for each.
//
// Made for a million of them while mail goes on: it grows in small parts, and is freed in a few milliseconds, where a
// standard hash map moves or frees all of its nodes in one call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string_view>
#include <vector>

#include "base/key_index.h"

namespace trabex {

class TextCounts {
 public:
  TextCounts() = default;
  TextCounts(TextCounts&&) = default;
  TextCounts& operator=(TextCounts&&) = default;

  // The number of `text`: 0 when it is new. `hash` is one of the text, always the same one. The reference is valid as
  // long as the object.
  std::uint32_t& Of(std::uint64_t hash, std::string_view text);

  // The texts in the order in which they came, from 0.
  std::size_t Size() const { return entries_.size(); }
  std::string_view Text(std::size_t index) const { return entries_[index].text; }
  std::uint32_t Count(std::size_t index) const { return entries_[index].count; }

 private:
  struct Entry {
    std::string_view text;
    std::uint64_t hash;
    std::uint32_t count;
  };

  std::string_view Keep(std::string_view text);

  std::deque<Entry> entries_;
  KeyIndex index_;  // of their numbers
  std::vector<std::unique_ptr<char[]>> blocks_;
  std::size_t room_ = 0;  // bytes that are free at the end of the last block
};

}  // namespace trabex

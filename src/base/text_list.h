// Texts behind one another in one piece of memory, which they keep when they are cleared.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace trabex {

class TextList {
 public:
  void Add(std::string_view text) {
    texts_.append(text);
    ends_.push_back(texts_.size());
  }
  void Clear() {
    texts_.clear();
    ends_.clear();
  }
  std::size_t size() const { return ends_.size(); }
  // `index` is below size(). Valid until one is added, or all are cleared.
  std::string_view operator[](std::size_t index) const {
    const std::size_t begin = index == 0 ? 0 : ends_[index - 1];
    return std::string_view(texts_).substr(begin, ends_[index] - begin);
  }
  // What it has taken, in bytes.
  std::size_t Memory() const { return texts_.capacity() + ends_.capacity() * sizeof(std::size_t); }

 private:
  std::string texts_;
  std::vector<std::size_t> ends_;
};

}  // namespace trabex

// The recipients that the server has accepted in a transaction: the first ones, and how many.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text_list.h"

namespace trabex {

struct AcceptedRecipients {
  // So many are kept; the others are counted.
  static constexpr std::size_t kMaxKept = 10;

  TextList first;
  std::int64_t count = 0;

  void Add(std::string_view mailbox) {
    ++count;
    if (first.size() < kMaxKept) first.Add(mailbox);
  }
};

// Lists that no session has at present, so that a message needs no memory of its own.
class SpareRecipients {
 public:
  // More of them are not kept.
  static constexpr std::size_t kMaxSpare = 64;

  // An empty one.
  std::unique_ptr<AcceptedRecipients> Take() {
    spare_.reserve(kMaxSpare);  // so that GiveBack needs no memory
    if (spare_.empty()) return std::make_unique<AcceptedRecipients>();
    auto list = std::move(spare_.back());
    spare_.pop_back();
    return list;
  }
  void GiveBack(std::unique_ptr<AcceptedRecipients> list) {
    if (spare_.size() >= kMaxSpare) return;
    list->first.Clear();
    list->count = 0;
    spare_.push_back(std::move(list));
  }
  std::size_t Count() const { return spare_.size(); }

 private:
  std::vector<std::unique_ptr<AcceptedRecipients>> spare_;
};

}  // namespace trabex

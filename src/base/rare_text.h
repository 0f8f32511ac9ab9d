// A text that its owner rarely has: without one it takes no more than a pointer.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace trabex {

class RareText {
 public:
  RareText() = default;
  RareText(const RareText& other) { *this = other; }
  RareText(RareText&&) noexcept = default;
  RareText& operator=(const RareText& other) {
    text_ = other.text_ ? std::make_unique<std::string>(*other.text_) : nullptr;
    return *this;
  }
  RareText& operator=(RareText&&) noexcept = default;
  ~RareText() = default;

  void Assign(std::string_view text) { text_ = std::make_unique<std::string>(text); }
  // Gives the text away, which is empty then.
  std::string Take() {
    const auto text = std::move(text_);
    return text ? std::move(*text) : std::string();
  }

 private:
  std::unique_ptr<std::string> text_;
};

}  // namespace trabex

// What a client is told when there is no memory to tell it anything.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "config/configuration.h"

namespace trabex {

// The reply ServerError (RFC 5321 section 3.8) with its line end, made without memory: neither the rules that change
// replies nor the log see it.
class LastWords {
 public:
  explicit LastWords(const Configuration& configuration);

  std::string_view Text() const { return {text_.data(), size_}; }

 private:
  static constexpr std::size_t kMaxReply = 512;  // RFC 5321 section 4.5.3.1.5

  void Append(std::string_view text);

  std::array<char, kMaxReply> text_;
  std::size_t size_ = 0;
};

}  // namespace trabex

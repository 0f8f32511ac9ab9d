#include "base/log.h"

#include <array>
#include <new>
#include <string>

namespace trabex {

namespace {

// Text up to so many bytes, for when there is no memory for it; what is more is left out.
class ShortLine {
 public:
  ShortLine& append(std::string_view text) {
    size_ += text.copy(bytes_.data() + size_, bytes_.size() - size_);
    return *this;
  }
  std::string_view View() const { return {bytes_.data(), size_}; }

 private:
  std::array<char, 512> bytes_;
  std::size_t size_ = 0;
};

// The number fits in every string without memory.
template <class Line>
Line ErrorLine(int number, std::string_view description, std::string_view source) {
  Line line;
  line.append("Error ").append(std::to_string(number)).append(" in ");
  line.append(source).append(". ").append(description);
  return line;
}

}  // namespace

void Log::LogError(int number, std::string_view description, std::string_view source) {
  try {
    LogLine(ErrorLine<std::string>(number, description, source));
  } catch (const std::bad_alloc&) {
    LogLine(ErrorLine<ShortLine>(number, description, source).View());
  }
}

void Log::LogProblem(const Error& error) {
  LogProblem(ErrorLine<std::string>(error.Number(), error.Description(), error.Source()));
}

}  // namespace trabex

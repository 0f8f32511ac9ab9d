#include "script/escapes.h"

#include <charconv>
#include <cstdint>
#include <stdexcept>

namespace trabex::script {

namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";
// What a script may repeat at most; more is a slip of the pen.
constexpr std::size_t kMaxRepeats = 100'000'000;

int HexDigit(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  throw std::invalid_argument("\\x needs two hexadecimal digits");
}

class Decoder {
 public:
  explicit Decoder(std::string_view text) : text_(text) {}

  Decoded Run() {
    while (!text_.empty()) {
      if (text_.front() == '\\') {
        TakeEscape();
      } else if (text_.front() == '{' && TakeRepetition()) {
        continue;
      } else {
        if (text_.front() == '*') result_.stars.push_back(result_.bytes.size());
        Add(text_.front(), 1);
      }
    }
    if (begin_.has_value() != end_.has_value() || (begin_ && *end_ < *begin_)) {
      throw std::invalid_argument("\\< needs its \\>");
    }
    if (begin_) result_.marks.emplace(*begin_, *end_);
    return std::move(result_);
  }

 private:
  void Add(char byte, std::size_t length) {
    result_.bytes += byte;
    text_.remove_prefix(length);
  }

  void TakeEscape() {
    if (text_.size() < 2) throw std::invalid_argument("nothing behind the last \\");
    switch (text_[1]) {
      case 'r':
        return Add('\r', 2);
      case 'n':
        return Add('\n', 2);
      case 't':
        return Add('\t', 2);
      case '0':
        return Add('\0', 2);
      case '\\':
      case '*':
      case '{':
        return Add(text_[1], 2);
      case 'x':
        if (text_.size() < 4) throw std::invalid_argument("\\x needs two hexadecimal digits");
        return Add(static_cast<char>(HexDigit(text_[2]) * 16 + HexDigit(text_[3])), 4);
      case '|':
        result_.segments.push_back(result_.bytes.size());
        break;
      case '<':
        Mark(begin_);
        break;
      case '>':
        Mark(end_);
        break;
      default:
        throw std::invalid_argument(std::string("no such escape: \\") + text_[1]);
    }
    text_.remove_prefix(2);
  }

  void Mark(std::optional<std::size_t>& mark) const {
    if (mark) throw std::invalid_argument("a second \\< or \\>");
    mark = result_.bytes.size();
  }

  // {100*text}; false when the brace is a brace.
  bool TakeRepetition() {
    std::size_t times = 0;
    const auto [star, error] = std::from_chars(text_.data() + 1, text_.data() + text_.size(), times);
    if (error != std::errc() || star == text_.data() + text_.size() || *star != '*') return false;
    const std::size_t begin = static_cast<std::size_t>(star - text_.data()) + 1;
    const std::size_t end = text_.find('}', begin);
    if (end == std::string_view::npos) throw std::invalid_argument("{ needs its }");
    if (times > kMaxRepeats) throw std::invalid_argument("too many repetitions");
    const std::string piece = Unescape(text_.substr(begin, end - begin));
    for (std::size_t i = 0; i < times; ++i) result_.bytes += piece;
    text_.remove_prefix(end + 1);
    return true;
  }

  std::string_view text_;
  Decoded result_;
  std::optional<std::size_t> begin_;
  std::optional<std::size_t> end_;
};

}  // namespace

Decoded Decode(std::string_view text) {
  return Decoder(text).Run();
}

std::string Unescape(std::string_view text) {
  Decoded decoded = Decode(text);
  if (decoded.marks || !decoded.segments.empty()) throw std::invalid_argument("a cut where none can be");
  return std::move(decoded.bytes);
}

std::string Escape(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    const auto value = static_cast<std::uint8_t>(byte);
    if (byte == '\\') {
      text += "\\\\";
    } else if (byte == '\r' || byte == '\n' || byte == '\t') {
      text += byte == '\r' ? "\\r" : byte == '\n' ? "\\n" : "\\t";
    } else if (byte == '\0') {
      text += "\\0";
    } else if (value < 32 || value > 126) {
      text.append("\\x").append(1, kHexDigits[value >> 4]).append(1, kHexDigits[value & 15]);
    } else {
      text += byte;
    }
  }
  return text;
}

}  // namespace trabex::script

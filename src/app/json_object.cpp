#include "app/json_object.h"

#include <charconv>

#include "base/text.h"
#include "base/utf8.h"

namespace trabex {

namespace {

void AppendUtf8(std::string& out, std::uint32_t code) {
  const auto byte = [&out](std::uint32_t value) { out += static_cast<char>(value); };
  if (code < 0x80) {
    byte(code);
  } else if (code < 0x800) {
    byte(0xC0 | code >> 6);
    byte(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    byte(0xE0 | code >> 12);
    byte(0x80 | (code >> 6 & 0x3F));
    byte(0x80 | (code & 0x3F));
  } else {
    byte(0xF0 | code >> 18);
    byte(0x80 | (code >> 12 & 0x3F));
    byte(0x80 | (code >> 6 & 0x3F));
    byte(0x80 | (code & 0x3F));
  }
}

// Each Take gives nothing, or false, where something else stands.
class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  std::optional<JsonObject> Object() {
    JsonObject object;
    if (!Take('{')) return std::nullopt;
    if (!Take('}')) {
      do {
        std::optional<std::string> name = Text();
        if (!name || !Take(':')) return std::nullopt;
        std::optional<JsonValue> value = Value();
        if (!value || !object.Add(std::move(*name), std::move(*value))) return std::nullopt;
      } while (Take(','));
      if (!Take('}')) return std::nullopt;
    }
    SkipBlanks();
    return text_.empty() ? std::optional(std::move(object)) : std::nullopt;
  }

 private:
  void SkipBlanks() {
    while (!text_.empty() && (text_[0] == ' ' || text_[0] == '\t' || text_[0] == '\r'))
      text_.remove_prefix(1);
  }
  bool Take(char c) {
    SkipBlanks();
    if (!text_.starts_with(c)) return false;
    text_.remove_prefix(1);
    return true;
  }
  bool Take(std::string_view word) {
    if (!text_.starts_with(word)) return false;
    text_.remove_prefix(word.size());
    return true;
  }

  std::optional<JsonValue> Value() {
    SkipBlanks();
    JsonValue value;
    if (text_.starts_with('"')) {
      std::optional<std::string> text = Text();
      if (!text) return std::nullopt;
      value.text = std::move(*text);
    } else if (const bool is_true = Take("true"); is_true || Take("false")) {
      value.kind = JsonValue::Kind::kTruth;
      value.truth = is_true;
    } else {
      value.kind = JsonValue::Kind::kNumber;
      const std::string_view digits = text_.substr(text_.starts_with('-') ? 1 : 0);
      const bool zero_first = digits.starts_with('0') && digits.size() > 1 && IsDigit(digits[1]);
      const auto [end, error] = std::from_chars(text_.data(), text_.data() + text_.size(), value.number);
      if (error != std::errc() || zero_first) return std::nullopt;
      text_.remove_prefix(static_cast<std::size_t>(end - text_.data()));
    }
    return value;
  }

  std::optional<std::string> Text() {
    if (!Take('"')) return std::nullopt;
    std::string out;
    while (!text_.empty()) {
      const char c = text_[0];
      if (c == '"') {
        text_.remove_prefix(1);
        return out;
      }
      if (c == '\\') {
        text_.remove_prefix(1);
        if (!Escape(out)) return std::nullopt;
        continue;
      }
      const std::size_t size = FirstUtf8Character(text_).size;
      if (size == 0 || static_cast<unsigned char>(c) < 0x20) return std::nullopt;
      out.append(text_.substr(0, size));
      text_.remove_prefix(size);
    }
    return std::nullopt;
  }

  bool Escape(std::string& out) {
    if (text_.empty()) return false;
    constexpr std::string_view kLetters = "\"\\/bfnrt";
    constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    const char c = text_[0];
    text_.remove_prefix(1);
    const std::size_t found = kLetters.find(c);
    if (found != std::string_view::npos) {
      out += kMeanings[found];
      return true;
    }
    std::optional<std::uint32_t> code = c == 'u' ? Hex4() : std::nullopt;
    if (!code || (*code >= 0xDC00 && *code <= 0xDFFF)) return false;
    if (*code >= 0xD800 && *code <= 0xDBFF) {
      const std::optional<std::uint32_t> low = Take("\\u") ? Hex4() : std::nullopt;
      if (!low || *low < 0xDC00 || *low > 0xDFFF) return false;
      code = 0x10000 + ((*code - 0xD800) << 10) + (*low - 0xDC00);
    }
    AppendUtf8(out, *code);
    return true;
  }

  std::optional<std::uint32_t> Hex4() {
    const std::optional<std::string> bytes = text_.size() < 4 ? std::nullopt : BytesOfHex(text_.substr(0, 4));
    if (!bytes) return std::nullopt;
    text_.remove_prefix(4);
    const auto byte = [&](std::size_t i) {
      return static_cast<std::uint32_t>(static_cast<unsigned char>((*bytes)[i]));
    };
    return byte(0) << 8 | byte(1);
  }

  std::string_view text_;
};

}  // namespace

std::optional<JsonObject> ParseJsonObject(std::string_view line) {
  return Reader(line).Object();
}

std::optional<std::string> BytesOfHex(std::string_view digits) {
  if (digits.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  for (; !digits.empty(); digits.remove_prefix(2)) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + 2, value, 16);
    if (error != std::errc() || end != digits.data() + 2) return std::nullopt;
    bytes += static_cast<char>(value);
  }
  return bytes;
}

}  // namespace trabex

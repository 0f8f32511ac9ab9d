#include "report/json_line.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "base/date_time.h"
#include "base/text.h"
#include "base/utf8.h"

namespace trabex {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr std::string_view kHexDigits = "0123456789abcdef";

constexpr bool IsPlain(char c) {
  return c >= ' ' && c <= '~' && c != '"' && c != '\\';
}

void AppendEscaped(std::string& out, char c) {
  switch (c) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    default:
      break;
  }
  const auto byte = static_cast<unsigned char>(c);
  out += "\\u00";
  out += kHexDigits[byte >> 4];
  out += kHexDigits[byte & 15];
}

template <class Integer>
void AppendNumber(std::string& out, Integer value) {
  std::array<char, 24> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  out.append(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

// With three digits.
void AppendFraction(std::string& out, std::int64_t thousandths) {
  out += '.';
  out += static_cast<char>('0' + thousandths / 100);
  out += static_cast<char>('0' + thousandths / 10 % 10);
  out += static_cast<char>('0' + thousandths % 10);
}

}  // namespace

bool AppendJsonText(std::string& out, std::string_view text) {
  bool well_formed = true;
  while (!text.empty()) {
    const auto other = std::find_if_not(text.begin(), text.end(), IsPlain);
    const auto plain = static_cast<std::size_t>(other - text.begin());
    out.append(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) break;
    const char c = text.front();
    if (static_cast<unsigned char>(c) < 0x80) {
      AppendEscaped(out, c);
      text.remove_prefix(1);
      continue;
    }
    const std::size_t size = FirstUtf8Character(text).size;
    out.append(size == 0 ? kReplacement : text.substr(0, size));
    well_formed = well_formed && size != 0;
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return well_formed;
}

void JsonLine::Name(std::string_view name, std::string_view suffix) {
  if (!first_) out_ += ',';
  first_ = false;
  out_ += '"';
  out_.append(name).append(suffix).append("\":");
}

void JsonLine::Hex(std::string_view bytes) {
  out_ += '"';
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    out_ += kHexDigits[byte >> 4];
    out_ += kHexDigits[byte & 15];
  }
  out_ += '"';
}

void JsonLine::Text(std::string_view name, std::string_view value) {
  Name(name);
  out_ += '"';
  const bool well_formed = AppendJsonText(out_, value);
  out_ += '"';
  if (well_formed) return;
  Name(name, "_hex");
  Hex(value);
}

void JsonLine::Texts(std::string_view name, const std::vector<std::string>& values) {
  Name(name);
  bool well_formed = true;
  char before = '[';
  for (const std::string& value : values) {
    out_.append(1, before).append(1, '"');
    well_formed &= AppendJsonText(out_, value);
    out_ += '"';
    before = ',';
  }
  out_ += values.empty() ? "[]" : "]";
  if (well_formed) return;
  Name(name, "_hex");
  before = '[';
  for (const std::string& value : values) {
    out_ += before;
    Hex(value);
    before = ',';
  }
  out_ += ']';
}

void JsonLine::Number(std::string_view name, std::int64_t value) {
  Name(name);
  AppendNumber(out_, value);
}

void JsonLine::Thousandths(std::string_view name, std::int64_t value) {
  Name(name);
  if (value < 0) out_ += '-';
  const std::int64_t magnitude = value < 0 ? -value : value;
  AppendNumber(out_, magnitude / 1000);
  AppendFraction(out_, magnitude % 1000);
}

void JsonLine::Truth(std::string_view name, bool value) {
  Name(name);
  out_ += value ? "true" : "false";
}

std::string_view JsonTime::Format(std::int64_t milliseconds) {
  const std::int64_t second = milliseconds >= 0 ? milliseconds / 1000 : (milliseconds - 999) / 1000;
  if (second != second_ || text_.empty()) {
    const CalendarTime time = ToCalendar(FromUnix(second, 0));
    text_ = ZeroPadded(time.year, 4) + "-" + ZeroPadded(time.month, 2) + "-" + ZeroPadded(time.day, 2) + "T" +
            ZeroPadded(time.hour, 2) + ":" + ZeroPadded(time.minute, 2) + ":" + ZeroPadded(time.second, 2);
    second_ = second;
  }
  constexpr std::size_t kSeconds = 19;
  text_.resize(std::min(text_.size(), kSeconds));
  AppendFraction(text_, milliseconds - second * 1000);
  text_ += 'Z';
  return text_;
}

}  // namespace trabex
